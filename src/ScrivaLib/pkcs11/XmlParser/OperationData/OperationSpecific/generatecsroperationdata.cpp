#include "generatecsroperationdata.h"

#include "appexception.h"

#include <utility>

GenerateCsrOperationData::GenerateCsrOperationData(
    const QString& tokenSerialNumber, const QString& tokenLabel, CK_MECHANISM_TYPE generateKeyPairMechanism,
    CK_MECHANISM_TYPE csrSigningMechanism, CK_MECHANISM_TYPE csrDigestMechanism, CsrType csrType,
    const QString& csrSubject, const QString& enrollmentCspProvider, CkAttributeList publicKeyAttributes,
    CkAttributeList privateKeyAttributes, bool kovData)
    : tokenSerialNumber(tokenSerialNumber),
      tokenLabel(tokenLabel),
      generateKeyPairMechanism(generateKeyPairMechanism),
      csrSigningMechanism(csrSigningMechanism),
      csrDigestMechanism(csrDigestMechanism),
      csrType(csrType),
      csrSubject(csrSubject),
      enrollmentCspProvider(enrollmentCspProvider),
      kovData(kovData)
{
    // One text for five different faults is what the system has always reported.
    const QString refusal = QStringLiteral("No CK_ATTRIBUTE provided!");
    if (publicKeyAttributes.isEmpty())
        throw APP_EXCEPTION(refusal);
    if (privateKeyAttributes.isEmpty())
        throw APP_EXCEPTION(refusal);
    if (tokenSerialNumber.isEmpty())
        throw APP_EXCEPTION(refusal);
    if (csrSubject.isEmpty())
        throw APP_EXCEPTION(refusal);
    if (enrollmentCspProvider.isEmpty())
        throw APP_EXCEPTION(refusal);
    this->publicKeyAttributes = std::move(publicKeyAttributes);
    this->privateKeyAttributes = std::move(privateKeyAttributes);
}

GenerateCsrOperationData::GenerateCsrOperationData(const GenerateCsrOperationData* other)
{
    if (!other)
        throw APP_EXCEPTION(QStringLiteral("Other is null!"));
    tokenSerialNumber = other->tokenSerialNumber;
    tokenLabel = other->tokenLabel;
    generateKeyPairMechanism = other->generateKeyPairMechanism;
    csrSigningMechanism = other->csrSigningMechanism;
    csrDigestMechanism = other->csrDigestMechanism;
    // csrType keeps its only value, PKCS10.
    csrSubject = other->csrSubject;
    enrollmentCspProvider = other->enrollmentCspProvider;
    publicKeyAttributes = other->publicKeyAttributes.clone();
    privateKeyAttributes = other->privateKeyAttributes.clone();
    kovData = other->kovData;
}
