#include "scrivapkcs11.h"

#include "appexception.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/createobjectoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/generatecsroperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getslotsoperationdata.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/pkcs11manager.h"
#include "pkcs11/ui/mainwindowpkcs11.h"
#include "terminatingflag.h"
#include "ui/pinform.h"
#include "x509certificate2ultra.h"

#include <QApplication>
#include <QCoreApplication>
#include <QMessageBox>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QTimer>
#include <QUuid>
#include <QtConcurrent>

#include <type_traits>

namespace {

QString differentValueMessage(const QString& key, const QString& newValue, const QString& previousValue)
{
    return QStringLiteral("JSON node %1 has invalid value: new is different than previous \n>> NEW >>\n%2\n>> PREVIOUS>>\n%3\n")
        .arg(key, newValue, previousValue);
}

} // namespace

ScrivaPkcs11::ScrivaPkcs11(QObject* parent) : QObject(parent), mainWindow(new MainWindowPkcs11)
{
    connect(mainWindow, &MainWindowPkcs11::userDefinedPathAcquired, this, &ScrivaPkcs11::onUserDefinedPathReceived);
    connect(mainWindow, &MainWindowPkcs11::userRejectedDialog, this, &ScrivaPkcs11::onUserRejectedDialog);
}

ScrivaPkcs11::~ScrivaPkcs11()
{
    // A running worker keeps what it needs and its result is dropped. A PIN form it is waiting
    // for is cancelled; the window goes once any dialog running on it has returned.
    releaseWaitingWorker();
    mainWindow->disconnect(this);
    mainWindow->fileDialog()->reject();
    mainWindow->hide();
    mainWindow->deleteLater();
    if (languageTranslator)
        QCoreApplication::removeTranslator(languageTranslator.get());
}

ScrivaPkcs11::AsyncOperation ScrivaPkcs11::runningOperation() const
{
    QMutexLocker locker(&mutex);
    return currentOperation;
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

namespace {

template<typename T>
ScrivaPkcs11::Result runOnManager(Pkcs11Manager& manager, const QString& path, ScrivaPkcs11OperationData<T>* record)
{
    const QString& xmlNamespace = record->getXmlNamespace();
    if constexpr (std::is_same_v<T, GetSlotsOperationData>)
        return manager.getSlots(path, record, xmlNamespace);
    else if constexpr (std::is_same_v<T, GetCertificatesOperationData>)
        return manager.getCertificates(path, record, xmlNamespace);
    else if constexpr (std::is_same_v<T, GenerateCsrOperationData>)
        return manager.generateCsr(path, record, xmlNamespace);
    else
        return manager.createObject(path, record, xmlNamespace);
}

} // namespace

template<typename T>
void ScrivaPkcs11::startOperation(AsyncOperation operation, const QString& args)
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
    const std::shared_ptr<ScrivaPkcs11OperationData<T>> record(ScrivaPkcs11InputXmlParser<T>::parse(args, &signer));
    processNonce(record->getNonce());

    const QString libraryPath = Pkcs11Manager::findUsablePkcs11Library(*record->getLibraryData());
    const bool allowManualSelection = record->getLibraryData()->getAllowManualSelection();
    if (libraryPath.isEmpty() && !allowManualSelection)
        throw APP_EXCEPTION(QStringLiteral("NoUsablePkcs11LibraryFound"));

    {
        QMutexLocker locker(&mutex);
        currentOperation = operation;
    }
    pendingJob = [record](Pkcs11Manager& manager, const QString& path) { return runOnManager(manager, path, record.get()); };
    mainWindow->updateWindowTitle(signer);
    showWindow(ScrivaPkcs11InputXmlParser<T>::operationElementName() + QStringLiteral("Description"));

    if (libraryPath.isEmpty())
        mainWindow->showFileDialog(); // continues in onUserDefinedPathReceived or onUserRejectedDialog
    else
        launchAsyncOperation(libraryPath);
}

void ScrivaPkcs11::onUserDefinedPathReceived(QString path)
{
    if (runningOperation() == AsyncOperation::None || !pendingJob)
        return;
    qInfo().noquote() << "PKCS#11 library chosen by the user:" << path;
    launchAsyncOperation(path);
}

void ScrivaPkcs11::onUserRejectedDialog()
{
    if (runningOperation() == AsyncOperation::None || watcher)
        return;
    returnAsyncMethodResult(Result(QStringLiteral("UserRejectedFileDialog"), QString()));
}

