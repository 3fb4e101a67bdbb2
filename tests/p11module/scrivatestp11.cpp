// A PKCS#11 module for tests. It forwards every call to a real module (SoftHSM unless
// SCRIVA_TEST_P11_TARGET names another) and adds what the real module cannot be made to do, as the
// key=value file named in SCRIVA_TEST_P11_CONFIG says (read at every C_Initialize). Numbers: decimal or 0x.
//   fail_calls=C_Sign:0x50,...    these calls answer that value unforwarded (C_Sign: only into a buffer;
//                                 C_LoginContext: context logins; C_InitializeLocking: with OS locking)
//   hold_calls=C_GenerateKeyPair  these calls (but C_Initialize) create <hold_dir>/<call>.entered, so a
//   hold_dir=/tmp/gates           test knows the host is inside, then wait for <hold_dir>/<call>.release
//   thread_state=1                C_Initialize leaves state in the calling thread that this module frees
//                                 when the thread ends, as some modules' runtimes do
//   pin_pad_pin=1234              a protected authentication path: C_Login without a PIN uses this
//   pin_tries=3                   after a wrong PIN the token reports CKF_USER_PIN_COUNT_LOW, with one
//                                 try left ..._FINAL_TRY, then ..._LOCKED and C_Login answers
//                                 CKR_PIN_LOCKED; a right PIN starts the count again
//   user_pin_flags=count_low      the token info always adds CKF_USER_PIN_COUNT_LOW (final_try: ..._FINAL_TRY)
//   token_info_fail_label=Broken  C_GetTokenInfo of the token with this label answers CKR_DEVICE_ERROR
//   always_authenticate=1         private keys read CKA_ALWAYS_AUTHENTICATE = true, and signing needs a
//   context_pin=5678              context login with this PIN (or a null PIN with a PIN pad)
//   token_platform=Platform text  vendor attribute 0x80001070 of object handle 0 (its length query answers more)
//   kov_data_hex=3003020101       vendor attribute 0x80000007 of public keys
//   unavailable_type=0x122        this attribute of any object answers CKR_OK with an unavailable length
//   no_slots=1                    C_GetSlotList reports no slots
//   slot_list_grows=2             that many times a token arrives between the two C_GetSlotList calls
//   lie=C_Sign:grow               CKR_OK with a count it does not mean: grow: 6 more than it filled;
//                                 shrink: one fewer; huge: 2^40 without a buffer (C_GetSlotList,
//                                 C_GetAttributeValue, C_Digest, C_Sign). C_FindObjects:forever finds
//                                 objects without end, :overflow 5 more than asked for;
//                                 C_GetSlotInfo/C_GetTokenInfo:garbage fill texts with bytes not UTF-8

#include <p11-kit/pkcs11.h>

#include <dlfcn.h>
#include <pthread.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace {

constexpr CK_ATTRIBUTE_TYPE tokenPlatformAttribute = 0x80001070UL;
constexpr CK_ATTRIBUTE_TYPE kovDataAttribute = 0x80000007UL;

// The state below is guarded by the mutex.
std::mutex mutex;
std::map<std::string, std::string> config;
unsigned long wrongPins = 0;
unsigned long slotListGrowths = 0;
// Sessions signing with a key that needs a context login, and whether it was made.
std::map<CK_SESSION_HANDLE, bool> contextLogins;

CK_FUNCTION_LIST_PTR target = nullptr;
CK_FUNCTION_LIST inner; // the target's calls with this module's additions
CK_FUNCTION_LIST ownList; // inner's calls, each held and failed first as configured

bool has(const char* key) { return config.count(key) != 0; }

std::string text(const char* key) { return has(key) ? config[key] : std::string(); }

unsigned long number(const char* key) { return std::strtoul(text(key).c_str(), nullptr, 0); }

// Whether the comma-separated list under the key names the item.
bool listed(const char* key, const std::string& item)
{
    return ("," + text(key) + ",").find("," + item + ",") != std::string::npos;
}

// What the comma-separated "<call>:<value>" list under the key gives the call, or "".
std::string valueFor(const char* key, const std::string& call)
{
    const std::string list = "," + text(key) + ",";
    const std::size_t at = list.find("," + call + ":"), start = at + call.size() + 2;
    return at == std::string::npos ? "" : list.substr(start, list.find(',', start) - start);
}

CK_RV failure(const std::string& call) { return std::strtoul(valueFor("fail_calls", call).c_str(), nullptr, 0); }

