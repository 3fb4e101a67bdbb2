#include "tpmtoken.h"

#include <QFile>
#include <QProcess>

bool TpmToken::start(const QString& label, const QString& userPin, const QString& soPin)
{
    QFile variables(dir.filePath(QStringLiteral("env")));
    if (!run(QStringLiteral("start"), {label, userPin, soPin}) || !variables.open(QIODevice::ReadOnly))
        return false;
    for (const QByteArray& line : variables.readAll().split('\n'))
        if (line.contains('='))
            qputenv(line.left(line.indexOf('=')), line.mid(line.indexOf('=') + 1));
    return true;
}

bool TpmToken::run(const QString& command, const QStringList& arguments)
{
    QProcess script;
    script.setProcessChannelMode(QProcess::MergedChannels);
    script.start(QStringLiteral("bash"), QStringList{QStringLiteral(SCRIVA_SOURCE_DIR "/scripts/tpm-token.sh"), command,
                                                     dir.path()} + arguments);
    const bool done = script.waitForFinished(60000) && script.exitStatus() == QProcess::NormalExit && script.exitCode() == 0;
    if (!done)
        error = "tpm-token.sh " + command + " failed: " + QString::fromLocal8Bit(script.readAll()) + script.errorString();
    return done;
}
