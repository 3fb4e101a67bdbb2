#pragma once

#include "appexception.h"
#include "pkcs11librarydata.h"

#include <QString>

#include <memory>

// A read request: the module to use, the operation's own data, and the request's namespace and
// nonce. T is one of the four operation records.
template<typename T>
class ScrivaPkcs11OperationData
{
public:
    // Takes ownership of both pointers, but only when construction succeeds; on a refusal the
    // caller still owns them.
    ScrivaPkcs11OperationData(Pkcs11LibraryData* libraryData, T* operationData, const QString& xmlNamespace,
                              const QString& nonce)
        : xmlNamespace(xmlNamespace), nonce(nonce)
    {
        check(libraryData, operationData);
        this->libraryData.reset(libraryData);
        this->operationData.reset(operationData);
    }

    // Deep copy of another record; refuses a null pointer.
    explicit ScrivaPkcs11OperationData(const ScrivaPkcs11OperationData<T>* other)
    {
        if (!other)
            throw APP_EXCEPTION(QStringLiteral("Other is NULL!"));
        libraryData = std::make_unique<Pkcs11LibraryData>(other->libraryData.get());
        operationData = std::make_unique<T>(other->operationData.get());
        xmlNamespace = other->xmlNamespace;
        nonce = other->nonce;
    }

    ScrivaPkcs11OperationData(const ScrivaPkcs11OperationData&) = delete;
    ScrivaPkcs11OperationData& operator=(const ScrivaPkcs11OperationData&) = delete;

    Pkcs11LibraryData* getLibraryData() const { return libraryData.get(); }
    T* getOperationData() const { return operationData.get(); }
    const QString& getXmlNamespace() const { return xmlNamespace; }
    const QString& getNonce() const { return nonce; }

private:
    void check(const Pkcs11LibraryData* library, const T* operation) const
    {
        if (!operation)
            throw APP_EXCEPTION(QStringLiteral("Operation specific data is NULL"));
        if (!library)
            throw APP_EXCEPTION(QStringLiteral("Library data is NULL!"));
        if (nonce.isEmpty())
            throw APP_EXCEPTION(QStringLiteral("Nonce is null or empty!"));
        if (xmlNamespace.isEmpty())
            throw APP_EXCEPTION(QStringLiteral("XML namespace is null or empty!"));
    }

    std::unique_ptr<Pkcs11LibraryData> libraryData;
    std::unique_ptr<T> operationData;
    QString xmlNamespace;
    QString nonce;
};
