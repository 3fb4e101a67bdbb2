#pragma once

#include <libxml/xmlschemas.h>

#include <QString>

// Validation of request documents against the compiled-in schemas. A schema is compiled on first
// use and shared for the life of the process: a compiled schema is only read while documents are
// validated against it, so one copy serves every thread, and each validation brings its own
// validation context. Every other libxml2 object lives only as long as one call.
class XmlSchemaValidator
{
public:
    // Validates the whole text against the schema resource; logs why it fails.
    static bool validate(const QString& xml, const QString& resourcePath);

    // Initialises libxml2 once per process, whichever thread comes first.
    static void initParser();

private:
    // The compiled schema of a resource, owned by the cache; null when the resource cannot be read
    // or compiled (the reason is logged, and the next call tries again).
    static xmlSchema* schema(const QString& resourcePath);
};
