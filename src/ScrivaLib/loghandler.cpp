#include "loghandler.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTextStream>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <sys/stat.h>

namespace {

// Written once during start-up, before any other thread exists; read by every thread after.
struct LogState
{
    bool enabled = false;
    QString fileName;
    QString dataDirectory;
    QString logDirectory;
    QString hostLogPath;
    QByteArray encodedHostLogPath; // for stat(): the check runs before every message and traced call
    // Kept for the components that write these logs; the host itself writes only its own.
    QString certStoreLogPath;
    QString keyChainLogPath;
};

LogState& state()
{
    static LogState s;
    return s;
}

QMutex& logMutex()
{
    static QMutex m;
    return m;
}

} // namespace

void LogHandler::init(const QString& fileName)
{
    LogState& s = state();
    s.fileName = fileName;
    s.dataDirectory = QDir::cleanPath(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)
                                      + QStringLiteral("/Corvant/Scriva"))
                      + QLatin1Char('/');
    s.logDirectory = s.dataDirectory + QStringLiteral("Logs/");
    s.hostLogPath = QDir::cleanPath(s.logDirectory + QLatin1Char('/') + fileName);
    s.encodedHostLogPath = QFile::encodeName(s.hostLogPath);
    s.certStoreLogPath = QDir::cleanPath(s.logDirectory + QStringLiteral("/CertStoreLog.txt"));
    s.keyChainLogPath = QDir::cleanPath(s.logDirectory + QStringLiteral("/KeyChainLog.txt"));
    s.enabled = true;
    qInstallMessageHandler(&LogHandler::messageHandler);
}

void LogHandler::shutdown()
{
    state().enabled = false;
    qInstallMessageHandler(nullptr);
}

bool LogHandler::isEnabled() { return state().enabled; }
QString LogHandler::dataDirectory() { return state().dataDirectory; }
QString LogHandler::logDirectory() { return state().logDirectory; }
QString LogHandler::hostLogPath() { return state().hostLogPath; }
QString LogHandler::certStoreLogPath() { return state().certStoreLogPath; }
QString LogHandler::keyChainLogPath() { return state().keyChainLogPath; }

bool LogHandler::hostLogExists()
{
    const LogState& s = state();
    if (!s.enabled)
        return false;
    struct stat info;
    return ::stat(s.encodedHostLogPath.constData(), &info) == 0 && S_ISREG(info.st_mode);
}

namespace {
const qint64 neverChecked = std::numeric_limits<qint64>::min();
std::atomic<qint64> hostLogCheckedAt{neverChecked};
std::atomic<bool> hostLogSeen{false};
} // namespace

void LogHandler::refreshHostLogCheck()
{
    hostLogCheckedAt.store(neverChecked);
}

bool LogHandler::hostLogExistsNow()
{
    using namespace std::chrono;
    const qint64 millisecond = duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
    if (hostLogCheckedAt.exchange(millisecond) != millisecond)
        hostLogSeen.store(hostLogExists());
    return hostLogSeen.load();
}

bool LogHandler::dropsLines()
{
    return state().enabled && !hostLogExistsNow();
}

QString LogHandler::formatLine(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    const QString level = QStringLiteral("DWCFI").mid(static_cast<int>(type), 1);
    // One pass over the template, so a '%' in the message text is never taken for a placeholder.
    return QStringLiteral("%1 - %8 - %7 - %2 - %3 - at %4 in %5 line %6")
        .arg(QDateTime::currentDateTimeUtc().toString(Qt::ISODate), level.isEmpty() ? QStringLiteral("?") : level, message,
             QString::fromUtf8(context.function ? context.function : ""),
             QString::fromUtf8(context.file ? context.file : ""), QString::number(context.line),
             QString::number(reinterpret_cast<quintptr>(QThread::currentThreadId())),
             QString::number(QCoreApplication::applicationPid()));
}

void LogHandler::messageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    // Logging is opt-in: the file is never created here, only appended to while it exists. An
    // operation logs dozens of lines; with the log off, one look at the file per millisecond
    // serves them all instead of a file system lookup each.
    if (!hostLogExistsNow())
        return;

    QMutexLocker locker(&logMutex());
    QFile file(state().hostLogPath);
    if (file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Text | QIODevice::ExistingOnly)) {
        QTextStream stream(&file);
        stream << formatLine(type, context, message) << Qt::endl;
    }
    // Qt itself ends the process after a fatal message has been handled.
}

QString LogHandler::escaped(const QString& text)
{
    auto isControl = [](QChar c) { return c.unicode() < 0x20 || (c.unicode() >= 0x7F && c.unicode() < 0xA0)
                                          || c.unicode() == 0x2028 || c.unicode() == 0x2029; };
    if (std::none_of(text.cbegin(), text.cend(), isControl))
        return text;
    QString result;
    for (const QChar c : text) {
        if (!isControl(c)) {
            result.append(c);
            continue;
        }
        switch (c.unicode()) {
        case '\n': result.append(QLatin1String("\\n")); break;
        case '\r': result.append(QLatin1String("\\r")); break;
        case '\t': result.append(QLatin1String("\\t")); break;
        default:
            result.append(QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0')));
        }
    }
    return result;
}
