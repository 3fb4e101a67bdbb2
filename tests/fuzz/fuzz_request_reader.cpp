// Fuzzes request documents: any text goes through the namespace choice, schema validation and
// reading as a request of one of the four operations, and, as if validation had been bypassed,
// straight through every reading routine whose element it contains. Refusals are the expected
// outcome; crashes, leaks, double frees and undefined behaviour are the findings.
#include "appexception.h"
#include "pkcs11/XmlParser/pkcs11operationdataparser.h"
#include "pkcs11/XmlParser/scrivanamespaces.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/createobjectoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/generatecsroperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getslotsoperationdata.h"

#include <QString>
#include <QXmlStreamReader>
#include <QtGlobal>

#include <cstdint>
#include <cstdlib>
#include <memory>

// Resources are registered from the global namespace, where their initialiser lives.
static void initResources()
{
    Q_INIT_RESOURCE(scriva);
}

namespace {

void silence(QtMsgType, const QMessageLogContext&, const QString&) {}

void setUpOnce()
{
    static const bool done = [] {
        initResources();
        qInstallMessageHandler(silence);
        return true;
    }();
    Q_UNUSED(done);
}

template<typename T>
void parseAs(const QString& xml)
{
    try {
        std::unique_ptr<ScrivaPkcs11OperationData<T>> record(ScrivaPkcs11InputXmlParser<T>::parseXml(xml));
        // A record that was handed out is complete.
        if (record->getNonce().isEmpty() || record->getLibraryData()->getLocations().isEmpty())
            std::abort();
    } catch (const AppException&) {
    }
}

template<typename T>
void readOperation(const Pkcs11OperationDataParser& parser, QXmlStreamReader* reader)
{
    T* data = nullptr;
    if (parser.parseOperationData(reader, &data) != (data != nullptr))
        std::abort();
    delete data;
}

// Every reading routine on whatever elements the text holds, without validation first.
void readUnvalidated(const QString& xml)
{
    const Pkcs11OperationDataParser parser;
    QXmlStreamReader reader(xml);
    while (!reader.atEnd()) {
        reader.readNext();
        if (!reader.isStartElement())
            continue;
        const QString name = reader.name().toString();
        if (name == QLatin1String("Pkcs11Library")) {
            Pkcs11LibraryData* library = nullptr;
            if (parser.parseLibraryData(&reader, &library) != (library != nullptr))
                std::abort();
            delete library;
        } else if (name == QLatin1String("Location")) {
            Location location;
            parser.parseLocation(&reader, &location);
        } else if (name == QLatin1String("GetSlots")) {
            readOperation<GetSlotsOperationData>(parser, &reader);
        } else if (name == QLatin1String("GetCertificates")) {
            readOperation<GetCertificatesOperationData>(parser, &reader);
        } else if (name == QLatin1String("CreateObject")) {
            readOperation<CreateObjectOperationData>(parser, &reader);
        } else if (name == QLatin1String("GenerateCsr")) {
            readOperation<GenerateCsrOperationData>(parser, &reader);
        } else if (name.endsWith(QLatin1String("Attribute")) && name != QLatin1String("Attribute")) {
            CK_ATTRIBUTE attribute{};
            if (parser.parseAttribute(&reader, &attribute, name))
                std::free(attribute.pValue);
            else if (attribute.pValue)
                std::abort(); // a refused attribute must not hold a buffer
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    setUpOnce();
    if (size == 0)
        return 0;
    // The first byte picks the operation, the rest is the document.
    const QString xml = QString::fromUtf8(reinterpret_cast<const char*>(data) + 1, qsizetype(size - 1));
    switch (data[0] % 4) {
    case 0:
        parseAs<GetSlotsOperationData>(xml);
        break;
    case 1:
        parseAs<GetCertificatesOperationData>(xml);
        break;
    case 2:
        parseAs<CreateObjectOperationData>(xml);
        break;
    default:
        parseAs<GenerateCsrOperationData>(xml);
        break;
    }
    // Both schemas, whatever namespace the text names.
    const Pkcs11OperationDataParser parser;
    parser.validate(xml, ScrivaNamespaces::version20221229());
    parser.validate(xml, ScrivaNamespaces::version20260204());
    readUnvalidated(xml);
    return 0;
}
