#include "pkcs11tracewriter.h"

#include "loghandler.h"
#include "ownedresource.h"
#include "pkcs11names.h"

#include <QDebug>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

void pkcs11_logger_log(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    char* formatted = nullptr;
    // Measures the text, allocates room for it and formats it.
    const int length = vasprintf(&formatted, format, args);
    va_end(args);
    if (length < 0) {
        qWarning("Unable to process va_message");
        return;
    }
    const Owned<char, ::free> text(formatted);
    // A trace line is one line: a module's texts (labels, descriptions) are not ours and must
    // not start lines of their own.
    qInfo().noquote() << QStringLiteral("PKCS#11 - ") + LogHandler::escaped(QString::fromUtf8(text.get()));
}

namespace {

// Upper-case hexadecimal of the bytes, or null when the text cannot be allocated.
std::unique_ptr<char[]> toHex(const void* data, CK_ULONG length)
{
    if (length > (SIZE_MAX - 1) / 2)
        return nullptr;
    std::unique_ptr<char[]> text(new (std::nothrow) char[length * 2 + 1]);
    if (!text)
        return nullptr;
    static const char digits[] = "0123456789ABCDEF";
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (CK_ULONG i = 0; i < length; ++i) {
        text[i * 2] = digits[bytes[i] >> 4];
        text[i * 2 + 1] = digits[bytes[i] & 0x0F];
    }
    text[length * 2] = '\0';
    return text;
}

} // namespace

void Pkcs11TraceWriter::logFlag(const char* name, CK_FLAGS flags, CK_FLAGS bit)
{
    pkcs11_logger_log("%s: %s", name, (flags & bit) ? "TRUE" : "FALSE");
}

void Pkcs11TraceWriter::logData(const char* label, const void* data, CK_ULONG length)
{
    if (!data)
        return;
    const std::unique_ptr<char[]> hex = toHex(data, length);
    if (hex)
        pkcs11_logger_log("%s: HEX(%s)", label, hex.get());
    else
        pkcs11_logger_log("%s: *** cannot be displayed ***", label);
}

namespace {

void logAttributeHead(CK_ULONG index, CK_ATTRIBUTE_TYPE type, const void* value, CK_ULONG length)
{
    pkcs11_logger_log("  Attribute %d", static_cast<int>(index));
    pkcs11_logger_log("   Attribute: %lu (%s)", type, Pkcs11Names::attributeTypeName(type));
    pkcs11_logger_log("   pValue: %p", value);
    pkcs11_logger_log("   ulValueLen: %lu", length);
}

// The entries of an array attribute's value, read from the value's own bytes. The pointers in
// them come from a request or a module and are only printed, never followed, so neither their
// values nor any deeper template are shown.
void logNestedTemplate(const unsigned char* bytes, CK_ULONG count)
{
    pkcs11_logger_log("  *** Begin attribute template ***");
    for (CK_ULONG i = 0; i < count; ++i) {
        CK_ATTRIBUTE entry;
        // The value's bytes need not be aligned for an attribute.
        std::memcpy(&entry, bytes + i * sizeof(CK_ATTRIBUTE), sizeof(CK_ATTRIBUTE));
        logAttributeHead(i, entry.type, entry.pValue, entry.ulValueLen);
    }
    pkcs11_logger_log("  *** End attribute template ***");
}

} // namespace

void Pkcs11TraceWriter::logTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count, const CK_ATTRIBUTE* given)
{
    if (!attributes || count == 0)
        return;
    pkcs11_logger_log("  *** Begin attribute template ***");
    for (CK_ULONG i = 0; i < count; ++i) {
        const CK_ATTRIBUTE& attribute = attributes[i];
        logAttributeHead(i, attribute.type, attribute.pValue, attribute.ulValueLen);
        const void* value = given ? given[i].pValue : attribute.pValue;
        if (!value)
            continue;
        const CK_ULONG length = given ? std::min(attribute.ulValueLen, given[i].ulValueLen) : attribute.ulValueLen;
        if ((attribute.type & CKF_ARRAY_ATTRIBUTE) && length % sizeof(CK_ATTRIBUTE) == 0)
            logNestedTemplate(static_cast<const unsigned char*>(value), length / sizeof(CK_ATTRIBUTE));
        else
            logData("   *pValue", value, length);
    }
    pkcs11_logger_log("  *** End attribute template ***");
}

