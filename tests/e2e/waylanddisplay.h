#pragma once

#include <QProcess>
#include <QTemporaryDir>

// A private Wayland desktop for tests that drive the host's real windows: a headless sway in its own
// runtime directory, with wtype as the user's keyboard, both through scripts/headless_sway.py.
class WaylandDisplay
{
public:
    ~WaylandDisplay() { server.kill(), server.waitForFinished(5000); }
    bool start() { server.start("python3", {script, "run", dir.path()}); return tool({"ready"}, &display); }
    QString runtimeDir() const { return dir.path(); } // XDG_RUNTIME_DIR of the desktop's clients
    QString name() const { return display; }           // WAYLAND_DISPLAY, e.g. "wayland-1"

    // Waits for a native (xdg-shell) window titled to match, not seen before, to take the keyboard
    // focus; false after 20 s.
    bool waitForNewWindow(const QString& titlePattern) const { return tool({"window", titlePattern}); }
    // Types the text, then presses the key ("Return"), into the window with the keyboard focus.
    bool type(const QString& text, const QString& key) const { return tool({"type", text, key}); }

private:
    bool tool(const QStringList& arguments, QString* output = nullptr) const;

    const QString script = SCRIVA_SOURCE_DIR "/scripts/headless_sway.py";
    QTemporaryDir dir;
    QProcess server;
    QString display;
};
