#include "devpki.h"
#include "testrequests.h"
#include "tokenhost.h"

#include <QTest>

// Each token operation once through the built host's pipes with a signed request, on a SoftHSM
// token made for this run and reached through the test module, whose PIN pad logs in; and the
// requests that must never reach the token, answered with their error while the host stays up.
class TestE2eOperations : public QObject
{
    Q_OBJECT

    TokenHost th;
    const QMap<QString, QString> onPinPad{{TokenHost::sampleModule, SoftHsmToken::testModulePath()}};

private slots:
    void initTestCase()
    {
        if (!DevPki::isAvailable())
            QSKIP("this build trusts real anchors; requests cannot be signed here");
        // The sample requests ask for the vendor attribute that some tokens give their public keys.
        QVERIFY(th.configureTestModule("pin_pad_pin=" + QByteArray(TokenHost::userPin) + "\nkov_data_hex=3003020101\n"));
        th.host().enableLog();
        QVERIFY2(th.start(), qPrintable(th.lastError()));
    }

    void refusals_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("argument");
        QTest::addColumn<QString>("error"); // pattern
        const QString old = "00000000-0000-0000-0000-000000000000";
        QTest::newRow("older nonce") << "GetSlots" << TestRequests::signedArgument("getslots-2026", old)
                                     << "^CommunicationMismatchNonce$";
        QTest::newRow("not base64 CMS") << "GetCertificates" << "this is not a signed request" << "^Unable to parse CMS: ";
        for (const char* signer : {"signer-unknown-root", "signer-no-policy"})
            QTest::newRow(signer) << "GetSlots" << TestRequests::signedXml(TestRequests::xml("getslots-2022", old), signer)
                                  << "^CommunicationMismatchUnstrustedServer$";
        QTest::newRow("other operation's branch")
            << "GetSlots" << TestRequests::signedArgument("getcertificates-2022", old) << "^Unexpected element!$";
        QTest::newRow("invalid document")
            << "CreateObject" << TestRequests::signedArgument("createobject-2022", old, {{"<Architecture>x64", "<Architecture>X64"}})
            << "^Unsuccessful XML validation!$";
    }

    void refusals()
    {
        QFETCH(QString, method);
        QFETCH(QString, argument);
        QFETCH(QString, error);
        const QString answer = TokenHost::error(th.host().call(method, argument));
        QVERIFY2(QRegularExpression(error).match(answer).hasMatch(), qPrintable(answer));
        QCOMPARE(TokenHost::result(th.host().call("GetVersion")), "2.6.1 (qt)");
    }

    void operations_data()
    {
        QTest::addColumn<QString>("request");
        QTest::addColumn<QString>("element");
        QTest::addColumn<QString>("text"); // pattern of its first occurrence
        QTest::newRow("CreateObject") << "createobject-2026" << "Label" << "^Scriva token$";
        QTest::newRow("GetSlots") << "getslots-2026" << "TokenPlatform" << "^$";
        QTest::newRow("GetCertificates") << "getcertificates-2022" << "Certificates" << "^$";
        QTest::newRow("GenerateCsr") << "generatecsr-2022" << "CSR" << "^-----BEGIN CERTIFICATE REQUEST-----\n[^-]+"
                                                                      "-----END CERTIFICATE REQUEST-----\n$";
    }

    void operations()
    {
        QFETCH(QString, request);
        QFETCH(QString, element);
        QFETCH(QString, text);
        th.send(request, th.argument(request, onPinPad,
                                     request.startsWith("createobject")
                                         ? "<UnsignedLongAttribute><Attribute>0</Attribute><Value>0</Value></UnsignedLongAttribute>"
                                           "<BoolAttribute><Attribute>1</Attribute><Value>true</Value></BoolAttribute>"
                                         : QString()));
        const QJsonObject answer = th.host().readAnswer(60000);
        QCOMPARE(answer.value("method").toString(), HostProcess::method(TokenHost::operation(request)));
        QCOMPARE(answer.value("error"), QJsonValue(QJsonValue::Null));
        const QString document = TokenHost::result(answer);
        QCOMPARE(TokenHost::texts(document, "Nonce"), QStringList(th.lastNonce()));
        QCOMPARE(TokenHost::texts(document, "Pkcs11LibraryPath"), QStringList(SoftHsmToken::testModulePath()));
        QVERIFY(TokenHost::texts(document, "SerialNumber").contains(th.serialNumber()));
        QVERIFY2(QRegularExpression(text).match(TokenHost::texts(document, element).value(0, "missing")).hasMatch(),
                 qPrintable(document));
        // The PIN pad logged in: no PIN form was ever set up.
        QVERIFY(!th.host().logContains("Setting up slot and token info"));
        // Each result reached its own operation's answer.
        QVERIFY(!th.host().logContains("Received result of an unknown async method"));
        // With the log on, the request and its signer are logged, each on one line.
        QVERIFY(th.host().logContains("CMS content: <?xml version=\"1.0\" encoding=\"UTF-8\"?>\\n<ScrivaOperation"));
        QVERIFY(th.host().logContains("Server certificate: -----BEGIN CERTIFICATE-----\\n"));
    }

    void cleanupTestCase()
    {
        if (th.host().qprocess().state() == QProcess::NotRunning)
            return;
        QCOMPARE(th.callMethod("Terminate").value("error"), QJsonValue(QJsonValue::Null));
        QVERIFY(th.host().waitForExit(20000));
        QCOMPARE(th.host().exitCode(), 0);
    }
};

QTEST_GUILESS_MAIN(TestE2eOperations)
#include "tst_e2eoperations.moc"
