#include "readthread.h"

#include "appexception.h"

#include <QCoreApplication>
#include <QtEndian>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

ReadThread::ReadThread(QObject* parent) : QThread(parent) {}

QByteArray ReadThread::getBytes(int count)
{
    QByteArray bytes(qMax(count, 0), Qt::Uninitialized);
    readInto(bytes.data(), count);
    return bytes;
}

void ReadThread::readInto(char* destination, int count)
{
    if (!nonBlocking) {
        const int flags = fcntl(STDIN_FILENO, F_GETFL);
        fcntl(STDIN_FILENO, F_SETFL, flags | O_NONBLOCK);
        nonBlocking = true;
    }

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
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            throw APP_EXCEPTION(QStringLiteral("Error was cought, errno from function read is %1").arg(errno));
        if (isInterruptionRequested())
            throw APP_EXCEPTION(QStringLiteral("Interruption of ReadThread is requested."));
        // Wait for input, but never longer than 10 ms, so an interruption request is noticed.
        pollfd descriptor{STDIN_FILENO, POLLIN, 0};
        ::poll(&descriptor, 1, 10);
    }
}

QByteArray ReadThread::readMessageFromStdin()
{
    const QByteArray header = getBytes(4);
    const qint32 length = qFromLittleEndian<qint32>(header.constData());
    if (length > maximumIncomingSize)
        throw APP_EXCEPTION(QStringLiteral("Incoming JSON message size %1 exceedes maximum allowed size %2")
                                .arg(length)
                                .arg(maximumIncomingSize));

    // The payload buffer is kept between frames, so a run of large frames does not fault in
    // fresh pages for each one; after a large frame, a small one gives the memory back.
    const int size = qMax(length, 0);
    if (size <= smallFrameSize && frameBuffer.capacity() > 4 * smallFrameSize)
        frameBuffer = QByteArray();
    frameBuffer.resize(size);
    readInto(frameBuffer.data(), size);
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
    try {
        for (;;) {
            const QJsonDocument document = readFromStdin();
            emit processMessage(document.object());
        }
    } catch (const AppException& e) {
        qWarning().noquote() << "Exiting read thread because of exception: " + e.toString(true);
        // Queued, so the quit also takes effect when the event loop has not started yet.
        QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit, Qt::QueuedConnection);
        return;
    }
    qInfo().noquote() << "Exiting read thread without an exception";
}
