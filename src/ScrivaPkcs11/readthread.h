#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

// Reads native-messaging frames from the browser on stdin and hands each JSON object to the
// main thread through processMessage.
class ReadThread : public QThread
{
    Q_OBJECT

public:
    static constexpr qint32 maximumIncomingSize = 536870912;

    explicit ReadThread(QObject* parent = nullptr);

    QByteArray getBytes(int count);
    QByteArray readMessageFromStdin();
    QJsonDocument readFromStdin();

signals:
    void processMessage(QJsonObject object);

protected:
    void run() override;

private:
    static constexpr int smallFrameSize = 1024 * 1024;

    void readInto(char* destination, int count);

    bool nonBlocking = false;
    QByteArray frameBuffer;
};
