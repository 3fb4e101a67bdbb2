#include "responsecryptoprocessor.h"

#include "appexception.h"
#include "loghandler.h"
#include "ownedresource.h"
#include "trustanchors.h"

#include <QDateTime>
#include <QDebug>

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <climits>

namespace {
// The stack of CMS_get0_signers does not own its certificates.
void freeSignerStack(STACK_OF(X509)* stack) { sk_X509_free(stack); }

// The deepest cause says what a check found wrong.
QString innermostMessage(const AppException& e)
{
    return e.getCause() ? innermostMessage(*e.getCause()) : e.getMessage();
}

QString utcText(const QDateTime& time)
{
    return time.toUTC().toString(QStringLiteral("dd.MM.yyyy::HH:mm"));
}
} // namespace

ResponseCryptoProcessor::ResponseCryptoProcessor()
    : trustedChains(TrustAnchors::builtIn().chains()), policyOid(TrustAnchors::builtIn().policyOid())
{
}

void ResponseCryptoProcessor::processBase64CmsSignedData(const QString& text)
{
    qDebug().noquote() << Q_FUNC_INFO;
    processCmsSignedData(QByteArray::fromBase64(text.toLatin1()));
    verifyServerCertificate();
}

void ResponseCryptoProcessor::processCmsSignedData(const QByteArray& der)
{
    qDebug().noquote() << Q_FUNC_INFO;
    // Earlier failures on this thread must not end up in the messages below.
    ERR_clear_error();
    try {
        if (der.size() > INT_MAX)
            throw APP_EXCEPTION(QStringLiteral("Unable to load CMS to BIO: %1").arg(QStringLiteral("too large")));
        const Owned<BIO, BIO_free> bio(BIO_new_mem_buf(der.constData(), static_cast<int>(der.size())));
        if (!bio)
            throw APP_EXCEPTION(QStringLiteral("Unable to load CMS to BIO: %1").arg(getOpenSslErrors()));

        const Owned<CMS_ContentInfo, CMS_ContentInfo_free> cms(d2i_CMS_bio(bio.get(), nullptr));
        if (!cms)
            throw APP_EXCEPTION(QStringLiteral("Unable to parse CMS: %1").arg(getOpenSslErrors()));

        ASN1_OCTET_STRING** content = CMS_get0_content(cms.get());
        if (!content || !*content)
            throw APP_EXCEPTION(QStringLiteral("Unable to get CMS content: %1").arg(getOpenSslErrors()));
        cmsContent = QString::fromUtf8(reinterpret_cast<const char*>(ASN1_STRING_get0_data(*content)),
                                       ASN1_STRING_length(*content));
        if (!LogHandler::dropsLines())
            qDebug().noquote() << QStringLiteral("CMS content: ") + LogHandler::escaped(cmsContent);

        serverCertificate = verifyCmsSignature(cms.get());
        if (!LogHandler::dropsLines())
            qDebug().noquote() << QStringLiteral("Server certificate: ") + LogHandler::escaped(serverCertificate.toString());
    } catch (const AppException& e) {
        qWarning().noquote() << "CMS processing error:" << e.toString(true);
        throw AppException(e);
    }
}

X509Certificate2Ultra ResponseCryptoProcessor::verifyCmsSignature(CMS_ContentInfo* cms)
{
    qDebug().noquote() << Q_FUNC_INFO;
    const Owned<X509_STORE, X509_STORE_free> store(X509_STORE_new());
    if (!store)
        throw APP_EXCEPTION(QStringLiteral("Unable create store for root certificates"));

    // Only the signature over the content is checked here; the signer's chain is checked by
    // verifyServerCertificate against the built-in anchors.
    if (CMS_verify(cms, nullptr, store.get(), nullptr, nullptr, CMS_NO_SIGNER_CERT_VERIFY) != 1)
        throw APP_EXCEPTION(QStringLiteral("CMS signature is not valid: %1").arg(getOpenSslErrors()));

    const Owned<STACK_OF(X509), freeSignerStack> signers(CMS_get0_signers(cms));
    if (!signers || sk_X509_num(signers.get()) <= 0)
        throw APP_EXCEPTION(QStringLiteral("CMS does not contain signing certificates: %1").arg(getOpenSslErrors()));
    if (sk_X509_num(signers.get()) != 1)
        throw APP_EXCEPTION(QStringLiteral("CMS does not contain exactly one signing certificate"));

    X509* signer = sk_X509_pop(signers.get());
    if (!signer)
        throw APP_EXCEPTION(QStringLiteral("Unable to extract signing certificate from CMS"));
    const X509Certificate2Ultra certificate(signer);
    if (certificate.isNull())
        throw APP_EXCEPTION(QStringLiteral("Unable to process signing certificate extracted from CMS"));
    return certificate;
}

