#include "createobjectoperationdata.h"

#include "appexception.h"

#include <utility>

CreateObjectOperationData::CreateObjectOperationData(const QString& tokenSerialNumber, const QString& tokenLabel,
                                                     CkAttributeList attributes)
    : tokenSerialNumber(tokenSerialNumber), tokenLabel(tokenLabel)
{
    if (attributes.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("No CK_ATTRIBUTE provided!"));
    if (tokenSerialNumber.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("TokenSerialNumber is null or empty!"));
    this->attributes = std::move(attributes);
}

CreateObjectOperationData::CreateObjectOperationData(const CreateObjectOperationData* other)
{
    if (!other)
        throw APP_EXCEPTION(QStringLiteral("Other is NULL!"));
    tokenSerialNumber = other->tokenSerialNumber;
    tokenLabel = other->tokenLabel;
    attributes = other->attributes.clone();
}
