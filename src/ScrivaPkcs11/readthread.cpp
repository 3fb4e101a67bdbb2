#include "readthread.h"

#include "appexception.h"

#include <QCoreApplication>
#include <QtEndian>

#include <cerrno>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <unistd.h>

ReadThread::ReadThread(QObject* parent) : QThread(parent)
{
    clock.start();
}

QByteArray ReadThread::getBytes(int count)
{
    QByteArray bytes(count, Qt::Uninitialized); // empty for a negative count
    readInto(bytes.data(), count);
    return bytes;
}

void ReadThread::readInto(char* destination, int count)
{
    static_assert(EWOULDBLOCK == EAGAIN, "a read that would block is told by EAGAIN alone");

    int position = 0;
    while (position < count) {
        // Never read past the current frame: the next frame's bytes stay in the pipe.
        const ssize_t result = ::read(STDIN_FILENO, destination + position, size_t(count - position));
        if (result > 0) {
            position += int(result);
            continue;
        }
        if (result == 0)
            throw APP_EXCEPTION(QStringLiteral("End of file reached"));
        if (errno != EAGAIN && errno != EINTR)
            throw APP_EXCEPTION(QStringLiteral("Error was cought, errno from function read is %1").arg(errno));
        if (isInterruptionRequested())
            throw APP_EXCEPTION(QStringLiteral("Interruption of ReadThread is requested."));
        if (waitingForFrame)
            trimHeapWhenIdle();
        // Wait for input, but never longer than 10 ms, so an interruption request is noticed.
        pollfd descriptor{STDIN_FILENO, POLLIN, 0};
        ::poll(&descriptor, 1, 10);
    }
}

// The payload buffer and the heap keep the pages of a large frame, so that a run of large
// frames is read and parsed without faulting them in again. Once the main thread has handled
// the last large frame and no frame has begun for a moment, they are given back, and the host
// returns to its idle size.
void ReadThread::trimHeapWhenIdle()
{
    if (largeFrames == 0 || handledLargeFrame.load() != largeFrames
        || clock.elapsed() - handledAtMs.load() < heapTrimDelayMs)
        return;
    frameBuffer = QByteArray();
    malloc_trim(0);
    largeFrames = 0;
    handledLargeFrame.store(0);
}

QByteArray ReadThread::readMessageFromStdin()
{
    waitingForFrame = true;
    const QByteArray header = getBytes(4);
    waitingForFrame = false;
    const qint32 length = qFromLittleEndian<qint32>(header.constData());
    if (length > maximumIncomingSize)
        throw APP_EXCEPTION(QStringLiteral("Incoming JSON message size %1 exceedes maximum allowed size %2")
                                .arg(length)
                                .arg(maximumIncomingSize));

    // A negative length leaves the payload empty.
    frameBuffer.resize(length);
    readInto(frameBuffer.data(), length);
    return frameBuffer;
}

QJsonDocument ReadThread::readFromStdin()
{
    const QJsonDocument document = QJsonDocument::fromJson(readMessageFromStdin());
    if (document.isNull())
        throw APP_EXCEPTION(QStringLiteral("Unable to process received data as JSON message."));
    return document;
}

void ReadThread::run()
{
    // Reads never block, so an interruption request is noticed while the browser sends nothing.
    fcntl(STDIN_FILENO, F_SETFL, fcntl(STDIN_FILENO, F_GETFL) | O_NONBLOCK);
    try {
        for (;;) {
            const QJsonDocument document = readFromStdin();
            emit processMessage(document.object());
            if (frameBuffer.size() > smallFrameSize) {
                // Queued behind the message: runs once the main thread has handled and released it.
                const int frame = ++largeFrames;
                QMetaObject::invokeMethod(this, [this, frame] {
                    handledAtMs.store(clock.elapsed());
                    handledLargeFrame.store(frame);
                }, Qt::QueuedConnection);
            }
        }
    } catch (const AppException& e) {
        qWarning().noquote() << "Exiting read thread because of exception: " + e.toString(true);
        // Queued, so the quit also takes effect when the event loop has not started yet.
        QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit, Qt::QueuedConnection);
        return;
    }
    qInfo().noquote() << "Exiting read thread without an exception";
}
