#include "hostprocess.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QtEndian>

HostProcess::HostProcess() : env(QProcessEnvironment::systemEnvironment())
{
    env.insert("HOME", homeDir.path());
    env.insert("XDG_DATA_HOME", homeDir.path() + "/.local/share");
    env.insert("XDG_RUNTIME_DIR", homeDir.path());
    if (!env.contains("QT_QPA_PLATFORM"))
        env.insert("QT_QPA_PLATFORM", "offscreen");
}

QString HostProcess::executable()
{
    return SCRIVA_BIN_DIR "/ScrivaPkcs11";
}

QByteArray HostProcess::frame(const QByteArray& payload)
{
    QByteArray bytes(4, '\0');
    qToLittleEndian<quint32>(quint32(payload.size()), bytes.data());
    return bytes + payload;
}

void HostProcess::enableLog()
{
    QDir().mkpath(QFileInfo(logPath()).path());
    QFile(logPath()).open(QIODevice::WriteOnly);
}

QStringList HostProcess::logLines() const
{
    QFile file(logPath());
    file.open(QIODevice::ReadOnly);
    return QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts);
}

bool HostProcess::start(const QStringList& arguments)
{
    process.setProcessEnvironment(env);
    const QStringList command = launcher + QStringList{executable()} + arguments;
    process.start(command.first(), command.mid(1));
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

QJsonObject HostProcess::readAnswer(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        const quint32 length = buffer.size() >= 4 ? qFromLittleEndian<quint32>(buffer.constData()) : 0;
        if (buffer.size() >= 4 && quint32(buffer.size()) >= 4 + length) {
            const QByteArray payload = buffer.mid(4, int(length));
            buffer.remove(0, int(4 + length));
            return QJsonDocument::fromJson(payload).object();
        }
        const bool running = process.state() != QProcess::NotRunning;
        if (running && !deadline.hasExpired())
            process.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
        const QByteArray more = process.readAllStandardOutput();
        if (more.isEmpty() && (!running || deadline.hasExpired()))
            return {};
        buffer += more;
    }
}

QJsonObject HostProcess::call(const QString& shortName, const QString& argument)
{
    QJsonObject message{{"method", method(shortName)}};
    if (!argument.isNull())
        message.insert("args", QJsonArray{argument});
    send(message);
    return readAnswer();
}

bool HostProcess::waitForExit(int timeoutMs)
{
    return process.state() == QProcess::NotRunning || process.waitForFinished(timeoutMs);
}

bool HostProcess::endedNormally(int timeoutMs)
{
    return waitForExit(timeoutMs) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0
           && pendingOutput().isEmpty();
}

QByteArray HostProcess::pendingOutput()
{
    const QByteArray out = buffer + process.readAllStandardOutput();
    buffer.clear();
    return out;
}
