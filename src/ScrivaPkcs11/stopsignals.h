#pragma once

#include <QObject>

// Brings SIGTERM, SIGINT and SIGHUP to the thread that made the object, as a Qt signal. A browser
// sends SIGTERM to a host it has given up on; a closed terminal sends SIGHUP. The handler only
// writes the signal's number into a pipe that the event loop watches, which is all a handler may
// safely do. The handlers stay installed for the rest of the process, so a signal during the
// last steps of the end changes nothing.
class StopSignals : public QObject
{
    Q_OBJECT

public:
    // Installs the handlers; a signal that comes before the object exists waits in the pipe.
    static bool install();

    explicit StopSignals(QObject* parent = nullptr);

signals:
    void stopRequestedSignal(int signalNumber);

private:
    void onSignalled();
};
