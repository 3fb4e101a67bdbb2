#include "scrivapkcs11inputxmlparser.h"

#include "appexception.h"
#include "terminatingflag.h"
#include "loghandler.h"
#include "pkcs11operationdataparser.h"
#include "responsecryptoprocessor.h"
#include "scrivanamespaces.h"
#include "x509certificate2ultra.h"
#include "OperationData/OperationSpecific/createobjectoperationdata.h"
#include "OperationData/OperationSpecific/generatecsroperationdata.h"
#include "OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "OperationData/OperationSpecific/getslotsoperationdata.h"

#include <QCoreApplication>
#include <QStringList>
#include <QXmlStreamReader>
#include <QtDebug>

#include <memory>
#include <type_traits>

namespace {

// A large request takes a while to check; the host that quits meanwhile does not wait for the
// rest of it. Checked between the stages, each of which costs time linear in the request.
void throwIfTerminating()
{
    if (TerminatingFlag::isSet())
        throw APP_EXCEPTION(QStringLiteral("Scriva is terminating"));
}

const QStringList& operationElementNames()
{
    static const QStringList names{QStringLiteral("GetSlots"), QStringLiteral("GetCertificates"),
                                   QStringLiteral("GenerateCsr"), QStringLiteral("CreateObject")};
    return names;
}

// The raw text decides, not the root element; the older version wins when both URIs occur.
QString chooseNamespace(const QString& xml)
{
    if (xml.contains(ScrivaNamespaces::version20221229()))
        return ScrivaNamespaces::version20221229();
    if (xml.contains(ScrivaNamespaces::version20260204()))
        return ScrivaNamespaces::version20260204();
    return QString();
}

} // namespace

template<typename T>
ScrivaPkcs11OperationData<T>* ScrivaPkcs11InputXmlParser<T>::parse(const QString& base64Cms,
                                                                   X509Certificate2Ultra* serverCertificate)
{
    qDebug().noquote() << Q_FUNC_INFO;
    ResponseCryptoProcessor processor;
    processor.processBase64CmsSignedData(base64Cms);
    // A trusted signer is named even when its request is refused further on.
    if (serverCertificate)
        *serverCertificate = processor.getServerCertificate();
    return parseXml(processor.getCmsContent());
}

template<typename T>
ScrivaPkcs11OperationData<T>* ScrivaPkcs11InputXmlParser<T>::parseXml(const QString& xml)
{
    qDebug().noquote() << Q_FUNC_INFO;
    const QString xmlNamespace = chooseNamespace(xml);
    if (xmlNamespace.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("Invalid XML namespace!"));

    Pkcs11OperationDataParser parser;
    throwIfTerminating();
    if (!parser.validate(xml, xmlNamespace))
        throw APP_EXCEPTION(QStringLiteral("Unsuccessful XML validation!"));

    qInfo("Parsing input XML");
    const QString ownElement = operationElementName();
    std::unique_ptr<Pkcs11LibraryData> libraryData;
    std::unique_ptr<T> operationData;
    QString nonce;

    throwIfTerminating();
    QXmlStreamReader reader(xml);
    // A reader that stopped early saw less than libxml2 validated: whatever a routine made of the
    // rest is not the request, so the refusal is the validation's.
    const auto refusal = [&reader](const char* text) {
        if (!reader.hasError())
            return QString::fromLatin1(text);
        qWarning().noquote() << "XML reader stopped:" << LogHandler::escaped(reader.errorString());
        return QStringLiteral("Unsuccessful XML validation!");
    };
    while (!reader.atEnd()) {
        reader.readNext();
        if (!reader.isStartElement())
            continue;
        const QStringView name = reader.name();
        if (name == QLatin1String("ScrivaOperation") || name == QLatin1String("Pkcs11Operation")) {
            continue;
        } else if (name == QLatin1String("Nonce")) {
            nonce = reader.readElementText();
        } else if (name == QLatin1String("Pkcs11Library")) {
            qInfo("Parsing PKCS#11 library data");
            // A second library group finds the output taken and is refused.
            Pkcs11LibraryData* parsed = libraryData.get();
            if (!parser.parseLibraryData(&reader, &parsed))
                throw APP_EXCEPTION(refusal("Unable to parse Pkcs11Library data!"));
            libraryData.reset(parsed);
        } else if (name == ownElement) {
            qInfo("Parsing operation specific data");
            T* parsed = operationData.get();
            if (!parser.parseOperationData(&reader, &parsed))
                throw APP_EXCEPTION(refusal("Unable to parse operation specific data!"));
            operationData.reset(parsed);
        } else if (operationElementNames().contains(name)) {
            throw APP_EXCEPTION(QStringLiteral("Unexpected element!"));
        }
    }
    if (reader.hasError() || nonce.isEmpty())
        throw APP_EXCEPTION(refusal("Nonce is null or empty!"));
    qInfo("Parsing of input XML was successful");
    auto* record = new ScrivaPkcs11OperationData<T>(libraryData.get(), operationData.get(), xmlNamespace, nonce);
    // The record owns both now.
    libraryData.release();
    operationData.release();
    return record;
}

template<typename T>
QString ScrivaPkcs11InputXmlParser<T>::operationDescription()
{
    if constexpr (std::is_same_v<T, GetSlotsOperationData>)
        return QCoreApplication::translate("ScrivaPkcs11InputXmlParser", "GetSlotsDescription");
    else if constexpr (std::is_same_v<T, GetCertificatesOperationData>)
        return QCoreApplication::translate("ScrivaPkcs11InputXmlParser", "GetCertificatesDescription");
    else if constexpr (std::is_same_v<T, GenerateCsrOperationData>)
        return QCoreApplication::translate("ScrivaPkcs11InputXmlParser", "GenerateCsrDescription");
    else
        return QCoreApplication::translate("ScrivaPkcs11InputXmlParser", "CreateObjectDescription");
}

template<typename T>
QString ScrivaPkcs11InputXmlParser<T>::operationElementName()
{
    if constexpr (std::is_same_v<T, GetSlotsOperationData>)
        return QStringLiteral("GetSlots");
    else if constexpr (std::is_same_v<T, GetCertificatesOperationData>)
        return QStringLiteral("GetCertificates");
    else if constexpr (std::is_same_v<T, GenerateCsrOperationData>)
        return QStringLiteral("GenerateCsr");
    else
        return QStringLiteral("CreateObject");
}

template class ScrivaPkcs11InputXmlParser<GetSlotsOperationData>;
template class ScrivaPkcs11InputXmlParser<GetCertificatesOperationData>;
template class ScrivaPkcs11InputXmlParser<GenerateCsrOperationData>;
template class ScrivaPkcs11InputXmlParser<CreateObjectOperationData>;
