#include "pkcs11manager.h"

#include "pkcs11/XmlParser/scrivanamespaces.h"
#include "pkcs11/pkcs10request.h"
#include "pkcs11/pkcs11newkeypair.h"
#include "pkcs11library.h"
#include "pkcs11sessionguard.h"

#include <QDebug>
#include <QFileInfo>

namespace {

using Slot = Pkcs11ResponseWriter::Slot;

CK_MECHANISM mechanism(CK_MECHANISM_TYPE type)
{
    return CK_MECHANISM{type, nullptr, 0};
}

} // namespace

Pkcs11Manager::Pkcs11Manager(QObject* parent) : QObject(parent) {}

Location::Architecture Pkcs11Manager::processArchitecture()
{
    return sizeof(void*) == 8 ? Location::Architecture::x64 : Location::Architecture::x86;
}

QString Pkcs11Manager::findUsablePkcs11Library(Pkcs11LibraryData& libraryData)
{
    qDebug().noquote() << Q_FUNC_INFO;
    for (const Location& location : libraryData.getLocations()) {
        const QString& path = location.getPath();
        if (!QFileInfo::exists(path)) {
            qInfo().noquote() << QStringLiteral("Skipping PKCS#11 library ") + path
                                     + QStringLiteral(" because it was not found.");
            continue;
        }
        if (location.getArchitecture() != Location::Architecture::both
            && location.getArchitecture() != processArchitecture()) {
            qInfo().noquote() << QStringLiteral("Skipping PKCS#11 library ") + path
                                     + QStringLiteral(" because of architecture mismatch.");
            continue;
        }
        return path;
    }
    return QString();
}

bool Pkcs11Manager::findSlot(const QString& xmlNamespace, Pkcs11Library* library, const QString& serialNumber,
                             const QString& label, CK_SLOT_ID_PTR slotId)
{
    qDebug().noquote() << Q_FUNC_INFO;
    // Only the 2026-02-04 version identifies a token by its label as well.
    const bool matchLabel = xmlNamespace == ScrivaNamespaces::version20260204() && !label.isEmpty();
    for (const unsigned long id : library->getSlots(CK_TRUE)) {
        qInfo().noquote() << QStringLiteral("Examining slot with slotId ") + QString::number(id);
        Pkcs11TokenInfo tokenInfo;
        try {
            tokenInfo = library->getTokenInfo(id);
        } catch (const Pkcs11Exception& e) {
            qInfo().noquote() << QStringLiteral("Recoverable exception: ") + e.toString(true);
            continue;
        } catch (...) {
            qInfo().noquote() << QStringLiteral("Unidentified recoverable exception");
            continue;
        }
        if (tokenInfo.getSerialNumber() != serialNumber)
            continue;
        if (matchLabel && tokenInfo.getLabel() != label)
            continue;
        qInfo().noquote() << QStringLiteral("Matching slot found");
        *slotId = id;
        return true;
    }
    qInfo().noquote() << QStringLiteral("Matching slot not found");
    return false;
}

std::unique_ptr<Pkcs11Library> Pkcs11Manager::openLibrary(const QString& libraryPath,
                                                          const Pkcs11LibraryData& libraryData)
{
    auto library = std::make_unique<Pkcs11Library>(libraryPath, Pkcs11Library::SignatureTypeDefault, false,
                                                   libraryData.getPin1Name(), libraryData.getPin2Name(),
                                                   libraryData.getVendorExtensions());
    library->setPinPrompt(prompt);
    // Emitted on the worker; whoever listens to the manager decides how it crosses threads.
    connect(library.get(), &Pkcs11Library::pinRequestedSignal, this, &Pkcs11Manager::pinRequestedSignal,
            Qt::DirectConnection);
    return library;
}

CK_SLOT_ID Pkcs11Manager::findToken(const QString& xmlNamespace, Pkcs11Library* library, const QString& serialNumber,
                                    const QString& label)
{
    QString message = QStringLiteral("Looking for token with serial number ") + serialNumber;
    if (!label.isEmpty())
        message += QStringLiteral(" and possibly label ") + label;
    qInfo().noquote() << message;
    CK_SLOT_ID slotId = 0;
    if (!findSlot(xmlNamespace, library, serialNumber, label, &slotId))
        throw APP_EXCEPTION(QStringLiteral("SpecifiedTokenNotFound"));
    return slotId;
}

Slot Pkcs11Manager::readSlot(Pkcs11Library* library, CK_SLOT_ID slotId)
{
    Slot slot;
    slot.slotId = slotId;
    slot.slotInfo = library->getSlotInfo(slotId);
    slot.tokenInfo = library->getTokenInfo(slotId);
    slot.tokenPlatform = library->getTokenPlatform(slotId);
    return slot;
}

