#include "scrivapkcs11.h"

#include "appexception.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/createobjectoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/generatecsroperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getslotsoperationdata.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/ui/mainwindowpkcs11.h"
#include "x509certificate2ultra.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QUuid>

namespace {

QString differentValueMessage(const QString& key, const QString& newValue, const QString& previousValue)
{
    return QStringLiteral("JSON node %1 has invalid value: new is different than previous \n>> NEW >>\n%2\n>> PREVIOUS>>\n%3\n")
        .arg(key, newValue, previousValue);
}

} // namespace

ScrivaPkcs11::ScrivaPkcs11(QObject* parent) : QObject(parent), mainWindow(std::make_unique<MainWindowPkcs11>()) {}

ScrivaPkcs11::~ScrivaPkcs11()
{
    if (languageTranslator)
        QCoreApplication::removeTranslator(languageTranslator.get());
}

bool ScrivaPkcs11::isTerminating() const
{
    QMutexLocker locker(&mutex);
    return terminating;
}

QString ScrivaPkcs11::generateNonce()
{
    if (isTerminating())
        throw APP_EXCEPTION(QStringLiteral("The ScrivaPkcs11 is terminating!"));
    QString text = QUuid::createUuid().toString();
    if (text.size() == 38)
        text = text.mid(1, 36);
    nonce = text.toLower();
    qInfo().noquote() << "Generated nonce:" << nonce;
    return nonce;
}

void ScrivaPkcs11::processNonce(const QString& requestNonce) const
{
    if (nonce.isEmpty() || requestNonce != nonce)
        throw APP_EXCEPTION(QStringLiteral("CommunicationMismatchNonce"));
}

void ScrivaPkcs11::getSlots(const QString& args)
{
    startOperation<GetSlotsOperationData>(AsyncOperation::GetSlots, args);
}

void ScrivaPkcs11::getCertificates(const QString& args)
{
    startOperation<GetCertificatesOperationData>(AsyncOperation::GetCertificates, args);
}

void ScrivaPkcs11::generateCsr(const QString& args)
{
    startOperation<GenerateCsrOperationData>(AsyncOperation::GenerateCsr, args);
}

void ScrivaPkcs11::createObject(const QString& args)
{
    startOperation<CreateObjectOperationData>(AsyncOperation::CreateObject, args);
}

template<typename T>
void ScrivaPkcs11::startOperation(AsyncOperation, const QString& args)
{
    {
        QMutexLocker locker(&mutex);
        if (terminating)
            throw APP_EXCEPTION(QStringLiteral("The ScrivaPkcs11 is terminating!"));
        if (currentOperation != AsyncOperation::None)
            throw APP_EXCEPTION(QStringLiteral("Another asynchronous method is already running"));
    }
    // Nothing of a request reaches the token before its signature, signer and nonce are checked.
    X509Certificate2Ultra signer;
    const std::unique_ptr<ScrivaPkcs11OperationData<T>> data(ScrivaPkcs11InputXmlParser<T>::parse(args, &signer));
    processNonce(data->getNonce());

    // The token engine is not part of this build yet: say so instead of pretending a result.
    throw APP_EXCEPTION(QStringLiteral("Operation %1 is not available yet")
                            .arg(ScrivaPkcs11InputXmlParser<T>::operationElementName()));
}

