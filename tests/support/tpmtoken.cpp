#include "tpmtoken.h"

#include <QFile>
#include <QProcess>

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

QProcessEnvironment TpmToken::environment() const
{
    QProcessEnvironment environment;
    QFile file(dir.filePath(QStringLiteral("env")));
    if (file.open(QIODevice::ReadOnly))
        for (const QByteArray& line : file.readAll().split('\n'))
            if (line.contains('='))
                environment.insert(QString::fromUtf8(line.left(line.indexOf('='))), QString::fromUtf8(line.mid(line.indexOf('=') + 1)));
    return environment;
}
