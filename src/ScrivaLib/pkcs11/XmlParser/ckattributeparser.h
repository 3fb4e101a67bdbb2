#pragma once

#include <p11-kit/pkcs11.h>

#include <QByteArray>
#include <QString>

// Turns the text of one request attribute element into a CK_ATTRIBUTE whose value lives in a
// malloc'ed buffer of its own. The buffer belongs to whoever holds the attribute afterwards.
// Every routine logs a warning and returns false on failure; none throws.
class CkAttributeParser
{
public:
    bool getAttributeByteArray(CK_ATTRIBUTE_TYPE type, const QByteArray& value, CK_ATTRIBUTE* attribute) const;
    // The UTF-8 bytes of the text, without a terminating zero.
    bool getAttributeString(CK_ATTRIBUTE_TYPE type, const QString& value, CK_ATTRIBUTE* attribute) const;
    // The bytes decoded from hexadecimal text (either case; other characters are skipped).
    bool getAttributeHexByteArray(CK_ATTRIBUTE_TYPE type, const QString& value, CK_ATTRIBUTE* attribute) const;
    CK_RV translateBool(const QString& value, CK_BBOOL* result) const;
    bool getAttributeBoolean(CK_ATTRIBUTE_TYPE type, const QString& value, CK_ATTRIBUTE* attribute) const;
    bool getAttributeUnsignedLong(CK_ATTRIBUTE_TYPE type, const QString& value, CK_ATTRIBUTE* attribute) const;
    // A CK_DATE (year, month, day as ASCII digits) of an ISO 8601 date-time, in the zone it states.
    bool getAttributeDate(CK_ATTRIBUTE_TYPE type, const QString& value, CK_ATTRIBUTE* attribute) const;
};
