#include "virtualdisplay.h"

#include <QDeadlineTimer>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTest>

static constexpr int pollIntervalMs = 50;

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
    // The server writes its display number to standard output once it accepts clients.
    server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.start(QStringLiteral("Xvfb"), {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-nolisten"),
                                          QStringLiteral("tcp"), QStringLiteral("-screen"), QStringLiteral("0"),
                                          QStringLiteral("1280x1024x24")});
    QDeadlineTimer deadline(20000);
    while (server.waitForStarted(10000) && !server.canReadLine() && !deadline.hasExpired())
        server.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
    const QString number = QString::fromLatin1(server.readLine().trimmed());
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
