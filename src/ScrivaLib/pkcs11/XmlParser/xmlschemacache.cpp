#include "xmlschemacache.h"

#include "ownedresource.h"
#include "pkcs11operationdataparser.h"

#include <libxml/parser.h>

#include <QFile>
#include <QMutex>
#include <QMutexLocker>
#include <QtDebug>

#include <climits>
#include <map>

namespace {

using OwnedSchema = Owned<xmlSchema, xmlSchemaFree>;
using OwnedSchemaParserContext = Owned<xmlSchemaParserCtxt, xmlSchemaFreeParserCtxt>;

OwnedSchema compile(const QString& resourcePath)
{
    QFile file(resourcePath);
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning().noquote() << "Unable to load XSD schema from resources:" << resourcePath;
        return nullptr;
    }
    const QByteArray text = file.readAll();
    if (text.size() > INT_MAX) {
        qWarning("Unable to create XSD schema parser.");
        return nullptr;
    }
    OwnedSchemaParserContext parserContext(xmlSchemaNewMemParserCtxt(text.constData(), int(text.size())));
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

xmlSchema* XmlSchemaCache::schema(const QString& resourcePath)
{
    static QMutex mutex;
    static std::map<QString, OwnedSchema> schemas;

    initParser();
    QMutexLocker locker(&mutex);
    auto found = schemas.find(resourcePath);
    if (found != schemas.end())
        return found->second.get();
    OwnedSchema compiled = compile(resourcePath);
    if (!compiled)
        return nullptr;
    return schemas.emplace(resourcePath, std::move(compiled)).first->second.get();
}

void XmlSchemaCache::initParser()
{
    static const bool initialised = [] {
        xmlInitParser();
        return true;
    }();
    Q_UNUSED(initialised);
}
