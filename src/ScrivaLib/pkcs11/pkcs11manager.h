#pragma once

#include "pkcs11/XmlParser/OperationData/OperationSpecific/createobjectoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/generatecsroperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getslotsoperationdata.h"
#include "pkcs11/XmlParser/OperationData/pkcs11librarydata.h"
#include "pkcs11/XmlParser/OperationData/scrivapkcs11operationdata.h"
#include "pkcs11/pkcs11responsewriter.h"

#include <QObject>
#include <QPair>
#include <QString>

#include <p11-kit/pkcs11.h>

#include <memory>

class Pkcs11Library;
class PinPrompt;

// Runs the four token operations against one PKCS#11 module on the caller's (worker) thread and
// writes their answer documents. Each operation loads the module for its own duration only; every
// session it opens is closed and the module is finalised and unloaded whichever way it ends.
// Failures are thrown (AppException or Pkcs11Exception) for the caller to turn into the answer's
// error word; on success the pair holds an empty error word and the answer document.
class Pkcs11Manager : public QObject
{
    Q_OBJECT

public:
    explicit Pkcs11Manager(QObject* parent = nullptr);

    // Where the modules this manager loads ask for PINs; not owned.
    void setPinPrompt(PinPrompt* pinPrompt) { prompt = pinPrompt; }

    // The first location whose file exists and whose architecture suits this process, or an
    // empty string.
    static QString findUsablePkcs11Library(Pkcs11LibraryData& libraryData);
    // The slot of the token with the serial number (and, in the 2026-02-04 version, the label when
    // one is given); false when no present token matches.
    static bool findSlot(const QString& xmlNamespace, Pkcs11Library* library, const QString& serialNumber,
                         const QString& label, CK_SLOT_ID_PTR slotId);

    QPair<QString, QString> getSlots(const QString& libraryPath,
                                     ScrivaPkcs11OperationData<GetSlotsOperationData>* operationData,
                                     const QString& xmlNamespace);
    QPair<QString, QString> getCertificates(const QString& libraryPath,
                                            ScrivaPkcs11OperationData<GetCertificatesOperationData>* operationData,
                                            const QString& xmlNamespace);
    QPair<QString, QString> generateCsr(const QString& libraryPath,
                                        ScrivaPkcs11OperationData<GenerateCsrOperationData>* operationData,
                                        const QString& xmlNamespace);
    QPair<QString, QString> createObject(const QString& libraryPath,
                                         ScrivaPkcs11OperationData<CreateObjectOperationData>* operationData,
                                         const QString& xmlNamespace);

    // The process width as locations name it.
    static Location::Architecture processArchitecture();

signals:
    // A PIN form is about to be shown for the running operation.
    void pinRequestedSignal();

private:
    std::unique_ptr<Pkcs11Library> openLibrary(const QString& libraryPath, const Pkcs11LibraryData& libraryData);
    // The slot of the requested token; throws "SpecifiedTokenNotFound".
    static CK_SLOT_ID findToken(const QString& xmlNamespace, Pkcs11Library* library, const QString& serialNumber,
                                const QString& label);
    // Slot, token and platform of the chosen token for the answer.
    static Pkcs11ResponseWriter::Slot readSlot(Pkcs11Library* library, CK_SLOT_ID slotId);
    // Logs in as the request's "ShowPinForm" asks: with the PIN form when true; otherwise only a
    // token that collects the PIN itself is logged in.
    static void loginAsRequested(Pkcs11Library* library, CK_SESSION_HANDLE session,
                                 const Pkcs11ResponseWriter::Slot& slot, bool showPinForm);
    static QString toPem(const QByteArray& der, const char* type);

    PinPrompt* prompt = nullptr;
};
