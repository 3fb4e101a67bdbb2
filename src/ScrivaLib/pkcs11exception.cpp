#include "pkcs11exception.h"

#include "pkcs11names.h"

Pkcs11Exception::Pkcs11Exception(const QString& functionName, CK_RV rv, const QString& file, qint32 line,
                                 const QString& function)
    : AppException(detailText(functionName, rv), file, line, function, pkcs11GeneralExceptionMessage()), rv(rv)
{
}

QString Pkcs11Exception::className() const
{
    return QStringLiteral("Pkcs11Exception");
}

AppException* Pkcs11Exception::clone() const
{
    return new Pkcs11Exception(*this);
}

QString Pkcs11Exception::detailText(const QString& functionName, CK_RV rv)
{
    return QStringLiteral("PKCS#11 method %1 returned error %2 (0x%3)")
        .arg(functionName, QString::fromLatin1(Pkcs11Names::returnValueName(rv)))
        .arg(rv, 8, 16, QLatin1Char('0'));
}

QString Pkcs11Exception::pkcs11GeneralExceptionMessage()
{
    return tr("Pkcs11GeneralExceptionMessage");
}
