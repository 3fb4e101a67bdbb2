#include "pkcs11operationdataparser.h"

#include "ckattributelist.h"
#include "loghandler.h"
#include "scrivanamespaces.h"
#include "tokenidentificationreader.h"
#include "xmlschemavalidator.h"
#include "OperationData/location.h"
#include "OperationData/pkcs11librarydata.h"
#include "OperationData/OperationSpecific/createobjectoperationdata.h"
#include "OperationData/OperationSpecific/generatecsroperationdata.h"
#include "OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "OperationData/OperationSpecific/getslotsoperationdata.h"

#include <QXmlStreamReader>
#include <QtDebug>

#include <optional>
#include <utility>

namespace {

bool isNamed(const QXmlStreamReader* reader, const char* name)
{
    return reader->name() == QLatin1String(name);
}

bool isEndOf(const QXmlStreamReader* reader, const char* name)
{
    return reader->isEndElement() && isNamed(reader, name);
}

bool isAttributeElement(const QXmlStreamReader* reader)
{
    return isNamed(reader, "BoolAttribute") || isNamed(reader, "StringAttribute")
           || isNamed(reader, "UnsignedLongAttribute") || isNamed(reader, "ByteArrayAttribute")
           || isNamed(reader, "DateTimeAttribute");
}

// Mechanisms and attribute types are read without an error check: text that is no number gives 0.
CK_ULONG readUnsignedLong(QXmlStreamReader* reader)
{
    return CK_ULONG(reader->readElementText().toULong(nullptr, 10));
}

// The checks every reading routine makes before it reads. Older routines spell the null pointer
// "NULL", newer ones "nullptr"; the log keeps each routine's own spelling.
template<typename T>
bool outputUsable(const QXmlStreamReader* reader, T** output, const char* null)
{
    if (!reader) {
        qWarning("QXmlStreamReader is %s!", null);
        return false;
    }
    if (!output) {
        qWarning("Output pointer to pointer is %s!", null);
        return false;
    }
    if (*output) {
        qWarning("Dereferenced output pointer to pointer is not %s!", null);
        return false;
    }
    return true;
}

} // namespace

QString Pkcs11OperationDataParser::schemaResourcePath(const QString& xmlNamespace)
{
    if (xmlNamespace == ScrivaNamespaces::version20221229())
        return QStringLiteral(":/Schemas/ScrivaOperation-2022-12-29.xsd");
    if (xmlNamespace == ScrivaNamespaces::version20260204())
        return QStringLiteral(":/Schemas/ScrivaOperation-2026-02-04.xsd");
    return QString();
}

bool Pkcs11OperationDataParser::validate(const QString& xml, const QString& xmlNamespace) const
{
    qDebug().noquote() << Q_FUNC_INFO;
    qInfo("Validation of input XML started");
    if (xml.isEmpty()) {
        qWarning("XML is null or empty!");
        return false;
    }
    if (xmlNamespace.isEmpty()) {
        qWarning("XML namespace is null or empty!");
        return false;
    }
    const QString resourcePath = schemaResourcePath(xmlNamespace);
    if (resourcePath.isEmpty()) {
        qWarning("Unable to find XSD schema for provided XML namespace!");
        return false;
    }

    return XmlSchemaValidator::validate(xml, resourcePath);
}

void Pkcs11OperationDataParser::xmlValidationErrorHandler(void* userData, XmlErrorPointer error)
{
    Q_UNUSED(userData);
    if (!error || !error->message)
        return;
    // libxml2 quotes request text in its messages.
    qWarning().noquote() << LogHandler::escaped(QString::fromUtf8(error->message).trimmed());
}

