#include "pkcs11slotinfo.h"

Pkcs11SlotInfo::Pkcs11SlotInfo(CK_SLOT_ID slotId, const CK_SLOT_INFO& info) : slotId(slotId), info(info) {}

QString Pkcs11SlotInfo::trimmedText(const unsigned char* text, size_t size)
{
    // Only blanks pad these fields; a module that pads with zero bytes is treated alike.
    while (size > 0 && (text[size - 1] == ' ' || text[size - 1] == '\0'))
        --size;
    return QString::fromUtf8(reinterpret_cast<const char*>(text), qsizetype(size));
}

QString Pkcs11SlotInfo::getDescription() const
{
    return trimmedText(info.slotDescription, sizeof info.slotDescription);
}

QString Pkcs11SlotInfo::getManufacturer() const
{
    return trimmedText(info.manufacturerID, sizeof info.manufacturerID);
}
