#pragma once

#include <QString>

class QXmlStreamReader;

// Collects the token an operation addresses while its group is read: "TokenSerialNumber" of
// 2022-12-29 requests, or the "TokenIdentification" group with "SerialNumber" and "Label" of
// 2026-02-04 requests.
class TokenIdentificationReader
{
public:
    // True when the reader's current token belongs to the token identification and was taken.
    bool take(QXmlStreamReader* reader);

    const QString& getSerialNumber() const { return serialNumber; }
    const QString& getLabel() const { return label; }

private:
    QString serialNumber;
    QString label;
    bool inGroup = false;
};
