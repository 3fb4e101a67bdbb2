#include "ownedresource.h"
#include "pkcs11/pkcs10request.h"
#include "testrequests.h"

#include <QCryptographicHash>
#include <QTest>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstdlib>

namespace {

// OpenSSL's allocations, counted; the one numbered failAt fails as when memory runs out.
long allocations = 0;
long failAt = 0;
void* countedMalloc(size_t size, const char*, int) { return ++allocations == failAt ? nullptr : std::malloc(size); }
void* countedRealloc(void* p, size_t size, const char*, int) { return ++allocations == failAt ? nullptr : std::realloc(p, size); }
void countedFree(void* p, const char*, int) { std::free(p); }
// Before OpenSSL's first allocation.
const bool counting = CRYPTO_set_mem_functions(countedMalloc, countedRealloc, countedFree);

const auto refusal = &TestRequests::refusal;

QByteArray number(const EVP_PKEY* key, const char* name)
{
    BIGNUM* value = nullptr;
    EVP_PKEY_get_bn_param(key, name, &value);
    const Owned<BIGNUM, BN_free> owner(value);
    QByteArray bytes(BN_num_bytes(value), Qt::Uninitialized);
    BN_bn2bin(value, reinterpret_cast<unsigned char*>(bytes.data()));
    return bytes;
}

// Every part of the request but the signature: the key's modulus and exponent 65537, CN=Test, KovData "kv", provider "A".
void prepare(Pkcs10Request& builder, const QByteArray& modulus)
{
    builder.setRsaPublicKey(modulus, QByteArray::fromHex("010001"));
    builder.setSubject(QStringLiteral("300f310d300b06035504030c0454657374"));
    builder.setKovDataAttibute(QByteArray::fromHex("0c026b76"));
    builder.setEnrollmentCspProviderAttribute(QStringLiteral("A"));
}

} // namespace

// The certification request builder: a request the token's raw PKCS#1 signature completes, its
// attribute encoding and what it refuses.
class TestPkcs10Request : public QObject
{
    Q_OBJECT

    Owned<EVP_PKEY, EVP_PKEY_free> key{EVP_RSA_gen(2048)};

private slots:
    // With SHA-256; the manager tests have the token sign and OpenSSL verify all four digests.
    void completesARequestThatVerifies()
    {
        Pkcs10Request builder;
        prepare(builder, number(key.get(), "n"));
        const QByteArray info = builder.getDerEncodedCertificationRequestInfo();
        // Version 0, then the subject; [0] { KovData: OID 1.2.203.7064.1.1.12.20180406, SET { UTF8String "kv" },
        //       EnrollmentCspProvider: OID 1.3.6.1.4.1.311.13.2.2, SET { SEQUENCE { INTEGER 1, BMPString "A", BIT STRING } } }
        QVERIFY(info.contains(QByteArray::fromHex("020100300f310d300b06035504030c0454657374")));
        QVERIFY(info.contains(QByteArray::fromHex("a0323014060c2a814bb71801010c89cfdb3631040c026b76301a060a2b0601040182370d"
                                                  "0202310c300a0201011e020041030100")));

        // What the token does with CKM_RSA_PKCS: a raw PKCS#1 v1.5 signature of the DigestInfo.
        const QByteArray digestInfo =
            Pkcs10Request::createPkcs1DigestInfo(QCryptographicHash::hash(info, QCryptographicHash::Sha256), CKM_SHA256);
        const Owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free> context(EVP_PKEY_CTX_new(key.get(), nullptr));
        QVERIFY(EVP_PKEY_sign_init(context.get()) == 1 && EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1);
        size_t length = 256;
        QByteArray signature(int(length), Qt::Uninitialized);
        QVERIFY(EVP_PKEY_sign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                              reinterpret_cast<const unsigned char*>(digestInfo.constData()), size_t(digestInfo.size())) == 1);
        builder.setSignature(signature, CKM_SHA256, CKM_RSA_PKCS);

