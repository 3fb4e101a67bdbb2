#include "virtualdisplay.h"

#include <QStandardPaths>
#include <QTest>

bool VirtualDisplay::start()
{
    error = "xdotool is not installed";
    if (QStandardPaths::findExecutable("xdotool").isEmpty())
        return false;
    // The server writes its display number to standard output once it accepts clients.
    server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.start("Xvfb", {"-displayfd", "1", "-nolisten", "tcp", "-screen", "0", "1280x1024x24"});
    while (!server.canReadLine() && server.waitForReadyRead(20000)) {}
    display = ":" + QString::fromLatin1(server.readLine().trimmed());
    // For xdotool; the host is given the display on its own.
    qputenv("DISPLAY", display.toLocal8Bit());
    error = "Xvfb did not start: " + server.errorString();
    return display != ":";
}

bool VirtualDisplay::xdotool(const QStringList& arguments, QString* output) const
{
    QProcess process;
    process.start("xdotool", arguments);
    const bool done = process.waitForFinished(10000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (output)
        *output = QString::fromLocal8Bit(process.readAllStandardOutput());
    return done;
}

QStringList VirtualDisplay::windows(const QString& titlePattern) const
{
    QString output;
    // xdotool answers 1 when nothing matches; the empty list says the same.
    xdotool({"search", "--onlyvisible", "--name", titlePattern}, &output);
    return output.split('\n', Qt::SkipEmptyParts);
}

QString VirtualDisplay::waitForWindow(const QString& titlePattern, const QStringList& known) const
{
    QString found;
    (void)QTest::qWaitFor([&] {
        for (const QString& window : windows(titlePattern))
            if (!known.contains(window))
                return !(found = window).isEmpty();
        return false;
    }, 20000);
    return found;
}

bool VirtualDisplay::waitUntilGone(const QString& window) const
{
    return QTest::qWaitFor([&] { return !windows(".").contains(window); }, 20000);
}

// The focus request and the keystrokes travel on one X connection, so the server applies them
// in this order.
bool VirtualDisplay::type(const QString& window, const QString& text, const QString& keys) const
{
    return (text.isEmpty() || xdotool({"windowfocus", window, "type", "--delay", "20", text}))
           && (keys.isEmpty() || xdotool({"windowfocus", window, "key", keys}));
}
