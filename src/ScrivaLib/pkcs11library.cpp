#include "pkcs11library.h"

#include "pinprompt.h"
#include "pkcs11logger.h"
#include "pkcs11twocall.h"
#include "terminatingflag.h"

#include <QDebug>
#include <QLibrary>

#include <vector>

namespace {

std::vector<CK_ATTRIBUTE> contiguous(const QList<CK_ATTRIBUTE>& attributes)
{
    return std::vector<CK_ATTRIBUTE>(attributes.cbegin(), attributes.cend());
}

AppException operationCanceled(const char* file, int line, const char* function)
{
    return AppException(QStringLiteral("OperationCanceled"), QString::fromUtf8(file), line,
                        QString::fromUtf8(function), AppException::generalExceptionMessage());
}

#define OPERATION_CANCELED() operationCanceled(__FILE__, __LINE__, Q_FUNC_INFO)

CK_BYTE_PTR bytes(QByteArray& data) { return reinterpret_cast<CK_BYTE_PTR>(data.data()); }
CK_ULONG length(const QByteArray& data) { return static_cast<CK_ULONG>(data.size()); }

// A translated text with the PIN's name in its placeholder; a key without a translation has none.
QString withPinName(const QString& text, const QString& pinName)
{
    return text.contains(QLatin1String("%1")) ? text.arg(pinName) : text;
}

// A translated text with %1, %2, ... filled in; a key without a translation gets the values
// appended after ": ".
QString withValues(const QString& text, const QStringList& values)
{
    if (!text.contains(QLatin1String("%1")))
        return text + QStringLiteral(": ") + values.join(QStringLiteral(": "));
    QString filled = text;
    for (const QString& value : values)
        filled = filled.arg(value);
    return filled;
}

// A failure to get at the module itself. The answer carries the bare word; the path and the
// loader's text go to the log as its cause.
#define LOAD_EXCEPTION(word, values) \
    AppException(QStringLiteral(word), QStringLiteral(__FILE__), __LINE__, QString::fromUtf8(Q_FUNC_INFO), \
                 Pkcs11Exception::pkcs11GeneralExceptionMessage(), \
                 AppException(withValues(tr(word), (values)), QStringLiteral(__FILE__), __LINE__, \
                              QString::fromUtf8(Q_FUNC_INFO), Pkcs11Exception::pkcs11GeneralExceptionMessage()))

} // namespace

Pkcs11Library::Pkcs11Library(const QString& path, SignatureType signatureType, bool rememberContextPin,
                             const QString& pin1Name, const QString& pin2Name, const QString& vendorExtensions)
    : path(path),
      signatureType(signatureType),
      rememberContextPin(rememberContextPin),
      pin1Name(pin1Name),
      pin2Name(pin2Name),
      vendorExtensions(vendorExtensions)
{
    qDebug().noquote() << Q_FUNC_INFO;
    qInfo().noquote() << QStringLiteral("Loading PKCS#11 library ") + path;
    load();
}

Pkcs11Library::~Pkcs11Library()
{
    if (initialized)
        functions->C_Finalize(nullptr);
    qInfo().noquote() << QStringLiteral("Unloading PKCS#11 library ") + path;
    contextPinCache.clear();
    unload();
}

void Pkcs11Library::load()
{
    library = std::make_unique<QLibrary>(path);
    // The module's code stays mapped while the process lives (RTLD_NODELETE): its runtime may leave
    // per-thread destructors in the worker threads, which outlive the operation, or exit handlers.
    library->setLoadHints(QLibrary::PreventUnloadHint);
    if (!library->load()) {
        const QString error = library->errorString();
        library.reset();
        throw LOAD_EXCEPTION("UnableToLoad", QStringList({path, error}));
    }
    auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(library->resolve("C_GetFunctionList"));
    if (!getFunctionList) {
        unload();
        throw LOAD_EXCEPTION("UnableToFind", QStringList({QStringLiteral("C_GetFunctionList()"), path}));
    }
    CK_FUNCTION_LIST_PTR list = nullptr;
    if (getFunctionList(&list) != CKR_OK || !list) {
        unload();
        throw LOAD_EXCEPTION("UnableToCall", QStringList({QStringLiteral("C_GetFunctionList()"), path}));
    }
    functions = std::make_unique<Pkcs11Logger>(list);

    CK_C_INITIALIZE_ARGS args{};
    args.flags = CKF_OS_LOCKING_OK;
    CK_RV rv = functions->C_Initialize(&args);
    // A module that cannot use the system's locking may still work with its own.
    if (rv == CKR_CANT_LOCK) {
        args.flags = 0;
        rv = functions->C_Initialize(&args);
    }
    if (rv != CKR_OK) {
        // Not initialised by us, so not ours to finalise: only unloaded.
        unload();
        throw PKCS11_EXCEPTION("C_Initialize", rv);
    }
    initialized = true;
}

