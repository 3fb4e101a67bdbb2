#include "stopsignals.h"

#include <QDebug>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Made once and never closed: a handler may run at any moment until the process ends.
int pipeEnds[2] = {-1, -1};

extern "C" void onStopSignal(int number)
{
    const int savedErrno = errno;
    const unsigned char byte = static_cast<unsigned char>(number);
    // A full pipe already holds a request to stop.
    [[maybe_unused]] const ssize_t written = ::write(pipeEnds[1], &byte, 1);
    errno = savedErrno;
}

} // namespace

bool StopSignals::install()
{
    if (pipeEnds[0] >= 0)
        return true;
    if (::pipe2(pipeEnds, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    struct sigaction action = {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    // A thread inside a module call is not made to fail it with EINTR.
    action.sa_flags = SA_RESTART;
    for (const int number : {SIGTERM, SIGINT, SIGHUP})
        ::sigaction(number, &action, nullptr);
    return true;
}

StopSignals::StopSignals(QObject* parent) : QObject(parent)
{
    if (!install()) {
        qWarning().noquote() << "Unable to watch for signals: errno" << errno;
        return;
    }
    auto* notifier = new QSocketNotifier(pipeEnds[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &StopSignals::onSignalled);
}

void StopSignals::onSignalled()
{
    unsigned char byte = 0;
    int last = 0;
    while (::read(pipeEnds[0], &byte, 1) == 1)
        last = byte;
    if (last != 0)
        emit stopRequestedSignal(last);
}
