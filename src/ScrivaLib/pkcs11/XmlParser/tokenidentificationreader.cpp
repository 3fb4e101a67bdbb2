#include "tokenidentificationreader.h"

#include <QXmlStreamReader>

bool TokenIdentificationReader::take(QXmlStreamReader* reader)
{
    // An element's own text is read up to its end tag, so of these names only the group's end tag
    // is ever met outside a start tag. "SerialNumber" and "Label" mean something only inside the group.
    const QStringView name = reader->name();
    if (name == QLatin1String("TokenIdentification"))
        inGroup = reader->isStartElement();
    else if (name == QLatin1String("TokenSerialNumber") || (inGroup && name == QLatin1String("SerialNumber")))
        serialNumber = reader->readElementText();
    else if (inGroup && name == QLatin1String("Label"))
        label = reader->readElementText();
    else
        return false;
    return true;
}
