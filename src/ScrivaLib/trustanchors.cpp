#include "trustanchors.h"

#include "ownedresource.h"

#include <scrivatrustanchorsdata.h>

#include <openssl/bio.h>
#include <openssl/x509.h>

TrustAnchors::TrustAnchors(const QList<QByteArray>& chainPemTexts, const QString& policyOid)
    : serverPolicyOid(policyOid)
{
    for (const QByteArray& pem : chainPemTexts) {
        QList<X509Certificate2Ultra> chain;
        for (const QSslCertificate& certificate : QSslCertificate::fromData(pem, QSsl::Pem))
            chain << X509Certificate2Ultra(certificate);
        const QString label = chain.isEmpty() ? QString() : oneLineSubject(chain.last());
        labelledChains << LabelledChain(label, chain);
    }
}

const TrustAnchors& TrustAnchors::builtIn()
{
    static const TrustAnchors anchors({QByteArray(ScrivaTrustAnchorData::chain1Pem),
                                       QByteArray(ScrivaTrustAnchorData::chain2Pem)},
                                      QString::fromLatin1(ScrivaTrustAnchorData::serverPolicyOid));
    return anchors;
}

QString TrustAnchors::oneLineSubject(const X509Certificate2Ultra& certificate)
{
    const Owned<X509, X509_free> x509(certificate.toX509());
    const Owned<BIO, BIO_free> bio(BIO_new(BIO_s_mem()));
    if (!x509 || !bio)
        return QString();
    // The one-line form, but with non-ASCII characters kept as UTF-8 rather than escaped.
    const unsigned long flags = (XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB) | ASN1_STRFLGS_UTF8_CONVERT;
    if (X509_NAME_print_ex(bio.get(), X509_get_subject_name(x509.get()), 0, flags) < 0)
        return QString();
    BUF_MEM* text = nullptr;
    BIO_get_mem_ptr(bio.get(), &text);
    return text ? QString::fromUtf8(text->data, static_cast<qsizetype>(text->length)) : QString();
}
