#include "devpki.h"
#include "testrequests.h"
#include "tokenhost.h"
#include "virtualdisplay.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSslCertificate>
#include <QTest>

// The built host through its pipes with signed requests, on a SoftHSM token made for this run:
// each token operation once, through the test module, whose PIN pad logs in; the requests that
// must never reach the token, answered with their error while the host stays up; then the real
// windows on a private X server, answered with a keyboard as a user would: the PIN form (right,
// wrong, cancelled), the message after a wrong PIN, the module file dialog, other requests while
// the form waits, the window's minimal display time and termination while the form is open. The
// cases share one host and run in this order; the last one ends the host.
class TestE2eDialogs : public QObject
{
    Q_OBJECT

    VirtualDisplay display;
    TokenHost th;
    // The PIN form and the message after a wrong PIN both carry the application's name alone.
    const QString formTitle = "^Corvant Scriva$";
    const QString fileDialogTitle = "^Select the PKCS#11 library of your token$";
    const QMap<QString, QString> onPinPad{{TokenHost::sampleModule, SoftHsmToken::testModulePath()}};
    const QMap<QString, QString> noUsableModule{{TokenHost::sampleModule, "/nonexistent/libpkcs11.so"},
                                                {"<Path>opensc-pkcs11.so", "<Path>/nonexistent/opensc-pkcs11.so"},
                                                {"<AllowManualSelection>false", "<AllowManualSelection>true"}};

    QString setDisplayTime()
    {
        return TokenHost::error(th.host().call("SetProperty", "{\"MinimalWindowDisplayTime\": 2000}"));
    }

    // Starts a CreateObject of a private data object, which only a logged-in user can store, and
    // returns the PIN form it opens (empty when none shows).
    QString startLoginOperation(const QString& label, const QMap<QString, QString>& replacements = {})
    {
        th.send("createobject-2026",
                th.argument("createobject-2026", replacements,
                            "<UnsignedLongAttribute><Attribute>0</Attribute><Value>0</Value></UnsignedLongAttribute>"
                            "<BoolAttribute><Attribute>1</Attribute><Value>true</Value></BoolAttribute>"
                            "<BoolAttribute><Attribute>2</Attribute><Value>true</Value></BoolAttribute>"
                            "<StringAttribute><Attribute>3</Attribute><Value>" + label + "</Value></StringAttribute>"
                            "<ByteArrayAttribute><Attribute>17</Attribute><Value>0102</Value></ByteArrayAttribute>"));
        return display.waitForWindow(formTitle);
    }

    int formsSetUp() { return th.host().logLines().filter("Setting up slot and token info").size(); }

