// Server-signed requests: the CMS envelope, the signer's chain, policy and validity period.
#include "appexception.h"
#include "devpki.h"
#include "ownedresource.h"
#include "responsecryptoprocessor.h"
#include "responsesigningcertificate.h"
#include "trustanchors.h"
#include "x509certificate2ultra.h"

#include <QDateTime>
#include <QFile>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace {
const QByteArray request = QByteArrayLiteral(
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Request><Slot>Čtečka 1</Slot></Request>\n");
const QString chain1Label =
    QStringLiteral("C = CZ, O = Scriva Development PKI, CN = Scriva Development Technological Root CA");
const QString chain2Label =
    QStringLiteral("C = CZ, O = Scriva Development PKI, CN = Scriva Development Certification Service CA");

template<typename F>
QString thrownMessage(F&& f)
{
    try {
        f();
    } catch (const AppException& e) {
        return e.getMessage();
    }
    return QStringLiteral("<nothing thrown>");
}

X509Certificate2Ultra devCertificate(const QString& name)
{
    QFile file(DevPki::file(name + QStringLiteral(".pem")));
    return file.open(QIODevice::ReadOnly) ? X509Certificate2Ultra(file.readAll(), QSsl::Pem) : X509Certificate2Ultra();
}

QRegularExpression warningOf(const QString& label, const QString& text)
{
    return QRegularExpression(QRegularExpression::escape(label + QStringLiteral(" : ")) + text,
                              QRegularExpression::DotMatchesEverythingOption);
}
} // namespace

class tst_ServerTrust : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void acceptsServerOfEachChain_data();
    void acceptsServerOfEachChain();
    void refusesUntrustedSigner_data();
    void refusesUntrustedSigner();
    void refusesMalformedEnvelope_data();
    void refusesMalformedEnvelope();
    void readOidGivesDottedNumbers();
    void judgesValidityPeriodInWholeSeconds();
    void refusesUnusableCertificate();
    void deserializesSigningCertificate_data();
    void deserializesSigningCertificate();
    void signingToolOutputVerifiesWithOpenssl();
};

void tst_ServerTrust::initTestCase()
{
    // Entry traces would drown the interesting warnings.
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
}

void tst_ServerTrust::acceptsServerOfEachChain_data()
{
    QTest::addColumn<QString>("signer");
    QTest::addColumn<int>("acceptingChain");
    QTest::newRow("signed under the root of chain 1") << "server-chain1" << 0;
    QTest::newRow("signed under the intermediate of chain 2") << "server-chain2" << 1;
    QTest::newRow("listing the policy among others") << "signer-several-policies" << 1;
}

void tst_ServerTrust::acceptsServerOfEachChain()
{
    if (!DevPki::isAvailable())
        QSKIP("the build trusts configured anchors");
    QFETCH(QString, signer);
    QFETCH(int, acceptingChain);
    QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));

    // A signer's second request is judged by its own certificate again, whoever signed in between.
    for (int round = 0; round < 2; ++round) {
        if (acceptingChain == 1)
            QTest::ignoreMessage(QtWarningMsg, warningOf(chain1Label, QStringLiteral("AppException: IssuerInvalid")));
        ResponseCryptoProcessor processor;
        processor.processBase64CmsSignedData(DevPki::signedArgument(request, signer));
        QCOMPARE(processor.getCmsContent(), QString::fromUtf8(request));
        QCOMPARE(processor.getServerCertificate(), devCertificate(signer));
        QCOMPARE(processor.getIssuerChain(), TrustAnchors::builtIn().chains().at(acceptingChain).second);
    }
}

