#pragma once

#include <QByteArray>
#include <QSsl>
#include <QSslCertificate>

typedef struct x509_st X509;

// The program's certificate value type: a QSslCertificate plus the checks the server-trust
// path needs, done with OpenSSL.
class X509Certificate2Ultra : public QSslCertificate
{
public:
    X509Certificate2Ultra() = default;
    explicit X509Certificate2Ultra(const QSslCertificate& other);
    explicit X509Certificate2Ultra(X509* certificate);
    X509Certificate2Ultra(const QByteArray& data, QSsl::EncodingFormat format);

    // The PEM text, empty for a null certificate.
    QString toString() const;
};
