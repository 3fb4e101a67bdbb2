// The engine's four operations against a PKCS#11 module whose every answer comes from the input
// (scrivafuzzp11.cpp), with the call trace on. The first byte picks the operation and the sample
// request; the module and the user read the rest, call by call. Crashes, leaks, undefined behaviour
// and answers that are not well-formed XML are the findings; refusals and failing calls are not.
#include "../pkcs11/pkcs11testhelpers.h"
#include "appexception.h"
#include "pinprompt.h"
#include "pkcs11/XmlParser/scrivanamespaces.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/pkcs11manager.h"

#include <QXmlStreamReader>

#include <dlfcn.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

static void initResources() { Q_INIT_RESOURCE(scriva); } // only from the global namespace

namespace {

const QString modulePath = QStringLiteral(SCRIVA_FUZZ_MODULE);
void (*answers)(const uint8_t*, size_t) = nullptr;
uint8_t (*nextByte)() = nullptr;

// A user who enters a fixed PIN or cancels, and saves a context PIN or not, as the input says.
class InputUser : public PinPrompt
{
public:
    SecretPin requestPin(const Pkcs11SlotInfo&, const Pkcs11TokenInfo&, const QString&) override { return answer(); }
    SecretPin requestContextPin(const Pkcs11SlotInfo&, const Pkcs11TokenInfo&, const QString&, bool* save) override { return answer(save); }
    void showPinIncorrect(const QString&, const QString&) override {}
    void closeDialogs() override {}
    bool isClosed() const override { return false; }

private:
    static SecretPin answer(bool* save = nullptr)
    {
        const uint8_t choice = nextByte();
        if (save)
            *save = choice & 2;
        return choice & 1 ? SecretPin() : SecretPin::fromText(u"1234");
    }
};

// The host log, and with it the trace, in a private directory in memory where there is one. The
// module stays loaded, so the engine's load and unload in each operation only count references.
bool setUp()
{
    initResources();
    static TraceSwitch traceSwitch(QDir(QStringLiteral("/dev/shm")).exists() ? QStringLiteral("/dev/shm") : QDir::tempPath());
    traceSwitch.install();
    TraceSwitch::set(true);
    void* module = dlopen(SCRIVA_FUZZ_MODULE, RTLD_NOW);
    answers = reinterpret_cast<decltype(answers)>(module ? dlsym(module, "scrivaFuzzAnswers") : nullptr);
    nextByte = reinterpret_cast<decltype(nextByte)>(module ? dlsym(module, "scrivaFuzzByte") : nullptr);
    return answers && nextByte;
}

// The sample request naming the fuzz module: variant 0 is the 2022-12-29 version, 1 the 2026-02-04
// version without vendor extensions, 2 the same asking for the token platform.
template<typename T>
std::unique_ptr<ScrivaPkcs11OperationData<T>> sampleRequest(const QString& operation, int variant) try {
    QFile file(QStringLiteral(SCRIVA_TEST_DATA_DIR "/requests/") + operation + (variant ? "-2026.xml" : "-2022.xml"));
    file.open(QIODevice::ReadOnly);
    const QString xml = QString::fromUtf8(file.readAll())
                            .replace(QStringLiteral("/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so"), modulePath)
                            .replace(QStringLiteral("{\"reader\":\"any\"}"), variant == 2 ? "Monet+ ProID+Q" : "");
    return std::unique_ptr<ScrivaPkcs11OperationData<T>>(ScrivaPkcs11InputXmlParser<T>::parseXml(xml));
} catch (const AppException& e) {
    fprintf(stderr, "sample request %s refused: %s\n", qPrintable(operation), qPrintable(e.getMessage()));
    abort();
}

template<typename T>
QString run(QPair<QString, QString> (Pkcs11Manager::*operation)(const QString&, ScrivaPkcs11OperationData<T>*, const QString&),
            const char* name, int variant)
{
    static const std::unique_ptr<ScrivaPkcs11OperationData<T>> requests[] = {
        sampleRequest<T>(name, 0), sampleRequest<T>(name, 1), sampleRequest<T>(name, 2)};
    static InputUser user;
    Pkcs11Manager manager;
    manager.setPinPrompt(&user);
    const QString& xmlNamespace = variant ? ScrivaNamespaces::version20260204() : ScrivaNamespaces::version20221229();
    return (manager.*operation)(modulePath, requests[variant].get(), xmlNamespace).second;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool ready = setUp();
    if (!ready)
        abort();
    if (size == 0)
        return 0;
    QFile::resize(LogHandler::hostLogPath(), 0); // the trace of this run only
    answers(data + 1, size - 1);
    const int variant = data[0] / 4 % 3;
    QString document;
    try {
        switch (data[0] % 4) {
        case 0: document = run(&Pkcs11Manager::getSlots, "getslots", variant); break;
        case 1: document = run(&Pkcs11Manager::getCertificates, "getcertificates", variant); break;
        case 2: document = run(&Pkcs11Manager::generateCsr, "generatecsr", variant); break;
        case 3: document = run(&Pkcs11Manager::createObject, "createobject", variant); break;
        }
    } catch (const AppException&) {
    }
    // Whatever bytes the module's texts hold, the answer stays a well-formed document.
    QXmlStreamReader reader(document);
    while (!reader.atEnd())
        reader.readNext();
    if (!document.isEmpty() && reader.hasError()) {
        fprintf(stderr, "answer not well-formed: %s\n%s\n", qPrintable(reader.errorString()), qPrintable(document));
        abort();
    }
    return 0;
}
