#include "pinformlauncher.h"

#include "ui/pinform.h"

#include <QCoreApplication>
#include <QThread>

PinFormLauncher::PinFormLauncher(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo,
                                 const QString& text, bool savePin)
    : slotInfo(slotInfo), tokenInfo(tokenInfo), text(text), saveFlag(savePin)
{
    moveToThread(QCoreApplication::instance()->thread());
    connect(this, &PinFormLauncher::launchPinFormSignal, this, &PinFormLauncher::launchPinForm, Qt::QueuedConnection);
    connect(this, &PinFormLauncher::launchContextPinFormSignal, this, &PinFormLauncher::launchContextPinForm,
            Qt::QueuedConnection);
}

PinFormLauncher::~PinFormLauncher()
{
    result.fill(QChar(0));
}

QString PinFormLauncher::requestPin()
{
    return request(false);
}

QString PinFormLauncher::requestContextPin()
{
    return request(true);
}

QString PinFormLauncher::request(bool context)
{
    // On the GUI thread itself the form runs directly: waiting here would block its event loop.
    if (QThread::currentThread() == QCoreApplication::instance()->thread())
        return context ? PinForm::needContextPin(slotInfo, tokenInfo, text, &saveFlag)
                       : PinForm::needPin(slotInfo, tokenInfo, text);

    if (context)
        emit launchContextPinFormSignal();
    else
        emit launchPinFormSignal();

    QMutexLocker locker(&mutex);
    while (!done)
        answered.wait(&mutex);
    if (failure)
        throw *failure;
    return result;
}

void PinFormLauncher::launchPinForm()
{
    answer(false);
}

void PinFormLauncher::launchContextPinForm()
{
    answer(true);
}

void PinFormLauncher::answer(bool context)
{
    QString pin;
    std::optional<AppException> error;
    bool save = saveFlag;
    try {
        pin = context ? PinForm::needContextPin(slotInfo, tokenInfo, text, &save)
                      : PinForm::needPin(slotInfo, tokenInfo, text);
    } catch (const AppException& e) {
        // Handed to the waiting worker instead of leaving it waiting for ever.
        error = e;
    }
    QMutexLocker locker(&mutex);
    result = pin;
    saveFlag = save;
    failure = error;
    done = true;
    answered.wakeAll();
}
