#include "nativemessaging1.h"

#include "appexception.h"
#include "nativemessaginghost.h"
#include "pkcs11/scrivapkcs11.h"

#include <QCoreApplication>

NativeMessaging1::NativeMessaging1(const QString& version, const QString& hostType, QObject* parent)
    : NativeMessagingAdapter(parent),
      version(version),
      hostType(hostType),
      createInstanceMethod(methodName(QStringLiteral("CreateInstance"))),
      disposeInstanceMethod(methodName(QStringLiteral("DisposeInstance"))),
      getNonceMethod(methodName(QStringLiteral("GetNonce"))),
      getSlotsMethod(methodName(QStringLiteral("GetSlots"))),
      getCertificatesMethod(methodName(QStringLiteral("GetCertificates"))),
      generateCsrMethod(methodName(QStringLiteral("GenerateCsr"))),
      createObjectMethod(methodName(QStringLiteral("CreateObject"))),
      terminateMethod(methodName(QStringLiteral("Terminate"))),
      bringToFrontMethod(methodName(QStringLiteral("BringToFront"))),
      setPropertyMethod(methodName(QStringLiteral("SetProperty"))),
      getVersionMethod(methodName(QStringLiteral("GetVersion")))
{
}

NativeMessaging1::~NativeMessaging1()
{
    delete scrivaInstance;
}

QString NativeMessaging1::methodName(const QString& shortName) const
{
    return QStringLiteral("ScrivaPkcs11.%1.%2.QES.%3").arg(version, hostType, shortName);
}

QString NativeMessaging1::requireArgument(const QJsonObject& obj, const QString& shortName) const
{
    const QString args = argument(obj);
    if (args.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("Method %1 requires an argument but it was not provided").arg(shortName));
    return args;
}

void NativeMessaging1::answer(const QString& method, const QString& error, const QString& result)
{
    QString errorText = error;
    QString resultText = result;
    emit sendMessage(answerMethod(errorText, method, resultText, currentId));
}

void NativeMessaging1::createInstance()
{
    delete scrivaInstance;
    scrivaInstance = new ScrivaPkcs11;
    connect(scrivaInstance, &ScrivaPkcs11::getSlotsFinished, this, &NativeMessaging1::onGetSlots,
            Qt::QueuedConnection);
    connect(scrivaInstance, &ScrivaPkcs11::getCertificatesFinished, this, &NativeMessaging1::onGetCertificates,
            Qt::QueuedConnection);
    connect(scrivaInstance, &ScrivaPkcs11::generateCsrFinished, this, &NativeMessaging1::onGenerateCsr,
            Qt::QueuedConnection);
    connect(scrivaInstance, &ScrivaPkcs11::createObjectFinished, this, &NativeMessaging1::onCreateObject,
            Qt::QueuedConnection);
    connect(scrivaInstance, &ScrivaPkcs11::readyToTerminate, this, &NativeMessaging1::onReadyToTerminate,
            Qt::DirectConnection);
}

void NativeMessaging1::processMethodMessage(QJsonObject& obj)
{
    if (terminating)
        throw APP_EXCEPTION(QStringLiteral("The ScrivaPkcs11 is terminating!"));

    const QString& method = currentMethod;
    if (method == createInstanceMethod) {
        createInstance();
        answer(method, QString(), QString());
        return;
    }

    if (!scrivaInstance)
        throw APP_EXCEPTION(tr("ScrivaInstanceDoesNotExist"));

    if (method == disposeInstanceMethod) {
        scrivaInstance->beginTermination();
        answer(method, QString(), QString());
    } else if (method == getNonceMethod) {
        answer(method, QString(), scrivaInstance->generateNonce());
    } else if (method == getSlotsMethod) {
        scrivaInstance->getSlots(requireArgument(obj, QStringLiteral("GetSlots")));
    } else if (method == getCertificatesMethod) {
        scrivaInstance->getCertificates(requireArgument(obj, QStringLiteral("GetCertificates")));
    } else if (method == generateCsrMethod) {
        scrivaInstance->generateCsr(requireArgument(obj, QStringLiteral("GenerateCsr")));
    } else if (method == createObjectMethod) {
        scrivaInstance->createObject(requireArgument(obj, QStringLiteral("CreateObject")));
    } else if (method == terminateMethod) {
        terminating = true;
        scrivaInstance->beginTermination();
        answer(method, QString(), QString());
    } else if (method == bringToFrontMethod) {
        scrivaInstance->bringToFront();
        answer(method, QString(), QString());
    } else if (method == setPropertyMethod) {
        QString properties = requireArgument(obj, QStringLiteral("SetProperty"));
        scrivaInstance->setProperty(properties);
        answer(method, QString(), QString());
    } else if (method == getVersionMethod) {
        answer(method, QString(),
               QStringLiteral("%1 (%2)").arg(QLatin1String(NativeMessagingHost::programVersion), hostType));
    } else {
        throw APP_EXCEPTION(QStringLiteral("Unknown method %1").arg(method));
    }
}

void NativeMessaging1::onGetSlots(QString error, QString result)
{
    answer(getSlotsMethod, error, result);
}

void NativeMessaging1::onGetCertificates(QString error, QString result)
{
    answer(getCertificatesMethod, error, result);
}

void NativeMessaging1::onGenerateCsr(QString error, QString result)
{
    answer(generateCsrMethod, error, result);
}

void NativeMessaging1::onCreateObject(QString error, QString result)
{
    answer(createObjectMethod, error, result);
}

void NativeMessaging1::onReadyToTerminate()
{
    qInfo().noquote() << "Terminating...";
    QCoreApplication::quit();
}
