#pragma once

// Request documents for the engine's operations, and reading their answer documents.

#include "pkcs11/XmlParser/pkcs11operationdataparser.h"
#include "pkcs11/XmlParser/scrivanamespaces.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"

#include <QRegularExpression>
#include <QStringList>

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

    // The whole request; `body` follows the token identification inside the operation's element.
    template<typename T>
    std::unique_ptr<ScrivaPkcs11OperationData<T>> read(const QString& operation, const QString& body = {}) const
    {
        QString xml = QStringLiteral("<ScrivaOperation xmlns=\"%1\"><Nonce>%2</Nonce><Pkcs11Operation><Pkcs11Library>"
                                     "<Locations><Location><Path>%3</Path><Architecture>x64</Architecture></Location>"
                                     "</Locations><Pin1Name>User PIN</Pin1Name><Pin2Name>Signature PIN</Pin2Name>"
                                     "<ShowPinForm>%4</ShowPinForm><AllowManualSelection>false</AllowManualSelection>")
                          .arg(xmlNamespace(), nonce, modulePath, QLatin1String(showPinForm ? "true" : "false"));
        if (version2026)
            xml += "<VendorExtensions>" + vendorExtensions + "</VendorExtensions>";
        xml += "</Pkcs11Library><" + operation + ">";
        if (operation != QLatin1String("GetSlots"))
            xml += version2026 ? "<TokenIdentification><SerialNumber>" + serialNumber + "</SerialNumber><Label>" + label
                                     + "</Label></TokenIdentification>"
                               : "<TokenSerialNumber>" + serialNumber + "</TokenSerialNumber>";
        xml += body + "</" + operation + "></Pkcs11Operation></ScrivaOperation>";
        return std::unique_ptr<ScrivaPkcs11OperationData<T>>(ScrivaPkcs11InputXmlParser<T>::parseXml(xml));
    }
};

// One element of an attribute list: "Bool", "UnsignedLong", "String" or "ByteArray" (hex value).
inline QString attribute(const char* kind, CK_ATTRIBUTE_TYPE type, const QString& value)
{
    return QStringLiteral("<%1Attribute><Attribute>%2</Attribute><Value>%3</Value></%1Attribute>")
        .arg(QLatin1String(kind))
        .arg(type)
        .arg(value);
}

// Texts of the answer's elements with this name, in document order; an empty element gives "".
// The writer puts no blanks between elements, so text-only elements are matched directly.
inline QStringList values(const QString& xml, const QString& name)
{
    QStringList found;
    const QRegularExpression element(QStringLiteral("<%1(?:/>|>([^<]*)</%1>)").arg(name));
    for (auto matches = element.globalMatch(xml); matches.hasNext();)
        found.append(matches.next().captured(1));
    return found;
}

// The part of the answer that each "Slot" element takes.
inline QStringList slotParts(const QString& xml)
{
    return xml.split(QStringLiteral("<Slot>")).mid(1);
}

inline bool validAnswer(const QString& xml, const QString& xmlNamespace)
{
    return Pkcs11OperationDataParser().validate(xml, xmlNamespace);
}

} // namespace EngineTest
