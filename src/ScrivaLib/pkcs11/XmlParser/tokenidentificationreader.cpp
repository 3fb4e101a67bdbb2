#include "tokenidentificationreader.h"

#include <QXmlStreamReader>

bool TokenIdentificationReader::take(QXmlStreamReader* reader)
{
    const QStringView name = reader->name();
    if (reader->isEndElement() && name == QLatin1String("TokenIdentification")) {
        inGroup = false;
        return true;
    }
    if (!reader->isStartElement())
        return false;
    if (name == QLatin1String("TokenSerialNumber")) {
        serialNumber = reader->readElementText();
        return true;
    }
    if (name == QLatin1String("TokenIdentification")) {
        inGroup = true;
        return true;
    }
    // "SerialNumber" and "Label" mean something only inside the group.
    if (inGroup && name == QLatin1String("SerialNumber")) {
        serialNumber = reader->readElementText();
        return true;
    }
    if (inGroup && name == QLatin1String("Label")) {
        label = reader->readElementText();
        return true;
    }
    return false;
}
