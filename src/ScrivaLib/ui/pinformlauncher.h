#pragma once

#include "appexception.h"
#include "pkcs11slotinfo.h"
#include "pkcs11tokeninfo.h"

#include <QMutex>
#include <QObject>
#include <QString>
#include <QWaitCondition>

#include <optional>

// Brings a PIN request from a worker thread to the GUI thread, where the PinForm runs, and
// blocks the worker until the user has answered.
class PinFormLauncher : public QObject
{
    Q_OBJECT

public:
    PinFormLauncher(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo, const QString& text,
                    bool savePin = false);
    ~PinFormLauncher() override;

    QString requestPin();
    QString requestContextPin();
    bool savePin() const { return saveFlag; }

signals:
    void launchPinFormSignal();
    void launchContextPinFormSignal();

public slots:
    void launchPinForm();
    void launchContextPinForm();

private:
    QString request(bool context);
    void answer(bool context);

    Pkcs11SlotInfo slotInfo;
    Pkcs11TokenInfo tokenInfo;
    QString text;
    QString result;
    bool saveFlag;
    bool done = false;
    std::optional<AppException> failure;
    QMutex mutex;
    QWaitCondition answered;
};
