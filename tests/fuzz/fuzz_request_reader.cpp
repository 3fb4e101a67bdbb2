// Any text as a request of the operation its first byte picks (namespace choice, both schemas,
// reading), then, as if validation had been bypassed, through every reading routine whose element
// it holds. Refusals are expected; crashes, leaks, double frees and undefined behaviour are findings.
#include "appexception.h"
#include "pkcs11/XmlParser/pkcs11operationdataparser.h"
#include "pkcs11/XmlParser/scrivanamespaces.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/createobjectoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/generatecsroperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getslotsoperationdata.h"

#include <QHash>
#include <QXmlStreamReader>

#include <cstdint>
#include <cstdlib>
#include <memory>

static void initResources() { Q_INIT_RESOURCE(scriva); } // only from the global namespace

namespace {

template<typename T>
void parseAs(const QString& xml)
{
    try {
        const std::unique_ptr<ScrivaPkcs11OperationData<T>> record(ScrivaPkcs11InputXmlParser<T>::parseXml(xml));
        if (record->getNonce().isEmpty() || record->getLibraryData()->getLocations().isEmpty())
            std::abort(); // a record handed out is complete
    } catch (const AppException&) {
    }
}

// A routine gives an output exactly when it succeeds.
template<typename T>
void read(QXmlStreamReader* reader)
{
    T* output = nullptr;
    bool read = false;
    if constexpr (std::is_same_v<T, Pkcs11LibraryData>)
        read = Pkcs11OperationDataParser().parseLibraryData(reader, &output);
    else
        read = Pkcs11OperationDataParser().parseOperationData(reader, &output);
    if (read != (output != nullptr))
        std::abort();
    delete output;
}

void readLocation(QXmlStreamReader* reader)
{
    Location location;
    Pkcs11OperationDataParser().parseLocation(reader, &location);
}

void readUnvalidated(const QString& xml)
{
    static const QHash<QString, void (*)(QXmlStreamReader*)> routines{
        {"Pkcs11Library", &read<Pkcs11LibraryData>}, {"Location", &readLocation},
        {"GetSlots", &read<GetSlotsOperationData>}, {"GetCertificates", &read<GetCertificatesOperationData>},
        {"CreateObject", &read<CreateObjectOperationData>}, {"GenerateCsr", &read<GenerateCsrOperationData>}};
    for (QXmlStreamReader reader(xml); !reader.atEnd();) {
        if (reader.readNext() != QXmlStreamReader::StartElement)
            continue;
        const QString name = reader.name().toString();
        CK_ATTRIBUTE attribute{};
        if (routines.contains(name))
            routines[name](&reader);
        else if (name.endsWith("Attribute") && !Pkcs11OperationDataParser().parseAttribute(&reader, &attribute, name)
                 && attribute.pValue)
            std::abort(); // a refused attribute holds no buffer
        std::free(attribute.pValue);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool setUp = (initResources(), qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {}), true);
    if (!setUp || size == 0)
        return 0;
    const QString xml = QString::fromUtf8(reinterpret_cast<const char*>(data) + 1, qsizetype(size - 1));
    const auto parses = {&parseAs<GetSlotsOperationData>, &parseAs<GetCertificatesOperationData>,
                         &parseAs<CreateObjectOperationData>, &parseAs<GenerateCsrOperationData>};
    parses.begin()[data[0] % 4](xml);
    Pkcs11OperationDataParser().validate(xml, ScrivaNamespaces::version20260204()); // whatever namespace the text names
    readUnvalidated(xml);
    return 0;
}
