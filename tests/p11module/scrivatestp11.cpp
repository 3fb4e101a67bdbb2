// A PKCS#11 module for tests. It forwards every call to a real module (SoftHSM unless
// SCRIVA_TEST_P11_TARGET names another) and adds what the real module cannot be made to do.
// The additions are configured by a key=value file named in SCRIVA_TEST_P11_CONFIG, read again
// at every C_Initialize (an absent file or variable means plain forwarding):
//
//   initialize_rv=0x191           C_Initialize answers this value without forwarding
//   cant_lock_once=1              the first C_Initialize that asks for OS locking answers CKR_CANT_LOCK
//   pin_pad_pin=1234              the token reports a protected authentication path, and a
//                                 C_Login without a PIN logs in with this PIN
//   lock_after_wrong_pins=3       after that many wrong PINs every C_Login answers CKR_PIN_LOCKED
//   user_pin_flags=count_low      C_GetTokenInfo adds CKF_USER_PIN_COUNT_LOW, final_try adds
//                                 CKF_USER_PIN_FINAL_TRY (both: count_low,final_try)
//   token_info_fail_label=Broken  C_GetTokenInfo of the token with this label fails ...
//   token_info_fail_rv=0x30       ... with this value (default CKR_DEVICE_ERROR)
//   cancel_sign=1                 C_Sign into a buffer answers CKR_FUNCTION_CANCELED
//   always_authenticate=1         private keys read CKA_ALWAYS_AUTHENTICATE = true, and signing
//                                 needs a CKU_CONTEXT_SPECIFIC login ...
//   context_pin=5678              ... with this PIN (a null PIN is accepted with a PIN pad)
//   token_platform=Platform text  vendor attribute 0x80001070 of object handle 0
//   kov_data_hex=3003020101       vendor attribute 0x80000007 of public keys
//   no_slots=1                    C_GetSlotList reports no slots
//   hold_calls=C_GenerateKeyPair  these calls first create <hold_dir>/<call>.entered, so a test knows
//   hold_dir=/tmp/gates           the host is inside, then wait until <hold_dir>/<call>.release exists
// Calls that can be held: C_Finalize, C_GetSlotList, C_GetTokenInfo, C_OpenSession, C_CloseSession,
// C_Login, C_CreateObject, C_GenerateKeyPair, C_SignInit, C_Sign. Numbers may be decimal or
// 0x-prefixed hexadecimal.

#include <p11-kit/pkcs11.h>

#include <dlfcn.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace {

constexpr const char* defaultTarget = "/usr/lib/softhsm/libsofthsm2.so";
constexpr CK_ATTRIBUTE_TYPE tokenPlatformAttribute = 0x80001070UL;
constexpr CK_ATTRIBUTE_TYPE kovDataAttribute = 0x80000007UL;

struct State
{
    std::mutex mutex;
    std::map<std::string, std::string> config;
    bool lockingRefused = false;
    unsigned long wrongPins = 0;
    // Sessions signing with a key that needs a context login, and whether it was made.
    std::map<CK_SESSION_HANDLE, bool> contextLogins;
};

State& state()
{
    static State s;
    return s;
}

CK_FUNCTION_LIST_PTR target = nullptr;
CK_FUNCTION_LIST ownList;

