#include "x509certificate2ultra.h"

#include "appexception.h"
#include "ownedresource.h"

#include <QCryptographicHash>
#include <QDateTime>

#include <openssl/bio.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <QMutex>
#include <QMutexLocker>

#include <algorithm>
#include <climits>
#include <ctime>
#include <deque>
#include <limits>
#include <mutex>
#include <utility>
#include <vector>

namespace {
void freeOpenSslBuffer(unsigned char* p) { OPENSSL_free(p); }
void freeCertificateStack(STACK_OF(X509)* stack) { sk_X509_pop_free(stack, X509_free); }

using OwnedX509 = Owned<X509, X509_free>;
using OwnedX509Stack = Owned<STACK_OF(X509), freeCertificateStack>;
using OwnedPolicies = Owned<CERTIFICATEPOLICIES, CERTIFICATEPOLICIES_free>;

// Error words are the exception's message; `detail` explains the failure in the log.
AppException wordWithDetail(const QString& word, const QString& detail, const char* function, int line)
{
    const AppException cause(detail, QStringLiteral(__FILE__), line, QString::fromUtf8(function),
                             AppException::generalExceptionMessage());
    return AppException(word, QStringLiteral(__FILE__), line, QString::fromUtf8(function),
                        AppException::generalExceptionMessage(), cause);
}
} // namespace

struct X509Certificate2Ultra::Decoded
{
    std::once_flag once;
    OwnedX509 certificate;

    // The last path found for this certificate: the chain it was found in (root first, held so
    // that no other certificate can take its place in memory), and the span of time (seconds
    // since the epoch) in which every certificate of that path is valid. Within that span the
    // same inputs give the same path, so its signatures need not be checked again.
    std::mutex pathMutex;
    std::vector<OwnedX509> pathChain;
    time_t pathFrom = 0;
    time_t pathUntil = 0;
};

namespace {

// The chain as given to the path validation: its root, then its intermediates.
std::vector<X509*> chainOf(X509* root, STACK_OF(X509)* intermediates)
{
    std::vector<X509*> chain{root};
    for (int i = 0; i < sk_X509_num(intermediates); ++i)
        chain.push_back(sk_X509_value(intermediates, i));
    return chain;
}

bool sameChain(const std::vector<OwnedX509>& held, const std::vector<X509*>& chain)
{
    return std::equal(held.cbegin(), held.cend(), chain.cbegin(), chain.cend(),
                      [](const OwnedX509& a, X509* b) { return a.get() == b; });
}

// Seconds since the epoch of a certificate time; false when it cannot be read.
bool secondsOf(const ASN1_TIME* time, time_t* seconds)
{
    tm parts{};
    if (!time || ASN1_TIME_to_tm(time, &parts) != 1)
        return false;
    *seconds = timegm(&parts);
    return true;
}

} // namespace

X509Certificate2Ultra::X509Certificate2Ultra(const QSslCertificate& other)
    : QSslCertificate(other), decoded(std::make_shared<Decoded>())
{
}

X509Certificate2Ultra::X509Certificate2Ultra(X509* certificate) : decoded(std::make_shared<Decoded>())
{
    if (!certificate)
        return;
    unsigned char* der = nullptr;
    const int length = i2d_X509(certificate, &der);
    const Owned<unsigned char, freeOpenSslBuffer> owner(der);
    const QByteArray bytes = length > 0 ? QByteArray(reinterpret_cast<const char*>(der), length) : QByteArray();

    // A server signs request after request with the same certificate, and building the toolkit's
    // certificate decodes it twice more, public key included: the dearest step of opening a request.
    // The last few certificates seen are kept by their bytes; equal bytes are the same certificate.
    static QMutex recentMutex;
    static std::deque<std::pair<QByteArray, X509Certificate2Ultra>> recent;
    constexpr size_t recentLimit = 4;
    if (!bytes.isEmpty()) {
        QMutexLocker locker(&recentMutex);
        for (const auto& [recentDer, recentCertificate] : recent) {
            if (recentDer == bytes) {
                *this = recentCertificate;
                return;
            }
        }
    }

    // Already decoded: keep a reference instead of decoding the DER again later.
    X509_up_ref(certificate);
    OwnedX509 reference(certificate);
    std::call_once(decoded->once, [&] { decoded->certificate = std::move(reference); });
    if (bytes.isEmpty())
        return;
    QSslCertificate::operator=(QSslCertificate(bytes, QSsl::Der));
    if (isNull())
        return;
    QMutexLocker locker(&recentMutex);
    recent.emplace_front(bytes, *this);
    if (recent.size() > recentLimit)
        recent.pop_back();
}

