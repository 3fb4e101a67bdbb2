#include "createobjectoperationdata.h"

#include "appexception.h"
#include "pkcs11/XmlParser/ckattributeparser.h"

CreateObjectOperationData::CreateObjectOperationData(const QString& tokenSerialNumber, const QString& tokenLabel,
                                                     const QList<CK_ATTRIBUTE>& attributes)
    : tokenSerialNumber(tokenSerialNumber), tokenLabel(tokenLabel)
{
    if (attributes.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("No CK_ATTRIBUTE provided!"));
    if (tokenSerialNumber.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("TokenSerialNumber is null or empty!"));
    // Adopted only now: nothing above may leave the caller's buffers with two owners.
    this->attributes = attributes;
}

CreateObjectOperationData::CreateObjectOperationData(const CreateObjectOperationData* other)
{
    if (!other)
        throw APP_EXCEPTION(QStringLiteral("Other is NULL!"));
    tokenSerialNumber = other->tokenSerialNumber;
    tokenLabel = other->tokenLabel;
    attributes = CkAttributeParser::copyAttributes(other->attributes);
}

CreateObjectOperationData::~CreateObjectOperationData()
{
    CkAttributeParser::freeAttributeValues(attributes);
}