void Pkcs11Manager::loginAsRequested(Pkcs11Library* library, CK_SESSION_HANDLE session, const Slot& slot,
                                     bool showPinForm)
{
    if (library->isUserLoggedIn(session))
        return;
    // Without the host's form a token can still be logged in when it collects the PIN itself;
    // any other token is used as it is.
    if (showPinForm || slot.tokenInfo.hasProtectedAuthPath())
        library->login(session, slot.slotInfo, slot.tokenInfo, true);
}

QString Pkcs11Manager::toPem(const QByteArray& der, const char* type)
{
    const QByteArray base64 = der.toBase64();
    QString pem = QStringLiteral("-----BEGIN %1-----\n").arg(QLatin1String(type));
    for (qsizetype offset = 0; offset < base64.size(); offset += 64)
        pem += QString::fromLatin1(base64.mid(offset, 64)) + QLatin1Char('\n');
    pem += QStringLiteral("-----END %1-----\n").arg(QLatin1String(type));
    return pem;
}

QPair<QString, QString> Pkcs11Manager::getSlots(const QString& libraryPath,
                                                ScrivaPkcs11OperationData<GetSlotsOperationData>* operationData,
                                                const QString& xmlNamespace)
{
    qDebug().noquote() << Q_FUNC_INFO;
    const std::unique_ptr<Pkcs11Library> library = openLibrary(libraryPath, *operationData->getLibraryData());

    QList<Slot> slotList;
    for (const unsigned long slotId : library->getSlots(CK_TRUE)) {
        // A slot or token that cannot be described is still listed, with the module's answer.
        Slot slot;
        slot.slotId = slotId;
        try {
            slot.slotInfo = library->getSlotInfo(slotId);
        } catch (const Pkcs11Exception& e) {
            qInfo().noquote() << QStringLiteral("Recoverable exception: ") + e.toString(true);
            slot.slotInfoRv = e.getRv();
        }
        try {
            slot.tokenInfo = library->getTokenInfo(slotId);
        } catch (const Pkcs11Exception& e) {
            qInfo().noquote() << QStringLiteral("Recoverable exception: ") + e.toString(true);
            slot.tokenInfoRv = e.getRv();
        }
        // Only the two information reads may fail; a platform that cannot be read fails the list.
        slot.tokenPlatform = library->getTokenPlatform(slotId);
        slotList.append(slot);
    }

    Pkcs11ResponseWriter writer(xmlNamespace, operationData->getNonce(), libraryPath, QStringLiteral("GetSlots"));
    writer.writeSlots(slotList);
    return {QString(), writer.finish()};
}

QPair<QString, QString> Pkcs11Manager::getCertificates(
    const QString& libraryPath, ScrivaPkcs11OperationData<GetCertificatesOperationData>* operationData,
    const QString& xmlNamespace)
{
    qDebug().noquote() << Q_FUNC_INFO;
    const GetCertificatesOperationData* request = operationData->getOperationData();
    const std::unique_ptr<Pkcs11Library> library = openLibrary(libraryPath, *operationData->getLibraryData());
    const CK_SLOT_ID slotId =
        findToken(xmlNamespace, library.get(), request->getTokenSerialNumber(), request->getTokenLabel());
    const Slot slot = readSlot(library.get(), slotId);

    Pkcs11SessionGuard session = library->guard(library->openReadOnlySession(slotId));
    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    CK_BBOOL onToken = CK_TRUE;
    CK_CERTIFICATE_TYPE certificateType = CKC_X_509;
    CK_ATTRIBUTE search[] = {
        {CKA_CLASS, &objectClass, sizeof(objectClass)},
        {CKA_TOKEN, &onToken, sizeof(onToken)},
        {CKA_CERTIFICATE_TYPE, &certificateType, sizeof(certificateType)},
    };
    QStringList certificates;
    for (const unsigned long handle : library->findObjects(session.handle(), search, 3))
        certificates.append(toPem(library->getAttributeValue(session.handle(), handle, CKA_VALUE), "CERTIFICATE"));
    session.close();

    Pkcs11ResponseWriter writer(xmlNamespace, operationData->getNonce(), libraryPath,
                                QStringLiteral("GetCertificates"));
    writer.writeSlot(slot);
    writer.writeCertificates(certificates);
    return {QString(), writer.finish()};
}