bool Pkcs11OperationDataParser::parseLibraryData(QXmlStreamReader* reader, Pkcs11LibraryData** libraryData) const
{
    qDebug().noquote() << Q_FUNC_INFO;
    if (!outputUsable(reader, libraryData, "nullptr"))
        return false;

    QList<Location> locations;
    QString pin1Name;
    QString pin2Name;
    QString vendorExtensions;
    std::optional<bool> showPinForm;
    std::optional<bool> allowManualSelection;

    while (!reader->atEnd()) {
        reader->readNext();
        if (isEndOf(reader, "Pkcs11Library"))
            break;
        if (!reader->isStartElement())
            continue;
        if (isNamed(reader, "Locations"))
            continue;
        if (isNamed(reader, "Location")) {
            Location location;
            if (!parseLocation(reader, &location)) {
                qWarning("Unable to parse library Location!");
                return false;
            }
            locations.append(location);
        } else if (isNamed(reader, "Pin1Name")) {
            pin1Name = reader->readElementText();
        } else if (isNamed(reader, "Pin2Name")) {
            pin2Name = reader->readElementText();
        } else if (isNamed(reader, "ShowPinForm")) {
            // Only the exact text "true" counts; "1" and "TRUE" read as false.
            showPinForm = reader->readElementText() == QLatin1String("true");
        } else if (isNamed(reader, "AllowManualSelection")) {
            allowManualSelection = reader->readElementText() == QLatin1String("true");
        } else if (isNamed(reader, "VendorExtensions")) {
            vendorExtensions = reader->readElementText();
        } else {
            qWarning("Unexpected element!");
            return false;
        }
    }

    if (pin1Name.isEmpty()) {
        qWarning("Pin1Name is null or empty!");
        return false;
    }
    if (pin2Name.isEmpty()) {
        qWarning("Pin2Name is null or empty!");
        return false;
    }
    if (locations.isEmpty()) {
        qWarning("No library location parsed!");
        return false;
    }
    if (!allowManualSelection) {
        qWarning("AllowManualSelection was not parsed!");
        return false;
    }
    if (!showPinForm) {
        qWarning("ShowPinFormParsed was not parsed!");
        return false;
    }
    // The checks above are all the record's own, so its constructor does not raise here.
    *libraryData = new Pkcs11LibraryData(locations, pin1Name, pin2Name, *showPinForm, *allowManualSelection,
                                         vendorExtensions);
    return true;
}

bool Pkcs11OperationDataParser::parseLocation(QXmlStreamReader* reader, Location* location) const
{
    qDebug().noquote() << Q_FUNC_INFO;
    if (!reader) {
        qWarning("QXmlStreamReader is NULL!");
        return false;
    }
    if (!location) {
        qWarning("Location output parameter is NULL!");
        return false;
    }

    QString path;
    std::optional<Location::Architecture> architecture;
    while (!reader->atEnd()) {
        reader->readNext();
        if (isEndOf(reader, "Location"))
            break;
        if (!reader->isStartElement())
            continue;
        if (isNamed(reader, "Path")) {
            path = reader->readElementText();
        } else if (isNamed(reader, "Architecture")) {
            const QString text = reader->readElementText();
            if (text == QLatin1String("x86"))
                architecture = Location::Architecture::x86;
            else if (text == QLatin1String("x64"))
                architecture = Location::Architecture::x64;
            else if (text == QLatin1String("both"))
                architecture = Location::Architecture::both;
        } else {
            qWarning("Unexpected element!");
            return false;
        }
    }

    if (!architecture) {
        qWarning("Library Architecture was not parsed!");
        return false;
    }
    if (path.isEmpty()) {
        qWarning("Location path is null or empty!");
        return false;
    }
    *location = Location(path, *architecture);
    return true;
}

bool Pkcs11OperationDataParser::parseOperationData(QXmlStreamReader* reader,
                                                   GetSlotsOperationData** operationData) const
{
    qDebug().noquote() << Q_FUNC_INFO;
    if (!outputUsable(reader, operationData, "NULL"))
        return false;
    while (!reader->atEnd()) {
        reader->readNext();
        if (isEndOf(reader, "GetSlots"))
            break;
        if (reader->isStartElement()) {
            qWarning("Unexpected element!");
            return false;
        }
    }
    *operationData = new GetSlotsOperationData();
    return true;
}

bool Pkcs11OperationDataParser::parseOperationData(QXmlStreamReader* reader,
                                                   GetCertificatesOperationData** operationData) const
{
    qDebug().noquote() << Q_FUNC_INFO;
    if (!outputUsable(reader, operationData, "NULL"))
        return false;

    TokenIdentificationReader token;
    while (!reader->atEnd()) {
        reader->readNext();
        if (isEndOf(reader, "GetCertificates"))
            break;
        if (token.take(reader) || !reader->isStartElement())
            continue;
        qWarning("Unexpected element!");
        return false;
    }

    // The schema lets a 2026-02-04 request leave the serial number empty; the token is still
    // found by its serial number, so one is required.
    if (token.getSerialNumber().isEmpty()) {
        qWarning("Token serial number is null or empty!");
        return false;
    }
    *operationData = new GetCertificatesOperationData(token.getSerialNumber(), token.getLabel());
    return true;
}

