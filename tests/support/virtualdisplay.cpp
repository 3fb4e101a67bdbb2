#include "virtualdisplay.h"

#include "externaltool.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>

static const QString swayScript = QStringLiteral(SCRIVA_SOURCE_DIR "/scripts/headless_sway.py");

bool VirtualDisplay::start()
{
    if (kind == Wayland) {
        server.start("python3", {swayScript, "run", dir.path()});
        return tool({"ready"}, &error) && !(display = error.trimmed()).isEmpty(); // the display's name, or what sway said
    }
    // The server writes its display number to standard output once it accepts clients.
    server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.start("Xvfb", {"-displayfd", "1", "-nolisten", "tcp", "-screen", "0", "1280x1024x24"});
    while (!server.canReadLine() && server.waitForReadyRead(20000)) {}
    display = ":" + QString::fromLatin1(server.readLine().trimmed());
    error = "Xvfb did not start: " + server.errorString();
    return display != ":";
}

void VirtualDisplay::addTo(QProcessEnvironment& environment) const
{
    if (kind == Wayland)
        return environment.insert("XDG_RUNTIME_DIR", dir.path()), environment.insert("WAYLAND_DISPLAY", display);
    environment.insert("DISPLAY", display);
    environment.insert("QT_QPA_PLATFORM", "xcb");
}

bool VirtualDisplay::tool(const QStringList& arguments, QString* output) const
{
    if (kind == Wayland)
        return ExternalTool::run("python3", QStringList{swayScript, arguments.first(), dir.path()} + arguments.mid(1), output);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DISPLAY", display);
    return ExternalTool::run("xdotool", arguments, output, environment, {}, 10000);
}

QStringList VirtualDisplay::windows(const QString& titlePattern) const
{
    QString output;
    // xdotool answers 1 when nothing matches; the empty list says the same.
    tool({"search", "--onlyvisible", "--name", titlePattern}, &output);
    return output.split('\n', Qt::SkipEmptyParts).filter(QRegularExpression("^\\d+$"));
}

QString VirtualDisplay::waitForWindow(const QString& titlePattern, const QStringList& known) const
{
    QString found;
    if (kind == Wayland) // the script waits, and remembers what it returned
        return tool({"window", titlePattern}, &found) ? QJsonDocument::fromJson(found.toUtf8())["id"].toVariant().toString() : QString();
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

// On X the focus request and the keystrokes share one connection, so the server applies them in order.
bool VirtualDisplay::type(const QString& window, const QString& text, const QString& keys) const
{
    if (kind == Wayland)
        return tool({"type", text, keys});
    return (text.isEmpty() || tool({"windowfocus", window, "type", "--delay", "20", text}))
           && (keys.isEmpty() || tool(QStringList{"windowfocus", window, "key", "--delay", "50"} + keys.split(' ')));
}
