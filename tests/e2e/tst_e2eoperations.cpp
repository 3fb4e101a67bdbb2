#include "devpki.h"
#include "tokenhost.h"

#include <QFile>
#include <QSslCertificate>
#include <QTemporaryDir>
#include <QTest>

// The four token operations from end to end, in both request versions: the built host through
// its pipes, signed requests, a SoftHSM token made for this run. Key generation and object
// creation log in through a token with a PIN pad (the test module), so no form is shown.
class TestE2eOperations : public QObject
{
    Q_OBJECT

    TokenHost th;
    QTemporaryDir work;
    QSslCertificate caCertificate;
    QMap<QString, QString> onPinPad;

    QString path(const QString& name) const { return work.filePath(name); }

    static bool openssl(const QStringList& arguments, QString* output = nullptr)
    {
        return TokenHost::runTool(QStringLiteral("openssl"), arguments, output);
    }

    // The DER of an X.509 name holding one common name (short enough for one-byte lengths).
    static QByteArray commonNameDer(const QString& commonName)
    {
        const auto tlv = [](char tag, const QByteArray& content) { return char(tag) + (char(content.size()) + content); };
        const QByteArray attribute = tlv(0x06, QByteArray("\x55\x04\x03", 3)) + tlv(0x0C, commonName.toUtf8());
        return tlv(0x30, tlv(0x31, tlv(0x30, attribute)));
    }

    QList<QSslCertificate> certificatesOnToken(const QString& version)
    {
        const QJsonObject answer = th.call(QStringLiteral("getcertificates-") + version);
        if (!TokenHost::error(answer).isEmpty())
            qWarning().noquote() << "GetCertificates failed:" << TokenHost::error(answer);
        QList<QSslCertificate> found;
        for (const QString& pem : TokenHost::texts(TokenHost::result(answer), QStringLiteral("Certificate")))
            found += QSslCertificate::fromData(pem.toLatin1(), QSsl::Pem);
        return found;
    }

    static void addVersions()
    {
        QTest::addColumn<QString>("version");
        QTest::newRow("2022-12-29") << "2022";
        QTest::newRow("2026-02-04") << "2026";
    }

private slots:
    void initTestCase()
    {
        if (!DevPki::isAvailable())
            QSKIP("this build trusts real anchors; requests cannot be signed here");
        QVERIFY(work.isValid());
        // A demo CA: its certificate is the one imported on the token, its key issues certificates.
        QVERIFY(openssl({"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", path("ca.key"), "-out",
                         path("ca.pem"), "-subj", "/CN=Scriva E2E CA", "-days", "2"}));
        caCertificate = QSslCertificate::fromPath(path("ca.pem")).value(0);
        QVERIFY(!caCertificate.isNull());

        // The sample requests ask for the vendor attribute that some tokens give their public keys.
        QVERIFY(th.configureTestModule("pin_pad_pin=" + QByteArray(TokenHost::userPin) + "\nkov_data_hex=3003020101\n"));
        onPinPad.insert(QString::fromLatin1(TokenHost::sampleModule), SoftHsmToken::testModulePath());
        th.host().enableLog();
        QVERIFY2(th.start(), qPrintable(th.lastError()));
        QVERIFY2(th.tokens().importCertificate(TokenHost::tokenLabel, TokenHost::userPin, caCertificate.toDer(),
                                               QStringLiteral("ca"), QStringLiteral("Scriva E2E CA")),
                 qPrintable(th.tokens().lastError()));
    }

