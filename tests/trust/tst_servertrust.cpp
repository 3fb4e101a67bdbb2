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
const QByteArray request = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Request><Slot>Čtečka 1</Slot></Request>\n";
const QString chainLabel = QStringLiteral("C = CZ, O = Scriva Development PKI, CN = Scriva Development %1 : AppException: ");

QString thrownMessage(const std::function<void()>& f)
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

QList<X509Certificate2Ultra> anchor(int chain) { return TrustAnchors::builtIn().chains().at(chain).second; }
} // namespace

class tst_ServerTrust : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        if (!DevPki::isAvailable())
            QSKIP("the build trusts configured anchors");
        QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    }

    void judgesTheSigner_data()
    {
        QTest::addColumn<QString>("signer");
        QTest::addColumn<int>("acceptingChain"); // -1: refused
        QTest::addColumn<QString>("chain2Failure");
        QTest::addColumn<QString>("timeWarning");
        const QString issuerInvalid = QStringLiteral("IssuerInvalid");
        QTest::newRow("under the root of chain 1") << "server-chain1" << 0 << "" << "";
        QTest::newRow("under the intermediate of chain 2") << "server-chain2" << 1 << "" << "";
        QTest::newRow("listing the policy among others") << "signer-several-policies" << 1 << "" << "";
        QTest::newRow("unknown root") << "signer-unknown-root" << -1 << issuerInvalid << "";
        QTest::newRow("no policy extension") << "signer-no-policy" << -1
                                             << "Certificate does not contain 509v3 Certificate Policies extension" << "";
        QTest::newRow("other policies only, one the OID with a trailing .0")
            << "signer-other-policies" << -1 << "ResponseCertPolicyMissing" << "";
        QTest::newRow("expired") << "signer-expired" << -1 << issuerInvalid + ".*certificate has expired"
                                 << "Effective from: 01.01.2020::00:00 (UTC). Expire on: 01.01.2021::00:00 (UTC).";
        QTest::newRow("not yet valid") << "signer-not-yet-valid" << -1 << issuerInvalid + ".*certificate is not yet valid"
                                       << "Effective from: 01.01.2099::00:00 (UTC). Expire on: 01.01.2100::00:00 (UTC).";
    }

    // Each chain is tried and logged in turn, then the time check, then one verdict.
    void judgesTheSigner()
    {
        QFETCH(QString, signer);
        QFETCH(int, acceptingChain);
        QFETCH(QString, chain2Failure);
        QFETCH(QString, timeWarning);
        const auto expectWarning = [](const QString& chain, const QString& text) {
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^" + QRegularExpression::escape(chainLabel.arg(chain)) + text,
                                                                  QRegularExpression::DotMatchesEverythingOption));
        };
        // Twice, with other signers judged in the rows between: a signer seen before is judged by
        // its own certificate again.
        for (int round = 0; round < 2; ++round) {
            if (acceptingChain != 0)
                expectWarning(QStringLiteral("Technological Root CA"), QStringLiteral("IssuerInvalid"));
            if (!chain2Failure.isEmpty())
                expectWarning(QStringLiteral("Certification Service CA"), chain2Failure);
            if (!timeWarning.isEmpty())
                QTest::ignoreMessage(QtWarningMsg, "Server certificate is not valid by time criteria. " + timeWarning.toUtf8());
            if (acceptingChain < 0)
                QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("^Server certificate: -----BEGIN CERTIFICATE")));
            QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));

            ResponseCryptoProcessor processor;
            const QString message = thrownMessage([&] { processor.processBase64CmsSignedData(DevPki::signedArgument(request, signer)); });
            QCOMPARE(message, acceptingChain < 0 ? "CommunicationMismatchUnstrustedServer" : "<nothing thrown>");
            QCOMPARE(processor.getCmsContent(), QString::fromUtf8(request));
            QCOMPARE(processor.getServerCertificate(), devCertificate(signer));
            QCOMPARE(processor.getIssuerChain(), acceptingChain < 0 ? QList<X509Certificate2Ultra>() : anchor(acceptingChain));
            QCOMPARE(devCertificate(signer).isValidByTime(), timeWarning.isEmpty());
        }
    }

    void refusesMalformedEnvelope_data()
    {
        QTest::addColumn<QString>("argument");
        QTest::addColumn<QString>("expected");
        const QByteArray signedRequest = DevPki::signedCms(request);
        QTest::newRow("not base64") << "this is %% not base64 !" << "Unable to parse CMS: ";
        QTest::newRow("empty") << "" << "Unable to parse CMS: ";
        QTest::newRow("truncated") << QString(signedRequest.left(signedRequest.size() / 2).toBase64()) << "Unable to parse CMS: ";
        QTest::newRow("tampered content") << QString(QByteArray(signedRequest).replace("<Slot>", "<Slit>").toBase64())
                                          << "CMS signature is not valid: ";
        QTest::newRow("detached content") << QString(DevPki::signedCms(request, {DevPki::defaultSigner}, true).toBase64())
                                          << "Unable to get CMS content: ";
        QTest::newRow("two valid signers") << QString(DevPki::signedCms(request, {"server-chain1", "server-chain2"}).toBase64())
                                           << "CMS does not contain exactly one signing certificate";
    }

    void refusesMalformedEnvelope()
    {
        QFETCH(QString, argument);
        QFETCH(QString, expected);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^CMS processing error: AppException: "
                                                              + QRegularExpression::escape(expected)));
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        ResponseCryptoProcessor processor;
        const QString message = thrownMessage([&] { processor.processBase64CmsSignedData(argument); });
        QVERIFY2(message.startsWith(expected), qPrintable(message));
        QVERIFY(processor.getServerCertificate().isNull());
        // Failures of actual bytes carry OpenSSL's own reason, read back whole, to the end of its last line.
        if (!argument.isEmpty() && expected.endsWith(": ") && !expected.contains("content"))
            QVERIFY2(message.contains("error:") && message.endsWith('\n'), qPrintable(message));
    }

    void checksCertificatesOnTheirOwn()
    {
        const QString policy = QStringLiteral("2.25.167889907315684892123040452429353719572");
        const Owned<ASN1_OBJECT, ASN1_OBJECT_free> custom(OBJ_txt2obj(policy.toLatin1().constData(), 1));
        QCOMPARE(X509Certificate2Ultra::readOid(custom.get()), policy);
        // A well-known OID still comes out as numbers, never as its name.
        QCOMPARE(X509Certificate2Ultra::readOid(OBJ_nid2obj(NID_certificate_policies)), QStringLiteral("2.5.29.32"));

        const X509Certificate2Ultra none;
        QVERIFY(!none.toX509() && !none.isValidByTime() && none.toString().isEmpty());
        QCOMPARE(thrownMessage([&] { none.verifyIssuer(anchor(0)); }), QStringLiteral("InvalidCertificate"));
        QCOMPARE(thrownMessage([&] { none.verifyCustomPolicy(policy); }), QStringLiteral("Unable to load X509 certificate"));
        // A root trusts itself only through a chain: no chain is no trust.
        QCOMPARE(thrownMessage([&] { anchor(0).first().verifyIssuer({}); }), QStringLiteral("InvalidCertificate"));
        // The intermediate of chain 2 is offered, never trusted on its own.
        const X509Certificate2Ultra server = devCertificate(QStringLiteral("server-chain2"));
        QCOMPARE(thrownMessage([&] { server.verifyIssuer(anchor(1).mid(0, 1)); }), QStringLiteral("IssuerInvalid"));
        QCOMPARE(thrownMessage([&] { server.verifyIssuer(anchor(1)); }), QStringLiteral("<nothing thrown>"));
        QCOMPARE(thrownMessage([&] { server.verifyCustomPolicy(policy + ".0"); }), QStringLiteral("ResponseCertPolicyMissing"));
        QVERIFY(server.toString().startsWith("-----BEGIN CERTIFICATE-----\n"));
        const Owned<X509, X509_free> decoded(server.toX509());
        QCOMPARE(X509Certificate2Ultra(decoded.get()), server);
    }

    void judgesValidityPeriodInWholeSeconds()
    {
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

    void deserializesSigningCertificate_data()
    {
        QTest::addColumn<QJsonObject>("json");
        QTest::addColumn<QString>("outcome"); // the refusal, or the revocation type and data as logged
        const QString certificate = QString::fromLatin1(anchor(0).at(0).toDer().toBase64());
        const QString ocsp = QStringLiteral("b2NzcA=="), crl = QStringLiteral("Y3Js"); // "ocsp", "crl"
        QTest::newRow("all three keys: OCSP wins")
            << QJsonObject{{"Certificate", certificate}, {"OcspResponse", ocsp}, {"Crl", crl}} << "OCSP ocsp";
        QTest::newRow("CRL, OCSP response not a string")
            << QJsonObject{{"Certificate", certificate}, {"OcspResponse", 5}, {"Crl", crl}} << "CRL crl";
        QTest::newRow("certificate a number") << QJsonObject{{"Certificate", 42}, {"Crl", crl}}
                                              << "JSON node Certificate is missing or has invalid value";
        QTest::newRow("certificate not DER") << QJsonObject{{"Certificate", "bm90IGEgY2VydA=="}, {"Crl", crl}}
                                             << "JSON node Certificate has invalid value";
        QTest::newRow("no revocation data") << QJsonObject{{"Certificate", certificate}, {"Crl", 1}}
                                            << "JSON nodes CRL and OCSP Response are missing or have invalid value";
    }

    void deserializesSigningCertificate()
    {
        QFETCH(QJsonObject, json);
        QFETCH(QString, outcome);
        ResponseSigningCertificate record;
        const QString refusal = thrownMessage([&] { record.deserialize(json); });
        if (refusal != QLatin1String("<nothing thrown>")) {
            QCOMPARE(refusal, outcome);
            QVERIFY(record.isNull());
            return;
        }
        QVERIFY(!record.isNull());
        QCOMPARE(record.getCertificate(), anchor(0).at(0));
        const QString type = outcome.section(' ', 0, 0), data = outcome.section(' ', 1);
        QCOMPARE(record.getRevocationType() == ResponseSigningCertificate::RevocationType::OCSP, type == "OCSP");
        QCOMPARE(record.getRevocationData(), data.toLatin1());
        QCOMPARE(record.toString(), "Cert:" + record.getCertificate().toPem() + "\nRevocation type:" + type
                                        + "\nRevocation data:" + data.toLatin1().toBase64());
    }

    void signingToolOutputVerifiesWithOpenssl()
    {
        const QString openssl = QStandardPaths::findExecutable(QStringLiteral("openssl"));
        if (openssl.isEmpty())
            QSKIP("the openssl command is not installed");
        QTemporaryDir dir;
        QFile input(dir.filePath(QStringLiteral("request.xml")));
        QVERIFY(input.open(QIODevice::WriteOnly) && input.write(request) == request.size());
        input.close();
        QProcess signing;
        signing.start(QStringLiteral(SCRIVA_BIN_DIR "/scriva-sign-request"),
                      {"-o", dir.filePath("argument.txt"), input.fileName(), DevPki::file("server-chain1.key"),
                       DevPki::file("server-chain1.pem")});
        QVERIFY(signing.waitForFinished(30000) && signing.exitCode() == 0);
        QFile output(dir.filePath(QStringLiteral("argument.txt")));
        QVERIFY(output.open(QIODevice::ReadOnly));
        const QByteArray argument = output.readAll().trimmed();
        QVERIFY(!argument.contains('\n'));

        QProcess verifying;
        verifying.start(openssl, {"cms", "-verify", "-noverify", "-inform", "DER"});
        verifying.write(QByteArray::fromBase64(argument));
        verifying.closeWriteChannel();
        QVERIFY(verifying.waitForFinished(30000) && verifying.exitCode() == 0);
        QCOMPARE(verifying.readAllStandardOutput(), request);
    }
};

QTEST_GUILESS_MAIN(tst_ServerTrust)
#include "tst_servertrust.moc"
