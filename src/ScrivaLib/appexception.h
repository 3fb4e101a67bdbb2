#pragma once

#include <QCoreApplication>
#include <QSharedPointer>
#include <QString>

// The one exception type of the program. Error words that reach the browser travel in
// `message`; `generalMessage` is the short user-facing text; `cause` chains the exception
// that led to this one.
class AppException
{
    Q_DECLARE_TR_FUNCTIONS(AppException)

public:
    AppException(const QString& message, const QString& file, qint32 line, const QString& function,
                 const QString& generalMessage);
    AppException(const QString& message, const QString& file, qint32 line, const QString& function,
                 const QString& generalMessage, const AppException& cause);
    AppException(const AppException&) = default;
    AppException& operator=(const AppException&) = default;
    virtual ~AppException();

    virtual QString className() const;
    // A heap copy of the most derived type, so a cause keeps its class.
    virtual AppException* clone() const;
    virtual QString toString(bool withLocation) const;
    // The message and those of its causes on one line, " - " between them, outside text escaped.
    QString toLine() const;

    const QString& getMessage() const { return message; }
    const QString& getGeneralMessage() const { return generalMessage; }
    const QString& getFile() const { return file; }
    qint32 getLine() const { return line; }
    const QString& getFunction() const { return function; }
    QSharedPointer<AppException> getCause() const { return cause; }

    // The text every throw site passes as the general message.
    static QString generalExceptionMessage();

private:
    QString message;
    QSharedPointer<AppException> cause;
    QString file;
    qint32 line;
    QString function;
    QString generalMessage;
};

// Builds an AppException that records where it was raised.
#define APP_EXCEPTION(message) \
    AppException((message), QStringLiteral(__FILE__), __LINE__, QString::fromUtf8(Q_FUNC_INFO), \
                 AppException::generalExceptionMessage())
#define APP_EXCEPTION_CAUSED(message, cause) \
    AppException((message), QStringLiteral(__FILE__), __LINE__, QString::fromUtf8(Q_FUNC_INFO), \
                 AppException::generalExceptionMessage(), (cause))
