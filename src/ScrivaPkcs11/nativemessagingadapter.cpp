#include "nativemessagingadapter.h"

#include "appexception.h"
#include "loghandler.h"

#include <QJsonArray>

NativeMessagingAdapter::NativeMessagingAdapter(QObject* parent) : QObject(parent) {}

NativeMessagingAdapter::~NativeMessagingAdapter() = default;

void NativeMessagingAdapter::processMessage(QJsonObject& obj)
{
    currentMethod = obj.value(QStringLiteral("method")).toString();
    currentId = obj.value(QStringLiteral("id")).toString();
    // Method name and id come from the page: escaped, so each stays on this one line.
    if (currentId.isEmpty())
        qInfo().noquote() << "Incoming Json method name is:" << LogHandler::escaped(currentMethod);
    else
        qInfo().noquote() << "Incoming Json method name is:" << LogHandler::escaped(currentMethod) << "with id:"
                          << LogHandler::escaped(currentId);
    try {
        if (currentMethod.isEmpty())
            throw APP_EXCEPTION(tr("NoMethodOrEventSpecified"));
        processMethodMessage(obj);
    } catch (const AppException& e) {
        QString error = e.getMessage();
        QString result;
        emit sendMessage(answerMethod(error, currentMethod, result, currentId));
        qWarning().noquote() << "Method " + LogHandler::escaped(currentMethod) + " failed due to " + e.toString(true);
    }
}

QJsonDocument NativeMessagingAdapter::answerMethod(QString& error, const QString& method, QString& result,
                                                   QString& id)
{
    qInfo().noquote() << "Preparing answer method with name:" << LogHandler::escaped(method);
    QJsonObject answer;
    answer.insert(QStringLiteral("error"), error.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(error));
    answer.insert(QStringLiteral("method"), method);
    answer.insert(QStringLiteral("result"), result.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(result));
    if (!id.isEmpty())
        answer.insert(QStringLiteral("id"), id);
    return QJsonDocument(answer);
}

QString NativeMessagingAdapter::argument(const QJsonObject& obj)
{
    return obj.value(QStringLiteral("args")).toArray().at(0).toString();
}
