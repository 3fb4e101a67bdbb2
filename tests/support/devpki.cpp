#include "devpki.h"

#include "requestsigner.h"

#include <QDir>
#include <QFileInfo>

bool DevPki::isAvailable() { return QFileInfo(file(QStringLiteral("complete"))).isFile(); }

QString DevPki::file(const QString& name) { return QDir(QStringLiteral(SCRIVA_DEV_PKI_DIR)).filePath(name); }

QByteArray DevPki::signedCms(const QByteArray& content, const QStringList& signers, bool detached)
{
    RequestSigner signer;
    signer.setDetached(detached);
    for (const QString& name : signers)
        if (!signer.addSigner(file(name + QStringLiteral(".key")), file(name + QStringLiteral(".pem"))))
            qFatal("Development signer %s unusable: %s", qPrintable(name), qPrintable(signer.errorString()));
    const QByteArray cms = signer.sign(content);
    if (cms.isEmpty())
        qFatal("Signing failed: %s", qPrintable(signer.errorString()));
    return cms;
}

QString DevPki::signedArgument(const QByteArray& content, const QString& signer)
{
    return QString::fromLatin1(signedCms(content, {signer}).toBase64());
}
