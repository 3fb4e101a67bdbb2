// Server-signed requests: the CMS envelope, the signer's chain, policy and validity period.
#include "appexception.h"
#include "devpki.h"
#include "ownedresource.h"
#include "responsecryptoprocessor.h"
#include "responsesigningcertificate.h"
#include "trustanchors.h"
#include "x509certificate2ultra.h"

#include <QtTest>

#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace {
const QByteArray request = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Request><Slot>Čtečka 1</Slot></Request>\n";
const QString nothing = QStringLiteral("<nothing thrown>");

QString thrown(const std::function<void()>& action)
{
    try {
        action();
    } catch (const AppException& e) {
        return e.getMessage();
    }
    return nothing;
}

QByteArray devFile(const QString& name)
{
    QFile file(DevPki::file(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

X509Certificate2Ultra devCertificate(const QString& name) { return X509Certificate2Ultra(devFile(name + ".pem"), QSsl::Pem); }

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
            const QString label = "C = CZ, O = Scriva Development PKI, CN = Scriva Development " + chain + " : AppException: ";
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^" + QRegularExpression::escape(label) + text,
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
            const QString message = thrown([&] { processor.processBase64CmsSignedData(DevPki::signedArgument(request, signer)); });
            QCOMPARE(message, acceptingChain < 0 ? "CommunicationMismatchUnstrustedServer" : nothing);
            QCOMPARE(processor.getCmsContent(), QString::fromUtf8(request));
            QCOMPARE(processor.getServerCertificate(), devCertificate(signer));
            QCOMPARE(processor.getIssuerChain(), acceptingChain < 0 ? QList<X509Certificate2Ultra>() : anchor(acceptingChain));
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
        ERR_raise_data(ERR_LIB_USER, 1, "an earlier failure"); // not this request's
        const QString message = thrown([&] { processor.processBase64CmsSignedData(argument); });
        QVERIFY2(message.startsWith(expected) && !message.contains("earlier"), qPrintable(message));
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
        QCOMPARE(thrown([&] { none.verifyIssuer(anchor(0)); }), QStringLiteral("InvalidCertificate"));
        QCOMPARE(thrown([&] { none.verifyCustomPolicy(policy); }), QStringLiteral("Unable to load X509 certificate"));
        // A root trusts itself only through a chain: no chain is no trust.
        QCOMPARE(thrown([&] { anchor(0).first().verifyIssuer({}); }), QStringLiteral("InvalidCertificate"));
        // The intermediate of chain 2 is offered, never trusted on its own: not even right after
        // the whole chain has passed.
        const X509Certificate2Ultra server = devCertificate(QStringLiteral("server-chain2"));
        server.verifyIssuer(anchor(1));
        QCOMPARE(thrown([&] { server.verifyIssuer(anchor(1).mid(0, 1)); }), QStringLiteral("IssuerInvalid"));
        QCOMPARE(server.toString(), QString::fromLatin1(devFile("server-chain2.pem")));
        const Owned<X509, X509_free> decoded(server.toX509());
        QCOMPARE(X509Certificate2Ultra(decoded.get()), server);
    }

    void judgesValidityPeriodInWholeSeconds()
    {
        // Effective or expiring in the current second: not valid. Retried if the clock ticks meanwhile.
        const QByteArray keyPem = devFile(QStringLiteral("server-chain2.key"));
        const Owned<BIO, BIO_free> bio(BIO_new_mem_buf(keyPem.constData(), int(keyPem.size())));
        const Owned<EVP_PKEY, EVP_PKEY_free> key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
        for (qint64 second = 0; second != QDateTime::currentSecsSinceEpoch();) {
            second = QDateTime::currentSecsSinceEpoch();
            for (const qint64 from : {second, second - 3600}) {
                const Owned<X509, X509_free> certificate(X509_new());
                QVERIFY(ASN1_TIME_set(X509_getm_notBefore(certificate.get()), time_t(from))
                        && ASN1_TIME_set(X509_getm_notAfter(certificate.get()), time_t(from + 3600))
                        && X509_set_pubkey(certificate.get(), key.get()) && X509_sign(certificate.get(), key.get(), EVP_sha256()));
                QVERIFY(!X509Certificate2Ultra(certificate.get()).isValidByTime() || second != QDateTime::currentSecsSinceEpoch());
            }
        }
    }

    void deserializesSigningCertificate_data()
    {
        QTest::addColumn<QJsonObject>("json");
        QTest::addColumn<QString>("expected"); // the refusal, or the record as text
        const X509Certificate2Ultra root = anchor(0).at(0);
        const QString certificate = QString::fromLatin1(root.toDer().toBase64());
        const QString ocsp = QStringLiteral("b2NzcA=="), crl = QStringLiteral("Y3Js"); // "ocsp", "crl"
        const QString text = "Cert:" + root.toPem() + "\nRevocation type:%1\nRevocation data:%2";
        QTest::newRow("all three keys: OCSP wins")
            << QJsonObject{{"Certificate", certificate}, {"OcspResponse", ocsp}, {"Crl", crl}} << text.arg("OCSP", ocsp);
        QTest::newRow("CRL, OCSP response not a string")
            << QJsonObject{{"Certificate", certificate}, {"OcspResponse", 5}, {"Crl", crl}} << text.arg("CRL", crl);
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
        QFETCH(QString, expected);
        ResponseSigningCertificate record;
        const QString refusal = thrown([&] { record.deserialize(json); });
        QCOMPARE(refusal == nothing ? record.toString() : refusal, expected);
        QCOMPARE(record.isNull(), refusal != nothing);
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
                      {input.fileName(), DevPki::file("server-chain1.key"), DevPki::file("server-chain1.pem")});
        QVERIFY(signing.waitForFinished(30000) && signing.exitCode() == 0);
        const QByteArray argument = signing.readAllStandardOutput().trimmed(); // the one-line operation argument
        QVERIFY(!argument.isEmpty() && !argument.contains('\n'));
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
