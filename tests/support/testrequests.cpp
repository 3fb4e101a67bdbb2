#include "testrequests.h"

#include "appexception.h"
#include "requestsigner.h"

#include <QDir>
#include <QFile>

bool TestRequests::canSign() { return QFileInfo(pkiFile(QStringLiteral("complete"))).isFile(); }

QString TestRequests::pkiFile(const QString& name) { return QDir(QStringLiteral(SCRIVA_DEV_PKI_DIR)).filePath(name); }

QByteArray TestRequests::signedCms(const QByteArray& content, const QStringList& signers, bool detached)
{
    RequestSigner signer;
    signer.setDetached(detached);
    for (const QString& name : signers)
        if (!signer.addSigner(pkiFile(name + QStringLiteral(".key")), pkiFile(name + QStringLiteral(".pem"))))
            qFatal("Development signer %s unusable: %s", qPrintable(name), qPrintable(signer.errorString()));
    const QByteArray cms = signer.sign(content);
    if (cms.isEmpty())
        qFatal("Signing failed: %s", qPrintable(signer.errorString()));
    return cms;
}

QString TestRequests::signedXml(const QByteArray& xml, const QString& signer)
{
    return QString::fromLatin1(signedCms(xml, {signer}).toBase64());
}

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
    return signedXml(xml(name, nonce, replacements));
}

QString TestRequests::refusal(const std::function<void()>& step)
{
    try {
        step();
    } catch (const AppException& exception) {
        return exception.getMessage();
    }
    return {};
}
