#pragma once

#include "ckattributeparser.h"

#include <libxml/xmlerror.h>
#include <libxml/xmlversion.h>

#include <p11-kit/pkcs11.h>

#include <QString>

class QXmlStreamReader;
class Location;
class Pkcs11LibraryData;
class GetSlotsOperationData;
class GetCertificatesOperationData;
class CreateObjectOperationData;
class GenerateCsrOperationData;

// Schema validation of a request document and one reading routine per element group. Every
// routine logs a warning and returns false on the first fault; nothing is thrown. A reading routine
// starts on the start tag of its element and consumes everything up to and including its end tag.
// Output records are allocated only once the whole group has been read and checked.
class Pkcs11OperationDataParser
{
public:
#if LIBXML_VERSION >= 21200
    using XmlErrorPointer = const xmlError*;
#else
    using XmlErrorPointer = xmlError*;
#endif

    // Validates against the compiled-in schema of the given namespace.
    bool validate(const QString& xml, const QString& xmlNamespace) const;

    bool parseLibraryData(QXmlStreamReader* reader, Pkcs11LibraryData** libraryData) const;
    bool parseLocation(QXmlStreamReader* reader, Location* location) const;
    bool parseOperationData(QXmlStreamReader* reader, GetSlotsOperationData** operationData) const;
    bool parseOperationData(QXmlStreamReader* reader, GetCertificatesOperationData** operationData) const;
    bool parseOperationData(QXmlStreamReader* reader, CreateObjectOperationData** operationData) const;
    bool parseOperationData(QXmlStreamReader* reader, GenerateCsrOperationData** operationData) const;
    // The attribute element's own name selects how its "Value" is encoded.
    bool parseAttribute(QXmlStreamReader* reader, CK_ATTRIBUTE* attribute, const QString& parentElementName) const;

    // Structured error callback handed to libxml2: logs each message as a warning.
    static void xmlValidationErrorHandler(void* userData, XmlErrorPointer error);

    // Resource path of the schema for a namespace, or an empty string for an unknown namespace.
    static QString schemaResourcePath(const QString& xmlNamespace);

private:
    CkAttributeParser attributeParser;
};
