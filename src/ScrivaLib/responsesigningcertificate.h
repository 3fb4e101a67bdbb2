#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QSslCertificate>
#include <QString>

// A server signing certificate with its revocation data (an OCSP response or a CRL), as the
// web application hands it over in the "ResponseSigningCertificate" property.
class ResponseSigningCertificate
{
public:
    enum class RevocationType { OCSP, CRL };

    void deserialize(const QJsonObject& object);
    bool isNull() const;
    QString toString() const;

    const QSslCertificate& getCertificate() const { return certificate; }
    RevocationType getRevocationType() const { return revocationType; }
    const QByteArray& getRevocationData() const { return revocationData; }

private:
    QSslCertificate certificate;
    RevocationType revocationType = RevocationType::OCSP;
    QByteArray revocationData;
};
