#include "writethread.h"

#include "appexception.h"

#include <QCoreApplication>
#include <QMutexLocker>

#include <QtEndian>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

WriteThread::WriteThread(QObject* parent) : QThread(parent)
{
    if (!stdoutFile.open(fileno(stdout), QIODevice::WriteOnly))
        qWarning().noquote() << "Cannot open STDOUT";
    stdoutStream.setDevice(&stdoutFile);
    stdoutStream.setByteOrder(QDataStream::LittleEndian);
}

void WriteThread::addJsonDocument(QJsonDocument document)
{
    // With the thread idle and nothing queued before it, the answer may go out at once, which
    // spares a thread switch per answer.
    // Made once here, also when the write thread sends it.
    const QByteArray bytes = document.toJson(QJsonDocument::Compact);
    QMutexLocker locker(&queueMutex);
    if (queue.isEmpty() && !writing && writeNowIfRoom(bytes))
        return;
    queue.append(bytes);
    queued.wakeOne();
}

// A pipe takes a write of at most PIPE_BUF bytes whole or not at all, and has room for one when
// it polls writable: the caller never waits for a browser that has stopped reading. Anything
// else, a failed write included, is left to the thread, which reports it.
bool WriteThread::writeNowIfRoom(const QByteArray& bytes)
{
    static const bool toPipe = [] {
        struct stat status;
        return ::fstat(fileno(stdout), &status) == 0 && S_ISFIFO(status.st_mode);
    }();
    if (!toPipe)
        return false;
    char frame[PIPE_BUF];
    const std::size_t size = sizeof(quint32) + std::size_t(bytes.size());
    if (size > sizeof(frame))
        return false;
    pollfd descriptor{fileno(stdout), POLLOUT, 0};
    if (::poll(&descriptor, 1, 0) != 1 || descriptor.revents != POLLOUT)
        return false;
    qToLittleEndian(quint32(bytes.size()), frame);
    std::memcpy(frame + sizeof(quint32), bytes.constData(), std::size_t(bytes.size()));
    ssize_t written;
    do
        written = ::write(descriptor.fd, frame, size);
    while (written < 0 && errno == EINTR);
    return written == ssize_t(size);
}

void WriteThread::writeToStdout(const QJsonDocument& document)
{
    writeFrame(document.toJson(QJsonDocument::Compact));
}

void WriteThread::writeFrame(const QByteArray& bytes)
{
    // The limit named in the message is 1048576, but a document of exactly that size is refused too.
    if (bytes.size() > maximumOutgoingSize - 1)
        throw APP_EXCEPTION(QStringLiteral("Outgoing JSON message size %1 exceedes maximum allowed size %2")
                                .arg(bytes.size())
                                .arg(maximumOutgoingSize));
    stdoutStream.writeBytes(bytes.constData(), uint(bytes.size()));
    const bool streamed = stdoutStream.status() == QDataStream::Ok;
    // A failed write (the browser closed the pipe) ends this thread like any other error.
    if (!stdoutFile.flush() || !streamed)
        throw APP_EXCEPTION(QStringLiteral("Unable to write the answer to STDOUT: %1").arg(stdoutFile.errorString()));
}

void WriteThread::run()
{
    try {
        QMutexLocker locker(&queueMutex);
        for (;;) {
            while (!queue.isEmpty()) {
                const QByteArray bytes = queue.takeFirst();
                // Written unlocked: a browser slow to read holds up this thread only, never the
                // one that queues the next answer.
                writing = true;
                locker.unlock();
                writeFrame(bytes);
                locker.relock();
                writing = false;
            }
            if (isInterruptionRequested())
                break;
            // Woken by addJsonDocument; the 10 ms bound keeps interruption requests noticed.
            queued.wait(&queueMutex, 10);
        }
    } catch (const AppException& e) {
        qWarning().noquote() << "Exiting write thread because of exception: " + e.toString(true);
        QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit, Qt::QueuedConnection);
        return;
    }
    qInfo().noquote() << "Exiting write thread without an exception";
}
