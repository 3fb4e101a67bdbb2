#pragma once

#include "responsesigningcertificate.h"

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
class Pkcs11Manager;

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

    template<typename T>
    void startOperation(AsyncOperation operation, const QString& args);
    void launchAsyncOperation(const QString& libraryPath);
    void returnAsyncMethodResult(const Result& result);
    void emitFinished(AsyncOperation operation, const QString& error, const QString& result);
    void showWindow(const QString& descriptionKey);
    void hideWindowWhenDue();
    void releaseWaitingWorker();
    static QString translationsPath();

    mutable QMutex mutex;
    bool terminating = false;
    AsyncOperation currentOperation = AsyncOperation::None;
    QString nonce;
    MainWindowPkcs11* mainWindow;
    Job pendingJob;
    QFutureWatcher<Result>* watcher = nullptr;
    QElapsedTimer windowShown;
    std::optional<int> minimalDisplayTime;
    std::optional<ResponseSigningCertificate> signingCertificate;
    std::unique_ptr<QTranslator> languageTranslator;
};