// Lines "key=value", as the tests write them.
void readConfig(State& s)
{
    s.config.clear();
    const char* path = std::getenv("SCRIVA_TEST_P11_CONFIG");
    std::ifstream file(path ? path : "");
    for (std::string line; std::getline(file, line);)
        if (line.find('=') != std::string::npos)
            s.config[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
}

std::string text(const State& s, const char* key)
{
    const auto it = s.config.find(key);
    return it == s.config.end() ? std::string() : it->second;
}

bool has(const State& s, const char* key) { return s.config.count(key) != 0; }

unsigned long number(const State& s, const char* key, unsigned long fallback)
{
    const std::string value = text(s, key);
    return value.empty() ? fallback : std::strtoul(value.c_str(), nullptr, 0);
}

std::string fromHex(const std::string& hex)
{
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoul(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

bool pinLocked(const State& s)
{
    return has(s, "lock_after_wrong_pins") && s.wrongPins >= number(s, "lock_after_wrong_pins", 0);
}

bool hasClass(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_OBJECT_CLASS wanted)
{
    CK_OBJECT_CLASS objectClass = 0;
    CK_ATTRIBUTE attribute = {CKA_CLASS, &objectClass, sizeof(objectClass)};
    return target->C_GetAttributeValue(session, object, &attribute, 1) == CKR_OK && objectClass == wanted;
}

// Whether the comma-separated list under the key names the item.
bool listed(const State& s, const char* key, const char* item)
{
    return ("," + text(s, key) + ",").find("," + std::string(item) + ",") != std::string::npos;
}

// Holds the call at its gate. Runs before the state mutex is taken, so other threads reach the
// module meanwhile.
void pause(const char* call)
{
    std::string gate;
    {
        State& s = state();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!has(s, "hold_dir") || !listed(s, "hold_calls", call))
            return;
        gate = text(s, "hold_dir") + "/" + call;
    }
    std::ofstream(gate + ".entered");
    while (!std::ifstream(gate + ".release").good())
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

// Calls the test module adds nothing to except their pace.
#define SCRIVA_PACED(call, parameters, arguments) \
    CK_RV paced_##call parameters                \
    {                                            \
        pause(#call);                            \
        return target->call arguments;           \
    }

// With no_slots=1 the module has no slots at all.
CK_RV paced_C_GetSlotList(CK_BBOOL present, CK_SLOT_ID_PTR list, CK_ULONG_PTR count)
{
    pause("C_GetSlotList");
    {
        State& s = state();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (number(s, "no_slots", 0) != 0) {
            *count = 0;
            return CKR_OK;
        }
    }
    return target->C_GetSlotList(present, list, count);
}
SCRIVA_PACED(C_OpenSession,
             (CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR application, CK_NOTIFY notify, CK_SESSION_HANDLE_PTR session),
             (slot, flags, application, notify, session))
SCRIVA_PACED(C_CreateObject,
             (CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count, CK_OBJECT_HANDLE_PTR object),
             (session, attributes, count, object))
SCRIVA_PACED(C_GenerateKeyPair,
             (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_ATTRIBUTE_PTR publicTemplate,
              CK_ULONG publicCount, CK_ATTRIBUTE_PTR privateTemplate, CK_ULONG privateCount, CK_OBJECT_HANDLE_PTR publicKey,
              CK_OBJECT_HANDLE_PTR privateKey),
             (session, mechanism, publicTemplate, publicCount, privateTemplate, privateCount, publicKey, privateKey))

#undef SCRIVA_PACED

CK_RV testInitialize(CK_VOID_PTR initArgs)
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    readConfig(s);
    if (has(s, "initialize_rv"))
        return number(s, "initialize_rv", CKR_OK);
    const auto* args = static_cast<const CK_C_INITIALIZE_ARGS*>(initArgs);
    if (number(s, "cant_lock_once", 0) && args && (args->flags & CKF_OS_LOCKING_OK) && !s.lockingRefused) {
        s.lockingRefused = true;
        return CKR_CANT_LOCK;
    }
    const CK_RV rv = target->C_Initialize(initArgs);
    if (rv == CKR_OK) {
        s.wrongPins = 0;
        s.contextLogins.clear();
    }
    return rv;
}

CK_RV testFinalize(CK_VOID_PTR reserved)
{
    pause("C_Finalize");
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.lockingRefused = false;
    return target->C_Finalize(reserved);
}

CK_RV testGetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info)
{
    pause("C_GetTokenInfo");
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    const CK_RV rv = target->C_GetTokenInfo(slot, info);
    if (rv != CKR_OK)
        return rv;
    std::string label(reinterpret_cast<const char*>(info->label), sizeof(info->label));
    label.erase(label.find_last_not_of(' ') + 1);
    if (has(s, "token_info_fail_label") && label == text(s, "token_info_fail_label"))
        return number(s, "token_info_fail_rv", CKR_DEVICE_ERROR);
    if (has(s, "pin_pad_pin"))
        info->flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
    if (pinLocked(s))
        info->flags |= CKF_USER_PIN_LOCKED;
    if (listed(s, "user_pin_flags", "count_low"))
        info->flags |= CKF_USER_PIN_COUNT_LOW;
    if (listed(s, "user_pin_flags", "final_try"))
        info->flags |= CKF_USER_PIN_FINAL_TRY;
    return rv;
}

CK_RV contextLogin(State& s, CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR pin, CK_ULONG pinLength)
{
    const std::string given = pin ? std::string(reinterpret_cast<const char*>(pin), pinLength) : std::string();
    const bool fromPad = !pin && has(s, "pin_pad_pin");
    if (!fromPad && given != text(s, "context_pin")) {
        ++s.wrongPins;
        return CKR_PIN_INCORRECT;
    }
    s.contextLogins[session] = true;
    return CKR_OK;
}

CK_RV testLogin(CK_SESSION_HANDLE session, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pin, CK_ULONG pinLength)
{
    pause("C_Login");
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (pinLocked(s))
        return CKR_PIN_LOCKED;
    if (userType == CKU_CONTEXT_SPECIFIC && s.contextLogins.count(session))
        return contextLogin(s, session, pin, pinLength);

    std::string padPin;
    if (!pin && has(s, "pin_pad_pin")) {
        padPin = text(s, "pin_pad_pin");
        pin = reinterpret_cast<CK_UTF8CHAR_PTR>(padPin.data());
        pinLength = padPin.size();
    }
    const CK_RV rv = target->C_Login(session, userType, pin, pinLength);
    if (rv == CKR_PIN_INCORRECT)
        ++s.wrongPins;
    return rv;
}

CK_RV testCloseSession(CK_SESSION_HANDLE session)
{
    pause("C_CloseSession");
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.contextLogins.erase(session);
    return target->C_CloseSession(session);
}

// The engine reads one attribute at a time; the added ones answer with the two-call length protocol.
CK_RV testGetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR attributes,
                            CK_ULONG count)
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    CK_ATTRIBUTE& attribute = attributes[0];
    std::string value;
    if (object == 0 && has(s, "token_platform")) {
        // Handle 0 names no real object; the vendor attribute lives there.
        if (attribute.type != tokenPlatformAttribute) {
            attribute.ulValueLen = CK_UNAVAILABLE_INFORMATION;
            return CKR_ATTRIBUTE_TYPE_INVALID;
        }
        value = text(s, "token_platform");
    } else if (attribute.type == kovDataAttribute && has(s, "kov_data_hex") && hasClass(session, object, CKO_PUBLIC_KEY)) {
        value = fromHex(text(s, "kov_data_hex"));
    } else if (attribute.type == CKA_ALWAYS_AUTHENTICATE && number(s, "always_authenticate", 0)
               && hasClass(session, object, CKO_PRIVATE_KEY)) {
        value = std::string(1, char(CK_TRUE));
    } else {
        return target->C_GetAttributeValue(session, object, attributes, count);
    }
    if (!attribute.pValue) {
        attribute.ulValueLen = value.size();
        return CKR_OK;
    }
    if (attribute.ulValueLen < value.size()) {
        attribute.ulValueLen = CK_UNAVAILABLE_INFORMATION;
        return CKR_BUFFER_TOO_SMALL;
    }
    attribute.ulValueLen = value.copy(static_cast<char*>(attribute.pValue), value.size());
    return CKR_OK;
}

