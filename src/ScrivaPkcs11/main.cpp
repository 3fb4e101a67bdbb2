#include "appexception.h"
#include "loghandler.h"
#include "nativemessaginghost.h"
#include "scrivabuildid.h"
#include "stopsignals.h"

#include <QCommandLineParser>
#include <QDir>
#include <QPalette>
#include <QSysInfo>

#include <csignal>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    // A browser that stops reading must not kill the host: a write to the closed pipe fails
    // instead, and the write thread ends the host through its usual warning.
    ::signal(SIGPIPE, SIG_IGN);

    // A browser may start the host without stdin, stdout or stderr. The numbers stay taken by
    // an empty device, so the pipes' threads never read or write a descriptor of the host's own
    // that would take the number instead: no stdin is an input that ends at once.
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (::fcntl(fd, F_GETFD) == -1)
            ::open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);

    // A browser may send SIGTERM as soon as the page goes, also while the host starts: the host
    // then ends as though the browser had closed the pipe. After the standard descriptors are
    // taken, so the signal pipe never becomes stdin.
    StopSignals::install();

    // A large frame is read into, and parsed into, buffers of its own size. Served from the one
    // main heap instead of fresh mappings, and kept there while frames come, the next large
    // frame reuses those pages rather than faulting them in again; the read thread trims the
    // heap once large frames stop coming. The host's few threads allocate little, so one arena
    // costs nothing.
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    mallopt(M_TRIM_THRESHOLD, 1 << 30);

    // First, so that every later message can reach the log.
    LogHandler::init(QString::fromLatin1(LogHandler::hostLogFileName));
    Q_INIT_RESOURCE(scriva);

    auto* app = new NativeMessagingHost(argc, argv);

    QPalette palette = QApplication::palette();
    palette.setBrush(QPalette::All, QPalette::Base, QBrush(Qt::white, Qt::SolidPattern));
    QApplication::setPalette(palette);

    // The window may be closed; only the protocol ends the host.
    QApplication::setQuitOnLastWindowClosed(false);

    const QString applicationDir = QCoreApplication::applicationDirPath();
    if (QDir(applicationDir) != QDir(QDir::currentPath()))
        qWarning().noquote() << "Working directory was not set before the application has started";
    if (!QDir::setCurrent(applicationDir))
        qWarning().noquote() << "Unable to set working directory";

    if (!app->initDefaultLanguage()) {
        delete app;
        return 1;
    }

    QCoreApplication::setApplicationVersion(
        QStringLiteral("%1 (%2)").arg(QLatin1String(NativeMessagingHost::programVersion), QLatin1String(SCRIVA_BUILD_ID)));
    // Name and version follow each other directly, as the banner has always read.
    qInfo().noquote() << "Starting app: " + QCoreApplication::applicationName() + QCoreApplication::applicationVersion();
    qInfo().noquote() << "Qt build version: " QT_VERSION_STR;
    qInfo().noquote() << QStringLiteral("Qt runtime version: ") + QLatin1String(qVersion());
    qInfo().noquote() << "OS type: " + QSysInfo::prettyProductName();
    // The browser's arguments are not ours: escaped, so they stay on the banner's line.
    qInfo().noquote() << "with arguments: " + LogHandler::escaped(QCoreApplication::arguments().join(QLatin1Char(' ')));

    QCommandLineParser parser;
    parser.addVersionOption();
    parser.addHelpOption();
    if (parser.parse(QCoreApplication::arguments()))
        parser.process(*app);
    else
        qWarning().noquote() << "CommandLineParser error: " + LogHandler::escaped(parser.errorText());

    app->startThreads();
    const int exitCode = app->exec();
    // Closed input, Terminate or a signal ended the loop; a worker stuck in a module call must
    // not keep the host beyond that.
    if (!app->waitForWorkers())
        app->endAbandoningWorkers(exitCode);

    Q_CLEANUP_RESOURCE(scriva);
    qInfo().noquote() << "Application quits with exit code: " + QString::number(exitCode);
    delete app;
    return exitCode;
}
