#pragma once

// Symbolic names of PKCS#11 values (v2.30 constants) for the call trace and for error texts.
// Every lookup returns a static text; values the standard does not name give "Unknown".
class Pkcs11Names
{
public:
    static const char* returnValueName(unsigned long value);
    static const char* mechanismName(unsigned long value);
    static const char* attributeTypeName(unsigned long value);
    static const char* userTypeName(unsigned long value);
    static const char* sessionStateName(unsigned long value);

    static constexpr const char* unknownName = "Unknown";
};
