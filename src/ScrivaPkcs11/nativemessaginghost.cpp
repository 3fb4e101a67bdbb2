#include "nativemessaginghost.h"

#include "Protocol1/nativemessaging1.h"
#include "appexception.h"
#include "pkcs11/scrivapkcs11.h"
#include "pkcs11/ui/mainwindowpkcs11.h"
#include "readthread.h"
#include "secretpin.h"
#include "stopsignals.h"
#include "terminatingflag.h"
#include "ui/pinformlauncher.h"
#include "writethread.h"

#include <QDeadlineTimer>
#include <QRegularExpression>
#include <QThreadPool>

#include <cstring>
#include <unistd.h>

NativeMessagingHost::NativeMessagingHost(int& argc, char** argv)
    : QApplication(argc, argv), translator(new QTranslator)
{
    qInfo().noquote() << "Initializing NativeMessagingHost";
}

NativeMessagingHost::~NativeMessagingHost()
{
    qInfo().noquote() << "Destroying NativeMessagingHost";
    // The application object outlives every worker. A worker still in a module call finishes it
    // and stops at its next step; from here on nothing it does reaches the user interface, and
    // what it left for this thread to delete is deleted.
    abandonOperations();
    QThreadPool::globalInstance()->waitForDone();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    stopThreads();

    delete nativeMessagingAdapter;
    // A thread that did not stop in time is left alone: deleting it would abort the process.
    if (writeThread && !writeThread->isRunning())
        delete writeThread;
    if (readThread && !readThread->isRunning())
        delete readThread;
    delete translator;
}

bool NativeMessagingHost::waitForWorkers()
{
    return QThreadPool::globalInstance()->waitForDone(workerGracePeriodMs);
}

void NativeMessagingHost::endAbandoningWorkers(int exitCode)
{
    qWarning().noquote() << "A token worker has not finished within" << workerGracePeriodMs << "ms; it is abandoned";
    // The I/O threads share nothing with the worker; the answers queued before the end, such as
    // Terminate's, are written before the write thread stops.
    stopThreads();
    SecretPin::wipeAll();
    qInfo().noquote() << "Application quits with exit code: " + QString::number(exitCode);
    // Every log line is already in the file, and the sanitizers' exit checks do not run either:
    // what the worker holds is not a leak but a call that never came back.
    ::_exit(exitCode);
}

void NativeMessagingHost::stopThreads()
{
    qInfo().noquote() << "Requesting the interruption of the threads";
    if (readThread)
        readThread->requestInterruption();
    if (writeThread)
        writeThread->requestInterruption();

    qInfo().noquote() << "Waiting for threads to finish execution";
    if (writeThread)
        writeThread->wait(QDeadlineTimer(1000, Qt::CoarseTimer));
    if (readThread)
        readThread->wait(QDeadlineTimer(1000, Qt::CoarseTimer));
    if (writeThread && writeThread->isRunning())
        qWarning().noquote() << "Write thread is still running";
    if (readThread && readThread->isRunning())
        qWarning().noquote() << "Read thread is still running";
}

bool NativeMessagingHost::event(QEvent* event)
{
    if (event->type() == QEvent::Quit)
        abandonOperations();
    return QApplication::event(event);
}

void NativeMessagingHost::abandonOperations()
{
    TerminatingFlag::set();
    if (auto* protocol = qobject_cast<NativeMessaging1*>(nativeMessagingAdapter); protocol && protocol->instance()) {
        protocol->instance()->abandonOperation();
        // Gone at once, also when the process waits for a worker before it ends.
        protocol->instance()->window()->hide();
    }
    // Also the worker of an instance that was replaced and is still finishing.
    if (auto* launcher = findChild<PinFormLauncher*>(QString(), Qt::FindDirectChildrenOnly))
        launcher->closeDialogs();
}

bool NativeMessagingHost::initDefaultLanguage()
{
    const QString path = QString::fromLatin1(translationsDirectory) + QStringLiteral("Scriva_en");
    if (!translator->load(path)) {
        qWarning().noquote() << "Unable to load translation file" << path;
        return false;
    }
    if (!installTranslator(translator)) {
        qWarning().noquote() << "Unable to install translator";
        return false;
    }
    return true;
}

void NativeMessagingHost::startThreads()
{
    try {
        readThread = new ReadThread;
        connect(readThread, &ReadThread::processMessage, this, &NativeMessagingHost::processMessage,
                Qt::AutoConnection);
        readThread->start(QThread::InheritPriority);
        writeThread = new WriteThread;
        writeThread->start(QThread::InheritPriority);
        auto* stops = new StopSignals(this);
        connect(stops, &StopSignals::stopRequestedSignal, this, &NativeMessagingHost::onStopSignal);
    } catch (const AppException& e) {
        qWarning().noquote() << "Unable to start Threads: " + e.toString(true);
    }
}

void NativeMessagingHost::onStopSignal(int signalNumber)
{
    // Whoever started the host wants it gone: the same end as when the browser closes the pipe.
    qWarning().noquote() << QStringLiteral("Ending on signal SIG%1").arg(QLatin1String(sigabbrev_np(signalNumber)));
    QCoreApplication::quit();
}

void NativeMessagingHost::processMessage(QJsonObject obj)
{
    if (nativeMessagingAdapter) {
        nativeMessagingAdapter->processMessage(obj);
        return;
    }

    try {
        if (obj.isEmpty())
            throw APP_EXCEPTION(tr("Received empty JSON message"));
        const QString method = obj.value(QStringLiteral("method")).toString();
        if (method.isEmpty())
            throw APP_EXCEPTION(tr("Received JSON message does not specify NM method"));

        static const QRegularExpression pattern(
            QStringLiteral("^ScrivaPkcs11\\.(\\d+\\.\\d+\\.\\d+)\\.(\\w+)\\.QES\\.CreateInstance$"));
        const QRegularExpressionMatch match = pattern.match(method);
        if (!match.hasMatch())
            throw APP_EXCEPTION(tr("Invalid NM method: %1").arg(method));
        const QString version = match.captured(1);
        const QString hostType = match.captured(2);
        if (version != QLatin1String("1.0.0"))
            throw APP_EXCEPTION(tr("Unsupported NM version: %1").arg(version));
        if (hostType != QLatin1String("qt"))
            throw APP_EXCEPTION(tr("Invalid NM host type: %1").arg(hostType));

        auto* adapter = new NativeMessaging1(version, hostType);
        connect(adapter, &NativeMessagingAdapter::sendMessage, writeThread, &WriteThread::addJsonDocument);
        nativeMessagingAdapter = adapter;
        nativeMessagingAdapter->processMessage(obj);
    } catch (const AppException& e) {
        // An invalid first message ends the host without an answer.
        qWarning().noquote() << "Unable to initialize NativeMessagingAdapter: " + e.toString(true);
        QCoreApplication::quit();
    }
}
