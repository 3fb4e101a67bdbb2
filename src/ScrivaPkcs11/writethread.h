#pragma once

#include <QDataStream>
#include <QFile>
#include <QJsonDocument>
#include <QList>
#include <QMutex>
#include <QThread>
#include <QWaitCondition>

// Writes the queued answers to stdout as native-messaging frames, first in first out. The
// queue is always drained before an interruption request is honoured. A small answer that finds
// the thread idle and the pipe with room is written by the caller itself, in order all the same.
class WriteThread : public QThread
{
    Q_OBJECT

public:
    static constexpr int maximumOutgoingSize = 1048576;

    explicit WriteThread(QObject* parent = nullptr);

    void writeToStdout(const QJsonDocument& document);

public slots:
    void addJsonDocument(QJsonDocument document);

protected:
    void run() override;

private:
    bool writeNowIfRoom(const QByteArray& bytes);
    void writeFrame(const QByteArray& bytes);

    QList<QByteArray> queue; // the answers' JSON text
    bool writing = false;
    QMutex queueMutex;
    QWaitCondition queued;
    QFile stdoutFile;
    QDataStream stdoutStream;
};
