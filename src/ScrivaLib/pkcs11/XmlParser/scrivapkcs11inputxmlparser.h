#pragma once

#include "OperationData/scrivapkcs11operationdata.h"

#include <QString>

class X509Certificate2Ultra;

// Reads the argument of a token operation into its record. T is one of GetSlotsOperationData,
// GetCertificatesOperationData, GenerateCsrOperationData and CreateObjectOperationData; the
// request must carry the branch of that operation. Every refusal is an AppException whose
// message says what was wrong; a refused request leaves nothing behind.
template<typename T>
class ScrivaPkcs11InputXmlParser
{
public:
    // The argument is the base64 text of the server-signed CMS around the request XML. The
    // signature and signer are verified first; when serverCertificate is given it receives the
    // verified signer, also when the document is refused afterwards. Returns a record owned by the caller.
    static ScrivaPkcs11OperationData<T>* parse(const QString& base64Cms,
                                               X509Certificate2Ultra* serverCertificate = nullptr);

    // The request XML itself, once the envelope has been opened: namespace choice, schema
    // validation and reading. Returns a record owned by the caller.
    static ScrivaPkcs11OperationData<T>* parseXml(const QString& xml);

    // The translated description of the operation, shown while it runs.
    static QString operationDescription();

    // Name of the operation's element inside "Pkcs11Operation".
    static QString operationElementName();
};
