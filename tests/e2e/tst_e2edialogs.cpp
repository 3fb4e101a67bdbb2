#include "devpki.h"
#include "tokenhost.h"
#include "virtualdisplay.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSslCertificate>
#include <QTest>

// The host's real windows on a private X server, answered with a keyboard as a user would: the
// PIN form (right, wrong, cancelled), the message after a wrong PIN, the module file dialog,
// other requests while the form waits, the window's minimal display time and termination while
// the form is open. The cases share one host and run in this order; the last one ends the host.
class TestE2eDialogs : public QObject
{
    Q_OBJECT

    VirtualDisplay display;
    TokenHost th;
    // The PIN form and the message after a wrong PIN both carry the application's name alone.
    const QString formTitle = "^Corvant Scriva$";
    const QString fileDialogTitle = "^Select the PKCS#11 library of your token$";
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
        // Only requests that name the test module see these flags.
        QVERIFY(th.configureTestModule("user_pin_flags=final_try\n"));
        QVERIFY2(th.start(), qPrintable(th.lastError()));
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
        const QString form = startLoginOperation("last try", {{TokenHost::sampleModule, SoftHsmToken::testModulePath()}});
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
