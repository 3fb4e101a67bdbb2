#include "hostprocess.h"

#include "externaltool.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QXmlStreamReader>
#include <QtEndian>

static const QString tpmScript = QStringLiteral(SCRIVA_SOURCE_DIR "/scripts/tpm-token.sh");

HostProcess::HostProcess() : env(QProcessEnvironment::systemEnvironment())
{
    env.insert("HOME", homeDir.path());
    env.insert("XDG_DATA_HOME", homeDir.path() + "/.local/share");
    env.insert("XDG_RUNTIME_DIR", homeDir.path());
    if (!env.contains("QT_QPA_PLATFORM"))
        env.insert("QT_QPA_PLATFORM", "offscreen");
}

QString HostProcess::executable() { return SCRIVA_BIN_DIR "/ScrivaPkcs11"; }

HostProcess::~HostProcess()
{
    process.kill(), process.waitForFinished(5000);
    if (!tpmDir.isEmpty())
        ExternalTool::run("bash", {tpmScript, "stop", tpmDir});
}

QString HostProcess::operation(const QString& name)
{
    for (const char* operation : {"GetSlots", "GetCertificates", "GenerateCsr", "CreateObject"})
        if (name.contains('-') && name.section('-', 0, 0).compare(QLatin1String(operation), Qt::CaseInsensitive) == 0)
            return operation;
    return name;
}

QByteArray HostProcess::frame(const QByteArray& payload)
{
    QByteArray bytes(4, '\0');
    qToLittleEndian<quint32>(quint32(payload.size()), bytes.data());
    return bytes + payload;
}

QStringList HostProcess::texts(const QString& xml, const QString& element)
{
    QStringList found;
    for (QXmlStreamReader reader(xml); !reader.atEnd();)
        if (reader.readNext() == QXmlStreamReader::StartElement && reader.name() == element)
            found.append(reader.readElementText(QXmlStreamReader::IncludeChildElements));
    return found;
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

bool HostProcess::configureTestModule(const QByteArray& keyValues)
{
    QFile file(homeDir.filePath("scriva-test-p11.conf"));
    env.insert("SCRIVA_TEST_P11_CONFIG", file.fileName());
    return file.open(QIODevice::WriteOnly) && file.write(keyValues) == keyValues.size();
}

bool HostProcess::start(const QStringList& arguments)
{
    process.setProcessEnvironment(env);
    const QStringList command = launcher + QStringList{executable()} + arguments;
    process.start(command.first(), command.mid(1));
    return process.waitForStarted(10000);
}

bool HostProcess::startWithToken(const QStringList& arguments, const QString& serialNumber)
{
    serial = serialNumber;
    if (serial.isEmpty()) {
        if (!store.initToken("Scriva token", "12345678", userPin))
            return failure = store.lastError(), false;
        env.insert("SOFTHSM2_CONF", store.configPath());
        serial = store.serialNumber("Scriva token");
    }
    const QJsonObject answer = start(arguments) ? call("CreateInstance") : QJsonObject();
    failure = "CreateInstance failed: " + error(answer);
    return !answer.isEmpty() && answer.value("error").isNull();
}

bool HostProcess::startWithTpmToken()
{
    tpmDir = homeDir.filePath("tpm");
    QFile variables(tpmDir + "/env");
    if (!QDir().mkpath(tpmDir) || !ExternalTool::run("bash", {tpmScript, "start", tpmDir, "Scriva token", userPin, "12345678"}, &failure)
        || !variables.open(QIODevice::ReadOnly))
        return false;
    for (const QString& line : QString::fromLocal8Bit(variables.readAll()).split('\n', Qt::SkipEmptyParts))
        env.insert(line.section('=', 0, 0), line.section('=', 1));
    env.insert("SCRIVA_TEST_P11_TARGET", tpmModulePath);
    return startWithToken({}, tpmSerialNumber);
}

QString HostProcess::signedRequest(const QString& name, const QString& nonce, const QMap<QString, QString>& replacements,
                                   const QString& signer) const
{
    QMap<QString, QString> all{{"0123456789ABCDEF", serial}, {"{\"reader\":\"any\"}", ""},
                               {sampleModule, SoftHsmToken::softHsmModulePath()}};
    all.insert(replacements);
    return TestRequests::signedXml(QString::fromUtf8(TestRequests::xml(name, nonce, all))
        .replace(QRegularExpression("<ObjectAttributes>.*</ObjectAttributes>", QRegularExpression::DotMatchesEverythingOption),
                 "<ObjectAttributes>" + objectAttributes + "</ObjectAttributes>")
        .toUtf8(), signer);
}

void HostProcess::send(const QString& name, const QString& argument)
{
    QJsonObject message{{"method", method(name)}};
    if (!argument.isNull())
        message.insert("args", QJsonArray{argument});
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
    // A frame is its length (4 bytes, little-endian), then that many bytes of JSON.
    while ((buffer += process.readAllStandardOutput()).size() < 4
           || quint32(buffer.size() - 4) < qFromLittleEndian<quint32>(buffer.constData()))
        if (!process.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime()))) && !process.bytesAvailable())
            return {};
    const int length = int(qFromLittleEndian<quint32>(buffer.constData()));
    const QJsonObject answer = QJsonDocument::fromJson(buffer.mid(4, length)).object();
    buffer.remove(0, 4 + length);
    return answer;
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
