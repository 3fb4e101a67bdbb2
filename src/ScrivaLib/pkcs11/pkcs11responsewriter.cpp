#include "pkcs11responsewriter.h"

#include "pkcs11/XmlParser/scrivanamespaces.h"

Pkcs11ResponseWriter::Pkcs11ResponseWriter(const QString& xmlNamespace, const QString& nonce,
                                           const QString& libraryPath, const QString& operationName)
    : writer(&document), withTokenPlatform(xmlNamespace == ScrivaNamespaces::version20260204())
{
    writer.writeStartDocument();
    writer.writeStartElement(QStringLiteral("ScrivaOperation"));
    // Every element below is unprefixed and so lives in the request's namespace.
    writer.writeDefaultNamespace(xmlNamespace);
    writer.writeTextElement(QStringLiteral("Nonce"), nonce);
    writer.writeStartElement(QStringLiteral("Pkcs11OperationResponse"));
    writer.writeTextElement(QStringLiteral("Pkcs11LibraryPath"), libraryPath);
    writer.writeStartElement(operationName);
}

void Pkcs11ResponseWriter::writeSlots(const QList<Slot>& slotList)
{
    writer.writeStartElement(QStringLiteral("Slots"));
    for (const Slot& slot : slotList)
        writeSlot(slot);
    writer.writeEndElement();
}

void Pkcs11ResponseWriter::writeSlot(const Slot& slot)
{
    writer.writeStartElement(QStringLiteral("Slot"));
    writer.writeTextElement(QStringLiteral("SlotId"), QString::number(slot.slotId));
    writer.writeTextElement(QStringLiteral("SlotInfoRv"), QString::number(slot.slotInfoRv));
    writer.writeStartElement(QStringLiteral("SlotInfo"));
    if (slot.slotInfoRv == CKR_OK) {
        writer.writeTextElement(QStringLiteral("Manufacturer"), slot.slotInfo.getManufacturer());
        writer.writeTextElement(QStringLiteral("Description"), slot.slotInfo.getDescription());
    }
    writer.writeEndElement();
    writer.writeTextElement(QStringLiteral("TokenInfoRv"), QString::number(slot.tokenInfoRv));
    writer.writeStartElement(QStringLiteral("TokenInfo"));
    if (slot.tokenInfoRv == CKR_OK) {
        writer.writeTextElement(QStringLiteral("Manufacturer"), slot.tokenInfo.getManufacturer());
        writer.writeTextElement(QStringLiteral("Model"), slot.tokenInfo.getModel());
        writer.writeTextElement(QStringLiteral("SerialNumber"), slot.tokenInfo.getSerialNumber());
        writer.writeTextElement(QStringLiteral("Label"), slot.tokenInfo.getLabel());
        writer.writeTextElement(QStringLiteral("HasProtectedAuthPath"),
                                slot.tokenInfo.hasProtectedAuthPath() ? QStringLiteral("true")
                                                                      : QStringLiteral("false"));
    }
    writer.writeEndElement();
    if (withTokenPlatform)
        writer.writeTextElement(QStringLiteral("TokenPlatform"), slot.tokenPlatform);
    writer.writeEndElement();
}

void Pkcs11ResponseWriter::writeCertificates(const QStringList& pemCertificates)
{
    writer.writeStartElement(QStringLiteral("Certificates"));
    for (const QString& pem : pemCertificates)
        writer.writeTextElement(QStringLiteral("Certificate"), pem);
    writer.writeEndElement();
}

void Pkcs11ResponseWriter::writeCsr(const QString& pem)
{
    writer.writeTextElement(QStringLiteral("CSR"), pem);
}

QString Pkcs11ResponseWriter::finish()
{
    writer.writeEndDocument();
    return document;
}
