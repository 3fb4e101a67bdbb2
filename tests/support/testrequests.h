#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>

// Request documents from tests/data/requests with the nonce and other texts put in, signed by
// the development PKI as the web application's server would sign them.
class TestRequests
{
public:
    // The document tests/data/requests/<name>.xml with its sample nonce replaced and every key of
    // `replacements` replaced by its value.
    static QByteArray xml(const QString& name, const QString& nonce, const QMap<QString, QString>& replacements = {});
    static QString signedArgument(const QString& name, const QString& nonce,
                                  const QMap<QString, QString>& replacements = {});
    static QString signedXml(const QByteArray& xml, const QString& signer = QStringLiteral("server-chain2"));
};