    void getSlotsListsTheToken_data() { addVersions(); }
    void getSlotsListsTheToken()
    {
        QFETCH(QString, version);
        const QJsonObject answer = th.call(QStringLiteral("getslots-") + version);
        QCOMPARE(answer.value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
        QCOMPARE(answer.value(QStringLiteral("method")).toString(), HostProcess::method(QStringLiteral("GetSlots")));
        const QString document = TokenHost::result(answer);
        QCOMPARE(TokenHost::texts(document, QStringLiteral("Nonce")), QStringList{th.lastNonce()});
        QCOMPARE(TokenHost::texts(document, QStringLiteral("Pkcs11LibraryPath")),
                 QStringList{SoftHsmToken::softHsmModulePath()});

        const QStringList serials = TokenHost::texts(document, QStringLiteral("SerialNumber"));
        const int index = serials.indexOf(th.serialNumber());
        QVERIFY2(index >= 0, qPrintable(document));
        QCOMPARE(TokenHost::texts(document, QStringLiteral("Label")).value(index), QString(TokenHost::tokenLabel));
        QCOMPARE(TokenHost::texts(document, QStringLiteral("SlotId")).value(index),
                 QString::number(th.tokens().slotId(TokenHost::tokenLabel)));
        QCOMPARE(TokenHost::texts(document, QStringLiteral("HasProtectedAuthPath")).value(index), QStringLiteral("false"));
        // Only the newer version reports the token platform, one per slot.
        const qsizetype slotCount = TokenHost::texts(document, QStringLiteral("Slot")).size();
        QCOMPARE(TokenHost::texts(document, QStringLiteral("TokenPlatform")).size(), version == "2026" ? slotCount : 0);
    }

    void getCertificatesReturnsTheImportedCertificate_data() { addVersions(); }
    void getCertificatesReturnsTheImportedCertificate()
    {
        QFETCH(QString, version);
        QVERIFY(certificatesOnToken(version).contains(caCertificate));
    }

    // GenerateCsr, a certificate issued for the request, CreateObject, and GetCertificates again.
    void generatedRequestIsIssuedStoredAndListed_data() { addVersions(); }
    void generatedRequestIsIssuedStoredAndListed()
    {
        QFETCH(QString, version);
        const QString subject = QStringLiteral("Scriva E2E ") + version;
        const QByteArray subjectDer = commonNameDer(subject);
        QMap<QString, QString> replacements = onPinPad;
        replacements.insert(QStringLiteral("301E311C301A06035504030C135363726976612054657374205375626A656374"),
                            QString::fromLatin1(subjectDer.toHex()));
        const QJsonObject generated = th.call(QStringLiteral("generatecsr-") + version, replacements);
        QCOMPARE(TokenHost::error(generated), QString());
        const QString document = TokenHost::result(generated);
        QCOMPARE(TokenHost::texts(document, QStringLiteral("HasProtectedAuthPath")), QStringList{QStringLiteral("true")});
        const QString csr = TokenHost::texts(document, QStringLiteral("CSR")).value(0);
        QVERIFY2(csr.startsWith(QStringLiteral("-----BEGIN CERTIFICATE REQUEST-----")), qPrintable(document));

        const QString csrPath = path(QStringLiteral("request-%1.pem").arg(version));
        QFile csrFile(csrPath);
        QVERIFY(csrFile.open(QIODevice::WriteOnly) && csrFile.write(csr.toLatin1()) == csr.size());
        csrFile.close();
        QString verification;
        QVERIFY2(openssl({"req", "-in", csrPath, "-noout", "-verify", "-subject", "-nameopt", "RFC2253"}, &verification),
                 qPrintable(verification));
        QVERIFY2(verification.contains(QStringLiteral("verify OK")), qPrintable(verification));
        QVERIFY2(verification.contains(QStringLiteral("subject=CN=") + subject), qPrintable(verification));

        const QString certificatePath = path(QStringLiteral("issued-%1.der").arg(version));
        QString issuing;
        QVERIFY2(openssl({"x509", "-req", "-in", csrPath, "-CA", path("ca.pem"), "-CAkey", path("ca.key"),
                          "-set_serial", version, "-days", "1", "-outform", "DER", "-out", certificatePath},
                         &issuing),
                 qPrintable(issuing));
        const QSslCertificate issued = QSslCertificate::fromPath(certificatePath, QSsl::Der).value(0);
        QVERIFY(!issued.isNull());

        const QString attributes =
            QStringLiteral("<UnsignedLongAttribute><Attribute>0</Attribute><Value>1</Value></UnsignedLongAttribute>"
                           "<BoolAttribute><Attribute>1</Attribute><Value>true</Value></BoolAttribute>"
                           "<UnsignedLongAttribute><Attribute>128</Attribute><Value>0</Value></UnsignedLongAttribute>"
                           "<StringAttribute><Attribute>3</Attribute><Value>%1</Value></StringAttribute>"
                           "<ByteArrayAttribute><Attribute>257</Attribute><Value>%2</Value></ByteArrayAttribute>"
                           "<ByteArrayAttribute><Attribute>17</Attribute><Value>%3</Value></ByteArrayAttribute>"
                           "<DateTimeAttribute><Attribute>272</Attribute><Value>2024-02-29T23:59:59Z</Value></DateTimeAttribute>")
                .arg(subject, QString::fromLatin1(subjectDer.toHex()), QString::fromLatin1(issued.toDer().toHex()));
        const QString name = QStringLiteral("createobject-") + version;
        th.send(name, th.createObjectArgument(name, attributes, onPinPad));
        const QJsonObject created = th.host().readAnswer(60000);
        QCOMPARE(TokenHost::error(created), QString());
        QCOMPARE(TokenHost::texts(TokenHost::result(created), QStringLiteral("SerialNumber")), QStringList{th.serialNumber()});

        QVERIFY(certificatesOnToken(version).contains(issued));
        // The PIN pad logged in: the host loaded the PIN pad module and never set up a PIN form.
        const QString log = th.host().logLines().join(QLatin1Char('\n'));
        QVERIFY(log.contains(QStringLiteral("Loading PKCS#11 library ") + SoftHsmToken::testModulePath()));
        QVERIFY(!log.contains(QStringLiteral("Setting up slot and token info")));
    }

    void cleanupTestCase()
    {
        if (th.host().qprocess().state() == QProcess::NotRunning)
            return;
        QCOMPARE(th.host().call(QStringLiteral("Terminate")).value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
        QVERIFY(th.host().waitForExit(20000));
        QCOMPARE(th.host().exitStatus(), QProcess::NormalExit);
        QCOMPARE(th.host().exitCode(), 0);
    }
};

QTEST_GUILESS_MAIN(TestE2eOperations)
#include "tst_e2eoperations.moc"
