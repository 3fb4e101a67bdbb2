#pragma once

#include <QApplication>
#include <QJsonObject>
#include <QTranslator>

class NativeMessagingAdapter;
class ReadThread;
class WriteThread;

// The application object: owns the stdin reader, the stdout writer and, once the browser has
// asked for an instance, the protocol adapter that every later message goes to.
class NativeMessagingHost : public QApplication
{
    Q_OBJECT

public:
    static constexpr const char* programVersion = "2.6.1";
    static constexpr const char* translationsDirectory = "../share/translations/";
    // How long a token worker may still take once the event loop has ended. With at most a second
    // for each I/O thread after it, the host ends within five seconds of a closed pipe or a signal.
    static constexpr int workerGracePeriodMs = 2000;

    NativeMessagingHost(int& argc, char** argv);
    ~NativeMessagingHost() override;

    bool initDefaultLanguage();
    void startThreads();

    NativeMessagingAdapter* adapter() const { return nativeMessagingAdapter; }

    // Called once the event loop has ended: whether every token worker finished within the grace
    // period.
    bool waitForWorkers();
    // The end for a worker that is still inside a module call, which may never return (a reader
    // driver waiting on a dead daemon): the queued answers go out, the PINs are overwritten and
    // the process ends without running a destructor that would wait for the worker or take away
    // what it still uses.
    [[noreturn]] void endAbandoningWorkers(int exitCode);

public slots:
    void processMessage(QJsonObject obj);
    void onStopSignal(int signalNumber);

protected:
    bool event(QEvent* event) override;

private:
    // Every way out (Terminate, the browser closing the pipe, a broken frame, a signal) comes here
    // when the application starts to quit: the running operation is abandoned, its dialogs close
    // and the host window goes.
    void abandonOperations();
    void stopThreads();

    NativeMessagingAdapter* nativeMessagingAdapter = nullptr;
    ReadThread* readThread = nullptr;
    WriteThread* writeThread = nullptr;
    QTranslator* translator = nullptr;
};
