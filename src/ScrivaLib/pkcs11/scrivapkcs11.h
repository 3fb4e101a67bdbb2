#pragma once

#include "responsesigningcertificate.h"

#include <QMutex>
#include <QObject>
#include <QString>
#include <QTranslator>

#include <memory>
#include <optional>

class MainWindowPkcs11;

// The operation instance that exists between "CreateInstance" and termination: it owns the
// host window, hands out nonces, holds the properties and the chosen language, runs at most
// one PKCS#11 operation at a time and carries the termination handshake.
class ScrivaPkcs11 : public QObject
{
    Q_OBJECT

public:
    enum class AsyncOperation { None = 0, GetSlots = 1, GetCertificates = 2, GenerateCsr = 3, CreateObject = 4 };

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
    MainWindowPkcs11* window() const { return mainWindow.get(); }
    std::optional<int> minimalWindowDisplayTime() const { return minimalDisplayTime; }
    const std::optional<ResponseSigningCertificate>& responseSigningCertificate() const { return signingCertificate; }

signals:
    void getSlotsFinished(QString error, QString result);
    void getCertificatesFinished(QString error, QString result);
    void generateCsrFinished(QString error, QString result);
    void createObjectFinished(QString error, QString result);
    void readyToTerminate();

private:
    template<typename T>
    void startOperation(AsyncOperation operation, const QString& args);
    static QString translationsPath();

    mutable QMutex mutex;
    bool terminating = false;
    AsyncOperation currentOperation = AsyncOperation::None;
    QString nonce;
    std::unique_ptr<MainWindowPkcs11> mainWindow;
    std::optional<int> minimalDisplayTime;
    std::optional<ResponseSigningCertificate> signingCertificate;
    std::unique_ptr<QTranslator> languageTranslator;
};
