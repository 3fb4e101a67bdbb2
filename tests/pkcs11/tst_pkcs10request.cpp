#include "appexception.h"
#include "ownedresource.h"
#include "pkcs11/pkcs10request.h"
#include "pkcs11testhelpers.h"
#include "softhsmtoken.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <functional>

using namespace Pkcs11TestHelpers;

namespace {

const QByteArray kovData = QByteArray::fromHex("30080c034b4f56020105"); // SEQUENCE { UTF8String, INTEGER }
const QString userPin = QStringLiteral("csr-pin-4711");

// The DER of an X.509 Name with a non-ASCII common name.
QByteArray subjectDer()
{
    Owned<X509_NAME, X509_NAME_free> name(X509_NAME_new());
    X509_NAME_add_entry_by_txt(name.get(), "C", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>("CZ"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name.get(), "O", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>("Corvant"), -1,
                               -1, 0);
    const QByteArray commonName = QStringLiteral("Jan Nov\u00e1k").toUtf8();
    X509_NAME_add_entry_by_txt(name.get(), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(commonName.constData()), -1, -1, 0);
    unsigned char* der = nullptr;
    const int length = i2d_X509_NAME(name.get(), &der);
    const QByteArray result(reinterpret_cast<const char*>(der), length);
    OPENSSL_free(der);
    return result;
}

// The attribute's single value, re-encoded.
QByteArray attributeValue(X509_REQ* request, const char* oid)
{
    Owned<ASN1_OBJECT, ASN1_OBJECT_free> object(OBJ_txt2obj(oid, 1));
    const int index = X509_REQ_get_attr_by_OBJ(request, object.get(), -1);
    if (index < 0)
        return {};
    X509_ATTRIBUTE* attribute = X509_REQ_get_attr(request, index);
    if (X509_ATTRIBUTE_count(attribute) != 1)
        return {};
    ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(attribute, 0);
    unsigned char* der = nullptr;
    const int length = i2d_ASN1_TYPE(value, &der);
    const QByteArray result(reinterpret_cast<const char*>(der), length);
    OPENSSL_free(der);
    return result;
}

QString failureOf(const std::function<void()>& step)
{
    try {
        step();
    } catch (const AppException& e) {
        if (e.getGeneralMessage() != QLatin1String("GeneralExceptionMessage"))
            return QStringLiteral("unexpected general message ") + e.getGeneralMessage();
        return e.getMessage();
    }
    return QString();
}

} // namespace

// Certification requests around a key pair generated on a SoftHSM token (through the test
// module, which also answers the KovData vendor attribute) and signed there.
class TestPkcs10Request : public QObject
{
    Q_OBJECT

    SoftHsmToken store;
    QTemporaryDir work;
    CK_FUNCTION_LIST_PTR module = nullptr;
    CK_SESSION_HANDLE session = 0;
    CK_OBJECT_HANDLE publicKey = 0;
    CK_OBJECT_HANDLE privateKey = 0;
    QByteArray modulus;
    QByteArray exponent;

    QByteArray digestOnToken(CK_MECHANISM_TYPE type, const QByteArray& data)
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        QByteArray input = data;
        QByteArray digest(64, '\0');
        CK_ULONG length = static_cast<CK_ULONG>(digest.size());
        if (module->C_DigestInit(session, &mechanism) != CKR_OK
            || module->C_Digest(session, reinterpret_cast<CK_BYTE_PTR>(input.data()), CK_ULONG(input.size()),
                                reinterpret_cast<CK_BYTE_PTR>(digest.data()), &length)
                   != CKR_OK)
            return {};
        return digest.left(static_cast<int>(length));
    }

