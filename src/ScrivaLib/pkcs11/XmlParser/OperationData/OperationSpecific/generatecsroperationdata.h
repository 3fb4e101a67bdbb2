#pragma once

#include "csrtype.h"
#include "pkcs11/XmlParser/ckattributelist.h"

#include <p11-kit/pkcs11.h>

#include <QList>
#include <QString>

// Everything needed to generate a key pair on a token and build a signed certificate request for
// it. The record owns the value buffers of both key templates.
class GenerateCsrOperationData
{
public:
    // The signing mechanism precedes the digest mechanism here although the request lists the
    // digest first.
    GenerateCsrOperationData(const QString& tokenSerialNumber, const QString& tokenLabel,
                             CK_MECHANISM_TYPE generateKeyPairMechanism, CK_MECHANISM_TYPE csrSigningMechanism,
                             CK_MECHANISM_TYPE csrDigestMechanism, CsrType csrType, const QString& csrSubject,
                             const QString& enrollmentCspProvider, CkAttributeList publicKeyAttributes,
                             CkAttributeList privateKeyAttributes, bool kovData);
    // Deep copy, with value buffers of its own; refuses a null pointer.
    explicit GenerateCsrOperationData(const GenerateCsrOperationData* other);

    GenerateCsrOperationData(const GenerateCsrOperationData&) = delete;
    GenerateCsrOperationData& operator=(const GenerateCsrOperationData&) = delete;

    const QString& getTokenSerialNumber() const { return tokenSerialNumber; }
    const QString& getTokenLabel() const { return tokenLabel; }
    CK_MECHANISM_TYPE getGenerateKeyPairMechanism() const { return generateKeyPairMechanism; }
    CK_MECHANISM_TYPE getCsrSigningMechanism() const { return csrSigningMechanism; }
    CK_MECHANISM_TYPE getCsrDigestMechanism() const { return csrDigestMechanism; }
    CsrType getCsrType() const { return csrType; }
    // Hexadecimal text of the DER subject name, as the request gave it.
    const QString& getCsrSubject() const { return csrSubject; }
    const QString& getEnrollmentCspProvider() const { return enrollmentCspProvider; }
    const QList<CK_ATTRIBUTE>& getPublicKeyAttributes() const { return publicKeyAttributes.attributes(); }
    const QList<CK_ATTRIBUTE>& getPrivateKeyAttributes() const { return privateKeyAttributes.attributes(); }
    bool getKovData() const { return kovData; }

private:
    QString tokenSerialNumber;
    QString tokenLabel;
    CK_MECHANISM_TYPE generateKeyPairMechanism = 0;
    CK_MECHANISM_TYPE csrSigningMechanism = 0;
    CK_MECHANISM_TYPE csrDigestMechanism = 0;
    CsrType csrType = CsrType::PKCS10;
    QString csrSubject;
    QString enrollmentCspProvider;
    CkAttributeList publicKeyAttributes;
    CkAttributeList privateKeyAttributes;
    bool kovData = false;
};
