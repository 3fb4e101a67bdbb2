#pragma once

#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

// Runs the built host as the browser does: framed JSON on its stdin, framed answers read from
// its stdout. Each instance has its own temporary HOME, so the opt-in log can be switched on.
class HostProcess
{
public:
    HostProcess();
    ~HostProcess() { process.kill(), process.waitForFinished(5000); }

    static QString executable();
    static QString method(const QString& shortName) { return "ScrivaPkcs11.1.0.0.qt.QES." + shortName; }
    static QByteArray frame(const QByteArray& payload);

    // Creates the log file, so the host writes its log (call before start).
    void enableLog();
    QString logPath() const { return homeDir.path() + "/.local/share/Corvant/Scriva/Logs/ScrivaPkcs11Log.txt"; }
    QStringList logLines() const;
    bool logContains(const QString& text) const { return logLines().join(QLatin1Char('\n')).contains(text); }
    QProcessEnvironment& environment() { return env; }

    // Runs the host under another program, such as a profiler (call before start).
    void setLauncher(const QString& program, const QStringList& arguments = {}) { launcher = QStringList{program} + arguments; }
    bool start(const QStringList& arguments = {});
    void send(const QJsonObject& message);
    void sendRaw(const QByteArray& bytes);
    void closeInput() { process.closeWriteChannel(); }
    // The next answer, or an empty object when none arrives within the timeout.
    QJsonObject readAnswer(int timeoutMs = 10000);
    // A request built from a short method name and an optional argument, and its answer.
    QJsonObject call(const QString& shortName, const QString& argument = QString());
    bool waitForExit(int timeoutMs = 10000);
    // Ended within the timeout with exit code 0, nothing written that was not taken as an answer.
    bool endedNormally(int timeoutMs = 10000);
    int exitCode() const { return process.exitCode(); }
    // Everything the host wrote to stdout that has not been taken as an answer yet.
    QByteArray pendingOutput();
    QProcess& qprocess() { return process; }

private:
    QTemporaryDir homeDir;
    QProcessEnvironment env;
    QProcess process;
    QStringList launcher;
    QByteArray buffer;
};
