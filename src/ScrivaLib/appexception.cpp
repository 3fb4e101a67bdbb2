#include "appexception.h"

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
    text += message.isEmpty() ? QStringLiteral("<No message available>") : message;
    if (withLocation)
        text += QStringLiteral("\n  at %1 in %2 line %3").arg(function, file).arg(line);
    if (cause)
        text += QStringLiteral("\ncaused by ") + cause->toString(withLocation);
    return text;
}

QString AppException::generalExceptionMessage()
{
    return tr("GeneralExceptionMessage");
}
