#pragma once

#include <QMap>
#include <QString>

#include <functional>

// tests/data/requests/<name>.xml with its sample nonce and every key of `replacements` replaced,
// plain or signed by the development PKI as the web application's server would sign it.
class TestRequests
{
public:
    static QByteArray xml(const QString& name, const QString& nonce, const QMap<QString, QString>& replacements = {});
    static QString signedArgument(const QString& name, const QString& nonce,
                                  const QMap<QString, QString>& replacements = {});
    static QString signedXml(const QByteArray& xml, const QString& signer = QStringLiteral("server-chain2"));
    // The message of the AppException that `step` raises, or an empty text when it raises none.
    static QString refusal(const std::function<void()>& step);
};
