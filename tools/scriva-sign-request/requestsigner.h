#pragma once

#include "ownedresource.h"

#include <QByteArray>
#include <QString>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <vector>

// Wraps a request document into the host's operation argument: a CMS SignedData with the
// document as encapsulated content and each signer's certificate included. The same as
//   openssl cms -sign -binary -nodetach -outform DER -in request.xml -signer cert.pem -inkey key.pem
// followed by base64 on one line. More signers and detached content exist to make shapes the
// host must refuse.
class RequestSigner
{
public:
    // Loads a PEM private key and a PEM certificate; false (see errorString) when either fails.
    bool addSigner(const QString& keyFile, const QString& certificateFile);
    bool addSignerPem(const QByteArray& keyPem, const QByteArray& certificatePem);
    void setDetached(bool detached) { detachedContent = detached; }

    // The DER CMS; empty on failure.
    QByteArray sign(const QByteArray& content);
    // The base64 text the host expects as the operation argument; empty on failure.
    QString signToArgument(const QByteArray& content);

    QString errorString() const { return lastError; }

private:
    bool fail(const QString& what);

    std::vector<Owned<EVP_PKEY, EVP_PKEY_free>> keys;
    std::vector<Owned<X509, X509_free>> certificates;
    bool detachedContent = false;
    QString lastError;
};