std::string lie(const char* call) { return valueFor("lie", call); }

// Applies the configured lie to the count a call answered; the module wrote only what fits.
CK_RV lieAbout(const char* call, bool buffer, CK_ULONG* count, CK_RV rv)
{
    const std::string kind = rv == CKR_OK ? lie(call) : "";
    if (buffer && kind == "grow")
        *count += 6;
    else if (buffer && kind == "shrink" && *count > 0)
        --*count;
    else if (!buffer && kind == "huge")
        *count = CK_ULONG(1) << 40;
    return rv;
}

// Bytes that are not UTF-8, control characters and markup, over a whole text field.
template<std::size_t size>
void garble(CK_UTF8CHAR (&field)[size])
{
    static const char junk[] = "\xff\xc3\x28<&\x01\x00\xe2\x82\xed\xa0\x80\xef\xbf\xbe";
    for (std::size_t i = 0; i < size; ++i)
        field[i] = static_cast<CK_UTF8CHAR>(junk[i % (sizeof(junk) - 1)]);
}

bool pinLocked() { return has("pin_tries") && wrongPins >= number("pin_tries"); }

bool hasClass(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_OBJECT_CLASS wanted)
{
    CK_OBJECT_CLASS objectClass = 0;
    CK_ATTRIBUTE attribute = {CKA_CLASS, &objectClass, sizeof(objectClass)};
    return target->C_GetAttributeValue(session, object, &attribute, 1) == CKR_OK && objectClass == wanted;
}

// Holds the call at its gate. The mutex is not held meanwhile, so other threads reach the module.
void pause(const char* call)
{
    std::unique_lock<std::mutex> lock(mutex);
    if (!has("hold_dir") || !listed("hold_calls", call))
        return;
    const std::string gate = text("hold_dir") + "/" + call;
    lock.unlock();
    std::ofstream(gate + ".entered");
    while (!std::ifstream(gate + ".release").good())
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

template<typename Call, typename... Arguments>
CK_RV gated(const char* call, Call next, Arguments... arguments)
{
    pause(call);
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (const CK_RV rv = failure(call))
            return rv;
    }
    return next(arguments...);
}

// A pthread key, not a thread_local: the C library keeps a module with pending thread_local
// destructors mapped, but not one whose key destructor is still due.
void leaveThreadState()
{
    static pthread_key_t key;
    static const bool created = pthread_key_create(&key, [](void* state) { std::free(state); }) == 0;
    if (created && !pthread_getspecific(key))
        pthread_setspecific(key, std::malloc(1));
}

CK_RV testInitialize(CK_VOID_PTR initArgs)
{
    std::lock_guard<std::mutex> lock(mutex);
    config.clear();
    const char* path = std::getenv("SCRIVA_TEST_P11_CONFIG");
    std::ifstream file(path ? path : "");
    for (std::string line; std::getline(file, line);)
        if (line.find('=') != std::string::npos)
            config[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
    if (number("thread_state"))
        leaveThreadState();
    const auto* args = static_cast<const CK_C_INITIALIZE_ARGS*>(initArgs);
    for (const char* call : {"C_Initialize", args && (args->flags & CKF_OS_LOCKING_OK) ? "C_InitializeLocking" : ""})
        if (const CK_RV rv = failure(call))
            return rv;
    const CK_RV rv = target->C_Initialize(initArgs);
    if (rv == CKR_OK) {
        wrongPins = slotListGrowths = 0;
        contextLogins.clear();
    }
    return rv;
}

CK_RV testGetSlotList(CK_BBOOL present, CK_SLOT_ID_PTR list, CK_ULONG_PTR count)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (number("no_slots"))
        return *count = 0, CKR_OK;
    if (slotListGrowths < number("slot_list_grows")) {
        const CK_RV rv = target->C_GetSlotList(present, nullptr, count);
        if (rv != CKR_OK || *count == 0)
            return rv;
        if (!list)
            return --*count, CKR_OK;
        ++slotListGrowths;
        return CKR_BUFFER_TOO_SMALL;
    }
    return lieAbout("C_GetSlotList", list, count, target->C_GetSlotList(present, list, count));
}

CK_RV testGetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO_PTR info)
{
    std::lock_guard<std::mutex> lock(mutex);
    const CK_RV rv = target->C_GetSlotInfo(slot, info);
    if (rv == CKR_OK && lie("C_GetSlotInfo") == "garbage")
        garble(info->slotDescription), garble(info->manufacturerID);
    return rv;
}

