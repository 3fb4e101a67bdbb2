#include "pkcs11logger.h"

#include "pkcs11names.h"

#include <vector>

namespace {
using Trace = Pkcs11TraceWriter;
} // namespace

Pkcs11Logger::Pkcs11Logger(CK_FUNCTION_LIST_PTR functionList)
    : functions(functionList)
{
}

// A missing list (or entry) answers CKR_GENERAL_ERROR without calling or tracing anything.
#define PKCS11_REQUIRE(name) \
    if (!functions || !functions->name) \
        return CKR_GENERAL_ERROR;

CK_RV Pkcs11Logger::C_Initialize(CK_VOID_PTR pInitArgs)
{
    PKCS11_REQUIRE(C_Initialize)
    if (Trace::traceInput("C_Initialize")) {
        pkcs11_logger_log(" pInitArgs: %p", pInitArgs);
        if (pInitArgs) {
            const auto* args = static_cast<const CK_C_INITIALIZE_ARGS*>(pInitArgs);
            pkcs11_logger_log("  CreateMutex: %p", reinterpret_cast<void*>(args->CreateMutex));
            pkcs11_logger_log("  DestroyMutex: %p", reinterpret_cast<void*>(args->DestroyMutex));
            pkcs11_logger_log("  LockMutex: %p", reinterpret_cast<void*>(args->LockMutex));
            pkcs11_logger_log("  UnlockMutex: %p", reinterpret_cast<void*>(args->UnlockMutex));
            pkcs11_logger_log("  Flags: %lu", args->flags);
            Trace::logFlag("   CKF_LIBRARY_CANT_CREATE_OS_THREADS", args->flags, CKF_LIBRARY_CANT_CREATE_OS_THREADS);
            Trace::logFlag("   CKF_OS_LOCKING_OK", args->flags, CKF_OS_LOCKING_OK);
            pkcs11_logger_log("  pReserved: %p", args->pReserved);
        }
    }
    const CK_RV rv = functions->C_Initialize(pInitArgs);
    const bool tracing = Trace::isTracing();
    Trace::traceResult(tracing, "C_Initialize", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_Finalize(CK_VOID_PTR pReserved)
{
    PKCS11_REQUIRE(C_Finalize)
    if (Trace::traceInput("C_Finalize"))
        pkcs11_logger_log(" pReserved: %p", pReserved);
    const CK_RV rv = functions->C_Finalize(pReserved);
    const bool tracing = Trace::isTracing();
    Trace::traceResult(tracing, "C_Finalize", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount)
{
    PKCS11_REQUIRE(C_GetSlotList)
    if (Trace::traceInput("C_GetSlotList")) {
        pkcs11_logger_log(" tokenPresent: %d", tokenPresent);
        pkcs11_logger_log(" pSlotList: %p", static_cast<void*>(pSlotList));
        Trace::logULongPointer(" pulCount", " *pulCount", pulCount);
    }
    const CK_ULONG room = Trace::room(pSlotList, pulCount);
    const CK_RV rv = functions->C_GetSlotList(tokenPresent, pSlotList, pulCount);
    const bool tracing = Trace::isTracing();
    if (Trace::traceOutput(tracing, rv)) {
        pkcs11_logger_log(" pSlotList: %p", static_cast<void*>(pSlotList));
        Trace::logULongPointer(" pulCount", " *pulCount", pulCount);
        if (pSlotList && pulCount)
            for (CK_ULONG i = 0; i < *pulCount && i < room; ++i)
                pkcs11_logger_log(" pSlotList[%d]: %lu", static_cast<int>(i), pSlotList[i]);
    }
    Trace::traceResult(tracing, "C_GetSlotList", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo)
{
    PKCS11_REQUIRE(C_GetSlotInfo)
    if (Trace::traceInput("C_GetSlotInfo")) {
        pkcs11_logger_log(" slotID: %lu", slotID);
        pkcs11_logger_log(" pInfo: %p", static_cast<void*>(pInfo));
    }
    const CK_RV rv = functions->C_GetSlotInfo(slotID, pInfo);
    const bool tracing = Trace::isTracing();
    if (Trace::traceOutput(tracing, rv)) {
        pkcs11_logger_log(" pInfo: %p", static_cast<void*>(pInfo));
        if (pInfo) {
            Trace::logSlotInfo(*pInfo);
        }
    }
    Trace::traceResult(tracing, "C_GetSlotInfo", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo)
{
    PKCS11_REQUIRE(C_GetTokenInfo)
    if (Trace::traceInput("C_GetTokenInfo")) {
        pkcs11_logger_log(" slotID: %lu", slotID);
        pkcs11_logger_log(" pInfo: %p", static_cast<void*>(pInfo));
    }
    const CK_RV rv = functions->C_GetTokenInfo(slotID, pInfo);
    const bool tracing = Trace::isTracing();
    if (Trace::traceOutput(tracing, rv) && pInfo) {
        Trace::logTokenInfo(*pInfo);
    }
    Trace::traceResult(tracing, "C_GetTokenInfo", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR pApplication, CK_NOTIFY Notify,
                                  CK_SESSION_HANDLE_PTR phSession)
{
    PKCS11_REQUIRE(C_OpenSession)
    if (Trace::traceInput("C_OpenSession")) {
        pkcs11_logger_log(" slotID: %lu", slotID);
        pkcs11_logger_log(" flags: %lu", flags);
        Trace::logFlag("  CKF_RW_SESSION", flags, CKF_RW_SESSION);
        Trace::logFlag("  CKF_SERIAL_SESSION", flags, CKF_SERIAL_SESSION);
        pkcs11_logger_log(" pApplication: %p", pApplication);
        pkcs11_logger_log(" Notify: %p", reinterpret_cast<void*>(Notify));
        Trace::logULongPointer(" phSession", " *phSession", phSession);
    }
    const CK_RV rv = functions->C_OpenSession(slotID, flags, pApplication, Notify, phSession);
    const bool tracing = Trace::isTracing();
    if (Trace::traceOutput(tracing, rv))
        Trace::logULongPointer(" phSession", " *phSession", phSession);
    Trace::traceResult(tracing, "C_OpenSession", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_CloseSession(CK_SESSION_HANDLE hSession)
{
    PKCS11_REQUIRE(C_CloseSession)
    if (Trace::traceInput("C_CloseSession"))
        pkcs11_logger_log(" hSession: %lu", hSession);
    const CK_RV rv = functions->C_CloseSession(hSession);
    const bool tracing = Trace::isTracing();
    Trace::traceResult(tracing, "C_CloseSession", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo)
{
    PKCS11_REQUIRE(C_GetSessionInfo)
    if (Trace::traceInput("C_GetSessionInfo")) {
        pkcs11_logger_log(" hSession: %lu", hSession);
        pkcs11_logger_log(" pInfo: %p", static_cast<void*>(pInfo));
    }
    const CK_RV rv = functions->C_GetSessionInfo(hSession, pInfo);
    const bool tracing = Trace::isTracing();
    if (Trace::traceOutput(tracing, rv)) {
        pkcs11_logger_log(" pInfo: %p", static_cast<void*>(pInfo));
        if (pInfo) {
            pkcs11_logger_log("  slotID: %lu", pInfo->slotID);
            pkcs11_logger_log("  state: %lu (%s)", pInfo->state, Pkcs11Names::sessionStateName(pInfo->state));
            pkcs11_logger_log("  flags: %lu", pInfo->flags);
            Trace::logFlag("   CKF_RW_SESSION", pInfo->flags, CKF_RW_SESSION);
            Trace::logFlag("   CKF_SERIAL_SESSION", pInfo->flags, CKF_SERIAL_SESSION);
            pkcs11_logger_log("  ulDeviceError: %lu", pInfo->ulDeviceError);
        }
    }
    Trace::traceResult(tracing, "C_GetSessionInfo", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin,
                            CK_ULONG ulPinLen)
{
    PKCS11_REQUIRE(C_Login)
    if (Trace::traceInput("C_Login")) {
        pkcs11_logger_log(" hSession: %lu", hSession);
        pkcs11_logger_log(" userType: %lu (%s)", userType, Pkcs11Names::userTypeName(userType));
        // Only where the PIN is and how long it is; its characters never reach the log.
        pkcs11_logger_log(" pPin: %p", static_cast<void*>(pPin));
        pkcs11_logger_log(" ulPinLen: %lu", ulPinLen);
    }
    const CK_RV rv = functions->C_Login(hSession, userType, pPin, ulPinLen);
    const bool tracing = Trace::isTracing();
    Trace::traceResult(tracing, "C_Login", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_Logout(CK_SESSION_HANDLE hSession)
{
    PKCS11_REQUIRE(C_Logout)
    if (Trace::traceInput("C_Logout"))
        pkcs11_logger_log(" hSession: %lu", hSession);
    const CK_RV rv = functions->C_Logout(hSession);
    const bool tracing = Trace::isTracing();
    Trace::traceResult(tracing, "C_Logout", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_CreateObject(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                                   CK_OBJECT_HANDLE_PTR phObject)
{
    PKCS11_REQUIRE(C_CreateObject)
    if (Trace::traceInput("C_CreateObject")) {
        pkcs11_logger_log(" hSession: %lu", hSession);
        pkcs11_logger_log(" pTemplate: %p", static_cast<void*>(pTemplate));
        pkcs11_logger_log(" ulCount: %lu", ulCount);
        Trace::logTemplate(pTemplate, ulCount);
        Trace::logULongPointer(" phObject", " *phObject", phObject);
    }
    const CK_RV rv = functions->C_CreateObject(hSession, pTemplate, ulCount, phObject);
    const bool tracing = Trace::isTracing();
    if (Trace::traceOutput(tracing, rv))
        Trace::logULongPointer(" phObject", " *phObject", phObject);
    Trace::traceResult(tracing, "C_CreateObject", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject)
{
    PKCS11_REQUIRE(C_DestroyObject)
    if (Trace::traceInput("C_DestroyObject")) {
        pkcs11_logger_log(" hSession: %lu", hSession);
        pkcs11_logger_log(" hObject: %lu", hObject);
    }
    const CK_RV rv = functions->C_DestroyObject(hSession, hObject);
    const bool tracing = Trace::isTracing();
    Trace::traceResult(tracing, "C_DestroyObject", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                                        CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount)
{
    PKCS11_REQUIRE(C_GetAttributeValue)
    if (Trace::traceInput("C_GetAttributeValue")) {
        pkcs11_logger_log(" hSession: %lu", hSession);
        pkcs11_logger_log(" hObject: %lu", hObject);
        pkcs11_logger_log(" pTemplate: %p", static_cast<void*>(pTemplate));
        pkcs11_logger_log(" ulCount: %lu", ulCount);
        Trace::logTemplate(pTemplate, ulCount);
    }
    // The template as the host gave it: where its buffers are and how long they are.
    const std::vector<CK_ATTRIBUTE> given(pTemplate, pTemplate ? pTemplate + ulCount : pTemplate);
    const CK_RV rv = functions->C_GetAttributeValue(hSession, hObject, pTemplate, ulCount);
    const bool tracing = Trace::isTracing();
    // These two errors still fill the attributes the module could answer.
    const bool partial = rv == CKR_ATTRIBUTE_SENSITIVE || rv == CKR_ATTRIBUTE_TYPE_INVALID;
    if (Trace::traceOutput(tracing, rv, partial)) {
        pkcs11_logger_log(" pTemplate: %p", static_cast<void*>(pTemplate));
        pkcs11_logger_log(" ulCount: %lu", ulCount);
        Trace::logTemplate(pTemplate, ulCount, given.data());
    }
    Trace::traceResult(tracing, "C_GetAttributeValue", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount)
{
    PKCS11_REQUIRE(C_FindObjectsInit)
    if (Trace::traceInput("C_FindObjectsInit")) {
        pkcs11_logger_log(" hSession: %lu", hSession);
        pkcs11_logger_log(" pTemplate: %p", static_cast<void*>(pTemplate));
        pkcs11_logger_log(" ulCount: %lu", ulCount);
        Trace::logTemplate(pTemplate, ulCount);
    }
    const CK_RV rv = functions->C_FindObjectsInit(hSession, pTemplate, ulCount);
    const bool tracing = Trace::isTracing();
    Trace::traceResult(tracing, "C_FindObjectsInit", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject,
                                  CK_ULONG ulMaxObjectCount, CK_ULONG_PTR pulObjectCount)
{
    PKCS11_REQUIRE(C_FindObjects)
    if (Trace::traceInput("C_FindObjects")) {
        pkcs11_logger_log(" hSession: %lu", hSession);
        pkcs11_logger_log(" phObject: %p", static_cast<void*>(phObject));
        pkcs11_logger_log(" ulMaxObjectCount: %lu", ulMaxObjectCount);
        Trace::logULongPointer(" pulObjectCount", " *pulObjectCount", pulObjectCount);
    }
    const CK_RV rv = functions->C_FindObjects(hSession, phObject, ulMaxObjectCount, pulObjectCount);
    const bool tracing = Trace::isTracing();
    if (Trace::traceOutput(tracing, rv)) {
        pkcs11_logger_log(" phObject: %p", static_cast<void*>(phObject));
        pkcs11_logger_log(" ulMaxObjectCount: %lu", ulMaxObjectCount);
        Trace::logULongPointer(" pulObjectCount", " *pulObjectCount", pulObjectCount);
        if (phObject && pulObjectCount)
            for (CK_ULONG i = 0; i < *pulObjectCount && i < ulMaxObjectCount; ++i)
                pkcs11_logger_log(" *phObject[%d]: %lu", static_cast<int>(i), phObject[i]);
    }
    Trace::traceResult(tracing, "C_FindObjects", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_FindObjectsFinal(CK_SESSION_HANDLE hSession)
{
    PKCS11_REQUIRE(C_FindObjectsFinal)
    if (Trace::traceInput("C_FindObjectsFinal"))
        pkcs11_logger_log(" hSession: %lu", hSession);
    const CK_RV rv = functions->C_FindObjectsFinal(hSession);
    const bool tracing = Trace::isTracing();
    Trace::traceResult(tracing, "C_FindObjectsFinal", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_DigestInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism)
{
    PKCS11_REQUIRE(C_DigestInit)
    if (Trace::traceInput("C_DigestInit")) {
        pkcs11_logger_log(" hSession: %lu", hSession);
        Trace::logMechanism(pMechanism, " *pParameter");
    }
    const CK_RV rv = functions->C_DigestInit(hSession, pMechanism);
    const bool tracing = Trace::isTracing();
    Trace::traceResult(tracing, "C_DigestInit", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_Digest(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
                             CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen)
{
    PKCS11_REQUIRE(C_Digest)
    if (Trace::traceInput("C_Digest"))
        Trace::logBufferInput(hSession, pData, ulDataLen, " pDigest", pDigest, " pulDigestLen", " *pulDigestLen",
                       pulDigestLen);
    const CK_ULONG room = Trace::room(pDigest, pulDigestLen);
    const CK_RV rv = functions->C_Digest(hSession, pData, ulDataLen, pDigest, pulDigestLen);
    const bool tracing = Trace::isTracing();
    if (Trace::traceOutput(tracing, rv))
        Trace::logBufferOutput(" pDigest", " *pDigest", pDigest, room, " pulDigestLen", " *pulDigestLen", pulDigestLen);
    Trace::traceResult(tracing, "C_Digest", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    PKCS11_REQUIRE(C_SignInit)
    if (Trace::traceInput("C_SignInit")) {
        pkcs11_logger_log(" hSession: %lu", hSession);
        Trace::logMechanism(pMechanism, " *pParameter");
        pkcs11_logger_log(" hKey: %lu", hKey);
    }
    const CK_RV rv = functions->C_SignInit(hSession, pMechanism, hKey);
    const bool tracing = Trace::isTracing();
    Trace::traceResult(tracing, "C_SignInit", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
                           CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen)
{
    PKCS11_REQUIRE(C_Sign)
    if (Trace::traceInput("C_Sign"))
        Trace::logBufferInput(hSession, pData, ulDataLen, " pSignature", pSignature, " pulSignatureLen",
                       " *pulSignatureLen", pulSignatureLen);
    const CK_ULONG room = Trace::room(pSignature, pulSignatureLen);
    const CK_RV rv = functions->C_Sign(hSession, pData, ulDataLen, pSignature, pulSignatureLen);
    const bool tracing = Trace::isTracing();
    if (Trace::traceOutput(tracing, rv))
        Trace::logBufferOutput(" pSignature", " *pSignature", pSignature, room, " pulSignatureLen", " *pulSignatureLen",
                        pulSignatureLen);
    Trace::traceResult(tracing, "C_Sign", rv);
    return rv;
}

CK_RV Pkcs11Logger::C_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                                      CK_ATTRIBUTE_PTR pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,
                                      CK_ATTRIBUTE_PTR pPrivateKeyTemplate, CK_ULONG ulPrivateKeyAttributeCount,
                                      CK_OBJECT_HANDLE_PTR phPublicKey, CK_OBJECT_HANDLE_PTR phPrivateKey)
{
    PKCS11_REQUIRE(C_GenerateKeyPair)
    if (Trace::traceInput("C_GenerateKeyPair")) {
        pkcs11_logger_log(" hSession: %lu", hSession);
        Trace::logMechanism(pMechanism, "  *pParameter");
        pkcs11_logger_log(" pPublicKeyTemplate: %p", static_cast<void*>(pPublicKeyTemplate));
        pkcs11_logger_log(" ulPublicKeyAttributeCount: %lu", ulPublicKeyAttributeCount);
        Trace::logTemplate(pPublicKeyTemplate, ulPublicKeyAttributeCount);
        pkcs11_logger_log(" pPrivateKeyTemplate: %p", static_cast<void*>(pPrivateKeyTemplate));
        pkcs11_logger_log(" ulPrivateKeyAttributeCount: %lu", ulPrivateKeyAttributeCount);
        Trace::logTemplate(pPrivateKeyTemplate, ulPrivateKeyAttributeCount);
        Trace::logULongPointer(" phPublicKey", " *phPublicKey", phPublicKey);
        Trace::logULongPointer(" phPrivateKey", " *phPrivateKey", phPrivateKey);
    }
    const CK_RV rv = functions->C_GenerateKeyPair(hSession, pMechanism, pPublicKeyTemplate, ulPublicKeyAttributeCount,
                                                  pPrivateKeyTemplate, ulPrivateKeyAttributeCount, phPublicKey,
                                                  phPrivateKey);
    const bool tracing = Trace::isTracing();
    if (Trace::traceOutput(tracing, rv)) {
        Trace::logULongPointer(" phPublicKey", " *phPublicKey", phPublicKey);
        Trace::logULongPointer(" phPrivateKey", " *phPrivateKey", phPrivateKey);
    }
    Trace::traceResult(tracing, "C_GenerateKeyPair", rv);
    return rv;
}