// Closes the module, whose code stays mapped; its wrapper objects go with this object, which is
// being destroyed or not built.
void Pkcs11Library::unload()
{
    if (library)
        library->unload();
}

// The wrappers of a single module call log no entry line of their own: the call trace records
// them, and with the log off each line would still cost a look at the switch. The calls that do
// work on the token are not made once the operation has been abandoned; closing and finalising
// still are.
QList<unsigned long> Pkcs11Library::getSlots(CK_BBOOL tokenPresent)
{
    throwIfTerminating();
    const std::vector<CK_SLOT_ID> slotIds = Pkcs11TwoCall::read<CK_SLOT_ID>(
        "C_GetSlotList", "slots", Pkcs11TwoCall::maxSlots,
        [&](CK_SLOT_ID* list, CK_ULONG* count) { return functions->C_GetSlotList(tokenPresent, list, count); });
    return QList<unsigned long>(slotIds.cbegin(), slotIds.cend());
}

Pkcs11SlotInfo Pkcs11Library::getSlotInfo(CK_SLOT_ID slotId)
{
    CK_SLOT_INFO info{};
    PKCS11_CHECK("C_GetSlotInfo", functions->C_GetSlotInfo(slotId, &info));
    return Pkcs11SlotInfo(slotId, info);
}

Pkcs11TokenInfo Pkcs11Library::getTokenInfo(CK_SLOT_ID slotId)
{
    CK_TOKEN_INFO info{};
    PKCS11_CHECK("C_GetTokenInfo", functions->C_GetTokenInfo(slotId, &info));
    return Pkcs11TokenInfo(slotId, info);
}

CK_SESSION_HANDLE Pkcs11Library::openReadOnlySession(CK_SLOT_ID slotId)
{
    throwIfTerminating();
    CK_SESSION_HANDLE session = 0;
    PKCS11_CHECK("C_OpenSession", functions->C_OpenSession(slotId, CKF_SERIAL_SESSION, nullptr, nullptr, &session));
    return session;
}

CK_SESSION_HANDLE Pkcs11Library::openReadWriteSession(CK_SLOT_ID slotId)
{
    throwIfTerminating();
    CK_SESSION_HANDLE session = 0;
    PKCS11_CHECK("C_OpenSession",
                 functions->C_OpenSession(slotId, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session));
    return session;
}

void Pkcs11Library::closeSession(CK_SESSION_HANDLE session)
{
    PKCS11_CHECK("C_CloseSession", functions->C_CloseSession(session));
}

Pkcs11SessionGuard Pkcs11Library::guard(CK_SESSION_HANDLE session)
{
    return Pkcs11SessionGuard(session, [this](CK_SESSION_HANDLE handle) { closeSession(handle); });
}

bool Pkcs11Library::isUserLoggedIn(CK_SESSION_HANDLE session)
{
    CK_SESSION_INFO info{};
    PKCS11_CHECK("C_GetSessionInfo", functions->C_GetSessionInfo(session, &info));
    return info.state == CKS_RO_USER_FUNCTIONS || info.state == CKS_RW_USER_FUNCTIONS;
}

void Pkcs11Library::throwIfTerminating() const
{
    if (TerminatingFlag::isSet() || (prompt && prompt->isClosed()))
        throw APP_EXCEPTION(QStringLiteral("Scriva is terminating"));
}

void Pkcs11Library::throwPinBlocked(const QString& pinName)
{
    throw APP_EXCEPTION(withPinName(tr("PinBlocked"), pinName));
}

SecretPin Pkcs11Library::requestPin(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo,
                                    const QString& pinName, bool contextForm)
{
    if (!prompt) {
        qWarning().noquote() << QStringLiteral("No user interface to ask for a PIN");
        return SecretPin();
    }
    // The host raises its window for the form.
    emit pinRequestedSignal();
    if (!contextForm)
        return prompt->requestPin(slotInfo, tokenInfo, pinName);
    return prompt->requestContextPin(slotInfo, tokenInfo, pinName, &rememberContextPin);
}

