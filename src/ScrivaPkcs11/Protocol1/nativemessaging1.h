#pragma once

#include "nativemessagingadapter.h"

#include <QPointer>

class ScrivaPkcs11;

// Protocol 1: routes the fully qualified method names to the operation instance and answers
// the asynchronous operations when the instance reports their results.
class NativeMessaging1 : public NativeMessagingAdapter
{
    Q_OBJECT

public:
    NativeMessaging1(const QString& version, const QString& hostType, QObject* parent = nullptr);
    ~NativeMessaging1() override;

    ScrivaPkcs11* instance() const { return scrivaInstance; }
    bool isTerminating() const { return terminating; }

public slots:
    void onGetSlots(QString error, QString result);
    void onGetCertificates(QString error, QString result);
    void onGenerateCsr(QString error, QString result);
    void onCreateObject(QString error, QString result);
    void onReadyToTerminate();

protected:
    void processMethodMessage(QJsonObject& obj) override;

private:
    QString methodName(const QString& shortName) const;
    QString requireArgument(const QJsonObject& obj, const QString& shortName) const;
    void answer(const QString& method, const QString& error, const QString& result);
    void createInstance();

    QString version;
    QString hostType;
    bool terminating = false;
    ScrivaPkcs11* scrivaInstance = nullptr;

    const QString createInstanceMethod;
    const QString disposeInstanceMethod;
    const QString getNonceMethod;
    const QString getSlotsMethod;
    const QString getCertificatesMethod;
    const QString generateCsrMethod;
    const QString createObjectMethod;
    const QString terminateMethod;
    const QString bringToFrontMethod;
    const QString setPropertyMethod;
    const QString getVersionMethod;
};