bool Pkcs11OperationDataParser::parseOperationData(QXmlStreamReader* reader,
                                                   CreateObjectOperationData** operationData) const
{
    qDebug().noquote() << Q_FUNC_INFO;
    if (!outputUsable(reader, operationData, "nullptr"))
        return false;

    TokenIdentificationReader token;
    CkAttributeList attributes;
    while (!reader->atEnd()) {
        reader->readNext();
        if (isEndOf(reader, "CreateObject"))
            break;
        if (token.take(reader) || !reader->isStartElement() || isNamed(reader, "ObjectAttributes"))
            continue;
        if (!isAttributeElement(reader)) {
            qWarning("Unexpected element!");
            return false;
        }
        CK_ATTRIBUTE attribute{};
        if (!parseAttribute(reader, &attribute, reader->name().toString())) {
            qWarning("Unable to parse a CK_ATTRIBUTE!");
            return false;
        }
        attributes.append(attribute);
    }

    if (token.getSerialNumber().isEmpty()) {
        qWarning("Token serial number is null or empty!");
        return false;
    }
    if (attributes.isEmpty()) {
        qWarning("No object attribute was parsed!");
        return false;
    }
    *operationData = new CreateObjectOperationData(token.getSerialNumber(), token.getLabel(), std::move(attributes));
    return true;
}

bool Pkcs11OperationDataParser::parseOperationData(QXmlStreamReader* reader,
                                                   GenerateCsrOperationData** operationData) const
{
    qDebug().noquote() << Q_FUNC_INFO;
    if (!outputUsable(reader, operationData, "nullptr"))
        return false;

    TokenIdentificationReader token;
    CkAttributeList publicKeyAttributes;
    CkAttributeList privateKeyAttributes;
    CkAttributeList* currentTemplate = nullptr;
    // Holds an attribute that came before any template until it is refused.
    CkAttributeList stray;
    QString csrSubject;
    QString enrollmentCspProvider;
    std::optional<CK_MECHANISM_TYPE> generateKeyPairMechanism;
    std::optional<CK_MECHANISM_TYPE> csrDigestMechanism;
    std::optional<CK_MECHANISM_TYPE> csrSigningMechanism;
    bool csrTypeParsed = false;
    bool kovData = false;

    while (!reader->atEnd()) {
        reader->readNext();
        if (isEndOf(reader, "GenerateCsr"))
            break;
        if (token.take(reader) || !reader->isStartElement())
            continue;
        if (isNamed(reader, "GenerateKeyPairMechanism")) {
            generateKeyPairMechanism = readUnsignedLong(reader);
        } else if (isNamed(reader, "PublicKeyAttributes")) {
            currentTemplate = &publicKeyAttributes;
        } else if (isNamed(reader, "PrivateKeyAttributes")) {
            currentTemplate = &privateKeyAttributes;
        } else if (isAttributeElement(reader)) {
            CK_ATTRIBUTE attribute{};
            if (!parseAttribute(reader, &attribute, reader->name().toString())) {
                qWarning("Unable to parse a CK_ATTRIBUTE!");
                return false;
            }
            (currentTemplate ? *currentTemplate : stray).append(attribute);
            if (!currentTemplate) {
                qWarning("Key type was not specified for this CK_ATTRIBUTE!");
                return false;
            }
        } else if (isNamed(reader, "CsrType")) {
            // PKCS#10 is the only kind there is; the text itself is not needed.
            reader->readElementText();
            csrTypeParsed = true;
        } else if (isNamed(reader, "CsrSubject")) {
            csrSubject = reader->readElementText();
        } else if (isNamed(reader, "CsrAttributes")) {
            continue;
        } else if (isNamed(reader, "KovData")) {
            // Only its presence matters; whatever it holds is skipped.
            kovData = true;
            reader->skipCurrentElement();
        } else if (isNamed(reader, "EnrollmentCspProvider")) {
            enrollmentCspProvider = reader->readElementText();
        } else if (isNamed(reader, "CsrDigestMechanism")) {
            csrDigestMechanism = readUnsignedLong(reader);
        } else if (isNamed(reader, "CsrSigningMechanism")) {
            csrSigningMechanism = readUnsignedLong(reader);
        } else {
            qWarning("Unexpected element!");
            return false;
        }
    }

    // One text for either empty template, as the system has always reported it.
    if (publicKeyAttributes.isEmpty() || privateKeyAttributes.isEmpty()) {
        qWarning("No private key attribute was parsed!");
        return false;
    }
    if (token.getSerialNumber().isEmpty()) {
        qWarning("Token serial number is null or empty!");
        return false;
    }
    if (csrSubject.isEmpty()) {
        qWarning("CsrSubject is null or empty!");
        return false;
    }
    if (enrollmentCspProvider.isEmpty()) {
        qWarning("EnrollmentCspProvider is null or empty!");
        return false;
    }
    if (!csrTypeParsed) {
        qWarning("CsrType was not parsed!");
        return false;
    }
    if (!generateKeyPairMechanism) {
        qWarning("GenerateKeyPairMechanism was not parsed!");
        return false;
    }
    if (!csrDigestMechanism) {
        qWarning("CsrDigestMechanism was not parsed!");
        return false;
    }
    if (!csrSigningMechanism) {
        qWarning("CsrSigningMechanism was not parsed!");
        return false;
    }
    *operationData = new GenerateCsrOperationData(token.getSerialNumber(), token.getLabel(), *generateKeyPairMechanism,
                                                  *csrSigningMechanism, *csrDigestMechanism, CsrType::PKCS10, csrSubject,
                                                  enrollmentCspProvider, std::move(publicKeyAttributes),
                                                  std::move(privateKeyAttributes), kovData);
    return true;
}

