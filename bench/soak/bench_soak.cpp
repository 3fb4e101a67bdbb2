// Many GetSlots operations through one host process on a SoftHSM token, each a signed request
// with a fresh nonce: operations per second and the host's resident memory (VmRSS) after 100
// and after all operations, which should stay flat. Usage: bench_soak [operations, default 1000]
// SCRIVA_BENCH_LAUNCHER runs the host under a tool, e.g. "valgrind --tool=callgrind".
#include "hostprocess.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

long residentKiB(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLong();
    return -1;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int operations = argc > 1 ? std::max(100, QByteArray(argv[1]).toInt()) : 1000;
    if (!TestRequests::canSign()) {
        std::printf("this build trusts real anchors; no request can be signed here\n");
        return 0;
    }
    HostProcess th;
    const QStringList launcher = QString::fromLocal8Bit(qgetenv("SCRIVA_BENCH_LAUNCHER")).split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (!launcher.isEmpty())
        th.setLauncher(launcher.first(), launcher.mid(1));
    if (!th.startWithToken()) {
        std::fprintf(stderr, "%s\n", qPrintable(th.lastError()));
        return 1;
    }
    const qint64 pid = th.qprocess().processId();
    const long startKiB = residentKiB(pid);
    long at100KiB = -1;
    std::vector<qint64> latenciesUs;
    latenciesUs.reserve(size_t(operations));
    qint64 operationNs = 0;
    QElapsedTimer wall;
    wall.start();
    for (int i = 1; i <= operations; ++i) {
        // Nonce and signature are the web application's part; only the operation is timed.
        const QString argument = th.argument(QStringLiteral("getslots-2026"));
        QElapsedTimer timer;
        timer.start();
        th.send(QStringLiteral("getslots-2026"), argument);
        const QJsonObject answer = th.readAnswer(60000);
        operationNs += timer.nsecsElapsed();
        latenciesUs.push_back(timer.nsecsElapsed() / 1000);
        if (answer.isEmpty() || !HostProcess::error(answer).isEmpty()
            || !HostProcess::texts(HostProcess::result(answer), QStringLiteral("SerialNumber")).contains(th.serialNumber())) {
            std::fprintf(stderr, "operation %d failed: %s\n", i, qPrintable(HostProcess::error(answer)));
            return 1;
        }
        if (i == 100)
            at100KiB = residentKiB(pid);
    }
    const double wallSeconds = wall.nsecsElapsed() / 1e9;
    const long endKiB = residentKiB(pid);
    std::sort(latenciesUs.begin(), latenciesUs.end());

    std::printf("%d GetSlots operations through one host (pid %lld)\n", operations, pid);
    std::printf("  operations per second: %.1f (operation round trips only), %.1f (with GetNonce and signing)\n",
                operations / (operationNs / 1e9), operations / wallSeconds);
    std::printf("  latency p50 %.2f ms, p99 %.2f ms\n", latenciesUs[latenciesUs.size() / 2] / 1000.0,
                latenciesUs[latenciesUs.size() * 99 / 100] / 1000.0);
    std::printf("  host resident memory: %ld KiB at start, %ld KiB after 100, %ld KiB after %d (%+ld KiB)\n", startKiB,
                at100KiB, endKiB, operations, endKiB - at100KiB);
    th.call(QStringLiteral("Terminate"));
    th.waitForExit(10000);
    return 0;
}
