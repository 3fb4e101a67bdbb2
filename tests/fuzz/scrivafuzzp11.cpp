// The PKCS#11 module of fuzz_pkcs11_module and the trace test: every answer (return value, count,
// length, bytes, handle, structure) comes from the bytes it is handed before a run. It claims what
// they say but writes only within the buffers the caller gave, so what goes wrong is the caller's
// doing. Once the bytes run out every call answers CKR_OK with zeros, so every loop ends.
#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

const uint8_t* next = nullptr;
const uint8_t* end = nullptr;

uint8_t byte() { return next < end ? *next++ : 0; }

// Fills `size` bytes from the input, then zeros.
void fill(void* out, size_t size)
{
    const size_t taken = std::min<size_t>(size, size_t(end - next));
    if (size) // else `out` may be null
        std::memset(std::copy_n(next, taken, static_cast<uint8_t*>(out)), 0, size - taken);
    next += taken;
}

// A count, length or handle: small values as they are, the caller's own figure a little off either
// way, powers of 16, "unavailable", or any value.
CK_ULONG number(CK_ULONG given = 0)
{
    const uint8_t b = byte();
    if (b < 0xE0)
        return b;
    if (b < 0xF0)
        return given + CK_ULONG(b - 0xE8);
    if (b < 0xFE)
        return CK_ULONG(1) << (4 * (b - 0xEF));
    CK_ULONG value = CK_UNAVAILABLE_INFORMATION;
    if (b == 0xFF)
        fill(&value, sizeof value);
    return value;
}

// Mostly CKR_OK; else one of the values callers treat apart, or the byte itself.
CK_RV rv()
{
    static const CK_RV special[16] = {CKR_HOST_MEMORY, CKR_SLOT_ID_INVALID, CKR_GENERAL_ERROR, CKR_FUNCTION_FAILED,
        CKR_ARGUMENTS_BAD, CKR_CANT_LOCK, CKR_ATTRIBUTE_SENSITIVE, CKR_ATTRIBUTE_TYPE_INVALID, CKR_DEVICE_ERROR,
        CKR_FUNCTION_CANCELED, CKR_FUNCTION_NOT_SUPPORTED, CKR_USER_ALREADY_LOGGED_IN, CKR_BUFFER_TOO_SMALL,
        CKR_CRYPTOKI_NOT_INITIALIZED, CKR_CRYPTOKI_ALREADY_INITIALIZED, CKR_VENDOR_DEFINED};
    const uint8_t b = byte();
    return b < 0x80 ? CKR_OK : b < 0x90 ? special[b - 0x80] : CK_RV(b);
}

template<typename... Arguments>
CK_RV answer(Arguments...) { return rv(); }

// A return value, then the structure or the handles the call gives back.
template<typename T>
CK_RV info(CK_ULONG, T* out)
{
    const CK_RV result = rv();
    fill(out, sizeof *out);
    return result;
}

CK_RV handles(CK_ULONG_PTR first, CK_ULONG_PTR second = nullptr)
{
    const CK_RV result = rv();
    for (CK_ULONG_PTR handle : {first, second})
        if (handle)
            *handle = number();
    return result;
}

// Claims a count of elements (of bytes for a byte buffer) for a buffer with room for `*count`, and
// fills no more of it than both allow; without a buffer only the count is answered.
template<typename T>
CK_RV claim(T* buffer, CK_ULONG_PTR count)
{
    const CK_RV result = rv();
    const CK_ULONG room = buffer ? *count : 0;
    *count = number(room);
    for (CK_ULONG i = 0; i < std::min(*count, room); ++i)
        buffer[i] = sizeof(T) == 1 ? byte() : number();
    return result;
}

CK_RV getAttributeValue(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR attributes, CK_ULONG count)
{
    const CK_RV result = rv();
    for (CK_ATTRIBUTE* attribute = attributes; attribute < attributes + count; ++attribute) {
        const CK_ULONG room = attribute->pValue ? attribute->ulValueLen : 0;
        attribute->ulValueLen = number(room);
        fill(attribute->pValue, std::min(attribute->ulValueLen, room));
    }
    return result;
}

CK_RV output(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR out, CK_ULONG_PTR length) { return claim(out, length); }

CK_FUNCTION_LIST functions = [] {
    CK_FUNCTION_LIST list{};
    list.version = {2, 40};
    list.C_Initialize = list.C_Finalize = answer;
    list.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID_PTR slots, CK_ULONG_PTR count) { return claim(slots, count); };
    list.C_GetSlotInfo = info;
    list.C_GetTokenInfo = info;
    list.C_OpenSession = [](CK_SLOT_ID, CK_FLAGS, CK_VOID_PTR, CK_NOTIFY, CK_SESSION_HANDLE_PTR session) { return handles(session); };
    list.C_CloseSession = list.C_Logout = list.C_FindObjectsFinal = answer;
    list.C_Login = answer, list.C_FindObjectsInit = answer, list.C_DigestInit = answer, list.C_SignInit = answer;
    list.C_DestroyObject = answer;
    list.C_GetSessionInfo = info;
    list.C_CreateObject = [](CK_SESSION_HANDLE, CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR object) { return handles(object); };
    list.C_GenerateKeyPair = [](CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_ATTRIBUTE_PTR, CK_ULONG, CK_ATTRIBUTE_PTR,
                                CK_ULONG, CK_OBJECT_HANDLE_PTR publicKey, CK_OBJECT_HANDLE_PTR privateKey) {
        return handles(publicKey, privateKey);
    };
    list.C_GetAttributeValue = getAttributeValue;
    list.C_FindObjects = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE_PTR objects, CK_ULONG max, CK_ULONG_PTR count) {
        *count = max;
        return claim(objects, count);
    };
    list.C_Digest = list.C_Sign = output;
    return list;
}();

} // namespace

extern "C" {

// The answers of the next run; the bytes stay the caller's and must live until the run ends.
__attribute__((visibility("default"))) void scrivaFuzzAnswers(const uint8_t* data, size_t size)
{
    next = data;
    end = data + size;
}

// The next byte of the answers, for the fuzzer's own choices within a run (the user's answers).
__attribute__((visibility("default"))) uint8_t scrivaFuzzByte() { return byte(); }

__attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list)
{
    *list = &functions;
    return rv();
}

}