void tst_ServerTrust::refusesUntrustedSigner_data()
{
    QTest::addColumn<QString>("signer");
    QTest::addColumn<QString>("chain2Failure");
    QTest::addColumn<QString>("timeWarning");
    const QString issuerInvalid = QStringLiteral("AppException: IssuerInvalid");
    QTest::newRow("unknown root") << "signer-unknown-root" << issuerInvalid << QString();
    QTest::newRow("no policy extension")
        << "signer-no-policy"
        << "AppException: Certificate does not contain 509v3 Certificate Policies extension" << QString();
    QTest::newRow("other policies only, one the OID with a trailing .0")
        << "signer-other-policies" << "AppException: ResponseCertPolicyMissing" << QString();
    QTest::newRow("expired") << "signer-expired" << issuerInvalid + ".*certificate has expired"
                             << "Effective from: 01.01.2020::00:00 (UTC). Expire on: 01.01.2021::00:00 (UTC).";
    QTest::newRow("not yet valid") << "signer-not-yet-valid" << issuerInvalid + ".*certificate is not yet valid"
                                   << "Effective from: 01.01.2099::00:00 (UTC). Expire on: 01.01.2100::00:00 (UTC).";
}

void tst_ServerTrust::refusesUntrustedSigner()
{
    if (!DevPki::isAvailable())
        QSKIP("the build trusts configured anchors");
    QFETCH(QString, signer);
    QFETCH(QString, chain2Failure);
    QFETCH(QString, timeWarning);
    // Each chain is tried and logged, then the time check, then one verdict.
    QTest::ignoreMessage(QtWarningMsg, warningOf(chain1Label, QStringLiteral("AppException: IssuerInvalid")));
    QTest::ignoreMessage(QtWarningMsg, warningOf(chain2Label, chain2Failure));
    if (!timeWarning.isEmpty())
        QTest::ignoreMessage(QtWarningMsg, "Server certificate is not valid by time criteria. " + timeWarning.toUtf8());
    QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("^Server certificate: -----BEGIN CERTIFICATE")));
    QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));

    ResponseCryptoProcessor processor;
    const QString argument = DevPki::signedArgument(request, signer);
    QCOMPARE(thrownMessage([&] { processor.processBase64CmsSignedData(argument); }),
             QStringLiteral("CommunicationMismatchUnstrustedServer"));
    QVERIFY(processor.getIssuerChain().isEmpty());
}

void tst_ServerTrust::refusesMalformedEnvelope_data()
{
    QTest::addColumn<QString>("argument");
    QTest::addColumn<QString>("expected");
    if (!DevPki::isAvailable())
        return;
    const QByteArray signedRequest = DevPki::signedCms(request);
    QByteArray tampered = signedRequest;
    tampered.replace("<Slot>", "<Slit>");
    QVERIFY(tampered != signedRequest);

    QTest::newRow("not base64") << "this is %% not base64 !" << "Unable to parse CMS: ";
    QTest::newRow("empty") << "" << "Unable to parse CMS: ";
    QTest::newRow("truncated") << QString::fromLatin1(signedRequest.left(signedRequest.size() / 2).toBase64())
                               << "Unable to parse CMS: ";
    QTest::newRow("tampered content") << QString::fromLatin1(tampered.toBase64()) << "CMS signature is not valid: ";
    QTest::newRow("detached content")
        << QString::fromLatin1(DevPki::signedCms(request, {DevPki::defaultSigner}, true).toBase64())
        << "Unable to get CMS content: ";
    QTest::newRow("two valid signers")
        << QString::fromLatin1(DevPki::signedCms(request, {"server-chain1", "server-chain2"}).toBase64())
        << "CMS does not contain exactly one signing certificate";
}

void tst_ServerTrust::refusesMalformedEnvelope()
{
    if (!DevPki::isAvailable())
        QSKIP("the build trusts configured anchors");
    QFETCH(QString, argument);
    QFETCH(QString, expected);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^CMS processing error: ")));
    QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));

    ResponseCryptoProcessor processor;
    const QString message = thrownMessage([&] { processor.processBase64CmsSignedData(argument); });
    QVERIFY2(message.startsWith(expected), qPrintable(message));
    // Parse and signature failures of actual bytes carry OpenSSL's own reason, read back whole,
    // down to the end of its last line.
    if (!argument.isEmpty() && expected.endsWith(QStringLiteral(": ")) && !expected.contains(QStringLiteral("content")))
        QVERIFY2(message.contains(QStringLiteral("error:")) && message.endsWith(QLatin1Char('\n')), qPrintable(message));
}