void Pkcs11TraceWriter::logMechanism(const CK_MECHANISM* mechanism, const char* parameterLabel)
{
    pkcs11_logger_log(" pMechanism: %p", static_cast<const void*>(mechanism));
    if (!mechanism)
        return;
    pkcs11_logger_log("  mechanism: %lu (%s)", mechanism->mechanism, Pkcs11Names::mechanismName(mechanism->mechanism));
    pkcs11_logger_log("  pParameter: %p", mechanism->pParameter);
    logData(parameterLabel, mechanism->pParameter, mechanism->ulParameterLen);
    // Shown as a pointer: that is the trace's established format for this field.
    pkcs11_logger_log("  ulParameterLen: %p", reinterpret_cast<void*>(mechanism->ulParameterLen));
}

void Pkcs11TraceWriter::logVersion(const char* title, const CK_VERSION& version)
{
    pkcs11_logger_log("%s", title);
    pkcs11_logger_log("   major: %d", version.major);
    pkcs11_logger_log("   minor: %d", version.minor);
}

void Pkcs11TraceWriter::logULongPointer(const char* pointerLabel, const char* valueLabel, const CK_ULONG* pointer)
{
    pkcs11_logger_log("%s: %p", pointerLabel, static_cast<const void*>(pointer));
    if (pointer)
        pkcs11_logger_log("%s: %lu", valueLabel, *pointer);
}

bool Pkcs11TraceWriter::isTracing() { return LogHandler::hostLogExistsNow(); }

bool Pkcs11TraceWriter::traceInput(const char* function)
{
    if (!isTracing())
        return false;
    pkcs11_logger_log("Going to call %s", function);
    pkcs11_logger_log("Input");
    return true;
}

bool Pkcs11TraceWriter::traceOutput(bool tracing, CK_RV rv, bool partialResult)
{
    if (!tracing || !(rv == CKR_OK || partialResult))
        return false;
    pkcs11_logger_log("Output");
    return true;
}

void Pkcs11TraceWriter::traceResult(bool tracing, const char* function, CK_RV rv)
{
    if (tracing)
        pkcs11_logger_log("%s returned %lu (%s)", function, rv, Pkcs11Names::returnValueName(rv));
}

void Pkcs11TraceWriter::logBufferInput(CK_SESSION_HANDLE hSession, const CK_BYTE* pData, CK_ULONG ulDataLen,
                                       const char* outName, const CK_BYTE* pOut, const char* lengthName,
                                       const char* lengthValueName, const CK_ULONG* pulOutLen)
{
    pkcs11_logger_log(" hSession: %lu", hSession);
    pkcs11_logger_log(" pData: %p", static_cast<const void*>(pData));
    logData(" *pData", pData, ulDataLen);
    pkcs11_logger_log(" ulDataLen: %lu", ulDataLen);
    pkcs11_logger_log("%s: %p", outName, static_cast<const void*>(pOut));
    logULongPointer(lengthName, lengthValueName, pulOutLen);
}

void Pkcs11TraceWriter::logBufferOutput(const char* outName, const char* outValueName, const CK_BYTE* pOut,
                                        CK_ULONG room, const char* lengthName, const char* lengthValueName,
                                        const CK_ULONG* pulOutLen)
{
    pkcs11_logger_log("%s: %p", outName, static_cast<const void*>(pOut));
    pkcs11_logger_log("%s: %p", lengthName, static_cast<const void*>(pulOutLen));
    if (pulOutLen) {
        logData(outValueName, pOut, std::min(*pulOutLen, room));
        pkcs11_logger_log("%s: %lu", lengthValueName, *pulOutLen);
    }
}

void Pkcs11TraceWriter::logSlotInfo(const CK_SLOT_INFO& info)
{
    pkcs11_logger_log("  slotDescription: %.64s", reinterpret_cast<const char*>(info.slotDescription));
    pkcs11_logger_log("  manufacturerID: %.32s", reinterpret_cast<const char*>(info.manufacturerID));
    pkcs11_logger_log("  flags: %lu", info.flags);
    logFlag("   CKF_TOKEN_PRESENT", info.flags, CKF_TOKEN_PRESENT);
    logFlag("   CKF_REMOVABLE_DEVICE", info.flags, CKF_REMOVABLE_DEVICE);
    logFlag("   CKF_HW_SLOT", info.flags, CKF_HW_SLOT);
    logVersion("  hardwareVersion:", info.hardwareVersion);
    logVersion("  firmwareVersion:", info.firmwareVersion);
}

