#pragma once

#include <QMap>
#include <QString>

// tests/data/requests/<name>.xml with its sample nonce and every key of `replacements` replaced,
// plain or signed by the development PKI as the web application's server would sign it.
class TestRequests
{
public:
    static QByteArray xml(const QString& name, const QString& nonce, const QMap<QString, QString>& replacements = {});
    static QString signedArgument(const QString& name, const QString& nonce,
                                  const QMap<QString, QString>& replacements = {});
    static QString signedXml(const QByteArray& xml, const QString& signer = QStringLiteral("server-chain2"));
};
