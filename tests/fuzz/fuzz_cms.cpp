// Any bytes as the DER CMS of a server-signed request, then the trust checks of an accepted
// envelope's signer. Refusals are exceptions; crashes, leaks and undefined behaviour are findings.
#include "appexception.h"
#include "responsecryptoprocessor.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    [[maybe_unused]] static const auto quiet = qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    ResponseCryptoProcessor processor;
    try {
        processor.processCmsSignedData(QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
        processor.verifyServerCertificate();
    } catch (const AppException&) {
    }
    return 0;
}