X509Certificate2Ultra::X509Certificate2Ultra(const QByteArray& data, QSsl::EncodingFormat format)
    : QSslCertificate(data, format), decoded(std::make_shared<Decoded>())
{
}

X509* X509Certificate2Ultra::toX509() const
{
    if (isNull() || !decoded)
        return nullptr;
    std::call_once(decoded->once, [this] {
        const QByteArray der = toDer();
        if (der.isEmpty() || der.size() > INT_MAX)
            return;
        const Owned<BIO, BIO_free> bio(BIO_new_mem_buf(der.constData(), static_cast<int>(der.size())));
        if (bio)
            decoded->certificate.reset(d2i_X509_bio(bio.get(), nullptr));
    });
    X509* certificate = decoded->certificate.get();
    if (certificate)
        X509_up_ref(certificate);
    return certificate;
}

QString X509Certificate2Ultra::readOid(ASN1_OBJECT* object)
{
    char buffer[2048] = {};
    if (OBJ_obj2txt(buffer, sizeof buffer, object, 1) < 0)
        throw APP_EXCEPTION(QStringLiteral("Unable to convert OID to string"));
    return QString::fromLatin1(buffer);
}

void X509Certificate2Ultra::verifyIssuer(const QList<X509Certificate2Ultra>& chain) const
{
    qDebug().noquote() << Q_FUNC_INFO;
    const OwnedX509 certificate(toX509());
    const OwnedX509 root(chain.isEmpty() ? nullptr : chain.first().toX509());

    OwnedX509Stack intermediates;
    if (chain.size() > 1) {
        intermediates.reset(sk_X509_new_null());
        if (!intermediates)
            throw APP_EXCEPTION(QStringLiteral("Unable create stack of intermediate certificates"));
        for (qsizetype i = 1; i < chain.size(); ++i) {
            OwnedX509 intermediate(chain.at(i).toX509());
            if (!intermediate || !sk_X509_push(intermediates.get(), intermediate.get()))
                throw APP_EXCEPTION(QStringLiteral("Unable to add issuer to stack of intermediate certificates"));
            intermediate.release(); // the stack owns it now
        }
    }

    if (!certificate || !root)
        throw AppException(QStringLiteral("InvalidCertificate"), QStringLiteral(__FILE__), __LINE__,
                           QString::fromUtf8(Q_FUNC_INFO), AppException::generalExceptionMessage());

    const std::vector<X509*> chainGiven = chainOf(root.get(), intermediates.get());
    const time_t now = time(nullptr);
    {
        const std::lock_guard<std::mutex> locker(decoded->pathMutex);
        // Strictly inside the span: the validity checks compare whole seconds.
        if (sameChain(decoded->pathChain, chainGiven) && decoded->pathFrom < now && now < decoded->pathUntil)
            return;
    }

    const Owned<X509_STORE, X509_STORE_free> store(X509_STORE_new());
    if (!store)
        throw APP_EXCEPTION(QStringLiteral("Unable create store for root certificates"));
    if (X509_STORE_add_cert(store.get(), root.get()) != 1)
        throw APP_EXCEPTION(QStringLiteral("Unable to add root certificate to the store"));

    const Owned<X509_STORE_CTX, X509_STORE_CTX_free> context(X509_STORE_CTX_new());
    if (!context)
        throw APP_EXCEPTION(QStringLiteral("Unable to create context for root store"));
    if (X509_STORE_CTX_init(context.get(), store.get(), certificate.get(), intermediates.get()) != 1)
        throw APP_EXCEPTION(QStringLiteral("Unable to intialize context for root store"));

    if (X509_verify_cert(context.get()) != 1) {
        const int error = X509_STORE_CTX_get_error(context.get());
        throw wordWithDetail(QStringLiteral("IssuerInvalid"),
                             QStringLiteral("Path validation failed: %1 (%2) at depth %3")
                                 .arg(QString::fromUtf8(X509_verify_cert_error_string(error)))
                                 .arg(error)
                                 .arg(X509_STORE_CTX_get_error_depth(context.get())),
                             Q_FUNC_INFO, __LINE__);
    }

    time_t from = std::numeric_limits<time_t>::min();
    time_t until = std::numeric_limits<time_t>::max();
    STACK_OF(X509)* path = X509_STORE_CTX_get0_chain(context.get());
    for (int i = 0; i < sk_X509_num(path); ++i) {
        time_t notBefore = 0;
        time_t notAfter = 0;
        X509* member = sk_X509_value(path, i);
        if (!secondsOf(X509_get0_notBefore(member), &notBefore) || !secondsOf(X509_get0_notAfter(member), &notAfter))
            return;
        from = std::max(from, notBefore);
        until = std::min(until, notAfter);
    }
    std::vector<OwnedX509> held;
    for (X509* member : chainGiven) {
        X509_up_ref(member);
        held.emplace_back(member);
    }
    const std::lock_guard<std::mutex> locker(decoded->pathMutex);
    decoded->pathChain = std::move(held);
    decoded->pathFrom = from;
    decoded->pathUntil = until;
}

