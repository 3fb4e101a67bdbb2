#pragma once

#include <QJsonDocument>
#include <QJsonObject>
#include <QObject>
#include <QString>

// The common envelope of every protocol: reads "method" and "id", lets the protocol class run
// the method and turns any AppException into an error answer, so the host keeps running.
class NativeMessagingAdapter : public QObject
{
    Q_OBJECT

public:
    explicit NativeMessagingAdapter(QObject* parent = nullptr);
    ~NativeMessagingAdapter() override;

    void processMessage(QJsonObject& obj);
    QJsonDocument answerMethod(QString& error, const QString& method, QString& result, QString& id);

signals:
    void sendMessage(QJsonDocument document);

protected:
    virtual void processMethodMessage(QJsonObject& obj) = 0;

    // The first element of "args" as a string; empty when there is no usable argument.
    static QString argument(const QJsonObject& obj);

    QString currentMethod;
    QString currentId;
};