void tst_ServerTrust::readOidGivesDottedNumbers()
{
    const QString policy = QStringLiteral("2.25.167889907315684892123040452429353719572");
    const Owned<ASN1_OBJECT, ASN1_OBJECT_free> custom(OBJ_txt2obj(policy.toLatin1().constData(), 1));
    QCOMPARE(X509Certificate2Ultra::readOid(custom.get()), policy);
    // A well-known OID still comes out as numbers, never as its name.
    QCOMPARE(X509Certificate2Ultra::readOid(OBJ_nid2obj(NID_certificate_policies)), QStringLiteral("2.5.29.32"));
}

void tst_ServerTrust::judgesValidityPeriodInWholeSeconds()
{
    if (!DevPki::isAvailable())
        QSKIP("the build trusts configured anchors");
    QVERIFY(devCertificate(QStringLiteral("server-chain2")).isValidByTime());
    QVERIFY(!devCertificate(QStringLiteral("signer-expired")).isValidByTime());
    QVERIFY(!devCertificate(QStringLiteral("signer-not-yet-valid")).isValidByTime());

    // Effective in the current second: not yet valid. Retried if the clock ticks meanwhile.
    QFile keyFile(DevPki::file(QStringLiteral("server-chain2.key")));
    QVERIFY(keyFile.open(QIODevice::ReadOnly));
    const QByteArray keyPem = keyFile.readAll();
    const Owned<BIO, BIO_free> bio(BIO_new_mem_buf(keyPem.constData(), int(keyPem.size())));
    const Owned<EVP_PKEY, EVP_PKEY_free> key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
    QVERIFY(key);
    for (;;) {
        const qint64 second = QDateTime::currentSecsSinceEpoch();
        const Owned<X509, X509_free> fresh(X509_new());
        QVERIFY(ASN1_TIME_set(X509_getm_notBefore(fresh.get()), time_t(second)));
        QVERIFY(ASN1_TIME_set(X509_getm_notAfter(fresh.get()), time_t(second + 3600)));
        QVERIFY(X509_set_pubkey(fresh.get(), key.get()) && X509_sign(fresh.get(), key.get(), EVP_sha256()));
        const bool valid = X509Certificate2Ultra(fresh.get()).isValidByTime();
        if (QDateTime::currentSecsSinceEpoch() == second) {
            QVERIFY(!valid);
            break;
        }
    }
}

void tst_ServerTrust::refusesUnusableCertificate()
{
    const X509Certificate2Ultra none;
    QVERIFY(!none.toX509());
    QVERIFY(!none.isValidByTime());
    const auto anchors = TrustAnchors::builtIn().chains().at(0).second;
    QCOMPARE(thrownMessage([&] { none.verifyIssuer(anchors); }), QStringLiteral("InvalidCertificate"));
    QCOMPARE(thrownMessage([&] { none.verifyCustomPolicy(QStringLiteral("1.2.3")); }),
             QStringLiteral("Unable to load X509 certificate"));
    // A root trusts itself only through an empty chain: no chain is no trust.
    QCOMPARE(thrownMessage([&] { anchors.first().verifyIssuer({}); }), QStringLiteral("InvalidCertificate"));
}

