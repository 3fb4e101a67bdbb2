#include "softhsmtoken.h"

#include "externaltool.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

SoftHsmToken::SoftHsmToken()
{
    QFile config(configPath());
    QDir(dir.path()).mkpath(QStringLiteral("tokens"));
    if (!config.open(QIODevice::WriteOnly)) // then every tool fails
        error = QStringLiteral("Unable to write ") + configPath();
    config.write("directories.tokendir = " + QFile::encodeName(dir.path()) + "/tokens\nobjectstore.backend = file\n"
                 "log.level = ERROR\n");
    qputenv("SOFTHSM2_CONF", QFile::encodeName(configPath()));
}

QProcessEnvironment SoftHsmToken::environment() const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("SOFTHSM2_CONF"), configPath());
    return environment;
}

QString SoftHsmToken::find(const QString& label, int group) const
{
    QString listing;
    ExternalTool::run(QStringLiteral("softhsm2-util"), {QStringLiteral("--show-slots")}, &listing, environment());
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
    return ExternalTool::run("softhsm2-util", {"--init-token", "--free", "--label", label, "--so-pin", soPin, "--pin", userPin}, &error, environment());
}

bool SoftHsmToken::generateRsaKeyPair(const QString& label, const QString& userPin, const QString& idHex,
                                      const QString& objectLabel)
{
    return ExternalTool::run("pkcs11-tool", {"--module", softHsmModulePath(), "--token-label", label, "--login", "--pin", userPin,
                               "--keypairgen", "--key-type", "rsa:2048", "--id", idHex, "--label", objectLabel}, &error, environment());
}

QString SoftHsmToken::softHsmModulePath()
{
    return qEnvironmentVariable("SCRIVA_SOFTHSM_MODULE", QStringLiteral("/usr/lib/softhsm/libsofthsm2.so"));
}

QString SoftHsmToken::testModulePath()
{
    return qEnvironmentVariable("SCRIVA_TEST_P11_MODULE", QDir::cleanPath(SCRIVA_BIN_DIR "/../tests/p11module/scriva-test-p11.so"));
}
