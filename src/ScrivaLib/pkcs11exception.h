#pragma once

#include "appexception.h"

#include <p11-kit/pkcs11.h>

// An AppException raised when a PKCS#11 call fails. It carries the call's return value, so that
// callers can react to particular values. The message names the function, the symbolic name of
// the value and the value itself; the general message is "Pkcs11GeneralExceptionMessage".
class Pkcs11Exception : public AppException
{
public:
    Pkcs11Exception(const QString& functionName, CK_RV rv, const QString& file, qint32 line,
                    const QString& function);

    CK_RV getRv() const { return rv; }

    QString className() const override;
    AppException* clone() const override;

    // "PKCS#11 method C_Login returned error CKR_PIN_INCORRECT (0x000000a0)"
    static QString detailText(const QString& functionName, CK_RV rv);
    // The general word of every failure inside the PKCS#11 layer.
    static QString pkcs11GeneralExceptionMessage();

private:
    CK_RV rv;
};

// Builds a Pkcs11Exception for the named PKCS#11 function that records where it was raised.
#define PKCS11_EXCEPTION(functionName, rv) \
    Pkcs11Exception(QStringLiteral(functionName), (rv), QStringLiteral(__FILE__), __LINE__, \
                    QString::fromUtf8(Q_FUNC_INFO))

// Raises the Pkcs11Exception of the named function when the call did not return CKR_OK.
#define PKCS11_CHECK(functionName, call) \
    do { \
        const CK_RV checkedRv = (call); \
        if (checkedRv != CKR_OK) \
            throw PKCS11_EXCEPTION(functionName, checkedRv); \
    } while (false)