void ScrivaPkcs11::launchAsyncOperation(const QString& libraryPath)
{
    if (runningOperation() == AsyncOperation::None || !pendingJob)
        throw APP_EXCEPTION(QStringLiteral("Current async operation is not defined"));

    // Reaches this instance on the GUI thread, and only while it exists.
    std::shared_ptr<QObject> relay(new QObject, [](QObject* object) { object->deleteLater(); });
    QPointer<ScrivaPkcs11> self(this);
    const Job job = std::move(pendingJob);
    pendingJob = nullptr;

    watcher = new QFutureWatcher<Result>(this);
    connect(watcher, &QFutureWatcher<Result>::resultReadyAt, this, &ScrivaPkcs11::onPkcs11ManagerResultReceived);
    watcher->setFuture(QtConcurrent::run([job, libraryPath, relay, self]() -> Result {
        Pkcs11Manager manager;
        QObject::connect(&manager, &Pkcs11Manager::pinRequestedSignal, relay.get(), [self] {
            if (self)
                self->onPinDialogShown();
        });
        try {
            return job(manager, libraryPath);
        } catch (const AppException& e) {
            qWarning().noquote() << "PKCS#11 operation failed:" << e.toString(true);
            return Result(e.getMessage(), QString());
        } catch (const std::exception& e) {
            qWarning().noquote() << "PKCS#11 operation failed:" << e.what();
            return Result(QStringLiteral("GeneralExceptionMessage"), QString());
        }
    }));
}

void ScrivaPkcs11::onPkcs11ManagerResultReceived(int index)
{
    const Result result = watcher->resultAt(index);
    watcher->deleteLater();
    watcher = nullptr;
    returnAsyncMethodResult(result);
}

void ScrivaPkcs11::returnAsyncMethodResult(const Result& result)
{
    AsyncOperation finished;
    bool stopping;
    {
        QMutexLocker locker(&mutex);
        finished = currentOperation;
        currentOperation = AsyncOperation::None;
        stopping = terminating;
    }
    pendingJob = nullptr;
    if (stopping) {
        qInfo().noquote() << "Application is terminating - the response will not be sent";
        qInfo().noquote() << "Application is ready to terminate";
        emit readyToTerminate();
        return;
    }
    emitFinished(finished, result.first, result.second);
    hideWindowWhenDue();
}

void ScrivaPkcs11::emitFinished(AsyncOperation operation, const QString& error, const QString& result)
{
    switch (operation) {
    case AsyncOperation::GetSlots:
        emit getSlotsFinished(error, result);
        break;
    case AsyncOperation::GetCertificates:
        emit getCertificatesFinished(error, result);
        break;
    case AsyncOperation::GenerateCsr:
        emit generateCsrFinished(error, result);
        break;
    case AsyncOperation::CreateObject:
        emit createObjectFinished(error, result);
        break;
    case AsyncOperation::None:
        qWarning().noquote() << "Received result of an unknown async method";
        break;
    }
}

void ScrivaPkcs11::showWindow(const QString& descriptionKey)
{
    mainWindow->setDescription(descriptionKey);
    if (!mainWindow->isVisible()) {
        mainWindow->show();
        windowShown.start();
    }
}

void ScrivaPkcs11::hideWindowWhenDue()
{
    const qint64 remaining = qint64(minimalDisplayTime.value_or(0)) - (windowShown.isValid() ? windowShown.elapsed() : 0);
    if (remaining <= 0)
        onMinimalOpenWindowTimeReached();
    else
        QTimer::singleShot(remaining, this, &ScrivaPkcs11::onMinimalOpenWindowTimeReached);
}

void ScrivaPkcs11::onMinimalOpenWindowTimeReached()
{
    // A newer operation keeps the window; its own result hides it.
    if (runningOperation() != AsyncOperation::None)
        return;
    mainWindow->hide();
    windowShown.invalidate();
}

void ScrivaPkcs11::releaseWaitingWorker()
{
    // The worker may wait for the PIN form or for the user to acknowledge a wrong PIN.
    if (PinForm* form = PinForm::openForm())
        form->reject();
    if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget()))
        box->done(QMessageBox::Ok);
}

void ScrivaPkcs11::onPinDialogShown()
{
    if (mainWindow->isVisible()) {
        mainWindow->raise();
        mainWindow->activateWindow();
    }
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
    onPinDialogShown();
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
        // A worker waiting for the user is released: it sees the flag and ends without the token.
        TerminatingFlag::set();
        releaseWaitingWorker();
        if (!watcher)
            mainWindow->fileDialog()->reject();
        return;
    }
    qInfo().noquote() << "Application is ready to terminate";
    emit readyToTerminate();
}
