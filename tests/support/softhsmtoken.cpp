#include "softhsmtoken.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>

namespace {

constexpr const char* configVariable = "SOFTHSM2_CONF";

} // namespace

SoftHsmToken::SoftHsmToken()
{
    QFile config(configPath());
    if (!dir.isValid() || !QDir(dir.path()).mkpath(QStringLiteral("tokens")) || !config.open(QIODevice::WriteOnly)) {
        error = QStringLiteral("Unable to write ") + configPath();
        return;
    }
    config.write("directories.tokendir = " + QFile::encodeName(dir.path()) + "/tokens\nobjectstore.backend = file\n"
                 "log.level = ERROR\n");
    config.close();
    hadPreviousConfig = qEnvironmentVariableIsSet(configVariable);
    previousConfig = qgetenv(configVariable);
    qputenv(configVariable, QFile::encodeName(configPath()));
    valid = true;
}

SoftHsmToken::~SoftHsmToken()
{
    if (valid && hadPreviousConfig)
        qputenv(configVariable, previousConfig);
    else if (valid)
        qunsetenv(configVariable);
}

QProcessEnvironment SoftHsmToken::environment() const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QString::fromLatin1(configVariable), configPath());
    return environment;
}

bool SoftHsmToken::run(const QString& program, const QStringList& arguments, QString* output) const
{
    QProcess process;
    process.setProcessEnvironment(environment());
    process.setProcessChannelMode(output ? QProcess::SeparateChannels : QProcess::MergedChannels);
    process.start(program, arguments);
    const bool finished = process.waitForFinished(60000);
    const QString text = QString::fromLocal8Bit(process.readAllStandardOutput());
    if (output)
        *output = text;
    if (finished && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
        return true;
    error = program + QStringLiteral(" failed: ") + text + process.errorString();
    return false;
}

QString SoftHsmToken::find(const QString& label, int group) const
{
    QString listing;
    run(QStringLiteral("softhsm2-util"), {QStringLiteral("--show-slots")}, &listing);
    // One block per slot: "Slot <id>", then among its lines "Serial number: ..." and "Label: ...".
    static const QRegularExpression slot(QStringLiteral("^Slot (\\d+)\\s*$(?:(?!^Slot )[\\s\\S])*?Serial number:[ \\t]*(\\S*)"
                                                        "(?:(?!^Slot )[\\s\\S])*?Label:[ \\t]*([^\\n]*?)\\s*$"),
                                         QRegularExpression::MultilineOption);
    for (auto matches = slot.globalMatch(listing); matches.hasNext();) {
        const QRegularExpressionMatch match = matches.next();
        if (match.captured(3) == label)
            return match.captured(group);
    }
    return QString();
}

bool SoftHsmToken::initToken(const QString& label, const QString& soPin, const QString& userPin)
{
    return run(QStringLiteral("softhsm2-util"), {QStringLiteral("--init-token"), QStringLiteral("--free"),
                                                 QStringLiteral("--label"), label, QStringLiteral("--so-pin"), soPin,
                                                 QStringLiteral("--pin"), userPin});
}

bool SoftHsmToken::generateRsaKeyPair(const QString& label, const QString& userPin, const QString& idHex,
                                      const QString& objectLabel)
{
    return run(QStringLiteral("pkcs11-tool"),
               {QStringLiteral("--module"), softHsmModulePath(), QStringLiteral("--token-label"), label,
                QStringLiteral("--login"), QStringLiteral("--pin"), userPin, QStringLiteral("--keypairgen"),
                QStringLiteral("--key-type"), QStringLiteral("rsa:2048"), QStringLiteral("--id"), idHex,
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
