#pragma once

// Small helpers the PKCS#11 test programs share: loading a module, finding a token, writing the
// test module's configuration and reading the host log.

#include <QFile>
#include <QLibrary>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

#include <p11-kit/pkcs11.h>

#include <cstring>
#include <memory>
#include <vector>

namespace Pkcs11TestHelpers {

// The module's function list; the library stays loaded for the rest of the process, because
// SoftHSM does not survive being unloaded and loaded again.
inline CK_FUNCTION_LIST_PTR loadFunctionList(const QString& path)
{
    // Destroying a QLibrary does not unload it; these only keep the objects owned.
    static std::vector<std::unique_ptr<QLibrary>> libraries;
    libraries.push_back(std::make_unique<QLibrary>(path));
    QLibrary* library = libraries.back().get();
    if (!library->load())
        return nullptr;
    auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(library->resolve("C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR functions = nullptr;
    if (!getFunctionList || getFunctionList(&functions) != CKR_OK)
        return nullptr;
    return functions;
}

inline QByteArray paddedText(const unsigned char* text, int size)
{
    return QByteArray(reinterpret_cast<const char*>(text), size);
}

// Slot of the token whose (blank-padded) label is the given text.
inline bool findSlotByLabel(CK_FUNCTION_LIST_PTR functions, const QByteArray& label, CK_SLOT_ID* slot)
{
    CK_ULONG count = 0;
    if (functions->C_GetSlotList(CK_TRUE, nullptr, &count) != CKR_OK)
        return false;
    QList<CK_SLOT_ID> slotIds(static_cast<int>(count));
    if (functions->C_GetSlotList(CK_TRUE, slotIds.data(), &count) != CKR_OK)
        return false;
    for (CK_ULONG i = 0; i < count; ++i) {
        CK_TOKEN_INFO info;
        std::memset(&info, 0, sizeof(info));
        if (functions->C_GetTokenInfo(slotIds[int(i)], &info) == CKR_OK
            && paddedText(info.label, sizeof(info.label)).trimmed() == label) {
            *slot = slotIds[int(i)];
            return true;
        }
    }
    return false;
}

// Generates an RSA key pair for signing in the session; the handles come back through the pointers.
inline CK_RV generateRsaKeyPair(CK_FUNCTION_LIST_PTR functions, CK_SESSION_HANDLE session, CK_ULONG bits,
                                CK_OBJECT_HANDLE* publicKey, CK_OBJECT_HANDLE* privateKey)
{
    CK_MECHANISM mechanism = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    CK_BBOOL yes = CK_TRUE;
    CK_BYTE exponent[] = {0x01, 0x00, 0x01};
    CK_ATTRIBUTE publicTemplate[] = {
        {CKA_TOKEN, &yes, sizeof(yes)},
        {CKA_VERIFY, &yes, sizeof(yes)},
        {CKA_MODULUS_BITS, &bits, sizeof(bits)},
        {CKA_PUBLIC_EXPONENT, exponent, sizeof(exponent)},
    };
    CK_ATTRIBUTE privateTemplate[] = {
        {CKA_TOKEN, &yes, sizeof(yes)},
        {CKA_PRIVATE, &yes, sizeof(yes)},
        {CKA_SIGN, &yes, sizeof(yes)},
    };
    return functions->C_GenerateKeyPair(session, &mechanism, publicTemplate, 4, privateTemplate, 3, publicKey,
                                        privateKey);
}

// One attribute's bytes with the two-call length protocol; empty on failure.
inline QByteArray readAttribute(CK_FUNCTION_LIST_PTR functions, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                CK_ATTRIBUTE_TYPE type, CK_RV* result = nullptr)
{
    CK_ATTRIBUTE attribute = {type, nullptr, 0};
    CK_RV rv = functions->C_GetAttributeValue(session, object, &attribute, 1);
    QByteArray value;
    if (rv == CKR_OK) {
        value.resize(static_cast<int>(attribute.ulValueLen));
        attribute.pValue = value.data();
        rv = functions->C_GetAttributeValue(session, object, &attribute, 1);
    }
    if (result)
        *result = rv;
    return rv == CKR_OK ? value : QByteArray();
}

// Writes the test module's key=value configuration file.
inline bool writeModuleConfig(const QString& path, const QStringList& lines)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text))
        return false;
    file.write(lines.join(QLatin1Char('\n')).toUtf8() + '\n');
    return true;
}

// The messages of the PKCS#11 trace lines of a host log, with their leading blanks.
inline QStringList traceMessages(const QString& logPath)
{
    QFile file(logPath);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    static const QRegularExpression line(QStringLiteral("^\\S+ - \\d+ - \\d+ - I - PKCS#11 - (.*) - at .* line \\d+$"));
    QStringList messages;
    for (const QString& text : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'))) {
        const QRegularExpressionMatch match = line.match(text);
        if (match.hasMatch())
            messages.append(match.captured(1));
    }
    return messages;
}

} // namespace Pkcs11TestHelpers
