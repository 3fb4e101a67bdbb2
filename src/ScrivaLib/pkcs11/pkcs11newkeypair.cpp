#include "pkcs11newkeypair.h"

#include "pkcs11library.h"

#include <QDebug>

Pkcs11NewKeyPair::~Pkcs11NewKeyPair()
{
    if (kept)
        return;
    qInfo().noquote() << QStringLiteral("Destroying the new key pair of the failed request");
    // The private key first: it is the one that must not stay behind.
    destroy(privateKey);
    destroy(publicKey);
}

void Pkcs11NewKeyPair::destroy(CK_OBJECT_HANDLE key) noexcept
{
    try {
        library->destroyObject(session, key);
    } catch (const AppException& e) {
        qWarning().noquote() << QStringLiteral("The new key could not be destroyed: ") + e.toString(true);
    } catch (...) {
        qWarning().noquote() << QStringLiteral("The new key could not be destroyed");
    }
}
