// Fuzzes the conversion of attribute texts into CK_ATTRIBUTE values. The first byte picks the
// kind, the rest is the text. Every accepted value must own a buffer of the length it states;
// every refused one must own none.
#include "pkcs11/XmlParser/ckattributeparser.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

void silence(QtMsgType, const QMessageLogContext&, const QString&) {}

void check(bool condition)
{
    if (!condition)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const QtMessageHandler previous = qInstallMessageHandler(silence);
    Q_UNUSED(previous);
    if (size == 0)
        return 0;

    const CkAttributeParser parser;
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data) + 1, qsizetype(size - 1));
    const CK_ATTRIBUTE_TYPE type = size;
    CK_ATTRIBUTE attribute{};
    bool accepted = false;
    switch (data[0] % 5) {
    case 0:
        accepted = parser.getAttributeBoolean(type, text, &attribute);
        check(!accepted || (attribute.ulValueLen == 1 && *static_cast<CK_BBOOL*>(attribute.pValue) <= 1));
        break;
    case 1:
        accepted = parser.getAttributeString(type, text, &attribute);
        check(accepted && attribute.ulValueLen == CK_ULONG(text.toUtf8().size()));
        break;
    case 2:
        accepted = parser.getAttributeHexByteArray(type, text, &attribute);
        check(accepted && attribute.ulValueLen <= CK_ULONG(size / 2));
        break;
    case 3:
        accepted = parser.getAttributeUnsignedLong(type, text, &attribute);
        check(!accepted || attribute.ulValueLen == sizeof(CK_ULONG));
        break;
    default:
        accepted = parser.getAttributeDate(type, text, &attribute);
        check(!accepted || attribute.ulValueLen == sizeof(CK_DATE));
        break;
    }
    if (accepted) {
        check(attribute.type == type && attribute.pValue);
        // Touch every byte so the sanitizer sees a buffer shorter than its stated length.
        volatile unsigned char sum = 0;
        for (CK_ULONG i = 0; i < attribute.ulValueLen; ++i)
            sum = sum + static_cast<const unsigned char*>(attribute.pValue)[i];
        std::free(attribute.pValue);
    } else {
        check(attribute.pValue == nullptr);
    }
    return 0;
}
