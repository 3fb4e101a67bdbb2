#pragma once

#include <QProcess>

// A private X server (Xvfb) for tests that drive the host's real windows, with xdotool as the
// user's keyboard. The server picks a free display number itself and listens on no TCP port.
// Windows are xdotool window ids (decimal text) found by their title.
class VirtualDisplay
{
public:
    ~VirtualDisplay() { server.kill(), server.waitForFinished(5000); }
    // False (with lastError) when xdotool is missing or the server does not come up.
    bool start();
    QString lastError() const { return error; }
    QString name() const { return display; } // the DISPLAY value, e.g. ":3"

    QStringList windows(const QString& titlePattern) const;
    // The first visible window matching the pattern that is not one of `known`; empty after 20 s.
    QString waitForWindow(const QString& titlePattern, const QStringList& known = {}) const;
    bool waitUntilGone(const QString& window) const;
    // Focuses the window, then types the text and presses the keys ("Return", "Escape").
    bool type(const QString& window, const QString& text, const QString& keys = {}) const;

private:
    bool xdotool(const QStringList& arguments, QString* output = nullptr) const;

    QProcess server;
    QString display;
    QString error;
};
