#pragma once

#include <QProcess>
#include <QTemporaryDir>

// A private desktop for tests that drive the host's real windows, with a program as the user's
// keyboard: an X server (Xvfb on a free display number, no TCP) typed into with xdotool, or a
// headless sway in its own runtime directory typed into with wtype (scripts/headless_sway.py).
// Windows are found by a title pattern: on X as xdotool window ids, the keys going to the window
// named; on Wayland the keys go to the one with the focus.
class VirtualDisplay
{
public:
    enum Kind { X11, Wayland };
    explicit VirtualDisplay(Kind kind = X11) : kind(kind) {}
    ~VirtualDisplay() { server.kill(), server.waitForFinished(5000); }
    bool start(); // false, with lastError(), when the server does not come up
    QString lastError() const { return error; }
    QString name() const { return display; } // DISPLAY (":3") or WAYLAND_DISPLAY ("wayland-1")
    QString runtimeDir() const { return dir.path(); } // XDG_RUNTIME_DIR of a Wayland desktop's clients
    // Puts a client on this desktop; the Qt platform is left to the client on Wayland.
    void addTo(QProcessEnvironment& environment) const;

    QStringList windows(const QString& titlePattern) const; // the visible ones (X only)
    // The first window matching the pattern that is not one of `known` (on Wayland: that no earlier
    // call returned) to show (on Wayland: to take the focus); empty after 20 s.
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