QPair<QString, QString> Pkcs11Manager::generateCsr(const QString& libraryPath,
                                                   ScrivaPkcs11OperationData<GenerateCsrOperationData>* operationData,
                                                   const QString& xmlNamespace)
{
    qDebug().noquote() << Q_FUNC_INFO;
    const GenerateCsrOperationData* request = operationData->getOperationData();
    const Pkcs11LibraryData* libraryData = operationData->getLibraryData();
    const std::unique_ptr<Pkcs11Library> library = openLibrary(libraryPath, *libraryData);
    const CK_SLOT_ID slotId =
        findToken(xmlNamespace, library.get(), request->getTokenSerialNumber(), request->getTokenLabel());
    const Slot slot = readSlot(library.get(), slotId);

    Pkcs11SessionGuard session = library->guard(library->openReadWriteSession(slotId));
    loginAsRequested(library.get(), session.handle(), slot, libraryData->getShowPinForm());

    Pkcs10Request csr;
    csr.setSubject(request->getCsrSubject());

    CK_MECHANISM keyPairMechanism = mechanism(request->getGenerateKeyPairMechanism());
    CK_OBJECT_HANDLE publicKey = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE privateKey = CK_INVALID_HANDLE;
    library->generateKeyPair(session.handle(), &keyPairMechanism, request->getPublicKeyAttributes(),
                             request->getPrivateKeyAttributes(), &publicKey, &privateKey);
    // From here on a failure takes the pair back, before the session closes.
    Pkcs11NewKeyPair newKeys(library.get(), session.handle(), publicKey, privateKey);

    // The modulus is read first, then the exponent.
    const QByteArray modulus = library->getAttributeValue(session.handle(), publicKey, CKA_MODULUS);
    const QByteArray exponent = library->getAttributeValue(session.handle(), publicKey, CKA_PUBLIC_EXPONENT);
    csr.setRsaPublicKey(modulus, exponent);
    if (request->getKovData()) {
        constexpr CK_ATTRIBUTE_TYPE kovDataAttribute = 0x80000007UL;
        csr.setKovDataAttibute(library->getAttributeValue(session.handle(), publicKey, kovDataAttribute));
    }
    csr.setEnrollmentCspProviderAttribute(request->getEnrollmentCspProvider());

    // The private key never leaves the token: the request info is hashed and signed there.
    const QByteArray requestInfo = csr.getDerEncodedCertificationRequestInfo();
    CK_MECHANISM digestMechanism = mechanism(request->getCsrDigestMechanism());
    const QByteArray hash = library->computeHash(session.handle(), &digestMechanism, requestInfo);
    const QByteArray digestInfo = Pkcs10Request::createPkcs1DigestInfo(hash, request->getCsrDigestMechanism());
    const bool alwaysAuthenticate = library->getCkaAlwaysAuthenticateValue(session.handle(), privateKey);
    CK_MECHANISM signingMechanism = mechanism(request->getCsrSigningMechanism());
    const QByteArray signature = library->signHash(session.handle(), privateKey, &signingMechanism, digestInfo,
                                                   alwaysAuthenticate, slot.slotInfo, slot.tokenInfo);
    csr.setSignature(signature, request->getCsrDigestMechanism(), request->getCsrSigningMechanism());
    const QString pem = QString::fromLatin1(csr.getPemEncodedRequest());
    newKeys.release();
    session.close();

    Pkcs11ResponseWriter writer(xmlNamespace, operationData->getNonce(), libraryPath, QStringLiteral("GenerateCsr"));
    writer.writeSlot(slot);
    writer.writeCsr(pem);
    return {QString(), writer.finish()};
}

QPair<QString, QString> Pkcs11Manager::createObject(const QString& libraryPath,
                                                    ScrivaPkcs11OperationData<CreateObjectOperationData>* operationData,
                                                    const QString& xmlNamespace)
{
    qDebug().noquote() << Q_FUNC_INFO;
    const CreateObjectOperationData* request = operationData->getOperationData();
    const Pkcs11LibraryData* libraryData = operationData->getLibraryData();
    const std::unique_ptr<Pkcs11Library> library = openLibrary(libraryPath, *libraryData);
    const CK_SLOT_ID slotId =
        findToken(xmlNamespace, library.get(), request->getTokenSerialNumber(), request->getTokenLabel());
    const Slot slot = readSlot(library.get(), slotId);

    Pkcs11SessionGuard session = library->guard(library->openReadWriteSession(slotId));
    loginAsRequested(library.get(), session.handle(), slot, libraryData->getShowPinForm());
    CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
    library->createObject(session.handle(), request->getAttributes(), &object);
    session.close();

    Pkcs11ResponseWriter writer(xmlNamespace, operationData->getNonce(), libraryPath, QStringLiteral("CreateObject"));
    writer.writeSlot(slot);
    return {QString(), writer.finish()};
}
