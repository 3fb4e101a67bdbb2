#include "pkcs11tokeninfo.h"

#include "pkcs11slotinfo.h"

Pkcs11TokenInfo::Pkcs11TokenInfo(CK_SLOT_ID slotId, const CK_TOKEN_INFO& info) : slotId(slotId), info(info) {}

QString Pkcs11TokenInfo::getLabel() const
{
    return Pkcs11SlotInfo::trimmedText(info.label, sizeof info.label);
}

QString Pkcs11TokenInfo::getManufacturer() const
{
    return Pkcs11SlotInfo::trimmedText(info.manufacturerID, sizeof info.manufacturerID);
}

QString Pkcs11TokenInfo::getModel() const
{
    return Pkcs11SlotInfo::trimmedText(info.model, sizeof info.model);
}

QString Pkcs11TokenInfo::getSerialNumber() const
{
    return Pkcs11SlotInfo::trimmedText(info.serialNumber, sizeof info.serialNumber);
}

bool Pkcs11TokenInfo::hasProtectedAuthPath() const
{
    return (info.flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
}