CK_RV testGetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info)
{
    std::lock_guard<std::mutex> lock(mutex);
    const CK_RV rv = target->C_GetTokenInfo(slot, info);
    if (rv != CKR_OK)
        return rv;
    std::string label(reinterpret_cast<const char*>(info->label), sizeof(info->label));
    if (has("token_info_fail_label") && label.erase(label.find_last_not_of(' ') + 1) == text("token_info_fail_label"))
        return CKR_DEVICE_ERROR;
    if (has("pin_pad_pin"))
        info->flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
    if (pinLocked())
        info->flags |= CKF_USER_PIN_LOCKED;
    else if (has("pin_tries") && wrongPins > 0)
        info->flags |= wrongPins + 1 == number("pin_tries") ? CKF_USER_PIN_FINAL_TRY : CKF_USER_PIN_COUNT_LOW;
    info->flags |= (listed("user_pin_flags", "count_low") ? CKF_USER_PIN_COUNT_LOW : 0)
                   | (listed("user_pin_flags", "final_try") ? CKF_USER_PIN_FINAL_TRY : 0);
    if (lie("C_GetTokenInfo") == "garbage")
        garble(info->label), garble(info->manufacturerID), garble(info->model);
    return rv;
}

CK_RV testLogin(CK_SESSION_HANDLE session, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pin, CK_ULONG pinLength)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (pinLocked())
        return CKR_PIN_LOCKED;
    if (const CK_RV rv = userType == CKU_CONTEXT_SPECIFIC ? failure("C_LoginContext") : CKR_OK)
        return rv;
    if (userType == CKU_CONTEXT_SPECIFIC && contextLogins.count(session)) {
        // Without a PIN only the PIN pad can log in.
        if (pin ? std::string(pin, pin + pinLength) != text("context_pin") : !has("pin_pad_pin")) {
            ++wrongPins;
            return CKR_PIN_INCORRECT;
        }
        contextLogins[session] = true;
        wrongPins = 0;
        return CKR_OK;
    }
    std::string padPin = text("pin_pad_pin");
    const bool onPad = !pin && has("pin_pad_pin");
    const CK_RV rv = target->C_Login(session, userType, onPad ? reinterpret_cast<CK_UTF8CHAR_PTR>(padPin.data()) : pin,
                                     onPad ? padPin.size() : pinLength);
    if (rv == CKR_OK)
        wrongPins = 0;
    else if (rv == CKR_PIN_INCORRECT)
        ++wrongPins;
    return rv;
}

// The engine reads one attribute at a time; the added ones answer with the two-call length protocol.
CK_RV answerAttribute(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR attributes, CK_ULONG count)
{
    CK_ATTRIBUTE& attribute = attributes[0];
    std::string value;
    // Handle 0 names no real object; the vendor attribute lives there.
    const bool invalid = object == 0 && has("token_platform") && attribute.type != tokenPlatformAttribute;
    if (invalid || (has("unavailable_type") && attribute.type == number("unavailable_type"))) {
        attribute.ulValueLen = CK_UNAVAILABLE_INFORMATION;
        return invalid ? CKR_ATTRIBUTE_TYPE_INVALID : CKR_OK;
    }
    if (object == 0 && has("token_platform")) {
        value = text("token_platform");
    } else if (attribute.type == kovDataAttribute && has("kov_data_hex") && hasClass(session, object, CKO_PUBLIC_KEY)) {
        const std::string hex = text("kov_data_hex");
        for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
            value += static_cast<char>(std::stoul(hex.substr(i, 2), nullptr, 16));
    } else if (attribute.type == CKA_ALWAYS_AUTHENTICATE && number("always_authenticate")
               && hasClass(session, object, CKO_PRIVATE_KEY)) {
        value = std::string(1, char(CK_TRUE));
    } else {
        return target->C_GetAttributeValue(session, object, attributes, count);
    }
    if (!attribute.pValue) {
        attribute.ulValueLen = value.size() + (object == 0 ? 8 : 0);
        return CKR_OK;
    }
    if (attribute.ulValueLen < value.size()) {
        attribute.ulValueLen = CK_UNAVAILABLE_INFORMATION;
        return CKR_BUFFER_TOO_SMALL;
    }
    attribute.ulValueLen = value.copy(static_cast<char*>(attribute.pValue), value.size());
    return CKR_OK;
}

