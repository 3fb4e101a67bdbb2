#pragma once

#include <p11-kit/pkcs11.h>

// Writes one info line "PKCS#11 - " + the printf-formatted text to the program's log, with any
// control character in it escaped, so the line stays one line.
void pkcs11_logger_log(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The line layouts of the PKCS#11 call trace: structures, flags, byte dumps and attribute
// templates, each written through pkcs11_logger_log. Leading blanks give the depth: one for an
// argument, two for a field or template member, three for a flag or a field below that.
class Pkcs11TraceWriter
{
public:
    // True while the trace is switched on (the host log file exists as a regular file).
    static bool isTracing();
    // Starts a traced call: returns whether the trace is on and, if so, writes its first lines.
    static bool traceInput(const char* function);
    // After the call: whether output lines follow (they do after CKR_OK, or after a partial
    // result); writes "Output" when they do.
    static bool traceOutput(bool tracing, CK_RV rv, bool partialResult = false);
    static void traceResult(bool tracing, const char* function, CK_RV rv);

    // "name: TRUE" or "name: FALSE"; the name carries its leading blanks.
    static void logFlag(const char* name, CK_FLAGS flags, CK_FLAGS bit);
    // "label: HEX(...)"; nothing for a null pointer.
    static void logData(const char* label, const void* data, CK_ULONG length);
    // An array attribute's value is shown as the attribute entries it holds, one level deep:
    // the pointers inside a value are never followed. After a call that filled the template,
    // `given` is the template as the host passed it: the lengths shown are the module's, the bytes
    // dumped are at most those of the host's buffers.
    static void logTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count, const CK_ATTRIBUTE* given = nullptr);
    static void logMechanism(const CK_MECHANISM* mechanism, const char* parameterLabel);
    static void logVersion(const char* title, const CK_VERSION& version);
    // The pointer line, and the value line when the pointer is set.
    static void logULongPointer(const char* pointerLabel, const char* valueLabel, const CK_ULONG* pointer);
    static void logSlotInfo(const CK_SLOT_INFO& info);
    static void logTokenInfo(const CK_TOKEN_INFO& info);
    // The shared layout of the calls that fill a caller's buffer (C_Digest, C_Sign).
    static void logBufferInput(CK_SESSION_HANDLE hSession, const CK_BYTE* pData, CK_ULONG ulDataLen,
                               const char* outName, const CK_BYTE* pOut, const char* lengthName,
                               const char* lengthValueName, const CK_ULONG* pulOutLen);
    // The length is the module's; at most `room`, the buffer's size, of the bytes is dumped.
    static void logBufferOutput(const char* outName, const char* outValueName, const CK_BYTE* pOut, CK_ULONG room,
                                const char* lengthName, const char* lengthValueName, const CK_ULONG* pulOutLen);
    // How much a buffer of the host holds before a call: its count, or 0 without a buffer.
    static CK_ULONG room(const void* buffer, const CK_ULONG* count) { return buffer && count ? *count : 0; }
};
