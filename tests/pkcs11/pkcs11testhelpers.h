#pragma once

#include "loghandler.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

// The host log, and with it the PKCS#11 trace, in a private data directory: on while the file exists.
class TraceSwitch
{
public:
    explicit TraceSwitch(const QString& base = QDir::tempPath()) : home(base + QStringLiteral("/scriva-trace-XXXXXX")) {}
    // From initTestCase: the test framework installs its own message handler before that.
    void install()
    {
        qputenv("XDG_DATA_HOME", home.path().toUtf8());
        LogHandler::init(QString::fromLatin1(LogHandler::hostLogFileName));
        QDir().mkpath(LogHandler::logDirectory());
    }
    ~TraceSwitch() { LogHandler::shutdown(); }

    // Starts an empty log, or removes it.
    static void set(bool on)
    {
        QFile::remove(LogHandler::hostLogPath());
        if (on)
            QFile(LogHandler::hostLogPath()).open(QIODevice::WriteOnly);
        LogHandler::refreshHostLogCheck();
    }
    static QString text()
    {
        QFile file(LogHandler::hostLogPath());
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
    // The trace lines' messages, leading blanks kept; this run's addresses (9+ hex digits) read "0x*".
    static QStringList trace()
    {
        static const QRegularExpression line(QStringLiteral("^\\S+ - \\d+ - \\d+ - I - PKCS#11 - (.*) - at .* line \\d+$"));
        static const QRegularExpression address(QStringLiteral("0x[0-9a-f]{9,}"));
        return text().split('\n').filter(line).replaceInStrings(line, "\\1").replaceInStrings(address, "0x*");
    }

private:
    QTemporaryDir home;
};
