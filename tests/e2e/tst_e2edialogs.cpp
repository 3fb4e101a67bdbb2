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
    QString hostWindowTitle;

    // The PIN form and the message after a wrong PIN both carry the application's name alone;
    // the host window adds the signer's name.
    static constexpr const char* formTitle = "^Corvant Scriva$";
    static constexpr const char* fileDialogTitle = "^Select the PKCS#11 library of your token$";
    static constexpr int displayTime = 2000;

    QString setDisplayTime()
    {
        return TokenHost::error(th.host().call(QStringLiteral("SetProperty"),
                                               QStringLiteral("{\"MinimalWindowDisplayTime\": %1}").arg(displayTime)));
    }

    // Starts a CreateObject of a private data object, which only a logged-in user can store, and
    // returns the PIN form it opens (empty when none shows).
    QString startLoginOperation(const QString& label, const QMap<QString, QString>& replacements = {})
    {
        const QString attributes =
            QStringLiteral("<UnsignedLongAttribute><Attribute>0</Attribute><Value>0</Value></UnsignedLongAttribute>"
                           "<BoolAttribute><Attribute>1</Attribute><Value>true</Value></BoolAttribute>"
                           "<BoolAttribute><Attribute>2</Attribute><Value>true</Value></BoolAttribute>"
                           "<StringAttribute><Attribute>3</Attribute><Value>%1</Value></StringAttribute>"
                           "<ByteArrayAttribute><Attribute>17</Attribute><Value>0102</Value></ByteArrayAttribute>")
                .arg(label);
        th.send(QStringLiteral("createobject-2026"), th.createObjectArgument(QStringLiteral("createobject-2026"), attributes, replacements));
        return display.waitForWindow(QString::fromLatin1(formTitle));
    }

    int formsSetUp()
    {
        return th.host().logLines().filter(QStringLiteral("Setting up slot and token info")).size();
    }

    QMap<QString, QString> noUsableModule() const
    {
        return {{QString::fromLatin1(TokenHost::sampleModule), QStringLiteral("/nonexistent/libpkcs11.so")},
                {QStringLiteral("<Path>opensc-pkcs11.so"), QStringLiteral("<Path>/nonexistent/opensc-pkcs11.so")},
                {QStringLiteral("<AllowManualSelection>false"), QStringLiteral("<AllowManualSelection>true")}};
    }

