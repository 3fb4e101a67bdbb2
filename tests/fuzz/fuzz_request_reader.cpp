// Any text as a request of the operation its first byte picks, from namespace choice to record.
// Refusals are expected; crashes, leaks, double frees and undefined behaviour are the findings.
#include "appexception.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/createobjectoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/generatecsroperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getslotsoperationdata.h"

#include <cstdint>

static void initResources() { Q_INIT_RESOURCE(scriva); } // only from the global namespace

template<typename T>
static void parseAs(const QString& xml) try {
    delete ScrivaPkcs11InputXmlParser<T>::parseXml(xml);
} catch (const AppException&) {
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool setUp = (initResources(), qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {}), true);
    if (!setUp || size == 0)
        return 0;
    const QString xml = QString::fromUtf8(reinterpret_cast<const char*>(data) + 1, qsizetype(size - 1));
    const auto parses = {&parseAs<GetSlotsOperationData>, &parseAs<GetCertificatesOperationData>,
                         &parseAs<CreateObjectOperationData>, &parseAs<GenerateCsrOperationData>};
    parses.begin()[data[0] % 4](xml);
    return 0;
}
