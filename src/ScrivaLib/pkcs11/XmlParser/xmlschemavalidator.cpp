#include "xmlschemavalidator.h"

#include "ownedresource.h"
#include "pkcs11operationdataparser.h"
#include "requesttextscreen.h"

#include <libxml/parser.h>

#include <QFile>
#include <QMutex>
#include <QMutexLocker>
#include <QtDebug>

#include <climits>
#include <map>

namespace {

using OwnedDocument = Owned<xmlDoc, xmlFreeDoc>;
using OwnedSchema = Owned<xmlSchema, xmlSchemaFree>;
using OwnedSchemaParserContext = Owned<xmlSchemaParserCtxt, xmlSchemaFreeParserCtxt>;
using OwnedValidationContext = Owned<xmlSchemaValidCtxt, xmlSchemaFreeValidCtxt>;

OwnedSchema compile(const QString& resourcePath)
{
    QFile file(resourcePath);
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning().noquote() << "Unable to load XSD schema from resources:" << resourcePath;
        return nullptr;
    }
    const QByteArray text = file.readAll();
    OwnedSchemaParserContext parserContext(
        text.size() > INT_MAX ? nullptr : xmlSchemaNewMemParserCtxt(text.constData(), int(text.size())));
    if (!parserContext) {
        qWarning("Unable to create XSD schema parser.");
        return nullptr;
    }
    // Schema errors go to the log like validation errors, never to stderr.
    xmlSchemaSetParserStructuredErrors(parserContext.get(), &Pkcs11OperationDataParser::xmlValidationErrorHandler,
                                       nullptr);
    OwnedSchema schema(xmlSchemaParse(parserContext.get()));
    if (!schema)
        qWarning("Unable to parse XSD schema.");
    return schema;
}

} // namespace

bool XmlSchemaValidator::validate(const QString& xml, const QString& resourcePath)
{
    if (!RequestTextScreen::admits(xml))
        return false;
    initParser();
    const QByteArray utf8 = xml.toUtf8();
    // No error output, no network; entities are not expanded. The bytes are UTF-8 whatever the
    // declaration says: the stream reader reads the same text, and an encoding named in the
    // document must not let libxml2 see markup the screen never saw.
    const int options = XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NONET | XML_PARSE_IGNORE_ENC;
    OwnedDocument document(utf8.size() > INT_MAX
                               ? nullptr
                               : xmlReadMemory(utf8.constData(), int(utf8.size()), nullptr, nullptr, options));
    if (!document) {
        qWarning("Unable to load XML.");
        return false;
    }

    xmlSchema* compiled = schema(resourcePath);
    if (!compiled)
        return false;
    OwnedValidationContext context(xmlSchemaNewValidCtxt(compiled));
    if (!context) {
        qWarning("Unable to create XML validation context.");
        return false;
    }
    xmlSchemaSetValidStructuredErrors(context.get(), &Pkcs11OperationDataParser::xmlValidationErrorHandler, nullptr);
    if (xmlSchemaValidateDoc(context.get(), document.get()) != 0) {
        qWarning("Input XML is not valid!");
        return false;
    }
    qInfo("Validation of input XML was successful");
    return true;
}

xmlSchema* XmlSchemaValidator::schema(const QString& resourcePath)
{
    static QMutex mutex;
    static std::map<QString, OwnedSchema> schemas;

    QMutexLocker locker(&mutex);
    auto found = schemas.find(resourcePath);
    if (found != schemas.end())
        return found->second.get();
    OwnedSchema compiled = compile(resourcePath);
    if (!compiled)
        return nullptr;
    return schemas.emplace(resourcePath, std::move(compiled)).first->second.get();
}

void XmlSchemaValidator::initParser()
{
    static const bool initialised = [] {
        xmlInitParser();
        return true;
    }();
    Q_UNUSED(initialised);
}