void tst_ServerTrust::deserializesSigningCertificate_data()
{
    QTest::addColumn<QJsonObject>("json");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QByteArray>("revocationData");
    QTest::addColumn<bool>("ocsp");
    const QString certificate = QString::fromLatin1(TrustAnchors::builtIn().chains().at(0).second.at(0).toDer().toBase64());
    const QString ocsp = QStringLiteral("b2NzcA=="), crl = QStringLiteral("Y3Js"); // "ocsp", "crl"

    QTest::newRow("all three keys: OCSP wins")
        << QJsonObject{{"Certificate", certificate}, {"OcspResponse", ocsp}, {"Crl", crl}} << QString()
        << QByteArray("ocsp") << true;
    QTest::newRow("CRL, OCSP response not a string")
        << QJsonObject{{"Certificate", certificate}, {"OcspResponse", 5}, {"Crl", crl}} << QString()
        << QByteArray("crl") << false;
    QTest::newRow("certificate a number") << QJsonObject{{"Certificate", 42}, {"Crl", crl}}
                                          << "JSON node Certificate is missing or has invalid value" << QByteArray()
                                          << false;
    QTest::newRow("certificate not DER") << QJsonObject{{"Certificate", "bm90IGEgY2VydA=="}, {"Crl", crl}}
                                         << "JSON node Certificate has invalid value" << QByteArray() << false;
    QTest::newRow("no revocation data") << QJsonObject{{"Certificate", certificate}}
                                        << "JSON nodes CRL and OCSP Response are missing or have invalid value"
                                        << QByteArray() << false;
}

void tst_ServerTrust::deserializesSigningCertificate()
{
    QFETCH(QJsonObject, json);
    QFETCH(QString, error);
    QFETCH(QByteArray, revocationData);
    QFETCH(bool, ocsp);
    ResponseSigningCertificate record;
    if (!error.isEmpty()) {
        QCOMPARE(thrownMessage([&] { record.deserialize(json); }), error);
        QVERIFY(record.isNull());
        return;
    }
    record.deserialize(json);
    QVERIFY(!record.isNull());
    QCOMPARE(record.getRevocationData(), revocationData);
    QCOMPARE(record.getRevocationType() == ResponseSigningCertificate::RevocationType::OCSP, ocsp);
    QCOMPARE(record.getCertificate(), TrustAnchors::builtIn().chains().at(0).second.at(0));
}

void tst_ServerTrust::signingToolOutputVerifiesWithOpenssl()
{
    if (!DevPki::isAvailable())
        QSKIP("the build trusts configured anchors");
    const QString openssl = QStandardPaths::findExecutable(QStringLiteral("openssl"));
    if (openssl.isEmpty())
        QSKIP("the openssl command is not installed");
    const QString tool = QStringLiteral(SCRIVA_BIN_DIR "/scriva-sign-request");
    QTemporaryDir dir;
    QFile input(dir.filePath(QStringLiteral("request.xml")));
    QVERIFY(input.open(QIODevice::WriteOnly) && input.write(request) == request.size());
    input.close();

    QProcess signing;
    signing.start(tool, {QStringLiteral("-o"), dir.filePath(QStringLiteral("argument.txt")), input.fileName(),
                         DevPki::file(QStringLiteral("server-chain1.key")), DevPki::file(QStringLiteral("server-chain1.pem"))});
    QVERIFY(signing.waitForFinished(30000));
    QCOMPARE(signing.exitCode(), 0);
    QFile output(dir.filePath(QStringLiteral("argument.txt")));
    QVERIFY(output.open(QIODevice::ReadOnly));
    const QByteArray argument = output.readAll().trimmed();
    QVERIFY(!argument.contains('\n'));

    QProcess verifying;
    verifying.start(openssl, {QStringLiteral("cms"), QStringLiteral("-verify"), QStringLiteral("-noverify"),
                              QStringLiteral("-inform"), QStringLiteral("DER")});
    verifying.write(QByteArray::fromBase64(argument));
    verifying.closeWriteChannel();
    QVERIFY(verifying.waitForFinished(30000));
    QCOMPARE(verifying.exitCode(), 0);
    QCOMPARE(verifying.readAllStandardOutput(), request);

    ResponseCryptoProcessor processor;
    processor.processBase64CmsSignedData(QString::fromLatin1(argument));
    QCOMPARE(processor.getCmsContent(), QString::fromUtf8(request));
}

QTEST_GUILESS_MAIN(tst_ServerTrust)
#include "tst_servertrust.moc"