void Pkcs11TraceWriter::logTokenInfo(const CK_TOKEN_INFO& info)
{
    static const struct { const char* name; CK_FLAGS bit; } tokenFlags[] = {
        {"   CKF_RNG", CKF_RNG},
        {"   CKF_WRITE_PROTECTED", CKF_WRITE_PROTECTED},
        {"   CKF_LOGIN_REQUIRED", CKF_LOGIN_REQUIRED},
        {"   CKF_USER_PIN_INITIALIZED", CKF_USER_PIN_INITIALIZED},
        {"   CKF_RESTORE_KEY_NOT_NEEDED", CKF_RESTORE_KEY_NOT_NEEDED},
        {"   CKF_CLOCK_ON_TOKEN", CKF_CLOCK_ON_TOKEN},
        {"   CKF_PROTECTED_AUTHENTICATION_PATH", CKF_PROTECTED_AUTHENTICATION_PATH},
        {"   CKF_DUAL_CRYPTO_OPERATIONS", CKF_DUAL_CRYPTO_OPERATIONS},
        {"   CKF_TOKEN_INITIALIZED", CKF_TOKEN_INITIALIZED},
        {"   CKF_SECONDARY_AUTHENTICATION", CKF_SECONDARY_AUTHENTICATION},
        {"   CKF_USER_PIN_COUNT_LOW", CKF_USER_PIN_COUNT_LOW},
        {"   CKF_USER_PIN_FINAL_TRY", CKF_USER_PIN_FINAL_TRY},
        {"   CKF_USER_PIN_LOCKED", CKF_USER_PIN_LOCKED},
        {"   CKF_USER_PIN_TO_BE_CHANGED", CKF_USER_PIN_TO_BE_CHANGED},
        {"   CKF_SO_PIN_COUNT_LOW", CKF_SO_PIN_COUNT_LOW},
        {"   CKF_SO_PIN_FINAL_TRY", CKF_SO_PIN_FINAL_TRY},
        {"   CKF_SO_PIN_LOCKED", CKF_SO_PIN_LOCKED},
        {"   CKF_SO_PIN_TO_BE_CHANGED", CKF_SO_PIN_TO_BE_CHANGED},
    };
    pkcs11_logger_log("  label: %.32s", reinterpret_cast<const char*>(info.label));
    pkcs11_logger_log("  manufacturerID: %.32s", reinterpret_cast<const char*>(info.manufacturerID));
    pkcs11_logger_log("  model: %.16s", reinterpret_cast<const char*>(info.model));
    pkcs11_logger_log("  serialNumber: %.16s", reinterpret_cast<const char*>(info.serialNumber));
    pkcs11_logger_log("  flags: %lu", info.flags);
    for (const auto& flag : tokenFlags)
        logFlag(flag.name, info.flags, flag.bit);
    pkcs11_logger_log("  ulMaxSessionCount: %lu", info.ulMaxSessionCount);
    pkcs11_logger_log("  ulSessionCount: %lu", info.ulSessionCount);
    pkcs11_logger_log("  ulMaxRwSessionCount: %lu", info.ulMaxRwSessionCount);
    pkcs11_logger_log("  ulRwSessionCount: %lu", info.ulRwSessionCount);
    pkcs11_logger_log("  ulMaxPinLen: %lu", info.ulMaxPinLen);
    pkcs11_logger_log("  ulMinPinLen: %lu", info.ulMinPinLen);
    pkcs11_logger_log("  ulTotalPublicMemory: %lu", info.ulTotalPublicMemory);
    pkcs11_logger_log("  ulFreePublicMemory: %lu", info.ulFreePublicMemory);
    pkcs11_logger_log("  ulTotalPrivateMemory: %lu", info.ulTotalPrivateMemory);
    pkcs11_logger_log("  ulFreePrivateMemory: %lu", info.ulFreePrivateMemory);
    logVersion("  hardwareVersion:", info.hardwareVersion);
    logVersion("  firmwareVersion:", info.firmwareVersion);
    pkcs11_logger_log("  utcTime: %.16s", reinterpret_cast<const char*>(info.utcTime));
}
