#include "externaltool.h"
#include "testrequests.h"
#include "hostprocess.h"
#include "virtualdisplay.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSslCertificate>
#include <QStandardPaths>
#include <QTest>

#include <sys/prctl.h>

// The built host's real windows on a private X server and a headless Wayland desktop, answered with a keyboard, on
// a SoftHSM token made for this run. The cases share one host in this order; the last one ends it.
class TestE2eDialogs : public QObject
{
    Q_OBJECT

    VirtualDisplay display, wayland{VirtualDisplay::Wayland};
    QProcess accessibilityBus;
    HostProcess th;
    // The PIN form and the message after a wrong PIN both carry the application's name alone.
    const QString formTitle = "^Corvant Scriva$";
    const QString fileDialogTitle = "^Select the PKCS#11 library of your token$";

    QString setDisplayTime() { return HostProcess::error(th.call("SetProperty", "{\"MinimalWindowDisplayTime\": 2000}")); }

    const char* wrongPin = "Hm3rT9vB";
    QTemporaryDir work;
#ifdef __SANITIZE_ADDRESS__
    const bool dumped = false; // a dump would hold tens of gigabytes of the sanitizer's reserved memory
#else
    const bool dumped = true;
#endif

    // The copies of the PINs in the running host's memory (UTF-8 or UTF-16) or its log; gdb reads no debug information.
    QString pinsLeft(HostProcess& host)
    {
        QFile core(work.filePath("core"));
        QString found;
        if (!ExternalTool::run("gdb", {"--batch", "-nx", "--readnever", "-iex", "set auto-solib-add off", "-p",
                                       QString::number(host.qprocess().processId()), "-ex", "gcore " + core.fileName()}, &found))
            return "no dump: " + found;
        const uchar* mapped = core.open(QIODevice::ReadOnly) ? core.map(0, core.size()) : nullptr;
        const QByteArray dump = QByteArray::fromRawData(reinterpret_cast<const char*>(mapped), mapped ? core.size() : 0);
        found = mapped ? QString() : "dump unreadable: " + core.errorString();
        for (const QString& pin : {QString(HostProcess::userPin), QString(wrongPin)}) {
            const qsizetype copies = host.logLines().filter(pin).size() + dump.count(pin.toUtf8())
                                     + dump.count(QByteArray(reinterpret_cast<const char*>(pin.utf16()), pin.size() * 2));
            found += copies ? QString("%1 copies of %2; ").arg(copies).arg(pin) : QString();
        }
        core.remove();
        return found;
    }

private slots:
    void initTestCase()
    {
        SKIP_WITHOUT_DEV_PKI();
        QVERIFY2(display.start(), qPrintable(display.lastError()));
        QVERIFY2(wayland.start(), qPrintable(wayland.lastError()));
        display.addTo(th.environment());
        // The accessibility bus a screen reader hears the host on: private to this run, ended when its input closes.
        accessibilityBus.setProcessEnvironment(th.environment());
        accessibilityBus.start("dbus-run-session", {"--", "sh", "-c", "echo $DBUS_SESSION_BUS_ADDRESS; /usr/libexec/at-spi-bus-launcher "
                                                    "--launch-immediately & read -r _; kill $!"});
        QVERIFY(accessibilityBus.waitForReadyRead(10000));
        th.environment().insert("DBUS_SESSION_BUS_ADDRESS", accessibilityBus.readLine().trimmed());
        th.environment().insert("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
        th.enableLog();
        QVERIFY(th.configureTestModule({})); // names the file in the host's environment; the cases write it
        QVERIFY2(th.startWithToken(), qPrintable(th.lastError()));
    }

    void windowStaysForTheMinimalDisplayTime()
    {
        // The window is titled with the request's signer.
        const QSslCertificate signer = QSslCertificate::fromPath(TestRequests::pkiFile(TestRequests::defaultSigner + QStringLiteral(".pem"))).value(0);
        const QString hostWindow = QRegularExpression::escape(signer.subjectInfo(QSslCertificate::CommonName).value(0)) + "$";
        QCOMPARE(setDisplayTime(), QString());
        QElapsedTimer sent;
        sent.start();
        QCOMPARE(HostProcess::error(th.call("getslots-2026")), QString());
        QVERIFY(!display.windows(hostWindow).isEmpty());
        QCOMPARE(setDisplayTime(), "Properties cannot be modified while application window is visible");
        QTRY_COMPARE_WITH_TIMEOUT(setDisplayTime(), QString(), 20000);
        QVERIFY(sent.elapsed() >= 2000);
        QVERIFY(display.windows(hostWindow).isEmpty());
    }

    void fileDialogChoosesTheModuleOrIsRejected()
    {
        QMap<QString, QString> noModule{{HostProcess::sampleModule, "/nonexistent/libpkcs11.so"},
                                        {"<Path>opensc-pkcs11.so", "<Path>/nonexistent/opensc-pkcs11.so"}};
        // Without manual selection no dialog is offered.
        QCOMPARE(HostProcess::error(th.call("getslots-2026", noModule)), "NoUsablePkcs11LibraryFound");
        noModule.insert("<AllowManualSelection>false", "<AllowManualSelection>true");
        th.send("getslots-2026", th.argument("getslots-2026", noModule));
        QVERIFY(display.type(display.waitForWindow(fileDialogTitle), SoftHsmToken::softHsmModulePath(), "Return"));
        const QString document = HostProcess::result(th.readAnswer(60000));
        QCOMPARE(HostProcess::texts(document, "Pkcs11LibraryPath"), QStringList{SoftHsmToken::softHsmModulePath()});
        QVERIFY(HostProcess::texts(document, "SerialNumber").contains(th.serialNumber()));

        th.send("getcertificates-2022", th.argument("getcertificates-2022", noModule));
        QVERIFY(display.type(display.waitForWindow(fileDialogTitle), {}, "Escape"));
        QCOMPARE(HostProcess::error(th.readAnswer(60000)), "UserRejectedFileDialog");
    }

    // The PIN form, a host for each row, ending as the row says; then neither PIN is left in the host's memory nor log.
    // Last, the host started as the WebExtensions portal and Flatpak's proxy start it for a sandboxed Firefox: not
    // the browser's child, with little of the user's environment.
    void pinIsUsedAndForgotten_data()
    {
        QTest::addColumn<bool>("onWayland");
        QTest::addColumn<QString>("answer"); // how the form ends
        QTest::addColumn<QStringList>("firefoxArguments"); // none: the browser's child, with the test's environment
        // The operation is held in its last token call, after the form closed and before the host ends.
        QTest::newRow("X: a PIN typed, then Terminate") << false << "terminate" << QStringList();
        QTest::newRow("Wayland: a wrong PIN, its message, then the form again") << true << "wrong" << QStringList();
        QTest::newRow("Wayland: started as for a sandboxed Firefox") << true << "ok" << QStringList{
            SCRIVA_BUILD_DIR "/share/scriva/native-messaging-hosts/firefox/com.corvant.scriva.pkcs11.json", "scriva-pkcs11@corvant.com"};
    }

    void pinIsUsedAndForgotten()
    {
        QFETCH(bool, onWayland);
        QFETCH(QString, answer);
        QFETCH(QStringList, firefoxArguments);
        if (!dumped && !onWayland)
            QSKIP("this row is there for the dump");
        const VirtualDisplay& desktop = onWayland ? wayland : display;
        HostProcess host;
        QProcessEnvironment& env = host.environment();
        if (!firefoxArguments.isEmpty()) {
            for (const QString& name : env.keys()) // all but HOME and the sanitizers' settings of the test run
                if (name != "HOME" && !name.endsWith("SAN_OPTIONS"))
                    env.remove(name);
            env.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + wayland.runtimeDir() + "/bus");
            // In a new session whose leader only waits for the host.
            host.setLauncher(QStandardPaths::findExecutable("setsid"), {"--fork", "--wait"});
        } else {
            env.insert("QT_QPA_PLATFORM", onWayland ? "wayland" : "xcb");
            // gdb may trace the host even where only a parent may trace its children.
            host.qprocess().setChildProcessModifier([] { prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY); });
        }
        desktop.addTo(env);
        QTemporaryDir gates;
        QVERIFY(host.configureTestModule("kov_data_hex=3003020101\nhold_dir=" + gates.path().toUtf8()
                                         + (answer == "terminate" ? "\nhold_calls=C_Finalize\n" : "\n")));
        host.enableLog();
        QVERIFY2(host.startWithToken(firefoxArguments), qPrintable(host.lastError()));
        // Each window (form; message, form) is a new one of the host's and takes the keyboard focus.
        host.send("generatecsr-2026", host.argument("generatecsr-2026", HostProcess::onTestModule()));
        QString form = desktop.waitForWindow(formTitle);
        if (answer == "wrong") {
            QVERIFY(desktop.type(form, wrongPin, "Return"));
            const QString message = desktop.waitForWindow(formTitle, {form});
            QVERIFY(desktop.type(message, {}, "Return"));
            form = desktop.waitForWindow(formTitle, {form, message});
            QVERIFY(host.logContains("CKR_PIN_INCORRECT"));
        }
        QVERIFY(!form.isEmpty() && desktop.type(form, HostProcess::userPin, answer == "terminate" ? "" : "Return"));
        if (answer == "terminate") {
            QCOMPARE(HostProcess::error(host.call("Terminate")), QString());
            QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(gates.filePath("C_Finalize.entered")) && desktop.windows(formTitle).isEmpty(), 20000);
        } else {
            QCOMPARE(HostProcess::error(host.readAnswer(60000)), QString());
        }
        // Run from setsid the host is a grandchild, which this test cannot dump.
        if (dumped && firefoxArguments.isEmpty())
            QCOMPARE(pinsLeft(host), QString());
        QVERIFY(QFile(gates.filePath("C_Finalize.release")).open(QIODevice::WriteOnly));
        QVERIFY(answer == "terminate" ? host.endedNormally(20000) : host.terminate());
    }

    // A screen reader hears each window as it gets the focus, the last-try warning with the PIN field. Tab goes to OK
    // then Cancel, Escape cancels; after a wrong PIN a message says so, and Terminate does not wait for the user.
    void screenReaderHearsTheFormsAndTheWrongPinMessage()
    {
        QProcess reader; // on the host's accessibility bus
        reader.setProcessEnvironment(th.environment());
        reader.start("/usr/bin/python3", {SCRIVA_SOURCE_DIR "/tests/e2e/screenreader.py"});
        QVERIFY(reader.waitForReadyRead(20000) && th.configureTestModule("user_pin_flags=final_try\n"));
        QString heard;
        // Each window is read before the keys go on.
        const auto heardFocus = [&](int times) {
            return QTest::qWaitFor([&] { return (heard += reader.readAll()).count("focus: ") >= times; }, 20000);
        };
        // A CreateObject needs a login: the PIN form it opens.
        const auto startLogin = [&] {
            return th.send("createobject-2026", th.argument("createobject-2026", HostProcess::onTestModule())), display.waitForWindow(formTitle);
        };
        const QString first = startLogin();
        QTRY_VERIFY(th.logContains("The token warns: last PIN try"));
        for (const int times : {1, 2, 3})
            QVERIFY(heardFocus(times) && display.type(first, {}, times < 3 ? "Tab" : "Escape"));
        QCOMPARE(HostProcess::error(th.readAnswer(60000)), "OperationCanceled");

        const QString form = startLogin();
        QVERIFY(heardFocus(4) && display.type(form, "9999", "Return"));
        const QString message = display.waitForWindow(formTitle, {form});
        QVERIFY(!message.isEmpty() && display.waitUntilGone(form));
        QVERIFY(heardFocus(5) && th.terminate());
        reader.close();
        QFile expected(SCRIVA_TEST_DATA_DIR "/ui/screenreader-final-try.txt");
        QVERIFY(expected.open(QIODevice::ReadOnly));
        // All but the slot's number, which SoftHSM draws anew for each token.
        QCOMPARE(heard.replace(QRegularExpression("slot ID 0x\\w+"), "slot ID").split('\n'), QString(expected.readAll()).split('\n'));
    }

    void cleanupTestCase()
    {
        accessibilityBus.closeWriteChannel();
        accessibilityBus.waitForFinished(5000);
    }
};

QTEST_GUILESS_MAIN(TestE2eDialogs)
#include "tst_e2edialogs.moc"
