#include "ckattributeparser.h"

#include <QDateTime>
#include <QtDebug>

#include <cstdlib>
#include <cstring>

bool CkAttributeParser::getAttributeByteArray(CK_ATTRIBUTE_TYPE type, const QByteArray& value,
                                              CK_ATTRIBUTE* attribute) const
{
    if (!attribute) {
        qWarning("Output parameter is NULL!");
        return false;
    }
    // At least one byte, so an empty value still gets a buffer its holder can free.
    void* buffer = std::malloc(size_t(qMax<qsizetype>(value.size(), 1)));
    if (!buffer) {
        qWarning("Unable to allocate pValue");
        return false;
    }
    if (!value.isEmpty())
        std::memcpy(buffer, value.constData(), size_t(value.size()));
    attribute->type = type;
    attribute->pValue = buffer;
    attribute->ulValueLen = CK_ULONG(value.size());
    return true;
}

bool CkAttributeParser::getAttributeString(CK_ATTRIBUTE_TYPE type, const QString& value,
                                           CK_ATTRIBUTE* attribute) const
{
    return getAttributeByteArray(type, value.toUtf8(), attribute);
}

bool CkAttributeParser::getAttributeHexByteArray(CK_ATTRIBUTE_TYPE type, const QString& value,
                                                 CK_ATTRIBUTE* attribute) const
{
    return getAttributeByteArray(type, QByteArray::fromHex(value.toUtf8()), attribute);
}

CK_RV CkAttributeParser::translateBool(const QString& value, CK_BBOOL* result) const
{
    if (!result) {
        qWarning("Output parameter is NULL!");
        return CKR_ARGUMENTS_BAD;
    }
    if (value.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0) {
        *result = CK_TRUE;
        return CKR_OK;
    }
    if (value.compare(QLatin1String("false"), Qt::CaseInsensitive) == 0) {
        *result = CK_FALSE;
        return CKR_OK;
    }
    return CKR_ATTRIBUTE_VALUE_INVALID;
}

bool CkAttributeParser::getAttributeBoolean(CK_ATTRIBUTE_TYPE type, const QString& value,
                                            CK_ATTRIBUTE* attribute) const
{
    if (!attribute) {
        qWarning("Output parameter is NULL!");
        return false;
    }
    auto* buffer = static_cast<CK_BBOOL*>(std::malloc(sizeof(CK_BBOOL)));
    if (!buffer) {
        qWarning("Unable to allocate pValue");
        return false;
    }
    if (translateBool(value, buffer) != CKR_OK) {
        qWarning("Attribute value is invalid");
        std::free(buffer);
        return false;
    }
    attribute->type = type;
    attribute->pValue = buffer;
    attribute->ulValueLen = sizeof(CK_BBOOL);
    return true;
}

bool CkAttributeParser::getAttributeUnsignedLong(CK_ATTRIBUTE_TYPE type, const QString& value,
                                                 CK_ATTRIBUTE* attribute) const
{
    if (!attribute) {
        qWarning("Output parameter is NULL!");
        return false;
    }
    auto* buffer = static_cast<CK_ULONG*>(std::malloc(sizeof(CK_ULONG)));
    if (!buffer) {
        qWarning("Unable to allocate pValue!");
        return false;
    }
    bool converted = false;
    const qulonglong number = value.toULongLong(&converted, 10);
    static_assert(sizeof(CK_ULONG) == sizeof(qulonglong), "CK_ULONG is 64 bits wide on this target");
    if (!converted) {
        qWarning("Unable to convert parsed value to ULong!");
        std::free(buffer);
        return false;
    }
    *buffer = CK_ULONG(number);
    attribute->type = type;
    attribute->pValue = buffer;
    attribute->ulValueLen = sizeof(CK_ULONG);
    return true;
}

bool CkAttributeParser::getAttributeDate(CK_ATTRIBUTE_TYPE type, const QString& value,
                                         CK_ATTRIBUTE* attribute) const
{
    if (!attribute) {
        qWarning("Output parameter is NULL!");
        return false;
    }
    // The date is taken in the zone the text states, so a UTC text gives its UTC date.
    const QDateTime dateTime = QDateTime::fromString(value, Qt::ISODate);
    if (!dateTime.isValid()) {
        qWarning("Unable to parse the dateTime!");
        return false;
    }
    // The reader's years run from 0 to 9999, so this is always the eight digits of a CK_DATE.
    static_assert(sizeof(CK_DATE) == 8, "year, month and day digits");
    return getAttributeByteArray(type, dateTime.toString(QStringLiteral("yyyyMMdd")).toLatin1(), attribute);
}
