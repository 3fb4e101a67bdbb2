#pragma once

#include <p11-kit/pkcs11.h>

#include <QList>
#include <QString>

// The token to write to and the template of the object to create. The record owns the value
// buffers of its attributes.
class CreateObjectOperationData
{
public:
    // Takes ownership of the attributes' value buffers when construction succeeds; on a refusal
    // the caller still owns them.
    CreateObjectOperationData(const QString& tokenSerialNumber, const QString& tokenLabel,
                              const QList<CK_ATTRIBUTE>& attributes);
    // Deep copy, with value buffers of its own; refuses a null pointer.
    explicit CreateObjectOperationData(const CreateObjectOperationData* other);
    ~CreateObjectOperationData();

    CreateObjectOperationData(const CreateObjectOperationData&) = delete;
    CreateObjectOperationData& operator=(const CreateObjectOperationData&) = delete;

    const QString& getTokenSerialNumber() const { return tokenSerialNumber; }
    const QString& getTokenLabel() const { return tokenLabel; }
    const QList<CK_ATTRIBUTE>& getAttributes() const { return attributes; }

private:
    QString tokenSerialNumber;
    QString tokenLabel;
    QList<CK_ATTRIBUTE> attributes;
};
