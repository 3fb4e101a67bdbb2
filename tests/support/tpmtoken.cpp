#include "tpmtoken.h"

#include "externaltool.h"

#include <QFile>

bool TpmToken::start(const QString& label, const QString& userPin, const QString& soPin)
{
    QFile variables(dir.filePath(QStringLiteral("env")));
    if (!run({QStringLiteral("start"), dir.path(), label, userPin, soPin}) || !variables.open(QIODevice::ReadOnly))
        return false;
    for (const QByteArray& line : variables.readAll().split('\n'))
        if (line.contains('='))
            qputenv(line.left(line.indexOf('=')), line.mid(line.indexOf('=') + 1));
    return true;
}

bool TpmToken::run(const QStringList& arguments)
{
    return ExternalTool::run(QStringLiteral("bash"), QStringList{QStringLiteral(SCRIVA_SOURCE_DIR "/scripts/tpm-token.sh")} + arguments,
                             &error);
}
