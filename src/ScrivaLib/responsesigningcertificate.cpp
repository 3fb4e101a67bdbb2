#include "responsesigningcertificate.h"

#include "appexception.h"

void ResponseSigningCertificate::deserialize(const QJsonObject& object)
{
    const QJsonValue certificateValue = object.value(QStringLiteral("Certificate"));
    if (!certificateValue.isString())
        throw APP_EXCEPTION(QStringLiteral("JSON node %1 is missing or has invalid value").arg(QStringLiteral("Certificate")));

    const QString pem = QStringLiteral("-----BEGIN CERTIFICATE-----\n") + certificateValue.toString()
                        + QStringLiteral("\n-----END CERTIFICATE-----");
    QSslCertificate loaded(pem.toLatin1(), QSsl::Pem);
    if (loaded.isNull())
        throw APP_EXCEPTION(QStringLiteral("JSON node %1 has invalid value").arg(QStringLiteral("Certificate")));

    const QJsonValue ocsp = object.value(QStringLiteral("OcspResponse"));
    const QJsonValue crl = object.value(QStringLiteral("Crl"));
    if (ocsp.isString()) {
        revocationType = RevocationType::OCSP;
        revocationData = QByteArray::fromBase64(ocsp.toString().toLatin1());
    } else if (crl.isString()) {
        revocationType = RevocationType::CRL;
        revocationData = QByteArray::fromBase64(crl.toString().toLatin1());
    } else {
        // The names in this text differ from the JSON keys on purpose.
        throw APP_EXCEPTION(QStringLiteral("JSON nodes %1 and %2 are missing or have invalid value")
                                .arg(QStringLiteral("CRL"), QStringLiteral("OCSP Response")));
    }
    certificate = loaded;
}

bool ResponseSigningCertificate::isNull() const
{
    return certificate.isNull() || revocationData.isEmpty();
}

QString ResponseSigningCertificate::toString() const
{
    return QStringLiteral("Cert:") + QString::fromLatin1(certificate.toPem()) + QStringLiteral("\nRevocation type:")
           + (revocationType == RevocationType::OCSP ? QStringLiteral("OCSP") : QStringLiteral("CRL"))
           + QStringLiteral("\nRevocation data:") + QString::fromLatin1(revocationData.toBase64());
}
