#include "appexception.h"
#include "pkcs11/pkcs10request.h"

#include <QTest>

#include <p11-kit/pkcs11.h>

#include <functional>

namespace {

// Nothing is signed here, so any modulus will do; signing on a token is the engine's test.
const QByteArray modulus = QByteArray(1, '\xC1') + QByteArray(255, '\x5A');
const QByteArray exponent = QByteArray::fromHex("010001");

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

// The certification request builder: its attribute encoding and what it refuses.
class TestPkcs10Request : public QObject
{
    Q_OBJECT

private slots:
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
        builder.setSubject(QStringLiteral("3000"));
        QCOMPARE(failureOf([&] { builder.setSubject(QStringLiteral("3000")); }), QStringLiteral("X509_NAME is already set"));
        builder.setKovDataAttibute(QByteArray::fromHex("3000"));
        QCOMPARE(failureOf([&] { builder.setKovDataAttibute(QByteArray::fromHex("3000")); }),
                 QStringLiteral("X509_ATTRIBUTE is already set for KovData attribute"));
        builder.setEnrollmentCspProviderAttribute(QStringLiteral("A"));
        QCOMPARE(failureOf([&] { builder.setEnrollmentCspProviderAttribute(QStringLiteral("B")); }),
                 QStringLiteral("X509_ATTRIBUTE is already set for EnrollmentCspProvider attribute"));
        QVERIFY(!builder.getDerEncodedCertificationRequestInfo().isEmpty());
        QCOMPARE(failureOf([&] { builder.getDerEncodedCertificationRequestInfo(); }),
                 QStringLiteral("X509_REQ is already set"));
    }
};

QTEST_GUILESS_MAIN(TestPkcs10Request)
#include "tst_pkcs10request.moc"
