#pragma once

#include "appexception.h"

#include <p11-kit/pkcs11.h>

#include <QFile>
#include <QRegularExpression>
#include <QStringList>

#include <functional>

// Test documents of tests/data/requests and small helpers of the request tests.

inline const QString requestNonce = QStringLiteral("0f8fad5b-d9cb-469f-a165-70867728950e");

// A test document, with one edit when `from` is given; `from` is a pattern that must match, else
// the result is null.
inline QString edited(const QString& name, const QString& from = {}, const QString& to = {})
{
    QFile file(QStringLiteral(SCRIVA_TEST_DATA_DIR "/requests/") + name);
    QString xml = file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    const QRegularExpression pattern(from, QRegularExpression::DotMatchesEverythingOption);
    return from.isEmpty() ? xml : xml.contains(pattern) ? xml.replace(pattern, to) : QString();
}

inline QString refusal(const std::function<void()>& action)
{
    try {
        action();
    } catch (const AppException& exception) {
        return exception.getMessage();
    }
    return {};
}

inline QByteArray valueOf(const CK_ATTRIBUTE& attribute)
{
    return QByteArray(static_cast<const char*>(attribute.pValue), qsizetype(attribute.ulValueLen));
}

// Collects the warnings logged while it lives, instead of printing them.
class WarningLog
{
public:
    WarningLog() : previous(qInstallMessageHandler(&WarningLog::handler)) { lines().clear(); }
    ~WarningLog() { qInstallMessageHandler(previous); }
    WarningLog(const WarningLog&) = delete;
    WarningLog& operator=(const WarningLog&) = delete;

    QString text() const { return lines().join(QLatin1Char('\n')); }
    bool contains(const QString& line) const { return lines().contains(line); }

private:
    static QStringList& lines()
    {
        static QStringList collected;
        return collected;
    }
    static void handler(QtMsgType type, const QMessageLogContext&, const QString& message)
    {
        if (type == QtWarningMsg)
            lines().append(message);
    }

    QtMessageHandler previous;
};