        const QByteArray pem = builder.getPemEncodedRequest();
        QVERIFY(pem.startsWith("-----BEGIN CERTIFICATE REQUEST-----\n") && pem.endsWith("-----END CERTIFICATE REQUEST-----\n"));
        const Owned<BIO, BIO_free> bio(BIO_new_mem_buf(pem.constData(), int(pem.size())));
        const Owned<X509_REQ, X509_REQ_free> request(PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr));
        QVERIFY(request);
        QCOMPARE(X509_REQ_verify(request.get(), key.get()), 1);
        QCOMPARE(X509_REQ_get_signature_nid(request.get()), NID_sha256WithRSAEncryption);
    }

    void refusesWhatItCannotBuild()
    {
        Pkcs10Request builder;
        for (const char* subject : {"30zz", "300"})
            QCOMPARE(refusal([&] { builder.setSubject(subject); }), QStringLiteral("Unable to HEX decode subject"));
        for (const char* subject : {"", "0401aa", "3000ff"})
            QCOMPARE(refusal([&] { builder.setSubject(subject); }), QStringLiteral("Unable to DER decode subject"));
        QCOMPARE(refusal([&] { builder.setSignature("x", CKM_SHA224, CKM_RSA_PKCS); }), "Digesting mechanism 597 is not supported");
        QCOMPARE(refusal([&] { builder.setSignature("x", CKM_SHA256, CKM_ECDSA); }), "Signing mechanism 4161 is not supported");

        // Each part in its turn, and only once; a refused attempt sets nothing.
        QCOMPARE(refusal([&] { builder.getDerEncodedCertificationRequestInfo(); }), QStringLiteral("EVP_PKEY is not set"));
        builder.setRsaPublicKey(number(key.get(), "n"), number(key.get(), "e"));
        QCOMPARE(refusal([&] { builder.setRsaPublicKey("\1", "\3"); }), QStringLiteral("EVP_PKEY is already set"));
        QCOMPARE(refusal([&] { builder.getDerEncodedCertificationRequestInfo(); }), QStringLiteral("X509_NAME is not set"));
        builder.setSubject(QStringLiteral("3000"));
        QCOMPARE(refusal([&] { builder.setSubject(QStringLiteral("3000")); }), QStringLiteral("X509_NAME is already set"));
        builder.setKovDataAttibute(QByteArray::fromHex("3000"));
        QCOMPARE(refusal([&] { builder.setKovDataAttibute("\x30"); }), "X509_ATTRIBUTE is already set for KovData attribute");
        builder.setEnrollmentCspProviderAttribute(QStringLiteral("A"));
        QCOMPARE(refusal([&] { builder.setEnrollmentCspProviderAttribute("B"); }), "X509_ATTRIBUTE is already set for EnrollmentCspProvider attribute");
        QCOMPARE(refusal([&] { builder.getPemEncodedRequest(); }), QStringLiteral("X509_REQ is not set"));
        QVERIFY(!builder.getDerEncodedCertificationRequestInfo().isEmpty());
        QCOMPARE(refusal([&] { builder.getDerEncodedCertificationRequestInfo(); }), QStringLiteral("X509_REQ is already set"));
    }

    // Out of memory at each of OpenSSL's allocations in turn: each step that cannot go on fails with
    // its own message (tests/data/pkcs10-outofmemory.txt lists them in the order they are met).
    void failsWithItsMessageWhenMemoryRunsOut()
    {
        QVERIFY(counting);
        const QByteArray modulus = number(key.get(), "n");
        const auto build = [&] {
            Pkcs10Request builder;
            prepare(builder, modulus);
            builder.getDerEncodedCertificationRequestInfo();
            builder.setSignature(QByteArray(256, '\x5a'), CKM_SHA256, CKM_RSA_PKCS);
            builder.getPemEncodedRequest();
        };
        build(); // OpenSSL sets itself up on first use
        QStringList messages;
        for (failAt = 1;; ++failAt) {
            allocations = 0;
            const QString failure = refusal(build);
            if (allocations < failAt)
                break;
            if (!failure.isEmpty() && !messages.contains(failure))
                messages.append(failure);
        }
        failAt = 0;
        QFile expected(QStringLiteral(SCRIVA_TEST_DATA_DIR "/pkcs10-outofmemory.txt"));
        QVERIFY(expected.open(QIODevice::ReadOnly | QIODevice::Text));
        QCOMPARE(messages, QString::fromUtf8(expected.readAll()).split('\n', Qt::SkipEmptyParts));
    }
};

QTEST_GUILESS_MAIN(TestPkcs10Request)
#include "tst_pkcs10request.moc"
