#pragma once

#include "pkcs11slotinfo.h"
#include "pkcs11tokeninfo.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QXmlStreamWriter>

#include <p11-kit/pkcs11.h>

// Writes the answer document of one token operation in the request's version: the nonce, the
// module path, and the operation's element with its slots, certificates or certificate request.
class Pkcs11ResponseWriter
{
public:
    // One slot as the answer shows it; a non-zero return value leaves its information empty.
    struct Slot
    {
        CK_SLOT_ID slotId = 0;
        CK_RV slotInfoRv = CKR_OK;
        Pkcs11SlotInfo slotInfo;
        CK_RV tokenInfoRv = CKR_OK;
        Pkcs11TokenInfo tokenInfo;
        QString tokenPlatform;
    };

    // Starts the document up to the opening tag of the operation's element.
    Pkcs11ResponseWriter(const QString& xmlNamespace, const QString& nonce, const QString& libraryPath,
                         const QString& operationName);
    Pkcs11ResponseWriter(const Pkcs11ResponseWriter&) = delete;
    Pkcs11ResponseWriter& operator=(const Pkcs11ResponseWriter&) = delete;

    void writeSlots(const QList<Slot>& slotList);
    void writeSlot(const Slot& slot);
    void writeCertificates(const QStringList& pemCertificates);
    void writeCsr(const QString& pem);
    // Closes every open element and returns the whole document.
    QString finish();

private:
    QString document;
    QXmlStreamWriter writer;
    bool withTokenPlatform;
};
