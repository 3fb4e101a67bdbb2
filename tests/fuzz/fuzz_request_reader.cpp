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

#include <QXmlStreamReader>

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

// A routine's result and its output agree: an output exactly when it succeeded.
template<typename T>
void read(bool (Pkcs11OperationDataParser::*routine)(QXmlStreamReader*, T**) const, QXmlStreamReader* reader)
{
    T* output = nullptr;
    if ((Pkcs11OperationDataParser().*routine)(reader, &output) != (output != nullptr))
        std::abort();
    delete output;
}

// Every reading routine on whatever elements the text holds, without validation first.
void readUnvalidated(const QString& xml)
{
    using P = Pkcs11OperationDataParser;
    QXmlStreamReader reader(xml);
    while (!reader.atEnd()) {
        if (reader.readNext() != QXmlStreamReader::StartElement)
            continue;
        const QString name = reader.name().toString();
        Location location;
        CK_ATTRIBUTE attribute{};
        if (name == QLatin1String("Pkcs11Library"))
            read<Pkcs11LibraryData>(&P::parseLibraryData, &reader);
        else if (name == QLatin1String("Location"))
            P().parseLocation(&reader, &location);
        else if (name == QLatin1String("GetSlots"))
            read<GetSlotsOperationData>(&P::parseOperationData, &reader);
        else if (name == QLatin1String("GetCertificates"))
            read<GetCertificatesOperationData>(&P::parseOperationData, &reader);
        else if (name == QLatin1String("CreateObject"))
            read<CreateObjectOperationData>(&P::parseOperationData, &reader);
        else if (name == QLatin1String("GenerateCsr"))
            read<GenerateCsrOperationData>(&P::parseOperationData, &reader);
        else if (name.endsWith(QLatin1String("Attribute")) && name != QLatin1String("Attribute")
                 && !P().parseAttribute(&reader, &attribute, name) && attribute.pValue)
            std::abort(); // a refused attribute must not hold a buffer
        std::free(attribute.pValue);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool setUp = [] {
        initResources();
        qInstallMessageHandler(silence);
        return true;
    }();
    if (!setUp || size == 0)
        return 0;
    // The first byte picks the operation, the rest is the document.
    const QString xml = QString::fromUtf8(reinterpret_cast<const char*>(data) + 1, qsizetype(size - 1));
    switch (data[0] % 4) {
    case 0: parseAs<GetSlotsOperationData>(xml); break;
    case 1: parseAs<GetCertificatesOperationData>(xml); break;
    case 2: parseAs<CreateObjectOperationData>(xml); break;
    default: parseAs<GenerateCsrOperationData>(xml); break;
    }
    // Both schemas, whatever namespace the text names.
    Pkcs11OperationDataParser().validate(xml, ScrivaNamespaces::version20221229());
    Pkcs11OperationDataParser().validate(xml, ScrivaNamespaces::version20260204());
    readUnvalidated(xml);
    return 0;
}