CK_RV testSignInit(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key)
{
    pause("C_SignInit");
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    const CK_RV rv = target->C_SignInit(session, mechanism, key);
    s.contextLogins.erase(session);
    if (rv == CKR_OK && number(s, "always_authenticate", 0) && hasClass(session, key, CKO_PRIVATE_KEY))
        s.contextLogins[session] = false;
    return rv;
}

CK_RV testSign(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLength, CK_BYTE_PTR signature,
               CK_ULONG_PTR signatureLength)
{
    pause("C_Sign");
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.contextLogins.count(session) && !s.contextLogins[session])
        return CKR_USER_NOT_LOGGED_IN;
    CK_RV rv = target->C_Sign(session, data, dataLength, signature, signatureLength);
    // A length query leaves the operation running; anything else ends it.
    if (signature || rv != CKR_OK)
        s.contextLogins.erase(session);
    if (signature && number(s, "cancel_sign", 0))
        rv = CKR_FUNCTION_CANCELED;
    return rv;
}

CK_RV testGetFunctionList(CK_FUNCTION_LIST_PTR_PTR list);

bool loadTarget()
{
    if (target)
        return true;
    const char* path = std::getenv("SCRIVA_TEST_P11_TARGET");
    // The real module stays loaded for the life of the process; reloading SoftHSM is not safe.
    void* handle = dlopen(path && *path ? path : defaultTarget, RTLD_NOW | RTLD_LOCAL);
    if (!handle)
        return false;
    auto getList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR list = nullptr;
    if (!getList || getList(&list) != CKR_OK || !list)
        return false;
    target = list;
    ownList = *list;
    ownList.C_GetFunctionList = testGetFunctionList;
    ownList.C_Initialize = testInitialize;
    ownList.C_Finalize = testFinalize;
    ownList.C_GetTokenInfo = testGetTokenInfo;
    ownList.C_Login = testLogin;
    ownList.C_CloseSession = testCloseSession;
    ownList.C_GetAttributeValue = testGetAttributeValue;
    ownList.C_SignInit = testSignInit;
    ownList.C_Sign = testSign;
    ownList.C_GetSlotList = paced_C_GetSlotList;
    ownList.C_OpenSession = paced_C_OpenSession;
    ownList.C_CreateObject = paced_C_CreateObject;
    ownList.C_GenerateKeyPair = paced_C_GenerateKeyPair;
    return true;
}

CK_RV testGetFunctionList(CK_FUNCTION_LIST_PTR_PTR list)
{
    if (!list)
        return CKR_ARGUMENTS_BAD;
    if (!loadTarget())
        return CKR_GENERAL_ERROR;
    *list = &ownList;
    return CKR_OK;
}

} // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list)
{
    return testGetFunctionList(list);
}
