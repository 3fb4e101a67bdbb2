#pragma once

// Small helpers the PKCS#11 test programs share: writing the test module's configuration and
// reading the trace out of the host log.

#include <QFile>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

#include <p11-kit/pkcs11.h>

namespace Pkcs11TestHelpers {

// Writes the test module's key=value configuration file.
inline bool writeModuleConfig(const QString& path, const QStringList& lines)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text))
        return false;
    file.write(lines.join(QLatin1Char('\n')).toUtf8() + '\n');
    return true;
}

// The messages of the PKCS#11 trace lines of a host log, with their leading blanks.
inline QStringList traceMessages(const QString& logPath)
{
    QFile file(logPath);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    static const QRegularExpression line(QStringLiteral("^\\S+ - \\d+ - \\d+ - I - PKCS#11 - (.*) - at .* line \\d+$"));
    QStringList messages;
    for (const QString& text : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'))) {
        const QRegularExpressionMatch match = line.match(text);
        if (match.hasMatch())
            messages.append(match.captured(1));
    }
    return messages;
}

} // namespace Pkcs11TestHelpers
