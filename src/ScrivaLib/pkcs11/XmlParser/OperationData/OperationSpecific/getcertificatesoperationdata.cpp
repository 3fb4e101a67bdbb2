#include "getcertificatesoperationdata.h"

#include "appexception.h"

GetCertificatesOperationData::GetCertificatesOperationData(const QString& tokenSerialNumber,
                                                           const QString& tokenLabel)
    : tokenSerialNumber(tokenSerialNumber), tokenLabel(tokenLabel)
{
    if (tokenSerialNumber.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("Token serial number is null or empty!"));
}

GetCertificatesOperationData::GetCertificatesOperationData(const GetCertificatesOperationData* other)
{
    if (!other)
        throw APP_EXCEPTION(QStringLiteral("Other is NULL!"));
    tokenSerialNumber = other->tokenSerialNumber;
    tokenLabel = other->tokenLabel;
}
