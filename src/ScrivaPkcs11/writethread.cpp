#include "writethread.h"

#include "appexception.h"

#include <QCoreApplication>
#include <QMutexLocker>

#include <cstdio>

WriteThread::WriteThread(QObject* parent) : QThread(parent)
{
    if (!stdoutFile.open(fileno(stdout), QIODevice::WriteOnly))
        qWarning().noquote() << "Cannot open STDOUT";
    stdoutStream.setDevice(&stdoutFile);
    stdoutStream.setByteOrder(QDataStream::LittleEndian);
}

void WriteThread::addJsonDocument(QJsonDocument document)
{
    QMutexLocker locker(&queueMutex);
    queue.append(document);
    queued.wakeOne();
}

void WriteThread::writeToStdout(const QJsonDocument& document)
{
    const QByteArray bytes = document.toJson(QJsonDocument::Compact);
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
            while (!queue.isEmpty())
                writeToStdout(queue.takeFirst());
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
