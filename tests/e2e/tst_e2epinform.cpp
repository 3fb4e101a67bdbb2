#include "externaltool.h"
#include "hostprocess.h"
#include "virtualdisplay.h"

#include <QFile>
#include <QStandardPaths>
#include <QTest>

#include <cstring>
#include <sys/prctl.h>

// The host's own PIN form for a GenerateCsr, on a private X server and on a private Wayland desktop,
// answered with a keyboard as a user would; one host per row. Once the form is done with, the
// host's process is dumped with gdb and neither the PIN nor a wrong one typed before may be left in
// its memory, in UTF-8 or UTF-16, nor in its log.
class TestE2ePinForm : public QObject
{
    Q_OBJECT

    VirtualDisplay x11, wayland{VirtualDisplay::Wayland};
    QTemporaryDir work;
    const QString formTitle = "^Corvant Scriva$"; // the form and the wrong-PIN message
    const char* wrongPin = "Hm3rT9vB";
#ifdef __SANITIZE_ADDRESS__
    const bool dumped = false; // a dump would hold tens of gigabytes of the sanitizer's reserved memory
#else
    const bool dumped = true;
#endif

    // What of the PINs the running host keeps (empty when nothing); gdb reads no debug information.
    QString pinsLeft(HostProcess& host)
    {
        QFile core(work.filePath("core"));
        QString found;
        if (!ExternalTool::run("gdb", {"--batch", "-nx", "--readnever", "-iex", "set auto-solib-add off", "-p",
                                       QString::number(host.qprocess().processId()), "-ex", "gcore " + core.fileName()}, &found))
            return "no dump: " + found;
        const uchar* mapped = core.open(QIODevice::ReadOnly) ? core.map(0, core.size()) : nullptr;
        if (!mapped)
            return "dump unreadable: " + core.errorString();
        const QByteArray dump = QByteArray::fromRawData(reinterpret_cast<const char*>(mapped), core.size());
        found.clear();
        for (const QString& pin : {QString(HostProcess::userPin), QString(wrongPin)}) {
            int copies = host.logLines().filter(pin).size();
            for (const QByteArray& bytes : {pin.toUtf8(), QByteArray(reinterpret_cast<const char*>(pin.utf16()), pin.size() * 2)})
                for (const char* at = dump.constData();
                     (at = static_cast<const char*>(memmem(at, size_t(dump.constEnd() - at), bytes.constData(), size_t(bytes.size()))));
                     ++at)
                    ++copies;
            found += copies ? QString("%1 copies of %2; ").arg(copies).arg(pin) : QString();
        }
        core.remove();
        return found;
    }

private slots:
    void initTestCase()
    {
        SKIP_WITHOUT_DEV_PKI();
        QVERIFY2(x11.start(), qPrintable(x11.lastError()));
        QVERIFY2(wayland.start(), qPrintable(wayland.lastError()));
    }

    void pinIsUsedAndForgotten_data()
    {
        QTest::addColumn<bool>("onWayland");
        QTest::addColumn<QString>("answer"); // how the form ends
        QTest::addColumn<QString>("error");  // the GenerateCsr's
        QTest::addColumn<QStringList>("firefoxArguments"); // none: the browser's child, with the test's environment
        for (const bool onWayland : {false, true})
            QTest::addRow("%s: a wrong PIN, its message, then the form again", onWayland ? "Wayland" : "X") << onWayland << "wrong" << "" << QStringList();
        // From the PIN field Tab reaches OK, then Cancel; space presses the focused button.
        QTest::newRow("X: Cancel") << false << "cancel" << "OperationCanceled" << QStringList();
        // The operation is held in its last token call, after the form closed and before the host ends.
        QTest::newRow("X: Terminate while the form is open") << false << "terminate" << "" << QStringList();
        // The WebExtensions portal and Flatpak's proxy start the host themselves: it is not the
        // browser's child and gets little of the user's environment.
        QTest::newRow("Wayland: started as for a sandboxed Firefox") << true << "ok" << "" << QStringList{
            SCRIVA_BUILD_DIR "/share/scriva/native-messaging-hosts/firefox/com.corvant.scriva.pkcs11.json", "scriva-pkcs11@corvant.com"};
    }

    void pinIsUsedAndForgotten()
    {
        QFETCH(bool, onWayland);
        QFETCH(QString, answer);
        QFETCH(QString, error);
        QFETCH(QStringList, firefoxArguments);
        if (!dumped && !onWayland)
            QSKIP("these rows are there for the dump");
        const VirtualDisplay& display = onWayland ? wayland : x11;
        HostProcess th;
        QProcessEnvironment& env = th.environment();
        if (!firefoxArguments.isEmpty()) {
            for (const QString& name : env.keys()) // all but HOME and the sanitizers' settings of the test run
                if (name != "HOME" && !name.endsWith("SAN_OPTIONS"))
                    env.remove(name);
            env.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + wayland.runtimeDir() + "/bus");
            // In a new session whose leader only waits for the host.
            th.setLauncher(QStandardPaths::findExecutable("setsid"), {"--fork", "--wait"});
        } else {
            env.insert("QT_QPA_PLATFORM", onWayland ? "wayland" : "xcb");
            // gdb may trace the host even where only a parent may trace its children.
            th.qprocess().setChildProcessModifier([] { prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY); });
        }
        display.addTo(env);
        QTemporaryDir gates;
        QVERIFY(th.configureTestModule("kov_data_hex=3003020101\nhold_dir=" + gates.path().toUtf8()
                                       + (answer == "terminate" ? "\nhold_calls=C_Finalize\n" : "\n")));
        th.enableLog();
        QVERIFY2(th.startWithToken(firefoxArguments), qPrintable(th.lastError()));

        // Each window (form; message, form) is a new one of the host's and takes the keyboard focus.
        th.send("generatecsr-2026", th.argument("generatecsr-2026", HostProcess::onTestModule()));
        QString form = display.waitForWindow(formTitle);
        if (answer == "wrong") {
            QVERIFY(display.type(form, wrongPin, "Return"));
            const QString message = display.waitForWindow(formTitle, {form});
            QVERIFY(display.type(message, {}, "Return"));
            form = display.waitForWindow(formTitle, {form, message});
            QVERIFY(th.logContains("CKR_PIN_INCORRECT"));
        }
        QVERIFY(!form.isEmpty());
        QVERIFY(display.type(form, HostProcess::userPin, answer == "cancel" ? "Tab Tab space" : answer == "terminate" ? "" : "Return"));
        if (answer == "terminate") {
            QCOMPARE(HostProcess::error(th.call("Terminate")), QString());
            QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(gates.filePath("C_Finalize.entered")) && display.windows(formTitle).isEmpty(), 20000);
        } else {
            QCOMPARE(HostProcess::error(th.readAnswer(60000)), error);
        }
        // Run from setsid the host is a grandchild, which this test cannot dump.
        if (dumped && firefoxArguments.isEmpty())
            QCOMPARE(pinsLeft(th), QString());
        QVERIFY(QFile(gates.filePath("C_Finalize.release")).open(QIODevice::WriteOnly));
        QVERIFY(answer == "terminate" ? th.endedNormally(20000) : th.terminate());
    }
};

QTEST_GUILESS_MAIN(TestE2ePinForm)
#include "tst_e2epinform.moc"