    // The method and error of the next answer.
    QString nextAnswer()
    {
        const QJsonObject answer = th.host().readAnswer(60000);
        return answer.value("method").toString().section('.', -1) + ": " + TokenHost::error(answer);
    }

private slots:
    void initTestCase()
    {
        if (!DevPki::isAvailable())
            QSKIP("this build trusts real anchors; requests cannot be signed here");
        QVERIFY2(display.start(), qPrintable(display.lastError()));
        th.host().environment().insert("DISPLAY", display.name());
        th.host().environment().insert("QT_QPA_PLATFORM", "xcb");
        th.host().enableLog();
        // Only requests that name the test module see these; the sample requests ask for the
        // vendor attribute that some tokens give their public keys.
        QVERIFY(th.configureTestModule("pin_pad_pin=" + QByteArray(TokenHost::userPin) + "\nkov_data_hex=3003020101\n"));
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
        QTest::newRow("unknown signer") << "GetSlots" << TestRequests::signedXml(TestRequests::xml("getslots-2022", old), "signer-unknown-root")
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

    void windowStaysForTheMinimalDisplayTime()
    {
        // The window is titled with the request's signer.
        const QSslCertificate signer = QSslCertificate::fromPath(DevPki::file(DevPki::defaultSigner + QStringLiteral(".pem"))).value(0);
        const QString hostWindow = QRegularExpression::escape(signer.subjectInfo(QSslCertificate::CommonName).value(0)) + "$";
        QCOMPARE(setDisplayTime(), QString());
        QElapsedTimer sent;
        sent.start();
        QCOMPARE(TokenHost::error(th.call("getslots-2026")), QString());
        QVERIFY(!display.windows(hostWindow).isEmpty());
        QCOMPARE(setDisplayTime(), "Properties cannot be modified while application window is visible");
        QTRY_COMPARE_WITH_TIMEOUT(setDisplayTime(), QString(), 20000);
        QVERIFY(sent.elapsed() >= 2000);
        QVERIFY(display.windows(hostWindow).isEmpty());
    }

    void pinTypedIntoTheFormLogsIn()
    {
        const QString form = startLoginOperation("typed PIN");
        QVERIFY(display.type(form, TokenHost::userPin, "Return"));
        QCOMPARE(nextAnswer(), "CreateObject: ");
        QVERIFY(display.waitUntilGone(form));
    }

    void wrongPinShowsAMessageAndTheFormAgain()
    {
        const int formsBefore = formsSetUp();
        const QString form = startLoginOperation("second attempt");
        QVERIFY(display.type(form, "9999", "Return"));
        const QString message = display.waitForWindow(formTitle, {form});
        QVERIFY(!message.isEmpty() && display.waitUntilGone(form));
        // Only one form is set up until the message is dismissed.
        QCOMPARE(formsSetUp(), formsBefore + 1);
        QVERIFY(display.type(message, {}, "Return"));
        const QString again = display.waitForWindow(formTitle, {form, message});
        QCOMPARE(formsSetUp(), formsBefore + 2);
        QVERIFY(display.type(again, TokenHost::userPin, "Return"));
        QCOMPARE(nextAnswer(), "CreateObject: ");
        QVERIFY(th.host().logContains("CKR_PIN_INCORRECT"));
    }

    void formWarnsOfTheTokensLastTry()
    {
        QVERIFY(th.configureTestModule("user_pin_flags=final_try\n"));
        const QString form = startLoginOperation("last try", onPinPad);
        QTRY_VERIFY(th.host().logContains("The token warns: last PIN try"));
        QVERIFY(display.type(form, TokenHost::userPin, "Return"));
        QCOMPARE(nextAnswer(), "CreateObject: ");
    }

    void cancelledFormAnswersOperationCanceled()
    {
        QVERIFY(display.type(startLoginOperation("cancelled"), {}, "Escape"));
        QCOMPARE(nextAnswer(), "CreateObject: OperationCanceled");
    }

    void whileTheFormWaitsOtherRequestsAreAnsweredOrRefused()
    {
        const QString form = startLoginOperation("kept waiting");
        QCOMPARE(TokenHost::error(th.call("getslots-2022")), "Another asynchronous method is already running");
        QCOMPARE(TokenHost::result(th.host().call("GetVersion")), "2.6.1 (qt)");
        QCOMPARE(setDisplayTime(), "Properties cannot be modified while application window is visible");
        // The waiting operation was not disturbed.
        QVERIFY(display.type(form, TokenHost::userPin, "Return"));
        QCOMPARE(nextAnswer(), "CreateObject: ");
    }

    void fileDialogChoosesTheModuleOrIsRejected()
    {
        th.send("getslots-2026", th.argument("getslots-2026", noUsableModule));
        QVERIFY(display.type(display.waitForWindow(fileDialogTitle), SoftHsmToken::softHsmModulePath(), "Return"));
        const QJsonObject answer = th.host().readAnswer(60000);
        QCOMPARE(TokenHost::error(answer), QString());
        QCOMPARE(TokenHost::texts(TokenHost::result(answer), "Pkcs11LibraryPath"), QStringList{SoftHsmToken::softHsmModulePath()});
        QVERIFY(TokenHost::texts(TokenHost::result(answer), "SerialNumber").contains(th.serialNumber()));

        th.send("getcertificates-2022", th.argument("getcertificates-2022", noUsableModule));
        QVERIFY(display.type(display.waitForWindow(fileDialogTitle), {}, "Escape"));
        QCOMPARE(nextAnswer(), "GetCertificates: UserRejectedFileDialog");
    }

    void terminateWhileTheUserIsAskedDropsTheOperation()
    {
        // The wrong-PIN message is open: termination must not wait for the user to dismiss it.
        const QString form = startLoginOperation("never stored");
        QVERIFY(display.type(form, "9999", "Return"));
        QVERIFY(!display.waitForWindow(formTitle, {form}).isEmpty());
        th.host().send({{"method", HostProcess::method("Terminate")}});
        QCOMPARE(nextAnswer(), "Terminate: ");
        QVERIFY(th.host().waitForExit(20000));
        QCOMPARE(th.host().exitStatus(), QProcess::NormalExit);
        QCOMPARE(th.host().exitCode(), 0);
        QCOMPARE(th.host().pendingOutput(), QByteArray());
    }
};

QTEST_GUILESS_MAIN(TestE2eDialogs)
#include "tst_e2edialogs.moc"
