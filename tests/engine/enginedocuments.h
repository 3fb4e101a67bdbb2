#pragma once

// Request documents for the engine's operations and readers for their answer documents.

#include "pkcs11/XmlParser/pkcs11operationdataparser.h"
#include "pkcs11/XmlParser/scrivanamespaces.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"

#include <QMap>
#include <QStringList>
#include <QXmlStreamReader>

#include <memory>

namespace EngineTest {

inline const QString nonce = QStringLiteral("engine-test-nonce-0001");

// The library part and token identification of a request in one version.
struct RequestFrame
{
    bool version2026 = true;
    QString modulePath;
    bool showPinForm = true;
    QString vendorExtensions;
    QString serialNumber;
    QString label;

    QString xmlNamespace() const
    {
        return version2026 ? ScrivaNamespaces::version20260204() : ScrivaNamespaces::version20221229();
    }

    // The whole request; `body` follows the token identification inside the operation element.
    QString document(const QString& operation, const QString& body = {}) const
    {
        QString xml = QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?><ScrivaOperation xmlns=\"%1\">"
                                     "<Nonce>%2</Nonce><Pkcs11Operation><Pkcs11Library><Locations><Location>"
                                     "<Path>%3</Path><Architecture>x64</Architecture></Location></Locations>"
                                     "<Pin1Name>User PIN</Pin1Name><Pin2Name>Signature PIN</Pin2Name>"
                                     "<ShowPinForm>%4</ShowPinForm><AllowManualSelection>false</AllowManualSelection>")
                          .arg(xmlNamespace(), nonce, modulePath.toHtmlEscaped(),
                               QLatin1String(showPinForm ? "true" : "false"));
        if (version2026)
            xml += QStringLiteral("<VendorExtensions>%1</VendorExtensions>").arg(vendorExtensions.toHtmlEscaped());
        xml += QStringLiteral("</Pkcs11Library><%1>").arg(operation);
        if (operation != QLatin1String("GetSlots")) {
            xml += version2026 ? QStringLiteral("<TokenIdentification><SerialNumber>%1</SerialNumber><Label>%2</Label>"
                                                "</TokenIdentification>")
                                     .arg(serialNumber, label.toHtmlEscaped())
                               : QStringLiteral("<TokenSerialNumber>%1</TokenSerialNumber>").arg(serialNumber);
        }
        return xml + body + QStringLiteral("</%1></Pkcs11Operation></ScrivaOperation>").arg(operation);
    }

    template<typename T>
    std::unique_ptr<ScrivaPkcs11OperationData<T>> read(const QString& operation, const QString& body = {}) const
    {
        return std::unique_ptr<ScrivaPkcs11OperationData<T>>(
            ScrivaPkcs11InputXmlParser<T>::parseXml(document(operation, body)));
    }
};

// Attribute list elements of a request.
inline QString ulongAttribute(CK_ATTRIBUTE_TYPE type, CK_ULONG value)
{
    return QStringLiteral("<UnsignedLongAttribute><Attribute>%1</Attribute><Value>%2</Value></UnsignedLongAttribute>")
        .arg(type)
        .arg(value);
}
inline QString boolAttribute(CK_ATTRIBUTE_TYPE type, bool value)
{
    return QStringLiteral("<BoolAttribute><Attribute>%1</Attribute><Value>%2</Value></BoolAttribute>")
        .arg(type)
        .arg(QLatin1String(value ? "true" : "false"));
}
inline QString stringAttribute(CK_ATTRIBUTE_TYPE type, const QString& value)
{
    return QStringLiteral("<StringAttribute><Attribute>%1</Attribute><Value>%2</Value></StringAttribute>")
        .arg(type)
        .arg(value.toHtmlEscaped());
}
inline QString bytesAttribute(CK_ATTRIBUTE_TYPE type, const QByteArray& value)
{
    return QStringLiteral("<ByteArrayAttribute><Attribute>%1</Attribute><Value>%2</Value></ByteArrayAttribute>")
        .arg(type)
        .arg(QString::fromLatin1(value.toHex()));
}

// An answer document read back: every leaf element as "path=text" (path below the root), and
// whether every element is in the expected namespace.
struct Answer
{
    QStringList leaves;
    bool inNamespace = true;
    bool wellFormed = false;

    Answer(const QString& xml, const QString& xmlNamespace)
    {
        QXmlStreamReader reader(xml);
        QStringList path;
        QString text;
        bool hasChildren = false;
        while (!reader.atEnd()) {
            reader.readNext();
            if (reader.isStartElement()) {
                inNamespace &= reader.namespaceUri() == xmlNamespace;
                path.append(reader.name().toString());
                text.clear();
                hasChildren = false;
            } else if (reader.isCharacters()) {
                text += reader.text();
            } else if (reader.isEndElement()) {
                if (!hasChildren)
                    leaves.append(path.mid(1).join(QLatin1Char('/')) + QLatin1Char('=') + text);
                path.removeLast();
                hasChildren = true;
            }
        }
        wellFormed = !reader.hasError();
    }

    // Texts of the leaves whose path ends with `name`, in document order.
    QStringList values(const QString& name) const
    {
        QStringList found;
        for (const QString& leaf : leaves) {
            const qsizetype equals = leaf.indexOf(QLatin1Char('='));
            if (leaf.left(equals).endsWith(name))
                found.append(leaf.mid(equals + 1));
        }
        return found;
    }

    // The leaves of each "Slot", keyed by their path inside it.
    QList<QMap<QString, QString>> slotList() const
    {
        QList<QMap<QString, QString>> result;
        for (const QString& leaf : leaves) {
            const qsizetype at = leaf.indexOf(QLatin1String("Slot/"));
            if (at < 0)
                continue;
            const QString inside = leaf.mid(at + 5);
            if (inside.startsWith(QLatin1String("SlotId=")))
                result.append(QMap<QString, QString>());
            const qsizetype equals = inside.indexOf(QLatin1Char('='));
            result.last().insert(inside.left(equals), inside.mid(equals + 1));
        }
        return result;
    }
};

inline bool validAnswer(const QString& xml, const QString& xmlNamespace)
{
    return Pkcs11OperationDataParser().validate(xml, xmlNamespace);
}

} // namespace EngineTest