CK_RV Pkcs11Library::callLogin(CK_SESSION_HANDLE session, CK_USER_TYPE userType, const SecretPin* pin)
{
    if (!pin)
        return functions->C_Login(session, userType, nullptr, 0);
    // The module only reads the PIN; the pointer type of the standard is not const.
    return functions->C_Login(session, userType, const_cast<CK_UTF8CHAR_PTR>(pin->utf8()),
                              static_cast<CK_ULONG>(pin->size()));
}

void Pkcs11Library::showPinIncorrect(const QString& pinName)
{
    const QString text = withPinName(tr("PinIncorrect"), pinName);
    if (!prompt) {
        qWarning().noquote() << QStringLiteral("No user interface to report an incorrect PIN");
        return;
    }
    prompt->showPinIncorrect(tr("AppName"), text);
}

Pkcs11TokenInfo Pkcs11Library::tokenInfoAfterWrongPin(const Pkcs11TokenInfo& old)
{
    try {
        return getTokenInfo(old.getSlotId());
    } catch (const AppException& e) {
        qWarning().noquote() << QStringLiteral("Token information not read again: ") + e.toString(true);
        return old;
    }
}

void Pkcs11Library::login(CK_SESSION_HANDLE session, const Pkcs11SlotInfo& slotInfo,
                          const Pkcs11TokenInfo& firstTokenInfo, bool cancelIsError)
{
    qDebug().noquote() << Q_FUNC_INFO;
    if (isUserLoggedIn(session))
        return;
    throwIfTerminating();
    // A wrong PIN changes what the token warns of (count low, final try).
    Pkcs11TokenInfo tokenInfo = firstTokenInfo;
    for (;;) {
        CK_RV rv = CKR_OK;
        if (tokenInfo.hasProtectedAuthPath()) {
            // The token's own reader or pad collects the PIN.
            rv = callLogin(session, CKU_USER, nullptr);
        } else {
            const SecretPin pin = requestPin(slotInfo, tokenInfo, pin1Name, false);
            throwIfTerminating();
            if (pin.isEmpty()) {
                if (cancelIsError)
                    throw OPERATION_CANCELED();
                return;
            }
            rv = callLogin(session, CKU_USER, &pin);
        }

        switch (rv) {
        case CKR_OK:
        case CKR_USER_ALREADY_LOGGED_IN:
            return;
        case CKR_FUNCTION_CANCELED:
            if (cancelIsError)
                throw OPERATION_CANCELED();
            return;
        case CKR_PIN_INCORRECT:
        case CKR_PIN_LEN_RANGE:
            // Asked again until the token's own retry counter locks it.
            showPinIncorrect(pin1Name);
            throwIfTerminating();
            tokenInfo = tokenInfoAfterWrongPin(tokenInfo);
            break;
        case CKR_PIN_LOCKED:
            throwPinBlocked(pin1Name);
        default:
            throw PKCS11_EXCEPTION("C_Login", rv);
        }
    }
}

const SecretPin& Pkcs11Library::cachedContextPin(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo,
                                                  SecretPin& unsaved)
{
    const auto cached = contextPinCache.find(slotInfo.getSlotId());
    if (cached != contextPinCache.end())
        return cached->second;
    SecretPin pin = requestPin(slotInfo, tokenInfo, pin2Name, true);
    throwIfTerminating();
    if (pin.isEmpty())
        throw OPERATION_CANCELED();
    if (!rememberContextPin) {
        unsaved = std::move(pin);
        return unsaved;
    }
    return contextPinCache.insert_or_assign(slotInfo.getSlotId(), std::move(pin)).first->second;
}