    QByteArray signOnToken(const QByteArray& digestInfo)
    {
        CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
        QByteArray input = digestInfo;
        QByteArray signature(512, '\0');
        CK_ULONG length = static_cast<CK_ULONG>(signature.size());
        if (module->C_SignInit(session, &mechanism, privateKey) != CKR_OK
            || module->C_Sign(session, reinterpret_cast<CK_BYTE_PTR>(input.data()), CK_ULONG(input.size()),
                              reinterpret_cast<CK_BYTE_PTR>(signature.data()), &length)
                   != CKR_OK)
            return {};
        return signature.left(static_cast<int>(length));
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(store.isValid(), qPrintable(store.lastError()));
        QVERIFY2(store.initToken(QStringLiteral("Csr Token"), QStringLiteral("csr-so-pin"), userPin),
                 qPrintable(store.lastError()));
        const QString config = work.filePath(QStringLiteral("module.conf"));
        QVERIFY(writeModuleConfig(config, {QStringLiteral("kov_data_hex=") + QString::fromLatin1(kovData.toHex())}));
        qputenv("SCRIVA_TEST_P11_CONFIG", config.toUtf8());

        module = loadFunctionList(SoftHsmToken::testModulePath());
        QVERIFY(module);
        QCOMPARE(module->C_Initialize(nullptr), CKR_OK);
        CK_SLOT_ID slot = 0;
        QVERIFY(findSlotByLabel(module, "Csr Token", &slot));
        QCOMPARE(module->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session), CKR_OK);
        QByteArray pin = userPin.toUtf8();
        QCOMPARE(module->C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()), CK_ULONG(pin.size())),
                 CKR_OK);
        QCOMPARE(generateRsaKeyPair(module, session, 2048, &publicKey, &privateKey), CKR_OK);
        modulus = readAttribute(module, session, publicKey, CKA_MODULUS);
        exponent = readAttribute(module, session, publicKey, CKA_PUBLIC_EXPONENT);
        QCOMPARE(modulus.size(), 256);
    }

    void cleanupTestCase()
    {
        if (module) {
            module->C_CloseSession(session);
            module->C_Finalize(nullptr);
        }
    }

    void requestSignedOnTokenVerifies_data()
    {
        QTest::addColumn<CK_MECHANISM_TYPE>("digest");
        QTest::addColumn<int>("signatureNid");
        QTest::newRow("SHA-1") << CKM_SHA_1 << NID_sha1WithRSAEncryption;
        QTest::newRow("SHA-256") << CKM_SHA256 << NID_sha256WithRSAEncryption;
        QTest::newRow("SHA-384") << CKM_SHA384 << NID_sha384WithRSAEncryption;
        QTest::newRow("SHA-512") << CKM_SHA512 << NID_sha512WithRSAEncryption;
    }

    void requestSignedOnTokenVerifies()
    {
        QFETCH(CK_MECHANISM_TYPE, digest);
        QFETCH(int, signatureNid);
        const QString provider = QStringLiteral("Microsoft Enhanced RSA and AES Cryptographic Provider");

        Pkcs10Request builder;
        builder.setRsaPublicKey(modulus, exponent);
        builder.setSubject(QString::fromLatin1(subjectDer().toHex()));
        const QByteArray kovFromToken = readAttribute(module, session, publicKey, 0x80000007UL);
        QCOMPARE(kovFromToken, kovData);
        builder.setKovDataAttibute(kovFromToken);
        builder.setEnrollmentCspProviderAttribute(provider);
        const QByteArray info = builder.getDerEncodedCertificationRequestInfo();

        const QByteArray hash = digestOnToken(digest, info);
        const QCryptographicHash::Algorithm algorithms[] = {QCryptographicHash::Sha1, QCryptographicHash::Sha256,
                                                            QCryptographicHash::Sha384, QCryptographicHash::Sha512};
        const int row = digest == CKM_SHA_1 ? 0 : digest == CKM_SHA256 ? 1 : digest == CKM_SHA384 ? 2 : 3;
        QCOMPARE(hash, QCryptographicHash::hash(info, algorithms[row]));
        const QByteArray signature = signOnToken(Pkcs10Request::createPkcs1DigestInfo(hash, digest));
        QCOMPARE(signature.size(), 256);
        builder.setSignature(signature, digest, CKM_RSA_PKCS);
        const QByteArray pem = builder.getPemEncodedRequest();
        QVERIFY(pem.startsWith("-----BEGIN CERTIFICATE REQUEST-----\n"));
        QVERIFY(pem.endsWith("-----END CERTIFICATE REQUEST-----\n"));

        // OpenSSL's own tool accepts the self-signature.
        const QString path = work.filePath(QStringLiteral("request.pem"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(pem) == pem.size());
        file.close();
        QProcess openssl;
        openssl.setProcessChannelMode(QProcess::MergedChannels);
        openssl.start(QStringLiteral("openssl"), {QStringLiteral("req"), QStringLiteral("-in"), path,
                                                  QStringLiteral("-verify"), QStringLiteral("-noout")});
        QVERIFY(openssl.waitForFinished(30000));
        QVERIFY2(openssl.exitCode() == 0, openssl.readAll().constData());

        Owned<BIO, BIO_free> bio(BIO_new_mem_buf(pem.constData(), pem.size()));
        Owned<X509_REQ, X509_REQ_free> request(PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr));
        QVERIFY(request);
        QCOMPARE(X509_REQ_get_version(request.get()), 0L);
        QCOMPARE(X509_REQ_get_signature_nid(request.get()), signatureNid);
        BIGNUM* n = nullptr;
        QVERIFY(EVP_PKEY_get_bn_param(X509_REQ_get0_pubkey(request.get()), OSSL_PKEY_PARAM_RSA_N, &n));
        Owned<BIGNUM, BN_free> ownedN(n);
        QByteArray requestModulus(BN_num_bytes(n), '\0');
        BN_bn2bin(n, reinterpret_cast<unsigned char*>(requestModulus.data()));
        QCOMPARE(requestModulus, modulus);

        unsigned char* nameDer = nullptr;
        const int nameLength = i2d_X509_NAME(X509_REQ_get_subject_name(request.get()), &nameDer);
        const QByteArray requestSubject(reinterpret_cast<const char*>(nameDer), nameLength);
        OPENSSL_free(nameDer);
        QCOMPARE(requestSubject, subjectDer());

        QCOMPARE(X509_REQ_get_attr_count(request.get()), 2);
        QCOMPARE(attributeValue(request.get(), Pkcs10Request::kovDataOid), kovData);
        QByteArray bmp;
        for (QChar c : provider)
            bmp += QByteArray(1, char(c.unicode() >> 8)) + QByteArray(1, char(c.unicode() & 0xFF));
        // Short-form lengths: the provider name is below 64 characters.
        const QByteArray content = QByteArray::fromHex("020101") + char(0x1e) + char(bmp.size()) + bmp
                                   + QByteArray::fromHex("030100");
        const QByteArray expectedEnrollment = char(0x30) + QByteArray(1, char(content.size())) + content;
        QCOMPARE(attributeValue(request.get(), Pkcs10Request::enrollmentCspProviderOid), expectedEnrollment);
    }

    void enrollmentAttributeForProviderAHasItsKnownEncoding()
    {
        Pkcs10Request plain;
        plain.setRsaPublicKey(modulus, exponent);
        plain.setSubject(QStringLiteral("3000"));
        QVERIFY(plain.getDerEncodedCertificationRequestInfo().endsWith(QByteArray::fromHex("a000")));

        Pkcs10Request withProvider;
        withProvider.setRsaPublicKey(modulus, exponent);
        withProvider.setSubject(QStringLiteral("3000"));
        withProvider.setEnrollmentCspProviderAttribute(QStringLiteral("A"));
        // [0] { SEQUENCE { OID 1.3.6.1.4.1.311.13.2.2, SET { SEQUENCE { INTEGER 1, BMPString "A", BIT STRING } } } }
        const QByteArray expected = QByteArray::fromHex("a01c301a060a2b0601040182370d0202310c300a0201011e020041030100");
        QVERIFY(withProvider.getDerEncodedCertificationRequestInfo().endsWith(expected));
    }

    void refusesMalformedSubjects_data()
    {
        QTest::addColumn<QString>("subject");
        QTest::addColumn<QString>("failure");
        QTest::newRow("not hexadecimal") << QStringLiteral("30zz") << QStringLiteral("Unable to HEX decode subject");
        QTest::newRow("odd length") << QStringLiteral("300") << QStringLiteral("Unable to HEX decode subject");
        QTest::newRow("empty") << QString() << QStringLiteral("Unable to DER decode subject");
        QTest::newRow("not a Name") << QStringLiteral("0401aa") << QStringLiteral("Unable to DER decode subject");
        QTest::newRow("trailing bytes") << QStringLiteral("3000ff") << QStringLiteral("Unable to DER decode subject");
    }

    void refusesMalformedSubjects()
    {
        QFETCH(QString, subject);
        QFETCH(QString, failure);
        Pkcs10Request builder;
        QCOMPARE(failureOf([&] { builder.setSubject(subject); }), failure);
        builder.setSubject(QStringLiteral("3000")); // a failed attempt sets nothing
    }

    void refusesUnsupportedMechanisms()
    {
        Pkcs10Request builder;
        QCOMPARE(failureOf([&] { builder.setSignature(QByteArray(256, 'x'), CKM_SHA224, CKM_RSA_PKCS); }),
                 QStringLiteral("Digesting mechanism 597 is not supported"));
        QCOMPARE(failureOf([&] { builder.setSignature(QByteArray(256, 'x'), CKM_SHA256, CKM_ECDSA); }),
                 QStringLiteral("Signing mechanism 4161 is not supported"));
        try {
            Pkcs10Request::createPkcs1DigestInfo(QByteArray(16, 'x'), CKM_MD5);
            QFAIL("MD5 was accepted");
        } catch (const AppException& e) {
            QCOMPARE(e.getMessage(), QStringLiteral("AlgorithmNotSupported"));
        }
        QCOMPARE(Pkcs10Request::createPkcs1DigestInfo(QByteArray(20, '\x11'), CKM_SHA_1).toHex(),
                 QByteArray("3021300906052b0e03021a05000414") + QByteArray(20, '\x11').toHex());
    }

    void keepsCallingOrderAndSetsEachPartOnce()
    {
        Pkcs10Request builder;
        QCOMPARE(failureOf([&] { builder.getDerEncodedCertificationRequestInfo(); }),
                 QStringLiteral("EVP_PKEY is not set"));
        builder.setRsaPublicKey(modulus, exponent);
        QCOMPARE(failureOf([&] { builder.setRsaPublicKey(modulus, exponent); }), QStringLiteral("EVP_PKEY is already set"));
        QCOMPARE(failureOf([&] { builder.getDerEncodedCertificationRequestInfo(); }),
                 QStringLiteral("X509_NAME is not set"));
        builder.setSubject(QString::fromLatin1(subjectDer().toHex()));
        QCOMPARE(failureOf([&] { builder.setSubject(QStringLiteral("3000")); }), QStringLiteral("X509_NAME is already set"));
        builder.setKovDataAttibute(kovData);
        QCOMPARE(failureOf([&] { builder.setKovDataAttibute(kovData); }),
                 QStringLiteral("X509_ATTRIBUTE is already set for KovData attribute"));
        builder.setEnrollmentCspProviderAttribute(QStringLiteral("A"));
        QCOMPARE(failureOf([&] { builder.setEnrollmentCspProviderAttribute(QStringLiteral("B")); }),
                 QStringLiteral("X509_ATTRIBUTE is already set for EnrollmentCspProvider attribute"));
        const QByteArray info = builder.getDerEncodedCertificationRequestInfo();
        QVERIFY(!info.isEmpty());
        QCOMPARE(failureOf([&] { builder.getDerEncodedCertificationRequestInfo(); }),
                 QStringLiteral("X509_REQ is already set"));
    }
};

QTEST_GUILESS_MAIN(TestPkcs10Request)
#include "tst_pkcs10request.moc"
