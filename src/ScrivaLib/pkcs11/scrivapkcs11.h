#pragma once

#include "appexception.h"
#include "responsesigningcertificate.h"
#include "x509certificate2ultra.h"

#include <QElapsedTimer>
#include <QFutureWatcher>
#include <QMutex>
#include <QObject>
#include <QPair>
#include <QPointer>
#include <QString>
#include <QTranslator>

#include <functional>
#include <memory>
#include <optional>

class MainWindowPkcs11;
class Pkcs11LibraryData;
class Pkcs11Manager;
class PinFormLauncher;

// The operation instance that exists between "CreateInstance" and termination: it owns the
// host window, hands out nonces, holds the properties and the chosen language, runs at most
// one PKCS#11 operation at a time on a worker thread and carries the termination handshake.
class ScrivaPkcs11 : public QObject
{
    Q_OBJECT

public:
    enum class AsyncOperation { None = 0, GetSlots = 1, GetCertificates = 2, GenerateCsr = 3, CreateObject = 4 };
    using Result = QPair<QString, QString>;

    static constexpr int maximumWindowDisplayTime = 600000;

    explicit ScrivaPkcs11(QObject* parent = nullptr);
    ~ScrivaPkcs11() override;

    QString generateNonce();
    void processNonce(const QString& requestNonce) const;

    void getSlots(const QString& args);
    void getCertificates(const QString& args);
    void generateCsr(const QString& args);
    void createObject(const QString& args);

    void setProperty(QString& properties);
    void setLanguage(const QString& language);
    void bringToFront();
    void beginTermination();
    // The instance is being given up (the host quits or a new instance replaces it): the running
    // operation gets no answer, its dialogs close at once and its worker stops at its next token
    // or PIN step. Nothing is emitted.
    void abandonOperation();
    // Whether a token worker runs anywhere in the process: one operation per process, also
    // while the worker of a discarded instance finishes.
    static bool isWorkerRunning();

    bool isTerminating() const;
    AsyncOperation runningOperation() const;
    MainWindowPkcs11* window() const { return mainWindow; }
    std::optional<int> minimalWindowDisplayTime() const { return minimalDisplayTime; }
    const std::optional<ResponseSigningCertificate>& responseSigningCertificate() const { return signingCertificate; }

signals:
    void getSlotsFinished(QString error, QString result);
    void getCertificatesFinished(QString error, QString result);
    void generateCsrFinished(QString error, QString result);
    void createObjectFinished(QString error, QString result);
    void readyToTerminate();

public slots:
    void onUserDefinedPathReceived(QString path);
    void onUserRejectedDialog();
    void onPkcs11ManagerResultReceived(int index);
    void onMinimalOpenWindowTimeReached();
    void onPinDialogShown();

private:
    // The parsed request of the operation that is about to run, bound to its manager call.
    using Job = std::function<Result(Pkcs11Manager&, const QString& libraryPath)>;
    // A checked request: its record (kept alive by the job), or why it was refused.
    struct CheckedRequest
    {
        std::optional<AppException> failure;
        Job job;
        QString nonce;
        std::shared_ptr<Pkcs11LibraryData> libraryData;
        X509Certificate2Ultra signer;
        QString descriptionKey;
    };

    template<typename T>
    void startOperation(AsyncOperation operation, const QString& args);
    template<typename T>
    static CheckedRequest checkRequest(const QString& args);
    void onRequestChecked();
    void continueOperation(CheckedRequest& request);
    void launchAsyncOperation(const QString& libraryPath);
    void returnAsyncMethodResult(const Result& result);
    void emitFinished(AsyncOperation operation, const QString& error, const QString& result);
    void showWindow(const QString& descriptionKey);
    void hideWindowWhenDue();
    static QString translationsPath();

    mutable QMutex mutex;
    bool terminating = false;
    AsyncOperation currentOperation = AsyncOperation::None;
    QString nonce;
    MainWindowPkcs11* mainWindow;
    Job pendingJob;
    QFutureWatcher<CheckedRequest>* checking = nullptr;
    QFutureWatcher<Result>* watcher = nullptr;
    // The launcher the running operation asks through; null when no worker of this instance runs.
    PinFormLauncher* prompt = nullptr;
    QElapsedTimer windowShown;
    std::optional<int> minimalDisplayTime;
    std::optional<ResponseSigningCertificate> signingCertificate;
    std::unique_ptr<QTranslator> languageTranslator;
};
