#include "scrivapkcs11.h"

#include "appexception.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/createobjectoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/generatecsroperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getslotsoperationdata.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/pkcs11manager.h"
#include "pkcs11/ui/mainwindowpkcs11.h"
#include "loghandler.h"
#include "terminatingflag.h"
#include "trustanchors.h"
#include "ui/pinformlauncher.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QTimer>
#include <QUuid>
#include <QtConcurrent>

#include <atomic>
#include <type_traits>

#include <malloc.h>

namespace {

constexpr qsizetype largeRequestSize = 1 << 20;

// Set while a token worker runs, cleared by the worker itself before it reports its result.
std::atomic<bool> tokenWorkerRunning{false};

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
    // A running worker keeps what it needs and its result is dropped; its dialogs close now. The
    // window goes once any dialog running on it has returned.
    mainWindow->disconnect(this);
    abandonOperation();
    mainWindow->hide();
    mainWindow->deleteLater();
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

bool ScrivaPkcs11::isWorkerRunning()
{
    return tokenWorkerRunning.load();
}

template<typename T>
void ScrivaPkcs11::startOperation(AsyncOperation operation, const QString& args)
{
    {
        QMutexLocker locker(&mutex);
        if (terminating)
            throw APP_EXCEPTION(QStringLiteral("The ScrivaPkcs11 is terminating!"));
        if (currentOperation != AsyncOperation::None || isWorkerRunning())
            throw APP_EXCEPTION(QStringLiteral("Another asynchronous method is already running"));
        currentOperation = operation;
    }
    // Checking the signature, the signer and the document takes time in proportion to the
    // request, so it runs off the GUI thread: the host keeps answering, and hears Terminate and
    // the end of its input, meanwhile. Nothing of the request reaches the token before the
    // check, the nonce included, has passed.
    checking = new QFutureWatcher<CheckedRequest>(this);
    connect(checking, &QFutureWatcher<CheckedRequest>::finished, this, &ScrivaPkcs11::onRequestChecked);
    checking->setFuture(QtConcurrent::run([request = std::make_shared<QString>(args)] {
        CheckedRequest checked = checkRequest<T>(*request);
        // A large request leaves the pages of its copies behind; they go back to the system now
        // that the request has been let go of, so the host returns to its idle size.
        const bool large = request->size() > largeRequestSize;
        *request = QString();
        if (large)
            malloc_trim(0);
        return checked;
    }));
}

template<typename T>
ScrivaPkcs11::CheckedRequest ScrivaPkcs11::checkRequest(const QString& args)
{
    CheckedRequest checked;
    try {
        const std::shared_ptr<ScrivaPkcs11OperationData<T>> record(
            ScrivaPkcs11InputXmlParser<T>::parse(args, &checked.signer));
        checked.nonce = record->getNonce();
        checked.libraryData = std::shared_ptr<Pkcs11LibraryData>(record, record->getLibraryData());
        checked.descriptionKey = ScrivaPkcs11InputXmlParser<T>::operationElementName() + QStringLiteral("Description");
        checked.job = [record](Pkcs11Manager& manager, const QString& path) {
            return runOnManager(manager, path, record.get());
        };
    } catch (const AppException& e) {
        checked.failure = e;
    }
    return checked;
}

void ScrivaPkcs11::onRequestChecked()
{
    CheckedRequest checked = checking->result();
    checking->deleteLater();
    checking = nullptr;
    if (isTerminating()) {
        returnAsyncMethodResult(Result());
        return;
    }
    try {
        if (checked.failure)
            throw *checked.failure;
        continueOperation(checked);
    } catch (const AppException& e) {
        // One line ends a refused request: what was refused, why, and the signer once it was trusted.
        const QString signer = checked.signer.isNull() ? QString() : TrustAnchors::oneLineSubject(checked.signer);
        qWarning().noquote() << "Operation request refused: " + e.toLine()
                                    + (signer.isEmpty() ? QString() : " - signer " + LogHandler::escaped(signer));
        returnAsyncMethodResult(Result(e.getMessage(), QString()));
    }
}

void ScrivaPkcs11::continueOperation(CheckedRequest& checked)
{
    processNonce(checked.nonce);
    const QString libraryPath = Pkcs11Manager::findUsablePkcs11Library(*checked.libraryData);
    if (libraryPath.isEmpty() && !checked.libraryData->getAllowManualSelection())
        throw APP_EXCEPTION(QStringLiteral("NoUsablePkcs11LibraryFound"));

    pendingJob = std::move(checked.job);
    // The token work starts first and runs while this thread lays out and draws the window; a
    // PIN form or the result reaches this thread only after the window has been shown.
    if (!libraryPath.isEmpty())
        launchAsyncOperation(libraryPath);
    mainWindow->updateWindowTitle(checked.signer);
    showWindow(checked.descriptionKey);
    if (libraryPath.isEmpty())
        mainWindow->showFileDialog(); // continues in onUserDefinedPathReceived or onUserRejectedDialog
}

void ScrivaPkcs11::onUserDefinedPathReceived(QString path)
{
    if (runningOperation() == AsyncOperation::None || !pendingJob || isTerminating())
        return;
    qInfo().noquote() << "PKCS#11 library chosen by the user:" << LogHandler::escaped(path);
    launchAsyncOperation(path);
}

void ScrivaPkcs11::onUserRejectedDialog()
{
    if (runningOperation() == AsyncOperation::None || watcher || checking)
        return;
    returnAsyncMethodResult(Result(QStringLiteral("UserRejectedFileDialog"), QString()));
}

void ScrivaPkcs11::launchAsyncOperation(const QString& libraryPath)
{
    if (runningOperation() == AsyncOperation::None || !pendingJob)
        throw APP_EXCEPTION(QStringLiteral("Current async operation is not defined"));

    // The application's launcher outlives the worker; this instance raises its window when a
    // PIN form opens, for as long as the instance exists.
    PinFormLauncher* launcher = PinFormLauncher::forApplication();
    launcher->reopen();
    prompt = launcher;
    connect(launcher, &PinFormLauncher::launchPinFormSignal, this, &ScrivaPkcs11::onPinDialogShown,
            Qt::UniqueConnection);
    connect(launcher, &PinFormLauncher::launchContextPinFormSignal, this, &ScrivaPkcs11::onPinDialogShown,
            Qt::UniqueConnection);

    const Job job = std::move(pendingJob);
    pendingJob = nullptr;
    tokenWorkerRunning.store(true);
    watcher = new QFutureWatcher<Result>(this);
    connect(watcher, &QFutureWatcher<Result>::resultReadyAt, this, &ScrivaPkcs11::onPkcs11ManagerResultReceived);
    watcher->setFuture(QtConcurrent::run([job, libraryPath, launcher]() -> Result {
        // The process may start its next operation once this one has let go of the module.
        struct Finished
        {
            ~Finished() { tokenWorkerRunning.store(false); }
        } finished;
        Pkcs11Manager manager;
        manager.setPinPrompt(launcher);
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
    prompt = nullptr;
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
        // Precise: a coarse timer may fire a twentieth of its interval early.
        QTimer::singleShot(remaining, Qt::PreciseTimer, this, &ScrivaPkcs11::onMinimalOpenWindowTimeReached);
}

void ScrivaPkcs11::onMinimalOpenWindowTimeReached()
{
    // A newer operation keeps the window; its own result hides it.
    if (runningOperation() != AsyncOperation::None)
        return;
    mainWindow->hide();
    windowShown.invalidate();
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
    qInfo().noquote() << "Properties to be set:" << LogHandler::escaped(properties);
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
        const qint64 integer = value.toInteger(); // 0 for a fraction, which the comparison then refuses
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
        qInfo().noquote() << "Response signing certificate:" << LogHandler::escaped(signingCertificate->toString());
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
    // A translator takes itself out of the application when it is destroyed.
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
    // The process is about to end either way.
    TerminatingFlag::set();
    if (!ready) {
        qInfo().noquote() << "Application is not ready to terminate yet. Waiting for async operation to finish";
        abandonOperation();
        return;
    }
    qInfo().noquote() << "Application is ready to terminate";
    emit readyToTerminate();
}

void ScrivaPkcs11::abandonOperation()
{
    {
        QMutexLocker locker(&mutex);
        terminating = true;
    }
    // A worker waiting for the user is released: it sees the closed prompt and ends without
    // the token. A module file still to be chosen is not.
    if (prompt)
        prompt->closeDialogs();
    if (!watcher && !checking)
        mainWindow->fileDialog()->reject();
}
