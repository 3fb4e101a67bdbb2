// Server-signed requests: the CMS envelope, the signer's chain, policy and validity period.
#include "ownedresource.h"
#include "responsecryptoprocessor.h"
#include "testrequests.h"
#include "trustanchors.h"

#include <QtTest>

#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace {
const QByteArray request = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Request><Slot>Čtečka 1</Slot></Request>\n";
const auto thrown = TestRequests::refusal;

QList<X509Certificate2Ultra> anchor(int chain) { return TrustAnchors::builtIn().chains().at(chain).second; }

Owned<EVP_PKEY, EVP_PKEY_free> key(const char* name)
{
    const Owned<BIO, BIO_free> bio(BIO_new_file(qPrintable(TestRequests::pkiFile(name)), "r"));
    return Owned<EVP_PKEY, EVP_PKEY_free>(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
}

// A certificate of `subjectKey` valid from `from` to `to`, self-signed or issued by `issuer` with `issuerKey`.
X509Certificate2Ultra made(time_t from, time_t to, const char* subjectKey, X509* issuer = nullptr, const char* issuerKey = nullptr)
{
    const Owned<X509, X509_free> certificate(X509_new());
    if (!ASN1_TIME_set(X509_getm_notBefore(certificate.get()), from) || !ASN1_TIME_set(X509_getm_notAfter(certificate.get()), to)
        || (issuer && !X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer)))
        || !X509_set_pubkey(certificate.get(), key(subjectKey).get())
        || !X509_sign(certificate.get(), key(issuer ? issuerKey : subjectKey).get(), EVP_sha256()))
        qFatal("unable to make a test certificate");
    return X509Certificate2Ultra(certificate.get());
}
} // namespace

class tst_ServerTrust : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        if (!TestRequests::canSign())
            QSKIP("the build trusts configured anchors");
        QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    }

    void refusesMalformedEnvelope_data()
    {
        QTest::addColumn<QString>("argument");
        QTest::addColumn<QString>("expected");
        const QByteArray signedRequest = TestRequests::signedCms(request);
        QTest::newRow("not base64") << "this is %% not base64 !" << "Unable to parse CMS: ";
        const auto base64 = [](const QByteArray& der) { return QString::fromLatin1(der.toBase64()); };
        QTest::newRow("tampered content") << base64(QByteArray(signedRequest).replace("<Slot>", "<Slit>")) << "CMS signature is not valid: ";
        QTest::newRow("detached content") << base64(TestRequests::signedCms(request, {TestRequests::defaultSigner}, true)) << "Unable to get CMS content: ";
        QTest::newRow("two valid signers") << base64(TestRequests::signedCms(request, {"server-chain1", "server-chain2"}))
                                           << "CMS does not contain exactly one signing certificate";
    }

    void refusesMalformedEnvelope()
    {
        QFETCH(QString, argument);
        QFETCH(QString, expected);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^CMS processing error: AppException: " + QRegularExpression::escape(expected)));
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        ResponseCryptoProcessor processor;
        ERR_raise_data(ERR_LIB_USER, 1, "an earlier failure"); // not this request's
        const QString message = thrown([&] { processor.processBase64CmsSignedData(argument); });
        QVERIFY2(message.startsWith(expected) && !message.contains("earlier"), qPrintable(message));
        QVERIFY(processor.getServerCertificate().isNull());
        // Failures of actual bytes carry OpenSSL's own reason, read back whole, to the end of its last line.
        if (expected.endsWith(": ") && !expected.contains("content"))
            QVERIFY2(message.contains("error:") && message.endsWith('\n'), qPrintable(message));
    }

    void checksCertificatesOnTheirOwn()
    {
        // A well-known OID still comes out as numbers, never as its name.
        QCOMPARE(X509Certificate2Ultra::readOid(OBJ_nid2obj(NID_certificate_policies)), QStringLiteral("2.5.29.32"));
        const X509Certificate2Ultra none;
        QVERIFY(!none.toX509() && !none.isValidByTime() && none.toString().isEmpty());
        QCOMPARE(thrown([&] { none.verifyIssuer(anchor(0)); }), QStringLiteral("InvalidCertificate"));
        // A root trusts itself only through a chain: no chain is no trust.
        QCOMPARE(thrown([&] { anchor(0).first().verifyIssuer({}); }), QStringLiteral("InvalidCertificate"));
        // Chain 2's intermediate is never trusted on its own, even right after the whole chain passed.
        const X509Certificate2Ultra server(QSslCertificate::fromPath(TestRequests::pkiFile("server-chain2.pem")).value(0));
        server.verifyIssuer(anchor(1));
        QCOMPARE(thrown([&] { server.verifyIssuer(anchor(1).mid(0, 1)); }), QStringLiteral("IssuerInvalid"));
    }

    void judgesValidityPeriodInWholeSeconds()
    {
        // Effective or expiring in the current second: not valid. Retried if the clock ticks meanwhile.
        for (qint64 second = 0; second != QDateTime::currentSecsSinceEpoch();) {
            second = QDateTime::currentSecsSinceEpoch();
            for (const qint64 from : {second, second - 3600})
                QVERIFY(!made(from, from + 3600, "server-chain2.key").isValidByTime() || second != QDateTime::currentSecsSinceEpoch());
        }
    }

    // A verified chain is trusted again only while every member of it is still valid.
    void trustEndsWhenAChainMemberExpires()
    {
        const Owned<X509, X509_free> root(anchor(0).first().toX509());
        const time_t now = time(nullptr);
        const X509Certificate2Ultra signer = made(now - 60, now + 2, "server-chain1.key", root.get(), "chain1-root.key");
        signer.verifyIssuer(anchor(0));
        QTRY_COMPARE_WITH_TIMEOUT(thrown([&] { signer.verifyIssuer(anchor(0)); }), QStringLiteral("IssuerInvalid"), 10000);
    }

    // The tool the web application's server developers sign requests with makes the one-line argument the host trusts.
    void signingToolMakesAnArgumentTheHostTrusts()
    {
        QTemporaryFile input;
        QVERIFY(input.open() && input.write(request) == request.size() && input.flush());
        QProcess signing;
        signing.start(SCRIVA_BIN_DIR "/scriva-sign-request", {input.fileName(), TestRequests::pkiFile("server-chain1.key"), TestRequests::pkiFile("server-chain1.pem")});
        QVERIFY(signing.waitForFinished(30000) && signing.exitCode() == 0);
        const QByteArray argument = signing.readAllStandardOutput().trimmed();
        QVERIFY(!argument.contains('\n'));
        ResponseCryptoProcessor processor;
        processor.processBase64CmsSignedData(QString::fromLatin1(argument));
        QCOMPARE(processor.getCmsContent(), QString::fromUtf8(request));
    }
};

QTEST_GUILESS_MAIN(tst_ServerTrust)
#include "tst_servertrust.moc"
