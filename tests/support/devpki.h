#pragma once

#include <QStringList>

// The development PKI that a build without configured trust anchors generates and trusts. Signers
// are named by the base name of their .key and .pem files; cmake/TrustAnchors.cmake makes the set.
class DevPki
{
public:
    static constexpr const char* defaultSigner = "server-chain2";

    // False when the build trusts real anchors and the tests cannot sign acceptable requests.
    static bool isAvailable();
    static QString file(const QString& name);
    // The DER CMS around `content`; more signers and detached content make shapes the host refuses.
    static QByteArray signedCms(const QByteArray& content, const QStringList& signers = {defaultSigner},
                                bool detached = false);
    static QString signedArgument(const QByteArray& content, const QString& signer = defaultSigner); // base64 CMS
};
