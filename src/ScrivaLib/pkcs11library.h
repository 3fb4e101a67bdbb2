#pragma once

#include "pkcs11exception.h"
#include "pkcs11sessionguard.h"
#include "pkcs11slotinfo.h"
#include "pkcs11tokeninfo.h"
#include "secretpin.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <p11-kit/pkcs11.h>

#include <map>
#include <memory>

class PinPrompt;
class QLibrary;
class Pkcs11Logger;

// One loaded and initialised PKCS#11 module for the duration of one operation. Every call goes
// through the traced function list; every failing call becomes a Pkcs11Exception naming the
// function. The object also runs the user's login dialogue: PIN requests, wrong-PIN retries,
// protected authentication path and context-specific login. It reaches the user only through
// its PinPrompt, and stops at its next token or PIN step once that prompt has been closed or the
// host is terminating.
class Pkcs11Library : public QObject
{
    Q_OBJECT

public:
    // 1 asks for context PINs with the save-PIN form and keeps the saved ones per slot.
    enum SignatureType : qint32 { SignatureTypeDefault = 0, SignatureTypeCachedContextPin = 1 };

    // Loads and initialises the module; throws when that fails, and then nothing stays loaded.
    Pkcs11Library(const QString& path, SignatureType signatureType, bool rememberContextPin, const QString& pin1Name,
                  const QString& pin2Name, const QString& vendorExtensions);
    // Finalises the module (when this object initialised it) and unloads it.
    ~Pkcs11Library() override;

    Pkcs11Library(const Pkcs11Library&) = delete;
    Pkcs11Library& operator=(const Pkcs11Library&) = delete;

    const QString& getPath() const { return path; }
    // Where PINs are asked for and wrong ones reported; without one every PIN request counts as
    // cancelled. Not owned: it outlives the operation.
    void setPinPrompt(PinPrompt* pinPrompt) { prompt = pinPrompt; }

    QList<unsigned long> getSlots(CK_BBOOL tokenPresent);
    Pkcs11SlotInfo getSlotInfo(CK_SLOT_ID slotId);
    Pkcs11TokenInfo getTokenInfo(CK_SLOT_ID slotId);
    CK_SESSION_HANDLE openReadOnlySession(CK_SLOT_ID slotId);
    CK_SESSION_HANDLE openReadWriteSession(CK_SLOT_ID slotId);
    void closeSession(CK_SESSION_HANDLE session);
    bool isUserLoggedIn(CK_SESSION_HANDLE session);
    // Closes the session through this module when the guard goes.
    Pkcs11SessionGuard guard(CK_SESSION_HANDLE session);

    // Logs the user in unless the session already is. Asks for the PIN with the PIN form, or lets
    // the token collect it on its protected authentication path; a wrong PIN is reported and
    // asked again until the token locks. A cancel raises "OperationCanceled" when cancelIsError,
    // otherwise returns without login.
    void login(CK_SESSION_HANDLE session, const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo,
               bool cancelIsError);
    // The login a key with CKA_ALWAYS_AUTHENTICATE needs after C_SignInit.
    void contextLogin(CK_SESSION_HANDLE session, const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo);
    void logout(CK_SESSION_HANDLE session);

    // The attribute's bytes; empty when the module reports the value as unavailable.
    QByteArray getAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ULONG type);
    // Whether the key demands a context-specific login; false when that cannot be read.
    bool getCkaAlwaysAuthenticateValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object);
    QByteArray computeHash(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, const QByteArray& data);
    QByteArray signHash(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, CK_MECHANISM_PTR mechanism,
                        const QByteArray& data, bool alwaysAuthenticate, const Pkcs11SlotInfo& slotInfo,
                        const Pkcs11TokenInfo& tokenInfo);
    // The token's platform text from the requested vendor extensions; empty when none were requested.
    QString getTokenPlatform(CK_SLOT_ID slotId);
    void generateKeyPair(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism,
                         const QList<CK_ATTRIBUTE>& publicTemplate, const QList<CK_ATTRIBUTE>& privateTemplate,
                         CK_OBJECT_HANDLE_PTR publicKey, CK_OBJECT_HANDLE_PTR privateKey);
    void createObject(CK_SESSION_HANDLE session, const QList<CK_ATTRIBUTE>& attributes, CK_OBJECT_HANDLE_PTR object);
    void destroyObject(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object);
    QList<unsigned long> findObjects(CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR searchTemplate, CK_ULONG count);

    static constexpr const char* monetProIdPlatform = "Monet+ ProID+Q";
    static constexpr CK_ATTRIBUTE_TYPE tokenPlatformAttribute = 0x80001070UL;

signals:
    // A PIN form is about to be shown; the host raises its window.
    void pinRequestedSignal();

private:
    void load();
    void unload();
    // Asks the user through the prompt; empty when cancelled.
    SecretPin requestPin(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo, const QString& pinName,
                         bool contextForm);
    // The context PIN of signature type 1: cached per slot when the user asked to save it.
    const SecretPin& cachedContextPin(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo,
                                      SecretPin& unsaved);
    CK_RV callLogin(CK_SESSION_HANDLE session, CK_USER_TYPE userType, const SecretPin* pin);
    void showPinIncorrect(const QString& pinName);
    // What the token reports after a wrong PIN, for the next form; the old information when it
    // cannot be read.
    Pkcs11TokenInfo tokenInfoAfterWrongPin(const Pkcs11TokenInfo& old);
    // Two-call length protocol of C_GetAttributeValue for one attribute.
    QByteArray readAttribute(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ULONG type,
                             bool queryUnavailable);
    // The host is quitting or the operation has been abandoned: no further token or PIN step.
    void throwIfTerminating() const;
    [[noreturn]] static void throwPinBlocked(const QString& pinName);

    QString path;
    SignatureType signatureType;
    bool rememberContextPin;
    QString pin1Name;
    QString pin2Name;
    QString vendorExtensions;
    std::unique_ptr<QLibrary> library;
    std::unique_ptr<Pkcs11Logger> functions;
    std::map<CK_SLOT_ID, SecretPin> contextPinCache;
    PinPrompt* prompt = nullptr;
    bool initialized = false;
};
