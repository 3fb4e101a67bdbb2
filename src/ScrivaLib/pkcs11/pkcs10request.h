#pragma once

#include "ownedresource.h"

#include <QByteArray>
#include <QString>

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <p11-kit/pkcs11.h>

// Builds a PKCS#10 certification request around an RSA key pair that lives on a token. The
// private key never leaves the token: the builder hands out the DER of the
// CertificationRequestInfo, the caller has it digested and signed on the token, and the
// signature comes back through setSignature. Each part can be set once; nothing set is replaced.
// Every failure throws AppException with "GeneralExceptionMessage" and a detail text.
class Pkcs10Request
{
public:
    Pkcs10Request();
    ~Pkcs10Request();
    Pkcs10Request(const Pkcs10Request&) = delete;
    Pkcs10Request& operator=(const Pkcs10Request&) = delete;

    // Modulus and public exponent as big-endian unsigned integers, as the token reports them.
    void setRsaPublicKey(const QByteArray& modulus, const QByteArray& exponent);
    // Hexadecimal text of a DER-encoded X.509 Name.
    void setSubject(const QString& subjectHex);
    // The data must be one complete DER element; it becomes the attribute's single value as is.
    void setKovDataAttibute(const QByteArray& data);
    // SEQUENCE { INTEGER 1, BMPString providerName, BIT STRING (empty) } as the attribute value.
    void setEnrollmentCspProviderAttribute(const QString& providerName);

    // Builds the request and returns the DER of its CertificationRequestInfo: the bytes to sign.
    QByteArray getDerEncodedCertificationRequestInfo();
    // The PKCS#1 v1.5 DigestInfo around a hash made with CKM_SHA_1, CKM_SHA256, CKM_SHA384 or
    // CKM_SHA512, ready for signing with CKM_RSA_PKCS; other digests throw "AlgorithmNotSupported".
    static QByteArray createPkcs1DigestInfo(const QByteArray& hash, CK_MECHANISM_TYPE digestMechanism);
    // The raw RSA signature over the DigestInfo of the request info.
    void setSignature(const QByteArray& signature, unsigned long digestMechanism, unsigned long signingMechanism);
    // The finished request as PEM ("-----BEGIN CERTIFICATE REQUEST-----").
    QByteArray getPemEncodedRequest() const;

    static constexpr const char* kovDataOid = "1.2.203.7064.1.1.12.20180406";
    static constexpr const char* enrollmentCspProviderOid = "1.3.6.1.4.1.311.13.2.2";

private:
    static Owned<X509_ATTRIBUTE, X509_ATTRIBUTE_free> createAttribute(const char* oid, const QByteArray& derValue,
                                                                     const QString& attributeName);

    Owned<EVP_PKEY, EVP_PKEY_free> publicKey;
    Owned<X509_NAME, X509_NAME_free> subject;
    Owned<X509_ATTRIBUTE, X509_ATTRIBUTE_free> kovDataAttribute;
    Owned<X509_ATTRIBUTE, X509_ATTRIBUTE_free> enrollmentCspProviderAttribute;
    Owned<X509_REQ, X509_REQ_free> request;
};
