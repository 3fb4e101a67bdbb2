#include "softhsmtoken.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTextStream>

namespace {

constexpr const char* configVariable = "SOFTHSM2_CONF";

// One token of "softhsm2-util --show-slots": slot id, serial number and label.
struct SlotEntry
{
    QString slot;
    QString serial;
    QString label;
};

QList<SlotEntry> parseSlots(const QString& listing)
{
    QList<SlotEntry> entries;
    static const QRegularExpression slotLine(QStringLiteral("^Slot (\\d+)\\s*$"));
    for (const QString& line : listing.split(QLatin1Char('\n'))) {
        const QRegularExpressionMatch match = slotLine.match(line);
        if (match.hasMatch()) {
            entries.append({match.captured(1), QString(), QString()});
            continue;
        }
        if (entries.isEmpty())
            continue;
        const QString trimmed = line.trimmed();
        const int colon = trimmed.indexOf(QLatin1Char(':'));
        if (colon < 0)
            continue;
        const QString key = trimmed.left(colon);
        const QString value = trimmed.mid(colon + 1).trimmed();
        if (key == QLatin1String("Serial number"))
            entries.last().serial = value;
        else if (key == QLatin1String("Label"))
            entries.last().label = value;
    }
    return entries;
}

} // namespace

SoftHsmToken::SoftHsmToken()
{
    if (!dir.isValid() || !QDir(dir.path()).mkpath(QStringLiteral("tokens"))) {
        error = QStringLiteral("Unable to create the token directory");
        return;
    }
    QFile config(configPath());
    if (!config.open(QIODevice::WriteOnly | QIODevice::Text)) {
        error = QStringLiteral("Unable to write ") + configPath();
        return;
    }
    QTextStream(&config) << "directories.tokendir = " << dir.path() << "/tokens\n"
                         << "objectstore.backend = file\n"
                         << "log.level = ERROR\n";
    config.close();

    hadPreviousConfig = qEnvironmentVariableIsSet(configVariable);
    previousConfig = qgetenv(configVariable);
    qputenv(configVariable, QFile::encodeName(configPath()));
    valid = true;
}

SoftHsmToken::~SoftHsmToken()
{
    if (!valid)
        return;
    if (hadPreviousConfig)
        qputenv(configVariable, previousConfig);
    else
        qunsetenv(configVariable);
}

QString SoftHsmToken::configPath() const { return dir.filePath(QStringLiteral("softhsm2.conf")); }

QProcessEnvironment SoftHsmToken::environment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QString::fromLatin1(configVariable), configPath());
    return env;
}

bool SoftHsmToken::run(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.setProcessEnvironment(environment());
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(60000)) {
        error = program + QStringLiteral(" did not finish: ") + process.errorString();
        process.kill();
        process.waitForFinished();
        return false;
    }
    const QString output = QString::fromLocal8Bit(process.readAll());
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        error = program + QStringLiteral(" failed: ") + output;
        return false;
    }
    return true;
}

QString SoftHsmToken::showSlots() const
{
    QProcess process;
    process.setProcessEnvironment(environment());
    process.start(QStringLiteral("softhsm2-util"), {QStringLiteral("--show-slots")});
    process.waitForFinished(60000);
    return QString::fromLocal8Bit(process.readAllStandardOutput());
}

bool SoftHsmToken::initToken(const QString& label, const QString& soPin, const QString& userPin)
{
    return run(QStringLiteral("softhsm2-util"), {QStringLiteral("--init-token"), QStringLiteral("--free"),
                                                 QStringLiteral("--label"), label, QStringLiteral("--so-pin"), soPin,
                                                 QStringLiteral("--pin"), userPin});
}

QString SoftHsmToken::serialNumber(const QString& label) const
{
    for (const SlotEntry& entry : parseSlots(showSlots()))
        if (entry.label == label)
            return entry.serial;
    return QString();
}

long SoftHsmToken::slotId(const QString& label) const
{
    for (const SlotEntry& entry : parseSlots(showSlots()))
        if (entry.label == label)
            return entry.slot.toLong();
    return -1;
}

bool SoftHsmToken::importCertificate(const QString& label, const QString& userPin, const QByteArray& der,
                                     const QString& idHex, const QString& objectLabel)
{
    const QString path = dir.filePath(QStringLiteral("import-%1.der").arg(idHex));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(der) != der.size()) {
        error = QStringLiteral("Unable to write ") + path;
        return false;
    }
    file.close();
    const bool ok = run(QStringLiteral("pkcs11-tool"),
                        {QStringLiteral("--module"), softHsmModulePath(), QStringLiteral("--token-label"), label,
                         QStringLiteral("--login"), QStringLiteral("--pin"), userPin, QStringLiteral("--write-object"),
                         path, QStringLiteral("--type"), QStringLiteral("cert"), QStringLiteral("--id"), idHex,
                         QStringLiteral("--label"), objectLabel});
    QFile::remove(path);
    return ok;
}

bool SoftHsmToken::importKeyPair(const QString& label, const QString& userPin, const QString& pkcs8Path,
                                 const QString& idHex, const QString& objectLabel)
{
    return run(QStringLiteral("softhsm2-util"),
               {QStringLiteral("--import"), pkcs8Path, QStringLiteral("--token"), label, QStringLiteral("--pin"),
                userPin, QStringLiteral("--id"), idHex, QStringLiteral("--label"), objectLabel});
}

bool SoftHsmToken::generateRsaKeyPair(const QString& label, const QString& userPin, const QString& idHex,
                                      const QString& objectLabel, int bits)
{
    return run(QStringLiteral("pkcs11-tool"),
               {QStringLiteral("--module"), softHsmModulePath(), QStringLiteral("--token-label"), label,
                QStringLiteral("--login"), QStringLiteral("--pin"), userPin, QStringLiteral("--keypairgen"),
                QStringLiteral("--key-type"), QStringLiteral("rsa:%1").arg(bits), QStringLiteral("--id"), idHex,
                QStringLiteral("--label"), objectLabel});
}

QString SoftHsmToken::softHsmModulePath()
{
    const QString overridden = qEnvironmentVariable("SCRIVA_SOFTHSM_MODULE");
    return overridden.isEmpty() ? QStringLiteral("/usr/lib/softhsm/libsofthsm2.so") : overridden;
}

QString SoftHsmToken::testModulePath()
{
    const QString overridden = qEnvironmentVariable("SCRIVA_TEST_P11_MODULE");
    if (!overridden.isEmpty())
        return overridden;
    return QDir::cleanPath(QStringLiteral(SCRIVA_BIN_DIR "/../tests/p11module/scriva-test-p11.so"));
}
