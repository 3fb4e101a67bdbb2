#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <atomic>

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
    static constexpr int heapTrimDelayMs = 400;

    void readInto(char* destination, int count);
    void trimHeapWhenIdle();

    bool waitingForFrame = false;
    QByteArray frameBuffer;

    // Large frames read, and the last of them that the main thread has handled and when.
    QElapsedTimer clock;
    int largeFrames = 0;
    std::atomic<int> handledLargeFrame{0};
    std::atomic<qint64> handledAtMs{0};
};
