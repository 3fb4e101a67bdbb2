#pragma once

#include <QMap>
#include <QStringList>

#include <functional>

// At the start of a test that sends requests: a build that trusts real anchors cannot sign them.
#define SKIP_WITHOUT_DEV_PKI() \
    if (!TestRequests::canSign()) \
        QSKIP("this build trusts real anchors; requests cannot be signed here")

// Requests as the web application's server makes them: tests/data/requests/<name>.xml with the sample
// nonce and each key of `replacements` replaced, signed in-process by the development PKI a build
// without configured trust anchors makes and trusts; a signer is named by its .key and .pem files.
class TestRequests
{
public:
    static constexpr const char* defaultSigner = "server-chain2";

    // False when the build trusts real anchors and the tests cannot sign acceptable requests.
    static bool canSign();
    static QString pkiFile(const QString& name);
    // The DER CMS around `content`; more signers and detached content make shapes the host refuses.
    static QByteArray signedCms(const QByteArray& content, const QStringList& signers = {defaultSigner}, bool detached = false);
    static QString signedXml(const QByteArray& xml, const QString& signer = defaultSigner); // base64 CMS
    static QByteArray xml(const QString& name, const QString& nonce, const QMap<QString, QString>& replacements = {});
    static QString signedArgument(const QString& name, const QString& nonce, const QMap<QString, QString>& replacements = {});
    // The message of the AppException that `step` raises, or an empty text when it raises none.
    static QString refusal(const std::function<void()>& step);
};