bool Pkcs11OperationDataParser::parseAttribute(QXmlStreamReader* reader, CK_ATTRIBUTE* attribute,
                                               const QString& parentElementName) const
{
    qDebug().noquote() << Q_FUNC_INFO;
    if (!reader) {
        qWarning("QXmlStreamReader is nullptr!");
        return false;
    }
    if (!attribute) {
        qWarning("CK_ATTRIBUTE output parameter is nullptr!");
        return false;
    }
    if (parentElementName.isEmpty()) {
        qWarning("Parent element name is null or empty. Unable to determine the CK_ATTRIBUTE type!");
        return false;
    }

    std::optional<CK_ATTRIBUTE_TYPE> type;
    QString value;
    while (!reader->atEnd()) {
        reader->readNext();
        if (reader->isEndElement() && reader->name() == parentElementName)
            break;
        if (!reader->isStartElement())
            continue;
        if (isNamed(reader, "Attribute")) {
            type = readUnsignedLong(reader);
        } else if (isNamed(reader, "Value")) {
            value = reader->readElementText();
        } else {
            qWarning("Unexpected element!");
            return false;
        }
    }

    if (!type) {
        qWarning("Attribute type was not parsed!");
        return false;
    }
    if (value.isEmpty()) {
        qWarning("AttributeValue is null or empty!");
        return false;
    }

    bool converted = false;
    if (parentElementName == QLatin1String("BoolAttribute")) {
        converted = attributeParser.getAttributeBoolean(*type, value, attribute);
    } else if (parentElementName == QLatin1String("StringAttribute")) {
        converted = attributeParser.getAttributeString(*type, value, attribute);
    } else if (parentElementName == QLatin1String("UnsignedLongAttribute")) {
        converted = attributeParser.getAttributeUnsignedLong(*type, value, attribute);
    } else if (parentElementName == QLatin1String("ByteArrayAttribute")) {
        converted = attributeParser.getAttributeHexByteArray(*type, value, attribute);
    } else if (parentElementName == QLatin1String("DateTimeAttribute")) {
        converted = attributeParser.getAttributeDate(*type, value, attribute);
    } else {
        qWarning("Parent element name has an invalid value. Unable to determine the CK_ATTRIBUTE type!");
        return false;
    }
    if (!converted) {
        qWarning().noquote() << QStringLiteral("Unable to create CK_ATTRIBUTE from ") + parentElementName;
        return false;
    }
    return true;
}
