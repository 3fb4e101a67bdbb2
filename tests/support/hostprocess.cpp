#include "hostprocess.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QtEndian>

HostProcess::HostProcess() : env(QProcessEnvironment::systemEnvironment())
{
    env.insert(QStringLiteral("HOME"), homeDir.path());
    env.insert(QStringLiteral("XDG_DATA_HOME"), homeDir.path() + QStringLiteral("/.local/share"));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), homeDir.path());
    if (!env.contains(QStringLiteral("QT_QPA_PLATFORM")))
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
}

HostProcess::~HostProcess()
{
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(5000);
    }
}

QString HostProcess::executable()
{
    return QStringLiteral(SCRIVA_BIN_DIR "/ScrivaPkcs11");
}

QString HostProcess::method(const QString& shortName)
{
    return QStringLiteral("ScrivaPkcs11.1.0.0.qt.QES.") + shortName;
}

QByteArray HostProcess::frame(const QByteArray& payload)
{
    QByteArray bytes(4, '\0');
    qToLittleEndian<quint32>(quint32(payload.size()), bytes.data());
    return bytes + payload;
}

QString HostProcess::logPath() const
{
    return homeDir.path() + QStringLiteral("/.local/share/Corvant/Scriva/Logs/ScrivaPkcs11Log.txt");
}

void HostProcess::enableLog()
{
    QDir().mkpath(QFileInfo(logPath()).path());
    QFile file(logPath());
    file.open(QIODevice::WriteOnly);
}

QStringList HostProcess::logLines() const
{
    QFile file(logPath());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

void HostProcess::setLauncher(const QString& program, const QStringList& arguments)
{
    launcher = program;
    launcherArguments = arguments;
}

bool HostProcess::logContains(const QString& text) const
{
    for (const QString& line : logLines())
        if (line.contains(text))
            return true;
    return false;
}

bool HostProcess::start(const QStringList& arguments)
{
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::SeparateChannels);
    if (launcher.isEmpty())
        process.start(executable(), arguments);
    else
        process.start(launcher, launcherArguments + QStringList{executable()} + arguments);
    return process.waitForStarted(10000);
}

void HostProcess::send(const QJsonObject& message)
{
    sendRaw(frame(QJsonDocument(message).toJson(QJsonDocument::Compact)));
}

void HostProcess::sendRaw(const QByteArray& bytes)
{
    process.write(bytes);
    process.waitForBytesWritten(10000);
}

void HostProcess::closeInput()
{
    process.closeWriteChannel();
}

QJsonObject HostProcess::readAnswer(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        if (buffer.size() >= 4) {
            const quint32 length = qFromLittleEndian<quint32>(buffer.constData());
            if (quint32(buffer.size()) >= 4 + length) {
                const QByteArray payload = buffer.mid(4, int(length));
                buffer.remove(0, int(4 + length));
                return QJsonDocument::fromJson(payload).object();
            }
        }
        if (process.state() == QProcess::NotRunning) {
            const QByteArray rest = process.readAllStandardOutput();
            if (rest.isEmpty())
                return {};
            buffer += rest;
            continue;
        }
        if (deadline.hasExpired())
            return {};
        process.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
        buffer += process.readAllStandardOutput();
    }
}

QJsonObject HostProcess::call(const QString& shortName, const QString& argument, const QString& id)
{
    QJsonObject message{{QStringLiteral("method"), method(shortName)}};
    if (!id.isEmpty())
        message.insert(QStringLiteral("id"), id);
    if (!argument.isNull())
        message.insert(QStringLiteral("args"), QJsonArray{argument});
    send(message);
    return readAnswer();
}

bool HostProcess::waitForExit(int timeoutMs)
{
    if (process.state() == QProcess::NotRunning)
        return true;
    return process.waitForFinished(timeoutMs);
}

QByteArray HostProcess::pendingOutput()
{
    buffer += process.readAllStandardOutput();
    const QByteArray out = buffer;
    buffer.clear();
    return out;
}
