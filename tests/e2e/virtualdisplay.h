#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

// A private X server (Xvfb) for tests that drive the host's real windows, with xdotool as the
// user's keyboard. The server picks a free display number itself and listens on no TCP port.
// Windows are xdotool window ids (decimal text) found by their title.
class VirtualDisplay
{
public:
    VirtualDisplay() = default;
    ~VirtualDisplay();
    VirtualDisplay(const VirtualDisplay&) = delete;
    VirtualDisplay& operator=(const VirtualDisplay&) = delete;

    // False (with lastError) when Xvfb or xdotool is missing or the server does not come up.
    bool start();
    QString lastError() const { return error; }
    // The DISPLAY value of the server, e.g. ":3".
    QString name() const { return display; }

    // Visible windows whose title matches the regular expression.
    QStringList windows(const QString& titlePattern) const;
    // The first visible window matching the pattern that is not one of `known`; waits up to
    // timeoutMs and returns an empty string when none shows.
    QString waitForWindow(const QString& titlePattern, const QStringList& known = {}, int timeoutMs = 20000) const;
    // Waits until the window is no longer visible.
    bool waitUntilGone(const QString& window, int timeoutMs = 20000) const;

    // Gives the window the keyboard focus, then types the text or presses the keys ("Return",
    // "Escape") as a user would.
    bool type(const QString& window, const QString& text) const;
    bool key(const QString& window, const QString& keys) const;

private:
    bool xdotool(const QStringList& arguments, QString* output = nullptr) const;

    QProcess server;
    QString display;
    QString error;
};
