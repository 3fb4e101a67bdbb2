#pragma once

#include <QString>

#include <p11-kit/pkcs11.h>

// A copy of one slot's CK_TOKEN_INFO with its slot id; texts without their blank padding.
class Pkcs11TokenInfo
{
public:
    Pkcs11TokenInfo() = default;
    Pkcs11TokenInfo(CK_SLOT_ID slotId, const CK_TOKEN_INFO& info);

    CK_SLOT_ID getSlotId() const { return slotId; }
    const CK_TOKEN_INFO& getInfo() const { return info; }
    QString getLabel() const;
    QString getManufacturer() const;
    QString getModel() const;
    QString getSerialNumber() const;
    // The token collects the PIN itself, on its own pad or reader.
    bool hasProtectedAuthPath() const;

private:
    CK_SLOT_ID slotId = 0;
    CK_TOKEN_INFO info{};
};
