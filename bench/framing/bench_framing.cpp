// Measures the host through real pipes, side by side with a minimal framed echo program:
// round trip of GetNonce (p50, p99 of 1,000 calls), the intake of one 32 MiB frame, the time
// from start-up to the CreateInstance answer, and whether the host's resident memory comes back
// after one 512 MiB frame.
#include "../common/pipepeer.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QString>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

const QByteArray createInstance = R"({"method":"ScrivaPkcs11.1.0.0.qt.QES.CreateInstance"})";
const QByteArray getNonce = R"({"method":"ScrivaPkcs11.1.0.0.qt.QES.GetNonce","id":"n"})";

double percentile(std::vector<double> values, double p)
{
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, size_t(p * double(values.size())))];
}

std::vector<double> roundTrips(PipePeer& peer, int count)
{
    std::vector<double> times;
    QElapsedTimer timer;
    for (int i = 0; i < count; ++i) {
        timer.start();
        peer.send(getNonce);
        peer.receive();
        times.push_back(double(timer.nsecsElapsed()) / 1000.0);
    }
    return times;
}

double largeFrameMs(PipePeer& peer)
{
    const QByteArray frame = R"({"method":"ScrivaPkcs11.1.0.0.qt.QES.GetVersion","padding":")"
                             + QByteArray(32 * 1024 * 1024 - 80, 'x') + R"("})";
    QElapsedTimer timer;
    timer.start();
    peer.send(frame);
    peer.receive();
    return double(timer.nsecsElapsed()) / 1e6;
}

// A field of /proc/<pid>/status in MiB ("VmRSS", "VmHWM"), or -1.
long statusMiB(pid_t pid, const QByteArray& field)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').first().toLong() / 1024;
    return -1;
}

// One frame of the largest size the host accepts; then the resident size is sampled every
// 10 ms for 3 s after the answer.
void largestFrameMemory(PipePeer& peer)
{
    constexpr long boundMiB = 64;
    QThread::msleep(1000);
    const long idleMiB = statusMiB(peer.processId(), "VmRSS");
    const QByteArray head = R"({"method":"ScrivaPkcs11.1.0.0.qt.QES.GetVersion","padding":")";
    QByteArray frame = head + QByteArray(536870912 - head.size() - 2, 'x') + R"("})";
    QElapsedTimer timer;
    timer.start();
    peer.send(frame);
    peer.receive();
    const double answerMs = double(timer.nsecsElapsed()) / 1e6;
    frame.clear();
    const long peakMiB = statusMiB(peer.processId(), "VmHWM");

    timer.start();
    long atOneSecondMiB = -1;
    qint64 underBoundMs = -1;
    while (timer.elapsed() < 3000) {
        const long residentMiB = statusMiB(peer.processId(), "VmRSS");
        if (underBoundMs < 0 && residentMiB >= 0 && residentMiB < boundMiB)
            underBoundMs = timer.elapsed();
        if (atOneSecondMiB < 0 && timer.elapsed() >= 1000)
            atOneSecondMiB = residentMiB;
        QThread::msleep(10);
    }
    std::printf("512 MiB incoming frame             answered in %.0f ms, peak resident %ld MiB, idle before %ld MiB\n",
                answerMs, peakMiB, idleMiB);
    std::printf("  resident 1 s after the answer: %ld MiB (bound < %ld MiB: %s); under the bound after %lld ms\n",
                atOneSecondMiB, boundMiB, atOneSecondMiB >= 0 && atOneSecondMiB < boundMiB ? "met" : "MISSED",
                static_cast<long long>(underBoundMs));
}

} // namespace

int main(int argc, char** argv)
{
    const std::string host = argc > 1 ? argv[1] : SCRIVA_BIN_DIR "/ScrivaPkcs11";
    const std::string echo = SCRIVA_BENCH_DIR "/framed_echo";
    setenv("QT_QPA_PLATFORM", "offscreen", 0);

    std::vector<double> startups;
    for (int i = 0; i < 10; ++i) {
        QElapsedTimer timer;
        timer.start();
        PipePeer peer(host);
        peer.send(createInstance);
        peer.receive();
        startups.push_back(double(timer.nsecsElapsed()) / 1e6);
    }

    PipePeer hostPeer(host);
    hostPeer.send(createInstance);
    hostPeer.receive();
    PipePeer echoPeer(echo);

    roundTrips(hostPeer, 50); // warm-up
    roundTrips(echoPeer, 50);
    const std::vector<double> hostTrips = roundTrips(hostPeer, 1000);
    const std::vector<double> echoTrips = roundTrips(echoPeer, 1000);

    std::vector<double> hostLarge, echoLarge;
    for (int i = 0; i < 3; ++i) {
        hostLarge.push_back(largeFrameMs(hostPeer));
        echoLarge.push_back(largeFrameMs(echoPeer));
    }

    const double hostP50 = percentile(hostTrips, 0.5), echoP50 = percentile(echoTrips, 0.5);
    const double hostLargeMs = percentile(hostLarge, 0.5), echoLargeMs = percentile(echoLarge, 0.5);
    const double startup = percentile(startups, 0.5);
    std::printf("GetNonce round trip, 1000 calls   host p50 %8.1f us  p99 %8.1f us\n", hostP50, percentile(hostTrips, 0.99));
    std::printf("                                  echo p50 %8.1f us  p99 %8.1f us   ratio p50 %.2fx (target <= 3x)\n",
                echoP50, percentile(echoTrips, 0.99), hostP50 / echoP50);
    std::printf("32 MiB incoming frame (median/3)  host %8.1f ms  echo %8.1f ms   ratio %.2fx (target <= 3x)\n",
                hostLargeMs, echoLargeMs, hostLargeMs / echoLargeMs);
    std::printf("start-up to CreateInstance answer median of 10: %.1f ms (target < 250 ms)\n", startup);
    std::fflush(stdout);
    largestFrameMemory(hostPeer);
    return 0;
}