void ResponseCryptoProcessor::verifyServerCertificate()
{
    qDebug().noquote() << Q_FUNC_INFO;
    // Every check runs before the verdict, so the log tells all that is wrong with a signer.
    issuerChain.clear();
    QList<QPair<QString, QString>> misses; // an anchor's label, what its checks found
    QString acceptedBy;
    QString policyFailure;
    for (const TrustAnchors::LabelledChain& anchor : std::as_const(trustedChains)) {
        bool issued = false;
        try {
            serverCertificate.verifyIssuer(anchor.second);
            issued = true;
            serverCertificate.verifyCustomPolicy(policyOid);
            issuerChain = anchor.second;
            acceptedBy = anchor.first;
            break;
        } catch (const AppException& e) {
            misses.append({anchor.first, e.toString(false)});
            if (issued)
                policyFailure = innermostMessage(e);
        }
    }
    const bool validByTime = serverCertificate.isValidByTime();
    const bool accepted = !acceptedBy.isEmpty() && validByTime;
    // An anchor that did not issue a signer which another anchor accepts is no failure.
    for (const auto& [label, found] : std::as_const(misses)) {
        if (accepted)
            qDebug().noquote() << "Not the signer's trust anchor: " + label + " : " + found;
        else
            qWarning().noquote() << label + " : " + found;
    }
    if (!validByTime) {
        qWarning().noquote() << "Server certificate is not valid by time criteria."
                             << "Effective from:" << utcText(serverCertificate.effectiveDate()) << "(UTC)."
                             << "Expire on:" << utcText(serverCertificate.expiryDate()) << "(UTC).";
    }

    const QString signer = TrustAnchors::oneLineSubject(serverCertificate);
    if (accepted) {
        qInfo().noquote() << "Signer " + LogHandler::escaped(signer) + " accepted under trust anchor " + acceptedBy;
        return;
    }
    qInfo().noquote() << QStringLiteral("Server certificate: ") + serverCertificate.toString();
    // The page gets the word; the refusal's log line gets the checks that failed and the signer.
    QStringList failed;
    if (acceptedBy.isEmpty())
        failed << (policyFailure.isEmpty() ? QStringLiteral("issuer (no valid path to a trust anchor)")
                                           : QStringLiteral("policy (%1)").arg(policyFailure));
    if (!validByTime)
        failed << QStringLiteral("validity period (%1 to %2 UTC)")
                      .arg(utcText(serverCertificate.effectiveDate()), utcText(serverCertificate.expiryDate()));
    throw APP_EXCEPTION_CAUSED(QStringLiteral("CommunicationMismatchUnstrustedServer"),
                               APP_EXCEPTION(QStringLiteral("failed: %1 - signer %2")
                                                 .arg(failed.join(QStringLiteral(", ")), signer)));
}

QString ResponseCryptoProcessor::getOpenSslErrors()
{
    const Owned<BIO, BIO_free> bio(BIO_new(BIO_s_mem()));
    if (!bio) {
        ERR_clear_error();
        return QString();
    }
    ERR_print_errors(bio.get());
    BUF_MEM* text = nullptr;
    BIO_get_mem_ptr(bio.get(), &text);
    if (!text)
        return QString();
    return QString::fromUtf8(text->data, static_cast<qsizetype>(text->length));
}
