#include "pkcs11twocall.h"

#include "pkcs11exception.h"

#include <QDebug>

namespace {

[[noreturn]] void refuse(const char* function, const QString& claim)
{
    qWarning().noquote() << QString::fromLatin1(function) + QStringLiteral(" answered ") + claim;
    throw Pkcs11Exception(QString::fromLatin1(function), CKR_GENERAL_ERROR, QStringLiteral(__FILE__), __LINE__,
                          QString::fromUtf8(Q_FUNC_INFO));
}

} // namespace

CK_ULONG Pkcs11TwoCall::withinLimit(const char* function, const char* unit, CK_ULONG reported, CK_ULONG limit)
{
    if (reported > limit)
        refuse(function, QStringLiteral("%1 %2, more than the %3 the host allows")
                             .arg(reported).arg(QLatin1String(unit)).arg(limit));
    return reported;
}

CK_ULONG Pkcs11TwoCall::withinRoom(const char* function, const char* unit, CK_ULONG reported, CK_ULONG room)
{
    if (reported > room)
        refuse(function, QStringLiteral("%1 %2 into a buffer for %3").arg(reported).arg(QLatin1String(unit)).arg(room));
    return reported;
}

void Pkcs11TwoCall::check(const char* function, CK_RV rv)
{
    if (rv != CKR_OK)
        throw Pkcs11Exception(QString::fromLatin1(function), rv, QStringLiteral(__FILE__), __LINE__,
                              QString::fromUtf8(Q_FUNC_INFO));
}
