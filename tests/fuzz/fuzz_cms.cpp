// Fuzzes the opening of server-signed requests: any bytes as the DER CMS, then, when the envelope
// is accepted, the trust checks of its signer. Refusals are exceptions; crashes, leaks and
// undefined behaviour are the findings.
#include "appexception.h"
#include "responsecryptoprocessor.h"

#include <QByteArray>
#include <QtGlobal>

#include <cstdint>

namespace {
void silence(QtMsgType, const QMessageLogContext&, const QString&) {}
} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qInstallMessageHandler(silence);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray der(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    ResponseCryptoProcessor processor;
    try {
        processor.processCmsSignedData(der);
        processor.verifyServerCertificate();
        (void)processor.getCmsContent();
    } catch (const AppException&) {
        // A refused request is the expected outcome for almost every input.
    }
    return 0;
}
