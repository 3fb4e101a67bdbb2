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

    NativeMessagingHost(int& argc, char** argv);
    ~NativeMessagingHost() override;

    bool initDefaultLanguage();
    void startThreads();

    NativeMessagingAdapter* adapter() const { return nativeMessagingAdapter; }

public slots:
    void processMessage(QJsonObject obj);

protected:
    bool event(QEvent* event) override;

private:
    // Every way out (Terminate, the browser closing the pipe, a broken frame) comes here when the
    // application starts to quit: the running operation is abandoned and its dialogs close.
    void abandonOperations();

    NativeMessagingAdapter* nativeMessagingAdapter = nullptr;
    ReadThread* readThread = nullptr;
    WriteThread* writeThread = nullptr;
    QTranslator* translator = nullptr;
};
