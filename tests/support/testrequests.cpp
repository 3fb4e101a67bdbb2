#include "testrequests.h"

#include "appexception.h"
#include "devpki.h"

#include <QFile>

QByteArray TestRequests::xml(const QString& name, const QString& nonce, const QMap<QString, QString>& replacements)
{
    QFile file(QStringLiteral(SCRIVA_TEST_DATA_DIR "/requests/") + name + QStringLiteral(".xml"));
    if (!file.open(QIODevice::ReadOnly))
        qFatal("missing request document %s", qPrintable(file.fileName()));
    QString text = QString::fromUtf8(file.readAll()).replace(QLatin1String("0f8fad5b-d9cb-469f-a165-70867728950e"), nonce);
    for (auto it = replacements.cbegin(); it != replacements.cend(); ++it)
        text.replace(it.key(), it.value());
    return text.toUtf8();
}

QString TestRequests::signedArgument(const QString& name, const QString& nonce, const QMap<QString, QString>& replacements)
{
    return DevPki::signedArgument(xml(name, nonce, replacements));
}

QString TestRequests::signedXml(const QByteArray& xml, const QString& signer) { return DevPki::signedArgument(xml, signer); }

QString TestRequests::refusal(const std::function<void()>& step)
{
    try {
        step();
    } catch (const AppException& exception) {
        return exception.getMessage();
    }
    return {};
}
