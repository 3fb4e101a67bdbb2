#pragma once

#include "pkcs11slotinfo.h"
#include "pkcs11tokeninfo.h"
#include "secretpin.h"

#include <QString>

// How the PKCS#11 engine reaches the user. The engine never touches a widget: it asks for PINs
// and reports a wrong one through this interface, from its worker thread, and blocks until the
// user has answered. The host's implementation runs its dialogs on the GUI thread; tests script
// the answers.
class PinPrompt
{
public:
    virtual ~PinPrompt() = default;

    // The PIN the user entered; empty when the user cancelled or the prompt has been closed.
    virtual SecretPin requestPin(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo,
                                 const QString& pinName) = 0;
    // The same with the save-PIN box, preset from and written back to *savePin.
    virtual SecretPin requestContextPin(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo,
                                        const QString& pinName, bool* savePin) = 0;
    // Tells the user the PIN was wrong; returns once the message has been acknowledged or closed.
    virtual void showPinIncorrect(const QString& title, const QString& text) = 0;

    // The operation that asked is being abandoned: the open dialogs close at once and every later
    // request is answered as cancelled without showing anything. Callable from any thread.
    virtual void closeDialogs() = 0;
    virtual bool isClosed() const = 0;
};