void ScrivaPkcs11::setProperty(QString& properties)
{
    if (isTerminating())
        throw APP_EXCEPTION(QStringLiteral("The ScrivaPkcs11 is terminating!"));
    if (mainWindow->isVisible())
        throw APP_EXCEPTION(QStringLiteral("Properties cannot be modified while application window is visible"));

    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(properties.toUtf8(), &parseError);
    if (parseError.error != QJsonParseError::NoError)
        throw APP_EXCEPTION(QStringLiteral("Unable to parse properties as JSON structure"));
    if (!document.isObject())
        throw APP_EXCEPTION(QStringLiteral("Unable to convert properties to JSON object"));
    qInfo().noquote() << "Properties to be set:" << properties;
    const QJsonObject object = document.object();

    // Every value is checked before any is applied, so a refused request changes nothing.
    std::optional<int> newDisplayTime;
    const QString displayTimeKey = QStringLiteral("MinimalWindowDisplayTime");
    if (object.contains(displayTimeKey)) {
        const QJsonValue value = object.value(displayTimeKey);
        if (value.isNull())
            throw APP_EXCEPTION(QStringLiteral("JSON node %1 is missing").arg(displayTimeKey));
        if (!value.isDouble())
            throw APP_EXCEPTION(QStringLiteral("JSON node %1 has invalid value").arg(displayTimeKey));
        const double number = value.toDouble();
        const qint64 integer = value.toInteger(-1);
        if (double(integer) != number || quint64(integer) > quint64(maximumWindowDisplayTime))
            throw APP_EXCEPTION(QStringLiteral("JSON node %1 has invalid value: %2")
                                    .arg(displayTimeKey, QString::number(number, 'g', 17)));
        if (minimalDisplayTime && *minimalDisplayTime != integer)
            throw APP_EXCEPTION(differentValueMessage(displayTimeKey, QString::number(integer),
                                                      QString::number(*minimalDisplayTime)));
        newDisplayTime = int(integer);
    }

    std::optional<ResponseSigningCertificate> newCertificate;
    const QString certificateKey = QStringLiteral("ResponseSigningCertificate");
    if (object.contains(certificateKey)) {
        const QJsonValue value = object.value(certificateKey);
        if (value.isNull())
            throw APP_EXCEPTION(QStringLiteral("JSON node %1 is missing").arg(certificateKey));
        if (!value.isObject())
            throw APP_EXCEPTION(QStringLiteral("JSON node %1 has invalid value").arg(certificateKey));
        ResponseSigningCertificate certificate;
        try {
            certificate.deserialize(value.toObject());
        } catch (const AppException& e) {
            throw APP_EXCEPTION_CAUSED(QStringLiteral("JSON node %1 has invalid value: Unable to read << %2")
                                           .arg(certificateKey, e.getMessage()),
                                       e);
        }
        if (signingCertificate && signingCertificate->toString() != certificate.toString())
            throw APP_EXCEPTION(differentValueMessage(certificateKey, certificate.toString(),
                                                      signingCertificate->toString()));
        newCertificate = certificate;
    }

    std::optional<QString> newLanguage;
    const QString languageKey = QStringLiteral("Language");
    if (object.contains(languageKey)) {
        const QJsonValue value = object.value(languageKey);
        if (!value.isString())
            throw APP_EXCEPTION(QStringLiteral("JSON node %1 has invalid value").arg(languageKey));
        newLanguage = value.toString();
    }

    if (newLanguage)
        setLanguage(*newLanguage);
    if (newDisplayTime)
        minimalDisplayTime = newDisplayTime;
    if (newCertificate) {
        signingCertificate = newCertificate;
        qInfo().noquote() << "Response signing certificate:" << signingCertificate->toString();
    }
}

QString ScrivaPkcs11::translationsPath()
{
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/../share/translations"))
           + QLatin1Char('/');
}

void ScrivaPkcs11::setLanguage(const QString& language)
{
    qInfo().noquote() << "Starting function setLanguage";
    // Only plain language codes name a catalogue; anything else could point outside the folder.
    static const QRegularExpression code(QStringLiteral("^[a-z]{2,3}(_[A-Z]{2})?$"));
    const QString file = translationsPath() + QStringLiteral("Scriva_") + language + QStringLiteral(".qm");
    if (!code.match(language).hasMatch() || !QFileInfo(file).isFile())
        throw APP_EXCEPTION(QStringLiteral("UnsupportedLanguage"));

    auto translator = std::make_unique<QTranslator>();
    if (!translator->load(file))
        throw APP_EXCEPTION(QStringLiteral("UnsupportedLanguage"));
    if (languageTranslator)
        QCoreApplication::removeTranslator(languageTranslator.get());
    languageTranslator.reset();
    if (!QCoreApplication::installTranslator(translator.get()))
        throw APP_EXCEPTION(QStringLiteral("LanguageInstallationFailed"));
    languageTranslator = std::move(translator);
}

void ScrivaPkcs11::bringToFront()
{
    if (isTerminating())
        throw APP_EXCEPTION(QStringLiteral("The ScrivaPkcs11 is terminating!"));
    if (mainWindow->isVisible()) {
        mainWindow->raise();
        mainWindow->activateWindow();
    }
}

void ScrivaPkcs11::beginTermination()
{
    bool ready = false;
    {
        QMutexLocker locker(&mutex);
        terminating = true;
        ready = currentOperation == AsyncOperation::None;
    }
    if (!ready) {
        qInfo().noquote() << "Application is not ready to terminate yet. Waiting for async operation to finish";
        return;
    }
    qInfo().noquote() << "Application is ready to terminate";
    emit readyToTerminate();
}
