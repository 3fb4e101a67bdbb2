#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>

// Runs the built host as the browser does: framed JSON on its stdin, framed answers read from
// its stdout. Each instance has its own temporary HOME, so the opt-in log can be switched on.
class HostProcess
{
public:
    static constexpr const char* createInstance = "ScrivaPkcs11.1.0.0.qt.QES.CreateInstance";

    HostProcess();
    ~HostProcess();

    static QString executable();
    static QString method(const QString& shortName);
    static QByteArray frame(const QByteArray& payload);

    // Creates the log file, so the host writes its log (call before start).
    void enableLog();
    QString logPath() const;
    QStringList logLines() const;
    bool logContains(const QString& text) const;
    QString home() const { return homeDir.path(); }
    QProcessEnvironment& environment() { return env; }

    // Runs the host under another program, such as a memory checker: program, its arguments,
    // then the host's path and arguments (call before start).
    void setLauncher(const QString& program, const QStringList& arguments = {});
    bool start(const QStringList& arguments = {});
    void send(const QJsonObject& message);
    void sendRaw(const QByteArray& bytes);
    void closeInput();
    // The next answer, or an empty object when none arrives within the timeout.
    QJsonObject readAnswer(int timeoutMs = 10000);
    // A request built from a short method name, an optional id and an optional argument.
    QJsonObject call(const QString& shortName, const QString& argument = QString(), const QString& id = QString());
    bool waitForExit(int timeoutMs = 10000);
    int exitCode() const { return process.exitCode(); }
    QProcess::ExitStatus exitStatus() const { return process.exitStatus(); }
    // Everything the host wrote to stdout that has not been taken as an answer yet.
    QByteArray pendingOutput();
    QProcess& qprocess() { return process; }

private:
    QTemporaryDir homeDir;
    QProcessEnvironment env;
    QProcess process;
    QByteArray buffer;
    QString launcher;
    QStringList launcherArguments;
};
