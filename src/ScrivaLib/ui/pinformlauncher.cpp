#include "pinformlauncher.h"

#include "ui/pinform.h"

#include <QApplication>
#include <QLabel>
#include <QMessageBox>
#include <QMutexLocker>
#include <QThread>

PinFormLauncher* PinFormLauncher::forApplication()
{
    QCoreApplication* application = QCoreApplication::instance();
    auto* launcher = application->findChild<PinFormLauncher*>(QString(), Qt::FindDirectChildrenOnly);
    return launcher ? launcher : new PinFormLauncher(application);
}

PinFormLauncher::PinFormLauncher(QObject* parent) : QObject(parent)
{
    connect(this, &PinFormLauncher::launchPinFormSignal, this, &PinFormLauncher::launchPinForm, Qt::QueuedConnection);
    connect(this, &PinFormLauncher::launchContextPinFormSignal, this, &PinFormLauncher::launchContextPinForm,
            Qt::QueuedConnection);
    connect(this, &PinFormLauncher::launchPinIncorrectSignal, this, &PinFormLauncher::launchPinIncorrect,
            Qt::QueuedConnection);
}

// Whatever the signal, the GUI thread serves the request waiting then.
void PinFormLauncher::launchPinForm() { serve(); }
void PinFormLauncher::launchContextPinForm() { serve(); }
void PinFormLauncher::launchPinIncorrect() { serve(); }

PinFormLauncher::~PinFormLauncher() = default;

SecretPin PinFormLauncher::requestPin(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo,
                                      const QString& pinName)
{
    return ask(Request{Kind::Pin, slotInfo, tokenInfo, pinName, QString()}, nullptr);
}

SecretPin PinFormLauncher::requestContextPin(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo,
                                             const QString& pinName, bool* savePin)
{
    return ask(Request{Kind::ContextPin, slotInfo, tokenInfo, pinName, QString()}, savePin);
}

void PinFormLauncher::showPinIncorrect(const QString& title, const QString& text)
{
    ask(Request{Kind::PinIncorrect, Pkcs11SlotInfo(), Pkcs11TokenInfo(), text, title}, nullptr);
}

SecretPin PinFormLauncher::ask(Request request, bool* savePin)
{
    // On the GUI thread itself the dialog runs directly: waiting here would block its event loop.
    if (QThread::currentThread() == thread()) {
        if (isClosed())
            return SecretPin();
        return show(request, savePin, &openBox);
    }

    const Kind kind = request.kind;
    QMutexLocker locker(&mutex);
    if (closed)
        return SecretPin();
    pending = std::move(request);
    savePinResult = savePin && *savePin; // what the form shows first
    ++serial;
    done = false;
    failure.reset();
    locker.unlock();
    if (kind == Kind::Pin)
        emit launchPinFormSignal();
    else if (kind == Kind::ContextPin)
        emit launchContextPinFormSignal();
    else
        emit launchPinIncorrectSignal();

    locker.relock();
    while (!done && !closed)
        answered.wait(&mutex);
    if (!done) {
        // Closed before the user answered: the request is withdrawn, nothing is shown for it.
        pending.reset();
        return SecretPin();
    }
    if (failure)
        throw *failure;
    if (savePin)
        *savePin = savePinResult;
    return std::move(result);
}

SecretPin PinFormLauncher::show(const Request& request, bool* savePin, QPointer<QMessageBox>* openBox)
{
    switch (request.kind) {
    case Kind::Pin:
        return PinForm::needPin(request.slotInfo, request.tokenInfo, request.text);
    case Kind::ContextPin:
        return PinForm::needContextPin(request.slotInfo, request.tokenInfo, request.text, savePin);
    case Kind::PinIncorrect: {
        // Watched: its parent window may go while it is open.
        QPointer<QMessageBox> box = new QMessageBox(QMessageBox::Warning, request.title, request.text,
                                                    QMessageBox::Ok, QApplication::activeWindow());
        *openBox = box;
        // A screen reader names the box by its title, and its sign by its meaning.
        if (auto* icon = box->findChild<QLabel*>(QStringLiteral("qt_msgboxex_icon_label")))
            icon->setAccessibleName(PinForm::tr("PinFormWarningIcon"));
        box->exec();
        delete box.data();
        return SecretPin();
    }
    }
    return SecretPin();
}

void PinFormLauncher::serve()
{
    std::optional<Request> request;
    quint64 served = 0;
    bool save = false;
    {
        QMutexLocker locker(&mutex);
        // Withdrawn, answered already, or closed: nothing to show.
        if (closed || !pending)
            return;
        request.swap(pending);
        served = serial;
        save = savePinResult;
    }
    SecretPin pin;
    std::optional<AppException> error;
    try {
        pin = show(*request, &save, &openBox);
    } catch (const AppException& e) {
        // Handed to the waiting worker instead of leaving it waiting for ever.
        error = e;
    }
    QMutexLocker locker(&mutex);
    if (served != serial || closed)
        return;
    result = std::move(pin);
    savePinResult = save;
    failure = error;
    done = true;
    answered.wakeAll();
}

void PinFormLauncher::closeDialogs()
{
    {
        QMutexLocker locker(&mutex);
        closed = true;
        pending.reset();
        answered.wakeAll();
    }
    // The widgets are closed on the GUI thread; their modal loops return and nothing is kept.
    QMetaObject::invokeMethod(this, [this] {
        if (PinForm* form = PinForm::openForm())
            form->reject();
        if (openBox)
            openBox->done(QMessageBox::Ok);
    });
}

bool PinFormLauncher::isClosed() const
{
    QMutexLocker locker(&mutex);
    return closed;
}

void PinFormLauncher::reopen()
{
    // Each request resets the wait it needs (serial, answer, failure) when it is made.
    QMutexLocker locker(&mutex);
    closed = false;
}
