#include "requestsigner.h"

#include <QFile>

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <climits>

namespace {
using OwnedBio = Owned<BIO, BIO_free>;

OwnedBio memoryBio(const QByteArray& bytes)
{
    return OwnedBio(bytes.size() > INT_MAX ? nullptr
                                           : BIO_new_mem_buf(bytes.constData(), static_cast<int>(bytes.size())));
}

QByteArray readFile(const QString& path, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return QByteArray();
    }
    return file.readAll();
}
} // namespace

bool RequestSigner::fail(const QString& what)
{
    lastError = what;
    char text[256];
    while (const unsigned long code = ERR_get_error()) {
        ERR_error_string_n(code, text, sizeof text);
        lastError += QStringLiteral("\n  ") + QString::fromUtf8(text);
    }
    return false;
}

bool RequestSigner::addSigner(const QString& keyFile, const QString& certificateFile)
{
    QString error;
    const QByteArray key = readFile(keyFile, &error);
    const QByteArray certificate = error.isEmpty() ? readFile(certificateFile, &error) : QByteArray();
    if (!error.isEmpty())
        return fail(error);
    return addSignerPem(key, certificate);
}

bool RequestSigner::addSignerPem(const QByteArray& keyPem, const QByteArray& certificatePem)
{
    const OwnedBio keyBio = memoryBio(keyPem);
    Owned<EVP_PKEY, EVP_PKEY_free> key(keyBio ? PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr)
                                              : nullptr);
    if (!key)
        return fail(QStringLiteral("cannot read the private key (PEM)"));
    const OwnedBio certificateBio = memoryBio(certificatePem);
    Owned<X509, X509_free> certificate(
        certificateBio ? PEM_read_bio_X509(certificateBio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!certificate)
        return fail(QStringLiteral("cannot read the certificate (PEM)"));
    if (X509_check_private_key(certificate.get(), key.get()) != 1)
        return fail(QStringLiteral("the private key does not belong to the certificate"));
    keys.push_back(std::move(key));
    certificates.push_back(std::move(certificate));
    return true;
}

QByteArray RequestSigner::sign(const QByteArray& content)
{
    if (keys.empty()) {
        fail(QStringLiteral("no signer given"));
        return QByteArray();
    }
    // Binary: the document is signed byte for byte, never canonicalised as text.
    const unsigned int flags = CMS_BINARY | CMS_PARTIAL | (detachedContent ? CMS_DETACHED : 0u);
    const Owned<CMS_ContentInfo, CMS_ContentInfo_free> cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
    if (!cms) {
        fail(QStringLiteral("cannot create the CMS structure"));
        return QByteArray();
    }
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (!CMS_add1_signer(cms.get(), certificates[i].get(), keys[i].get(), nullptr, 0)) {
            fail(QStringLiteral("cannot add signer %1").arg(i + 1));
            return QByteArray();
        }
    }
    const OwnedBio input = memoryBio(content);
    if (!input || CMS_final(cms.get(), input.get(), nullptr, flags) != 1) {
        fail(QStringLiteral("cannot sign the content"));
        return QByteArray();
    }

    const OwnedBio output(BIO_new(BIO_s_mem()));
    if (!output || i2d_CMS_bio(output.get(), cms.get()) != 1) {
        fail(QStringLiteral("cannot encode the CMS structure"));
        return QByteArray();
    }
    BUF_MEM* bytes = nullptr;
    BIO_get_mem_ptr(output.get(), &bytes);
    return bytes ? QByteArray(bytes->data, static_cast<qsizetype>(bytes->length)) : QByteArray();
}

QString RequestSigner::signToArgument(const QByteArray& content)
{
    const QByteArray der = sign(content);
    return der.isEmpty() ? QString() : QString::fromLatin1(der.toBase64());
}
