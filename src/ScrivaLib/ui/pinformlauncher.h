#pragma once

#include "appexception.h"
#include "pinprompt.h"

#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QWaitCondition>

#include <optional>

class QMessageBox;

// The host's PinPrompt: brings a worker's PIN request, or its wrong-PIN message, to the GUI
// thread, where the PinForm and the message box run, and blocks the worker until the user has
// answered. One launcher serves the process: it is a child of the application object, so it
// outlives every worker (the application waits for its workers before it is destroyed).
class PinFormLauncher : public QObject, public PinPrompt
{
    Q_OBJECT

public:
    // The application's launcher; made on first use, on the GUI thread.
    static PinFormLauncher* forApplication();

    explicit PinFormLauncher(QObject* parent = nullptr);
    ~PinFormLauncher() override;

    SecretPin requestPin(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo,
                         const QString& pinName) override;
    SecretPin requestContextPin(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo,
                                const QString& pinName, bool* savePin) override;
    void showPinIncorrect(const QString& title, const QString& text) override;
    void closeDialogs() override;
    bool isClosed() const override;
    // A new operation may ask again. Only while no worker of an abandoned operation runs.
    void reopen();

signals:
    void launchPinFormSignal();
    void launchContextPinFormSignal();
    void launchPinIncorrectSignal();

public slots:
    void launchPinForm();
    void launchContextPinForm();
    void launchPinIncorrect();

private:
    enum class Kind { Pin, ContextPin, PinIncorrect };
    struct Request
    {
        Kind kind = Kind::Pin;
        Pkcs11SlotInfo slotInfo;
        Pkcs11TokenInfo tokenInfo;
        QString text;
        QString title;
    };

    // Runs the request on the calling thread, or hands it to the GUI thread and waits.
    SecretPin ask(Request request, bool* savePin);
    static SecretPin show(const Request& request, bool* savePin, QPointer<QMessageBox>* openBox);
    // The GUI thread's side: takes the waiting request, if it is still wanted, and answers it.
    void serve();

    mutable QMutex mutex;
    QWaitCondition answered;
    std::optional<Request> pending;
    // Numbers the requests, so an answer to a withdrawn one never reaches a later one.
    quint64 serial = 0;
    bool done = false;
    bool closed = false;
    SecretPin result;
    bool savePinResult = false;
    std::optional<AppException> failure;
    QPointer<QMessageBox> openBox;
};
