#pragma once

#include <QString>

#include <p11-kit/pkcs11.h>

// A copy of one slot's CK_SLOT_INFO with its slot id. The fixed-width texts are also offered
// without their trailing blanks, as the user and the answer document see them.
class Pkcs11SlotInfo
{
public:
    Pkcs11SlotInfo() = default;
    Pkcs11SlotInfo(CK_SLOT_ID slotId, const CK_SLOT_INFO& info);

    CK_SLOT_ID getSlotId() const { return slotId; }
    const CK_SLOT_INFO& getInfo() const { return info; }
    QString getDescription() const;
    QString getManufacturer() const;

    // A fixed-width PKCS#11 text field without its blank padding.
    static QString trimmedText(const unsigned char* text, size_t size);

private:
    CK_SLOT_ID slotId = 0;
    CK_SLOT_INFO info{};
};
