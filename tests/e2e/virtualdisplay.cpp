#include "virtualdisplay.h"

#include <QDeadlineTimer>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTest>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr int pollIntervalMs = 50;

// Reads the display number that Xvfb writes to its -displayfd descriptor once it accepts clients.
QString readDisplayNumber(int fd, int timeoutMs)
{
    QByteArray text;
    QDeadlineTimer deadline(timeoutMs);
    while (!text.endsWith('\n') && !deadline.hasExpired()) {
        pollfd entry{fd, POLLIN, 0};
        if (::poll(&entry, 1, int(qMax<qint64>(1, deadline.remainingTime()))) <= 0)
            continue;
        char c;
        if (::read(fd, &c, 1) != 1)
            break;
        text.append(c);
    }
    return text.endsWith('\n') ? QString::fromLatin1(text.trimmed()) : QString();
}

} // namespace

VirtualDisplay::~VirtualDisplay()
{
    if (server.state() != QProcess::NotRunning) {
        server.terminate();
        if (!server.waitForFinished(5000)) {
            server.kill();
            server.waitForFinished(5000);
        }
    }
}

bool VirtualDisplay::start()
{
    if (QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty()
        || QStandardPaths::findExecutable(QStringLiteral("xdotool")).isEmpty()) {
        error = QStringLiteral("Xvfb or xdotool is not installed");
        return false;
    }
    int fds[2];
    if (::pipe(fds) != 0) {
        error = QStringLiteral("no pipe for the display number");
        return false;
    }
    ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    // The write end is inherited by the server (QProcess leaves other descriptors open).
    server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.setStandardOutputFile(QProcess::nullDevice());
    server.start(QStringLiteral("Xvfb"), {QStringLiteral("-displayfd"), QString::number(fds[1]),
                                          QStringLiteral("-nolisten"), QStringLiteral("tcp"), QStringLiteral("-screen"),
                                          QStringLiteral("0"), QStringLiteral("1280x1024x24")});
    ::close(fds[1]);
    const QString number = server.waitForStarted(10000) ? readDisplayNumber(fds[0], 20000) : QString();
    ::close(fds[0]);
    if (number.isEmpty()) {
        error = QStringLiteral("Xvfb did not start: ") + server.errorString();
        return false;
    }
    display = QLatin1Char(':') + number;
    return true;
}

bool VirtualDisplay::xdotool(const QStringList& arguments, QString* output) const
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DISPLAY"), display);
    process.setProcessEnvironment(env);
    process.start(QStringLiteral("xdotool"), arguments);
    if (!process.waitForFinished(10000)) {
        process.kill();
        process.waitForFinished();
        return false;
    }
    if (output)
        *output = QString::fromLocal8Bit(process.readAllStandardOutput());
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

QStringList VirtualDisplay::windows(const QString& titlePattern) const
{
    QString output;
    // xdotool answers 1 when nothing matches; the empty list says the same.
    xdotool({QStringLiteral("search"), QStringLiteral("--onlyvisible"), QStringLiteral("--name"), titlePattern}, &output);
    return output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QString VirtualDisplay::waitForWindow(const QString& titlePattern, const QStringList& known, int timeoutMs) const
{
    QDeadlineTimer deadline(timeoutMs);
    do {
        for (const QString& window : windows(titlePattern))
            if (!known.contains(window))
                return window;
        QTest::qWait(pollIntervalMs);
    } while (!deadline.hasExpired());
    return QString();
}

bool VirtualDisplay::waitUntilGone(const QString& window, int timeoutMs) const
{
    QDeadlineTimer deadline(timeoutMs);
    while (windows(QStringLiteral(".")).contains(window)) {
        if (deadline.hasExpired())
            return false;
        QTest::qWait(pollIntervalMs);
    }
    return true;
}

// The focus request and the keystrokes travel on one X connection, so the server applies them
// in this order.
bool VirtualDisplay::type(const QString& window, const QString& text) const
{
    return xdotool({QStringLiteral("windowfocus"), window, QStringLiteral("type"), QStringLiteral("--delay"),
                    QStringLiteral("20"), text});
}

bool VirtualDisplay::key(const QString& window, const QString& keys) const
{
    return xdotool({QStringLiteral("windowfocus"), window, QStringLiteral("key"), keys});
}
