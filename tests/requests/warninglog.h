#pragma once

#include <QStringList>
#include <QtGlobal>

// Collects the warnings logged while it lives, instead of printing them.
class WarningLog
{
public:
    WarningLog() : previous(qInstallMessageHandler(&WarningLog::handler)) { lines().clear(); }
    ~WarningLog() { qInstallMessageHandler(previous); }
    WarningLog(const WarningLog&) = delete;
    WarningLog& operator=(const WarningLog&) = delete;

    const QStringList& warnings() const { return lines(); }
    bool contains(const QString& text) const { return lines().contains(text); }

private:
    static QStringList& lines()
    {
        static QStringList collected;
        return collected;
    }
    static void handler(QtMsgType type, const QMessageLogContext&, const QString& message)
    {
        if (type == QtWarningMsg)
            lines().append(message);
    }

    QtMessageHandler previous;
};
