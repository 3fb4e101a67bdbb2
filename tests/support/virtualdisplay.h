#pragma once

#include <QProcess>
#include <QTemporaryDir>

// A private desktop for the host's real windows: Xvfb (free display number, no TCP) typed into with xdotool, or a
// headless sway in its own runtime directory typed into with wtype (scripts/headless_sway.py). Windows are found by
// title pattern; on Wayland the keys go to the window with the focus.
class VirtualDisplay
{
public:
    enum Kind { X11, Wayland };
    explicit VirtualDisplay(Kind kind = X11) : kind(kind) {}
    ~VirtualDisplay() { server.kill(), server.waitForFinished(5000); }
    bool start(); // false, with lastError(), when the server does not come up
    QString lastError() const { return error; }
    QString runtimeDir() const { return dir.path(); } // XDG_RUNTIME_DIR of a Wayland desktop's clients
    void addTo(QProcessEnvironment& environment) const; // on Wayland the Qt platform is the client's choice

    QStringList windows(const QString& titlePattern) const; // the visible ones (X only)
    // The first window matching that is not `known` (Wayland: no earlier call returned it) to show; empty after 20 s.
    QString waitForWindow(const QString& titlePattern, const QStringList& known = {}) const;
    bool waitUntilGone(const QString& window) const;
    // Focuses the window, then types the text and presses the keys ("Return", "Tab space").
    bool type(const QString& window, const QString& text, const QString& keys = {}) const;

private:
    bool tool(const QStringList& arguments, QString* output = nullptr) const;

    const Kind kind;
    QTemporaryDir dir;
    QProcess server;
    QString display;
    QString error;
};
