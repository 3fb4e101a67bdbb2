#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QList>
#include <QSsl>
#include <QSslCertificate>
#include <QString>

#include <memory>

typedef struct x509_st X509;
typedef struct asn1_object_st ASN1_OBJECT;

// The program's certificate value type: a QSslCertificate plus the checks the server-trust
// path needs, done with OpenSSL.
class X509Certificate2Ultra : public QSslCertificate
{
    Q_DECLARE_TR_FUNCTIONS(X509Certificate2Ultra)

public:
    X509Certificate2Ultra() = default;
    explicit X509Certificate2Ultra(const QSslCertificate& other);
    // Copies the certificate; the caller keeps ownership of `certificate`.
    explicit X509Certificate2Ultra(X509* certificate);
    X509Certificate2Ultra(const QByteArray& data, QSsl::EncodingFormat format);

    // A new OpenSSL copy of the certificate that the caller frees; null on failure.
    X509* toX509() const;

    // The numeric dotted text of an OID, never its name.
    static QString readOid(ASN1_OBJECT* object);

    // Path validation at the current time with the chain's first element as the only trusted
    // certificate and the further elements offered as intermediates. Throws "IssuerInvalid"
    // when no valid path exists.
    void verifyIssuer(const QList<X509Certificate2Ultra>& chain) const;

    // Requires `oid` among the policies of the Certificate Policies extension; throws
    // "ResponseCertPolicyMissing" when the extension lists other policies only.
    void verifyCustomPolicy(const QString& oid) const;

    // True when the current UTC time lies strictly inside the validity period.
    bool isValidByTime() const;

    // The PEM text, empty for a null certificate.
    QString toString() const;

    bool operator==(const X509Certificate2Ultra& other) const;
    bool operator!=(const X509Certificate2Ultra& other) const { return !(*this == other); }

private:
    // OpenSSL's decoding of a certificate is costly, so it is done once and shared by copies.
    struct Decoded;
    std::shared_ptr<Decoded> decoded;
};
