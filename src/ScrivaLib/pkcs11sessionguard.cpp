#include "pkcs11sessionguard.h"

#include "appexception.h"

#include <QDebug>

Pkcs11SessionGuard::~Pkcs11SessionGuard()
{
    if (!open)
        return;
    // Reached while an exception is on its way out: that exception is the one to report.
    try {
        close();
    } catch (const AppException& e) {
        qInfo().noquote() << QStringLiteral("Recoverable exception: ") + e.toString(true);
    }
}

void Pkcs11SessionGuard::close()
{
    if (!open)
        return;
    open = false;
    closer(session);
}
