#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// The development PKI that a build without configured trust anchors generates and trusts. Signers
// are named by the base name of their files in the folder ("server-chain2" means
// server-chain2.key and server-chain2.pem); see cmake/TrustAnchors.cmake for the full set.
class DevPki
{
public:
    static constexpr const char* defaultSigner = "server-chain2";

    // False when the build trusts real anchors and the tests cannot sign acceptable requests.
    static bool isAvailable();
    static QString file(const QString& name);

    // The DER CMS SignedData around `content`. Extra signers and detached content make shapes
    // the host must refuse. Aborts the test program when the material cannot be used.
    static QByteArray signedCms(const QByteArray& content, const QStringList& signers = {defaultSigner},
                                bool detached = false);
    // The operation argument: base64 of signedCms.
    static QString signedArgument(const QByteArray& content, const QString& signer = defaultSigner);
};
