#pragma once

#include "appexception.h"
#include "pkcs11/XmlParser/scrivanamespaces.h"

#include <p11-kit/pkcs11.h>

#include <QByteArray>
#include <QFile>
#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <functional>

// Test documents of tests/data/requests and small helpers shared by the request tests.

inline const QString requestNonce = QStringLiteral("0f8fad5b-d9cb-469f-a165-70867728950e");

inline QString readData(const QString& name)
{
    QFile file(QStringLiteral(SCRIVA_TEST_DATA_DIR "/requests/") + name);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

// A test document with one edit; `from` is a pattern that must match, else the result is null.
inline QString edited(const QString& name, const QString& from = {}, const QString& to = {})
{
    QString xml = readData(name);
    if (from.isEmpty())
        return xml;
    const QRegularExpression pattern(from, QRegularExpression::DotMatchesEverythingOption);
    return xml.contains(pattern) ? xml.replace(pattern, to) : QString();
}

inline QString namespaceOf(const QString& fileName)
{
    return fileName.contains(QLatin1String("2022")) ? ScrivaNamespaces::version20221229()
                                                    : ScrivaNamespaces::version20260204();
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

inline QByteArray ulongBytes(CK_ULONG value)
{
    return QByteArray(reinterpret_cast<const char*>(&value), sizeof(value));
}

// Collects the warnings logged while it lives, instead of printing them.
class WarningLog
{
public:
    WarningLog() : previous(qInstallMessageHandler(&WarningLog::handler)) { lines().clear(); }
    ~WarningLog() { qInstallMessageHandler(previous); }
    WarningLog(const WarningLog&) = delete;
    WarningLog& operator=(const WarningLog&) = delete;

    const QStringList& warnings() const { return lines(); }
    bool contains(const QString& text) const { return lines().contains(text); }

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
