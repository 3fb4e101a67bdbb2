#include "appexception.h"

#include "loghandler.h"

AppException::AppException(const QString& message, const QString& file, qint32 line,
                           const QString& function, const QString& generalMessage)
    : message(message), file(file), line(line), function(function), generalMessage(generalMessage)
{
}

AppException::AppException(const QString& message, const QString& file, qint32 line,
                           const QString& function, const QString& generalMessage,
                           const AppException& cause)
    : message(message),
      cause(cause.clone()),
      file(file),
      line(line),
      function(function),
      generalMessage(generalMessage)
{
}

AppException::~AppException() = default;

QString AppException::className() const
{
    return QStringLiteral("AppException");
}

AppException* AppException::clone() const
{
    return new AppException(*this);
}

QString AppException::toString(bool withLocation) const
{
    QString text = className() + QStringLiteral(": ");
    // The message may carry outside text (a method name, a request's value); the line breaks
    // of the location and the causes below are the only ones the text may contain.
    text += message.isEmpty() ? QStringLiteral("<No message available>") : LogHandler::escaped(message);
    if (withLocation)
        text += QStringLiteral("\n  at %1 in %2 line %3").arg(function, file).arg(line);
    if (cause)
        text += QStringLiteral("\ncaused by ") + cause->toString(withLocation);
    return text;
}

QString AppException::toLine() const
{
    QString text = LogHandler::escaped(message);
    for (const AppException* next = cause.data(); next; next = next->cause.data())
        text += QStringLiteral(" - ") + LogHandler::escaped(next->message);
    return text;
}

QString AppException::generalExceptionMessage()
{
    return tr("GeneralExceptionMessage");
}
