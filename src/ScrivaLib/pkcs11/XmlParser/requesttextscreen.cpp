#include "requesttextscreen.h"

#include <QtDebug>

bool RequestTextScreen::admits(const QString& xml)
{
    if (xml.contains(QLatin1String("<!DOCTYPE"))) {
        qWarning("A document type declaration is not accepted in a request!");
        return false;
    }
    int attributes = 0;
    qsizetype position = xml.indexOf(QLatin1Char('<'));
    while (position >= 0) {
        attributes += attributesAt(xml, position);
        if (attributes > maxAttributes) {
            qWarning("Request carries more than %d XML attributes!", maxAttributes);
            return false;
        }
        position = xml.indexOf(QLatin1Char('<'), position + 1);
    }
    return true;
}

int RequestTextScreen::attributesAt(const QString& xml, qsizetype& open)
{
    // End tags, comments, CDATA and processing instructions carry no attributes; a '<' in them
    // starts a count of its own.
    const QStringView next = QStringView(xml).mid(open + 1, 1);
    if (next == u"/" || next == u"!" || next == u"?")
        return 0;
    int count = 0;
    QChar quote;
    for (qsizetype i = open + 1; i < xml.size(); ++i) {
        const QChar c = xml.at(i);
        if (c == QLatin1Char('<')) {
            open = i - 1; // the caller counts this one next
            return count;
        }
        if (!quote.isNull()) {
            if (c == quote)
                quote = QChar();
        } else if (c == QLatin1Char('"') || c == QLatin1Char('\'')) {
            quote = c;
        } else if (c == QLatin1Char('=')) {
            ++count;
        } else if (c == QLatin1Char('>')) {
            open = i;
            return count;
        }
    }
    open = xml.size();
    return count;
}
