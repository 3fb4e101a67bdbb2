// scriva-test-token: a PKCS#11 module for a web application's own end-to-end tests. It forwards
// every call to a real module (SoftHSM by default) and changes two things: its tokens report a
// protected authentication path, and a C_Login without a PIN logs in with the PIN it was given.
// The host then never shows its PIN form, so a browser test runs GenerateCsr and CreateObject with
// no one at the keyboard.
//
// It never belongs on a user's machine: it logs in to a token with a PIN nobody typed.
//
// Configuration (the PIN is read at every C_Initialize, the module once); a variable wins over the file:
//   SCRIVA_TEST_TOKEN_PIN      the user PIN of the tokens (required)
//   SCRIVA_TEST_TOKEN_MODULE   the module to forward to (default /usr/lib/softhsm/libsofthsm2.so)
//   SCRIVA_TEST_TOKEN_CONFIG   a file with the lines "pin=..." and "module=..."
// Without a PIN, C_Initialize fails; a PIN the token refuses cancels the login (the page sees
// OperationCanceled). Both say why on standard error.

#include <p11-kit/pkcs11.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>

namespace {

std::mutex mutex; // guards everything below
CK_FUNCTION_LIST_PTR target = nullptr;
CK_FUNCTION_LIST ownList;
std::string pin;

std::string setting(const char* variable, const char* key)
{
    if (const char* value = std::getenv(variable); value && *value)
        return value;
    const char* path = std::getenv("SCRIVA_TEST_TOKEN_CONFIG");
    std::ifstream file(path ? path : "");
    const std::string prefix = std::string(key) + "=";
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && line.back() == '\r') // a file written on Windows
            line.pop_back();
        if (line.rfind(prefix, 0) == 0)
            return line.substr(prefix.size());
    }
    return {};
}

CK_RV initialize(CK_VOID_PTR initArgs)
{
    std::lock_guard<std::mutex> lock(mutex);
    pin = setting("SCRIVA_TEST_TOKEN_PIN", "pin");
    if (pin.empty()) {
        std::fputs("scriva-test-token: no PIN given (SCRIVA_TEST_TOKEN_PIN or pin= in SCRIVA_TEST_TOKEN_CONFIG)\n",
                   stderr);
        return CKR_GENERAL_ERROR;
    }
    return target->C_Initialize(initArgs);
}

CK_RV getTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info)
{
    const CK_RV rv = target->C_GetTokenInfo(slot, info);
    if (rv == CKR_OK && info)
        info->flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
    return rv;
}

// Without a PIN the caller expects the token's own pad to collect it; this module is that pad.
CK_RV login(CK_SESSION_HANDLE session, CK_USER_TYPE userType, CK_UTF8CHAR_PTR givenPin, CK_ULONG length)
{
    if (givenPin || (userType != CKU_USER && userType != CKU_CONTEXT_SPECIFIC))
        return target->C_Login(session, userType, givenPin, length);
    std::string padPin;
    {
        std::lock_guard<std::mutex> lock(mutex);
        padPin = pin;
    }
    const CK_RV rv = target->C_Login(session, userType, reinterpret_cast<CK_UTF8CHAR_PTR>(padPin.data()),
                                     padPin.size());
    if (rv != CKR_PIN_INCORRECT && rv != CKR_PIN_LEN_RANGE)
        return rv;
    // A wrong PIN would have the host show its wrong-PIN message and wait for someone to close
    // it; a cancelled login ends the operation at once.
    std::fputs("scriva-test-token: the token refused the PIN given\n", stderr);
    return CKR_FUNCTION_CANCELED;
}

bool loadTarget()
{
    std::string path = setting("SCRIVA_TEST_TOKEN_MODULE", "module");
    if (path.empty())
        path = "/usr/lib/softhsm/libsofthsm2.so";
    // Never closed: the real module stays loaded for the life of the process, as reloading
    // SoftHSM is not safe.
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    auto getList = handle ? reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList")) : nullptr;
    CK_FUNCTION_LIST_PTR list = nullptr;
    if (!getList || getList(&list) != CKR_OK || !list) {
        std::fprintf(stderr, "scriva-test-token: cannot use the module %s: %s\n", path.c_str(),
                     handle ? "no usable C_GetFunctionList" : dlerror());
        return false;
    }
    target = list;
    ownList = *list;
    ownList.C_GetFunctionList = C_GetFunctionList;
    ownList.C_Initialize = initialize;
    ownList.C_GetTokenInfo = getTokenInfo;
    ownList.C_Login = login;
    return true;
}

} // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list)
{
    if (!list)
        return CKR_ARGUMENTS_BAD;
    std::lock_guard<std::mutex> lock(mutex);
    if (!target && !loadTarget())
        return CKR_GENERAL_ERROR;
    *list = &ownList;
    return CKR_OK;
}
