#pragma once

#include <QMutex>
#include <QString>
#include <QtGlobal>

// The opt-in file log: every Qt log message of the process goes through messageHandler, which
// appends one line to the host log only while that file exists as a regular file.
class LogHandler
{
public:
    static void init(const QString& fileName);
    static void shutdown();
    static void messageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message);

    // The line as it is written, without the end of line.
    static QString formatLine(QtMsgType type, const QMessageLogContext& context, const QString& message);

    static bool isEnabled();
    static QString dataDirectory();
    static QString logDirectory();
    static QString hostLogPath();
    static QString certStoreLogPath();
    static QString keyChainLogPath();
    // True when the host log file exists, which also switches the PKCS#11 call trace on.
    static bool hostLogExists();
    // The same answer, looked up at most once a millisecond: for checks made around every
    // PKCS#11 call, where a file system lookup each time would cost more than the call.
    static bool hostLogExistsNow();
    // Makes the next hostLogExistsNow() look again, e.g. right after the log file was created.
    static void refreshHostLogCheck();
    // True when this handler is installed and the log is off: a line would go nowhere, so a
    // costly text (a whole request, a certificate) need not be made for it.
    static bool dropsLines();

    // Text that comes from outside (a page, a request, a module) as one log line: control
    // characters are written as escapes (a newline as \n), so nobody can add lines to the log.
    static QString escaped(const QString& text);

    static constexpr const char* hostLogFileName = "ScrivaPkcs11Log.txt";
};
