#include "x509certificate2ultra.h"

#include "ownedresource.h"

#include <openssl/x509.h>

namespace {
void freeOpenSslBuffer(unsigned char* p) { OPENSSL_free(p); }
} // namespace

X509Certificate2Ultra::X509Certificate2Ultra(const QSslCertificate& other) : QSslCertificate(other) {}

X509Certificate2Ultra::X509Certificate2Ultra(X509* certificate)
{
    if (!certificate)
        return;
    unsigned char* der = nullptr;
    const int length = i2d_X509(certificate, &der);
    if (length <= 0)
        return;
    const Owned<unsigned char, freeOpenSslBuffer> owner(der);
    QSslCertificate::operator=(QSslCertificate(QByteArray(reinterpret_cast<const char*>(der), length), QSsl::Der));
}

X509Certificate2Ultra::X509Certificate2Ultra(const QByteArray& data, QSsl::EncodingFormat format)
    : QSslCertificate(data, format)
{
}

QString X509Certificate2Ultra::toString() const
{
    return isNull() ? QString() : QString::fromLatin1(toPem());
}