void X509Certificate2Ultra::verifyCustomPolicy(const QString& oid) const
{
    qDebug().noquote() << Q_FUNC_INFO;
    const OwnedX509 certificate(toX509());
    if (!certificate)
        throw APP_EXCEPTION(QStringLiteral("Unable to load X509 certificate"));

    const int index = X509_get_ext_by_NID(certificate.get(), NID_certificate_policies, -1);
    if (index < 0)
        throw APP_EXCEPTION(QStringLiteral("Certificate does not contain 509v3 Certificate Policies extension"));
    X509_EXTENSION* extension = X509_get_ext(certificate.get(), index);
    if (!extension)
        throw APP_EXCEPTION(QStringLiteral("Unable to get 509v3 Certificate Policies extension"));
    const ASN1_OCTET_STRING* content = X509_EXTENSION_get_data(extension);
    if (!content || ASN1_STRING_length(content) <= 0)
        throw APP_EXCEPTION(QStringLiteral("Unable to get content of 509v3 Certificate Policies extension"));

    const unsigned char* bytes = ASN1_STRING_get0_data(content);
    const OwnedPolicies policies(d2i_CERTIFICATEPOLICIES(nullptr, &bytes, ASN1_STRING_length(content)));
    if (!policies)
        throw APP_EXCEPTION(QStringLiteral("Unable to parse 509v3 Certificate Policies extension"));

    QStringList listed;
    for (int i = 0; i < sk_POLICYINFO_num(policies.get()); ++i) {
        const QString policy = readOid(sk_POLICYINFO_value(policies.get(), i)->policyid);
        if (policy == oid) // equal length and case-sensitive, as QString compares
            return;
        listed << policy;
    }
    throw wordWithDetail(QStringLiteral("ResponseCertPolicyMissing"),
                         QStringLiteral("Policy %1 is not among the listed policies: %2")
                             .arg(oid, listed.join(QStringLiteral(", "))),
                         Q_FUNC_INFO, __LINE__);
}

bool X509Certificate2Ultra::isValidByTime() const
{
    if (isNull())
        return false;
    // Certificates state their dates in whole seconds, so the current time is taken in whole
    // seconds too: a certificate that becomes effective in the current second is not yet valid.
    const QDateTime now = QDateTime::fromSecsSinceEpoch(QDateTime::currentSecsSinceEpoch(), Qt::UTC);
    return effectiveDate().toUTC() < now && now < expiryDate().toUTC();
}

QString X509Certificate2Ultra::toString() const
{
    return isNull() ? QString() : QString::fromLatin1(toPem());
}

bool X509Certificate2Ultra::operator==(const X509Certificate2Ultra& other) const
{
    return digest(QCryptographicHash::Sha256) == other.digest(QCryptographicHash::Sha256);
}
