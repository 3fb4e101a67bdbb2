#include "externaltool.h"
#include "hostprocess.h"

#include <QSslCertificate>
#include <QTest>

// The host on a tpm2-pkcs11 token on a software TPM, logged in by the test module's PIN pad: the token listed, a key
// pair made on the TPM with a request openssl accepts, the certificate a CA issues for it stored and found again.
class TestE2eTpm : public QObject
{
    Q_OBJECT

    QTemporaryDir work;

private slots:
    void tokenOperationsOnATpm()
    {
        SKIP_WITHOUT_DEV_PKI();
        HostProcess th;
        QVERIFY(th.configureTestModule("pin_pad_pin=" + QByteArray(HostProcess::userPin) + "\n"));
        QVERIFY2(th.startWithTpmToken(), qPrintable(th.lastError()));
        const auto run = [&](const QString& program, const QStringList& arguments) {
            QString output;
            return ExternalTool::run(program, arguments, &output, th.environment(), work.path()) ? output : "failed: " + output;
        };
        const QMap<QString, QString> onPinPad = HostProcess::onTestModule();

        QString document = HostProcess::result(th.call("getslots-2026", onPinPad));
        QVERIFY2(HostProcess::texts(document, "Label").contains("Scriva token"), qPrintable(document));
        QVERIFY(HostProcess::texts(document, "SerialNumber").contains(HostProcess::tpmSerialNumber));

        // The sample template with an id on both keys, without the vendor attribute a TPM's keys lack.
        const QString id = "<ByteArrayAttribute><Attribute>258</Attribute><Value>A1</Value></ByteArrayAttribute>";
        QMap<QString, QString> keyPair{{"<KovData/>", ""}, {"</PublicKeyAttributes>", id + "</PublicKeyAttributes>"},
                                       {"</PrivateKeyAttributes>", id + "</PrivateKeyAttributes>"}};
        keyPair.insert(onPinPad);
        const QJsonObject answer = th.call("generatecsr-2026", keyPair);
        QFile csr(work.filePath("request.csr"));
        QVERIFY2(csr.open(QIODevice::WriteOnly) && csr.write(HostProcess::texts(HostProcess::result(answer), "CSR").join("").toUtf8()) > 0,
                 qPrintable(HostProcess::error(answer)));
        csr.close();
        QCOMPARE(run("openssl", {"req", "-in", "request.csr", "-verify", "-noout"}), QString());
        // The key pair is on the TPM: the token hands out the request's public key.
        QCOMPARE(run("pkcs11-tool", {"--module", HostProcess::tpmModulePath, "--read-object", "--type", "pubkey", "--id", "a1", "-o", "token.der"}),
                 QString());
        QCOMPARE(run("openssl", {"pkey", "-pubin", "-inform", "DER", "-in", "token.der"}),
                 run("openssl", {"req", "-in", "request.csr", "-pubkey", "-noout"}));

        // A development CA issues the certificate; it is stored beside its key and found there.
        const QSslCertificate issued(run("openssl", {"x509", "-req", "-in", "request.csr", "-CA", TestRequests::pkiFile("chain1-root.pem"),
                                                     "-CAkey", TestRequests::pkiFile("chain1-root.key")}).toUtf8());
        QVERIFY(!issued.isNull());
        th.setObjectAttributes("<UnsignedLongAttribute><Attribute>0</Attribute><Value>1</Value></UnsignedLongAttribute>"
                               "<BoolAttribute><Attribute>1</Attribute><Value>true</Value></BoolAttribute>"
                               "<UnsignedLongAttribute><Attribute>128</Attribute><Value>0</Value></UnsignedLongAttribute>" + id +
                               "<ByteArrayAttribute><Attribute>17</Attribute><Value>" + issued.toDer().toHex() + "</Value></ByteArrayAttribute>");
        QCOMPARE(HostProcess::error(th.call("createobject-2026", onPinPad)), QString());
        document = HostProcess::result(th.call("getcertificates-2026", onPinPad));
        QCOMPARE(QSslCertificate::fromData(HostProcess::texts(document, "Certificate").join("").toUtf8()), QList<QSslCertificate>{issued});

        // The host ends cleanly with the module unloaded (in a sanitizer build: nothing leaked).
        QVERIFY(th.terminate());
    }
};

QTEST_GUILESS_MAIN(TestE2eTpm)
#include "tst_e2etpm.moc"
