// A signed GetCertificates request from its base64 argument to the checked record (CMS,
// signer chain, policy, schema validation, reading): p50 of 1,000 parses, and the process's
// resident memory after 1,000 and 10,000 parses.
#include "devpki.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "testrequests.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

long residentKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    status.open(QIODevice::ReadOnly);
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLong();
    return -1;
}

void parseOnce(const QString& argument)
{
    const std::unique_ptr<ScrivaPkcs11OperationData<GetCertificatesOperationData>> record(
        ScrivaPkcs11InputXmlParser<GetCertificatesOperationData>::parse(argument));
    if (!record)
        std::abort();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    Q_INIT_RESOURCE(scriva);
    // The parse logs each step; a benchmark measures the work, not the console.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    if (!DevPki::isAvailable()) {
        std::printf("this build trusts real anchors; no request can be signed here\n");
        return 0;
    }
    const QString argument =
        TestRequests::signedArgument(QStringLiteral("getcertificates-2026"), QStringLiteral("0f8fad5b-d9cb-469f-a165-70867728950e"));

    parseOnce(argument); // first use builds the compiled schemas
    const long before = residentKiB();
    std::vector<double> micros;
    QElapsedTimer timer;
    for (int i = 0; i < 1000; ++i) {
        timer.start();
        parseOnce(argument);
        micros.push_back(double(timer.nsecsElapsed()) / 1000.0);
    }
    const long after1000 = residentKiB();
    for (int i = 0; i < 9000; ++i)
        parseOnce(argument);
    const long after10000 = residentKiB();

    std::sort(micros.begin(), micros.end());
    std::printf("signed GetCertificates request to record: p50 %.0f us, p99 %.0f us (target p50 < 1000 us)\n",
                micros[micros.size() / 2], micros[micros.size() * 99 / 100]);
    std::printf("resident memory: %ld KiB before, %ld KiB after 1,000, %ld KiB after 10,000 parses (target: no growth)\n",
                before, after1000, after10000);
    return 0;
}