CK_RV testGetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR attributes,
                            CK_ULONG count)
{
    std::lock_guard<std::mutex> lock(mutex);
    const CK_RV rv = answerAttribute(session, object, attributes, count);
    return lieAbout("C_GetAttributeValue", attributes[0].pValue, &attributes[0].ulValueLen, rv);
}

CK_RV testFindObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG room, CK_ULONG_PTR found)
{
    std::lock_guard<std::mutex> lock(mutex);
    const std::string kind = lie("C_FindObjects");
    if (kind.empty())
        return target->C_FindObjects(session, objects, room, found);
    for (CK_ULONG i = 0; i < room; ++i)
        objects[i] = 0x1000 + i;
    *found = kind == "overflow" ? room + 5 : room;
    return CKR_OK;
}

CK_RV testDigest(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLength, CK_BYTE_PTR digest,
                 CK_ULONG_PTR digestLength)
{
    std::lock_guard<std::mutex> lock(mutex);
    return lieAbout("C_Digest", digest, digestLength, target->C_Digest(session, data, dataLength, digest, digestLength));
}

CK_RV testSignInit(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key)
{
    std::lock_guard<std::mutex> lock(mutex);
    const CK_RV rv = target->C_SignInit(session, mechanism, key);
    contextLogins.erase(session);
    if (rv == CKR_OK && number("always_authenticate") && hasClass(session, key, CKO_PRIVATE_KEY))
        contextLogins[session] = false;
    return rv;
}

// Not gated: a failure is answered only into a buffer, after a length query that went well.
CK_RV testSign(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLength, CK_BYTE_PTR signature,
               CK_ULONG_PTR signatureLength)
{
    pause("C_Sign");
    std::lock_guard<std::mutex> lock(mutex);
    if (contextLogins.count(session) && !contextLogins[session])
        return CKR_USER_NOT_LOGGED_IN;
    const CK_RV failed = signature ? failure("C_Sign") : CKR_OK;
    const CK_RV rv = failed ? failed : target->C_Sign(session, data, dataLength, signature, signatureLength);
    // A length query leaves the operation running; anything else ends it.
    if (signature || rv != CKR_OK)
        contextLogins.erase(session);
    return lieAbout("C_Sign", signature, signatureLength, rv);
}

bool loadTarget()
{
    const char* path = std::getenv("SCRIVA_TEST_P11_TARGET");
    // The real module stays loaded for the life of the process; reloading SoftHSM is not safe.
    void* handle = dlopen(path && *path ? path : "/usr/lib/softhsm/libsofthsm2.so", RTLD_NOW | RTLD_LOCAL);
    auto getList = handle ? reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList")) : nullptr;
    if (!getList || getList(&target) != CKR_OK || !target)
        return target = nullptr, false;
    inner = *target;
    inner.C_GetSlotList = testGetSlotList;
    inner.C_GetSlotInfo = testGetSlotInfo;
    inner.C_GetTokenInfo = testGetTokenInfo;
    inner.C_Login = testLogin;
    inner.C_GetAttributeValue = testGetAttributeValue;
    inner.C_FindObjects = testFindObjects;
    inner.C_Digest = testDigest;
    inner.C_SignInit = testSignInit;
    ownList = inner;
    ownList.C_GetFunctionList = C_GetFunctionList;
    ownList.C_Initialize = testInitialize;
    ownList.C_Sign = testSign;
#define GATED(call) ownList.call = [](auto... arguments) { return gated(#call, inner.call, arguments...); }
    GATED(C_Finalize), GATED(C_GetSlotList), GATED(C_GetSlotInfo), GATED(C_GetTokenInfo), GATED(C_OpenSession);
    GATED(C_CloseSession), GATED(C_GetSessionInfo), GATED(C_Login), GATED(C_Logout), GATED(C_CreateObject);
    GATED(C_DestroyObject), GATED(C_GetAttributeValue), GATED(C_FindObjectsInit), GATED(C_FindObjects);
    GATED(C_FindObjectsFinal), GATED(C_DigestInit), GATED(C_Digest), GATED(C_SignInit), GATED(C_GenerateKeyPair);
#undef GATED
    return true;
}

} // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list)
{
    if (!target && !loadTarget())
        return CKR_GENERAL_ERROR;
    *list = &ownList;
    return CKR_OK;
}
