#pragma once

#include "pkcs11/XmlParser/ckattributelist.h"

#include <p11-kit/pkcs11.h>

#include <QList>
#include <QString>

// The token to write to and the template of the object to create, whose value buffers the record
// owns.
class CreateObjectOperationData
{
public:
    CreateObjectOperationData(const QString& tokenSerialNumber, const QString& tokenLabel,
                              CkAttributeList attributes);
    // Deep copy, with value buffers of its own; refuses a null pointer.
    explicit CreateObjectOperationData(const CreateObjectOperationData* other);

    CreateObjectOperationData(const CreateObjectOperationData&) = delete;
    CreateObjectOperationData& operator=(const CreateObjectOperationData&) = delete;

    const QString& getTokenSerialNumber() const { return tokenSerialNumber; }
    const QString& getTokenLabel() const { return tokenLabel; }
    const QList<CK_ATTRIBUTE>& getAttributes() const { return attributes.attributes(); }

private:
    QString tokenSerialNumber;
    QString tokenLabel;
    CkAttributeList attributes;
};
