#pragma once

#include <libxml/xmlschemas.h>

#include <QString>

// Compiled request schemas, built from the compiled-in resources on first use and shared for the
// life of the process. A compiled schema is only read while documents are validated against it,
// so one copy serves every thread; each validation brings its own validation context.
class XmlSchemaCache
{
public:
    // The compiled schema of a resource, owned by the cache; null when the resource cannot be read
    // or compiled (the reason is logged, and the next call tries again).
    static xmlSchema* schema(const QString& resourcePath);

    // Initialises libxml2 once per process, whichever thread comes first.
    static void initParser();
};