void Pkcs11Library::contextLogin(CK_SESSION_HANDLE session, const Pkcs11SlotInfo& slotInfo,
                                 const Pkcs11TokenInfo& firstTokenInfo)
{
    qDebug().noquote() << Q_FUNC_INFO;
    throwIfTerminating();
    Pkcs11TokenInfo tokenInfo = firstTokenInfo;
    for (;;) {
        SecretPin asked;
        const SecretPin* pin = &asked;
        if (signatureType == SignatureTypeCachedContextPin) {
            pin = &cachedContextPin(slotInfo, tokenInfo, asked);
        } else if (tokenInfo.hasProtectedAuthPath()) {
            pin = nullptr;
        } else {
            asked = requestPin(slotInfo, tokenInfo, pin2Name, false);
            throwIfTerminating();
            if (asked.isEmpty())
                throw OPERATION_CANCELED();
        }

        const CK_RV rv = callLogin(session, CKU_CONTEXT_SPECIFIC, pin);
        switch (rv) {
        case CKR_OK:
        case CKR_USER_ALREADY_LOGGED_IN:
            return;
        case CKR_FUNCTION_CANCELED:
            throw OPERATION_CANCELED();
        case CKR_PIN_INCORRECT:
        case CKR_PIN_LEN_RANGE:
            // The cached PIN dies here, overwritten.
            contextPinCache.erase(slotInfo.getSlotId());
            showPinIncorrect(pin2Name);
            throwIfTerminating();
            tokenInfo = tokenInfoAfterWrongPin(tokenInfo);
            break;
        case CKR_PIN_LOCKED:
            throwPinBlocked(pin2Name);
        default:
            throw PKCS11_EXCEPTION("C_Login", rv);
        }
    }
}

void Pkcs11Library::logout(CK_SESSION_HANDLE session)
{
    PKCS11_CHECK("C_Logout", functions->C_Logout(session));
}

QByteArray Pkcs11Library::readAttribute(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ULONG type,
                                        bool queryUnavailable)
{
    CK_ATTRIBUTE attribute = {type, nullptr, 0};
    PKCS11_CHECK("C_GetAttributeValue", functions->C_GetAttributeValue(session, object, &attribute, 1));
    QByteArray value;
    if (attribute.ulValueLen == CK_UNAVAILABLE_INFORMATION) {
        if (!queryUnavailable)
            return value;
        // Asked again without a buffer; whatever that answers, there is nothing to read.
        attribute.ulValueLen = 0;
        PKCS11_CHECK("C_GetAttributeValue", functions->C_GetAttributeValue(session, object, &attribute, 1));
        return value;
    }
    const CK_ULONG room = Pkcs11TwoCall::withinLimit("C_GetAttributeValue", "bytes", attribute.ulValueLen,
                                                     Pkcs11TwoCall::maxValueLength);
    // Zeroed: the trace dumps the buffer as it goes in, and old heap contents must not show.
    value.fill('\0', static_cast<qsizetype>(room));
    attribute.pValue = value.data();
    PKCS11_CHECK("C_GetAttributeValue", functions->C_GetAttributeValue(session, object, &attribute, 1));
    value.truncate(static_cast<qsizetype>(
        Pkcs11TwoCall::withinRoom("C_GetAttributeValue", "bytes", attribute.ulValueLen, room)));
    return value;
}

QByteArray Pkcs11Library::getAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ULONG type)
{
    return readAttribute(session, object, type, true);
}

bool Pkcs11Library::getCkaAlwaysAuthenticateValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object)
{
    // A token that does not know the attribute does not ask for a context login.
    try {
        const QByteArray value = getAttributeValue(session, object, CKA_ALWAYS_AUTHENTICATE);
        return value.size() == 1 && value.at(0) == 1;
    } catch (const AppException& e) {
        qInfo().noquote() << QStringLiteral("Recoverable exception: ") + e.toString(true);
    } catch (...) {
        qInfo().noquote() << QStringLiteral("Unidentified recoverable exception");
    }
    return false;
}

QByteArray Pkcs11Library::computeHash(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, const QByteArray& data)
{
    throwIfTerminating();
    qDebug().noquote() << Q_FUNC_INFO;
    PKCS11_CHECK("C_DigestInit", functions->C_DigestInit(session, mechanism));
    QByteArray input = data; // the module's parameter is not const
    return Pkcs11TwoCall::readBytes("C_Digest", [&](CK_BYTE_PTR digest, CK_ULONG_PTR digestLength) {
        return functions->C_Digest(session, bytes(input), length(input), digest, digestLength);
    });
}