private slots:
    void initTestCase()
    {
        if (!DevPki::isAvailable())
            QSKIP("this build trusts real anchors; requests cannot be signed here");
        QVERIFY2(display.start(), qPrintable(display.lastError()));
        th.host().environment().insert(QStringLiteral("DISPLAY"), display.name());
        th.host().environment().insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        th.host().enableLog();
        // Only requests that name the test module see these flags.
        QVERIFY(th.configureTestModule("user_pin_flags=final_try\n"));
        QVERIFY2(th.start(), qPrintable(th.lastError()));
        const QSslCertificate signer = QSslCertificate::fromPath(DevPki::file(DevPki::defaultSigner + QStringLiteral(".pem"))).value(0);
        hostWindowTitle = QRegularExpression::escape(signer.subjectInfo(QSslCertificate::CommonName).value(0)) + "$";
    }

    void windowStaysForTheMinimalDisplayTime()
    {
        QCOMPARE(setDisplayTime(), QString());
        QElapsedTimer sent;
        sent.start();
        QCOMPARE(TokenHost::error(th.call(QStringLiteral("getslots-2026"))), QString());
        // The window, titled with the request's signer, outlives the answer.
        QVERIFY(!display.windows(hostWindowTitle).isEmpty());
        QCOMPARE(setDisplayTime(), QStringLiteral("Properties cannot be modified while application window is visible"));
        QTRY_COMPARE_WITH_TIMEOUT(setDisplayTime(), QString(), 20000);
        QVERIFY(sent.elapsed() >= displayTime);
        QVERIFY(display.windows(hostWindowTitle).isEmpty());
    }

    void pinTypedIntoTheFormLogsIn()
    {
        const QString form = startLoginOperation(QStringLiteral("typed PIN"));
        QVERIFY(!form.isEmpty());
        QVERIFY(display.type(form, TokenHost::userPin));
        QVERIFY(display.key(form, QStringLiteral("Return")));
        const QJsonObject answer = th.host().readAnswer(60000);
        QCOMPARE(answer.value(QStringLiteral("method")).toString(), HostProcess::method(QStringLiteral("CreateObject")));
        QCOMPARE(answer.value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
        QVERIFY(display.waitUntilGone(form));
    }

    void wrongPinShowsAMessageAndTheFormAgain()
    {
        const int formsBefore = formsSetUp();
        const QString form = startLoginOperation(QStringLiteral("second attempt"));
        QVERIFY(!form.isEmpty());
        QVERIFY(display.type(form, QStringLiteral("9999")));
        QVERIFY(display.key(form, QStringLiteral("Return")));
        const QString message = display.waitForWindow(QString::fromLatin1(formTitle), {form});
        QVERIFY(!message.isEmpty());
        QVERIFY(display.waitUntilGone(form));
        // Only one form is set up until the message is dismissed.
        QCOMPARE(formsSetUp(), formsBefore + 1);
        QVERIFY(display.key(message, QStringLiteral("Return")));

        const QString again = display.waitForWindow(QString::fromLatin1(formTitle), {form, message});
        QVERIFY(!again.isEmpty());
        QCOMPARE(formsSetUp(), formsBefore + 2);
        QVERIFY(display.type(again, TokenHost::userPin));
        QVERIFY(display.key(again, QStringLiteral("Return")));
        QCOMPARE(TokenHost::error(th.host().readAnswer(60000)), QString());
        QVERIFY(th.host().logLines().join(QLatin1Char('\n')).contains(QStringLiteral("CKR_PIN_INCORRECT")));
    }

    void formWarnsOfTheTokensLastTry()
    {
        const QString form = startLoginOperation(QStringLiteral("last try"),
                                                 {{QString::fromLatin1(TokenHost::sampleModule), SoftHsmToken::testModulePath()}});
        QVERIFY(!form.isEmpty());
        QTRY_VERIFY(!th.host().logLines().filter(QStringLiteral("The token warns: last PIN try")).isEmpty());
        QVERIFY(display.type(form, TokenHost::userPin));
        QVERIFY(display.key(form, QStringLiteral("Return")));
        QCOMPARE(TokenHost::error(th.host().readAnswer(60000)), QString());
    }

    void cancelledFormAnswersOperationCanceled()
    {
        const QString form = startLoginOperation(QStringLiteral("cancelled"));
        QVERIFY(!form.isEmpty());
        QVERIFY(display.key(form, QStringLiteral("Escape")));
        QCOMPARE(TokenHost::error(th.host().readAnswer(60000)), QStringLiteral("OperationCanceled"));
    }

    void whileTheFormWaitsOtherRequestsAreAnsweredOrRefused()
    {
        const QString form = startLoginOperation(QStringLiteral("kept waiting"));
        QVERIFY(!form.isEmpty());
        QCOMPARE(TokenHost::error(th.call(QStringLiteral("getslots-2022"))),
                 QStringLiteral("Another asynchronous method is already running"));
        QCOMPARE(TokenHost::result(th.host().call(QStringLiteral("GetVersion"))), QStringLiteral("2.6.1 (qt)"));
        QCOMPARE(setDisplayTime(), QStringLiteral("Properties cannot be modified while application window is visible"));

        // The waiting operation was not disturbed.
        QVERIFY(display.type(form, TokenHost::userPin));
        QVERIFY(display.key(form, QStringLiteral("Return")));
        const QJsonObject answer = th.host().readAnswer(60000);
        QCOMPARE(answer.value(QStringLiteral("method")).toString(), HostProcess::method(QStringLiteral("CreateObject")));
        QCOMPARE(answer.value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
    }

    void fileDialogChoosesTheModule()
    {
        th.send(QStringLiteral("getslots-2026"), th.argument(QStringLiteral("getslots-2026"), noUsableModule()));
        const QString dialog = display.waitForWindow(QString::fromLatin1(fileDialogTitle));
        QVERIFY(!dialog.isEmpty());
        QVERIFY(display.type(dialog, SoftHsmToken::softHsmModulePath()));
        QVERIFY(display.key(dialog, QStringLiteral("Return")));
        const QJsonObject answer = th.host().readAnswer(60000);
        QCOMPARE(TokenHost::error(answer), QString());
        const QString document = TokenHost::result(answer);
        QCOMPARE(TokenHost::texts(document, QStringLiteral("Pkcs11LibraryPath")),
                 QStringList{SoftHsmToken::softHsmModulePath()});
        QVERIFY(TokenHost::texts(document, QStringLiteral("SerialNumber")).contains(th.serialNumber()));
    }

    void rejectedFileDialogAnswersUserRejectedFileDialog()
    {
        th.send(QStringLiteral("getcertificates-2022"), th.argument(QStringLiteral("getcertificates-2022"), noUsableModule()));
        const QString dialog = display.waitForWindow(QString::fromLatin1(fileDialogTitle));
        QVERIFY(!dialog.isEmpty());
        QVERIFY(display.key(dialog, QStringLiteral("Escape")));
        QCOMPARE(TokenHost::error(th.host().readAnswer(60000)), QStringLiteral("UserRejectedFileDialog"));
    }

    void terminateWhileTheUserIsAskedDropsTheOperation()
    {
        // The wrong-PIN message is open: termination must not wait for the user to dismiss it.
        const QString form = startLoginOperation(QStringLiteral("never stored"));
        QVERIFY(!form.isEmpty());
        QVERIFY(display.type(form, QStringLiteral("9999")));
        QVERIFY(display.key(form, QStringLiteral("Return")));
        QVERIFY(!display.waitForWindow(QString::fromLatin1(formTitle), {form}).isEmpty());
        const QJsonObject answer = th.host().call(QStringLiteral("Terminate"));
        QCOMPARE(answer.value(QStringLiteral("method")).toString(), HostProcess::method(QStringLiteral("Terminate")));
        QCOMPARE(answer.value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
        QVERIFY(th.host().waitForExit(20000));
        QCOMPARE(th.host().exitStatus(), QProcess::NormalExit);
        QCOMPARE(th.host().exitCode(), 0);
        QCOMPARE(th.host().pendingOutput(), QByteArray());
    }
};

QTEST_GUILESS_MAIN(TestE2eDialogs)
#include "tst_e2edialogs.moc"