QByteArray Pkcs11Library::signHash(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, CK_MECHANISM_PTR mechanism,
                                   const QByteArray& data, bool alwaysAuthenticate, const Pkcs11SlotInfo& slotInfo,
                                   const Pkcs11TokenInfo& tokenInfo)
{
    throwIfTerminating();
    qDebug().noquote() << Q_FUNC_INFO;
    const CK_RV rv = functions->C_SignInit(session, mechanism, key);
    if (rv == CKR_FUNCTION_CANCELED)
        throw OPERATION_CANCELED();
    if (rv != CKR_OK)
        throw PKCS11_EXCEPTION("C_SignInit", rv);
    if (alwaysAuthenticate)
        contextLogin(session, slotInfo, tokenInfo);
    QByteArray input = data;
    return Pkcs11TwoCall::readBytes("C_Sign", [&](CK_BYTE_PTR signature, CK_ULONG_PTR signatureLength) {
        const CK_RV rv = functions->C_Sign(session, bytes(input), length(input), signature, signatureLength);
        if (signature && rv == CKR_FUNCTION_CANCELED)
            throw OPERATION_CANCELED();
        return rv;
    });
}

QString Pkcs11Library::getTokenPlatform(CK_SLOT_ID slotId)
{
    qDebug().noquote() << Q_FUNC_INFO;
    if (vendorExtensions.isEmpty())
        return QString();
    if (vendorExtensions != QLatin1String(monetProIdPlatform))
        throw APP_EXCEPTION(QStringLiteral("Unsupported vendor extensions requested"));
    Pkcs11SessionGuard session = guard(openReadOnlySession(slotId));
    // The platform is a vendor attribute of the token itself, reached through object handle 0.
    const QByteArray value = readAttribute(session.handle(), 0, tokenPlatformAttribute, false);
    session.close();
    return QString::fromUtf8(value);
}

void Pkcs11Library::generateKeyPair(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism,
                                    const QList<CK_ATTRIBUTE>& publicTemplate,
                                    const QList<CK_ATTRIBUTE>& privateTemplate, CK_OBJECT_HANDLE_PTR publicKey,
                                    CK_OBJECT_HANDLE_PTR privateKey)
{
    throwIfTerminating();
    qDebug().noquote() << Q_FUNC_INFO;
    std::vector<CK_ATTRIBUTE> publicAttributes = contiguous(publicTemplate);
    std::vector<CK_ATTRIBUTE> privateAttributes = contiguous(privateTemplate);
    PKCS11_CHECK("C_GenerateKeyPair", functions->C_GenerateKeyPair(
        session, mechanism, publicAttributes.data(), static_cast<CK_ULONG>(publicAttributes.size()),
        privateAttributes.data(), static_cast<CK_ULONG>(privateAttributes.size()), publicKey, privateKey));
}

void Pkcs11Library::createObject(CK_SESSION_HANDLE session, const QList<CK_ATTRIBUTE>& attributes,
                                 CK_OBJECT_HANDLE_PTR object)
{
    throwIfTerminating();
    qDebug().noquote() << Q_FUNC_INFO;
    std::vector<CK_ATTRIBUTE> objectTemplate = contiguous(attributes);
    PKCS11_CHECK("C_CreateObject", functions->C_CreateObject(session, objectTemplate.data(),
                                               static_cast<CK_ULONG>(objectTemplate.size()), object));
}

// Not stopped by an abandoned operation: it takes back what the operation left on the token.
void Pkcs11Library::destroyObject(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object)
{
    PKCS11_CHECK("C_DestroyObject", functions->C_DestroyObject(session, object));
}

QList<unsigned long> Pkcs11Library::findObjects(CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR searchTemplate,
                                                CK_ULONG count)
{
    throwIfTerminating();
    qDebug().noquote() << Q_FUNC_INFO;
    PKCS11_CHECK("C_FindObjectsInit", functions->C_FindObjectsInit(session, searchTemplate, count));
    constexpr CK_ULONG batchSize = 8;
    CK_OBJECT_HANDLE batch[batchSize];
    QList<unsigned long> handles;
    // A full batch may have more behind it; each call is asked with a count of 0. A module that
    // finds without end stops at the host's limit.
    for (CK_ULONG found = batchSize; found == batchSize;) {
        found = 0;
        PKCS11_CHECK("C_FindObjects", functions->C_FindObjects(session, batch, batchSize, &found));
        found = Pkcs11TwoCall::withinRoom("C_FindObjects", "objects", found, batchSize);
        Pkcs11TwoCall::withinLimit("C_FindObjects", "objects", CK_ULONG(handles.size()) + found,
                                   Pkcs11TwoCall::maxObjects);
        handles.append(QList<unsigned long>(batch, batch + found));
    }
    PKCS11_CHECK("C_FindObjectsFinal", functions->C_FindObjectsFinal(session));
    return handles;
}
