#include "hostprocess.h"
#include "virtualdisplay.h"

#include <QStandardPaths>
#include <QTest>

// The PIN form of a CreateObject (which needs a login) on a private Wayland desktop, the host on
// Qt's wayland platform, answered with a keyboard as a user would; one host per row.
class TestE2eWayland : public QObject
{
    Q_OBJECT

    VirtualDisplay display{VirtualDisplay::Wayland};

private slots:
    void initTestCase()
    {
        SKIP_WITHOUT_DEV_PKI();
        QVERIFY2(display.start(), qPrintable(display.lastError()));
    }

    void pinTypedIntoTheFormReachesTheToken_data()
    {
        QTest::addColumn<QStringList>("firefoxArguments"); // none: the browser's child, with the test's environment
        QTest::addColumn<QString>("firstPin");
        QTest::newRow("wrong PIN: its message, then the form again") << QStringList() << "9999";
        // The WebExtensions portal and Flatpak's proxy start the host themselves: it is not the
        // browser's child and gets little of the user's environment.
        QTest::newRow("started as for a sandboxed Firefox")
            << QStringList{SCRIVA_BUILD_DIR "/share/scriva/native-messaging-hosts/firefox/com.corvant.scriva.pkcs11.json",
                           "scriva-pkcs11@corvant.com"} << HostProcess::userPin;
    }

    void pinTypedIntoTheFormReachesTheToken()
    {
        QFETCH(QStringList, firefoxArguments);
        QFETCH(QString, firstPin);
        HostProcess th;
        QProcessEnvironment& env = th.environment();
        if (!firefoxArguments.isEmpty()) {
            for (const QString& name : env.keys()) // all but HOME and the sanitizers' settings of the test run
                if (name != "HOME" && !name.endsWith("SAN_OPTIONS"))
                    env.remove(name);
            env.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + display.runtimeDir() + "/bus");
            // In a new session whose leader only waits for the host.
            th.setLauncher(QStandardPaths::findExecutable("setsid"), {"--fork", "--wait"});
        } else {
            env.insert("QT_QPA_PLATFORM", "wayland");
        }
        display.addTo(env);
        th.enableLog();
        QVERIFY2(th.startWithToken(firefoxArguments), qPrintable(th.lastError()));

        // Each window (form; message, form) is a new native one of the host's and takes the keyboard focus.
        const QString hostWindow = "^Corvant Scriva$";
        th.send("createobject-2026", th.argument("createobject-2026"));
        QVERIFY(!display.waitForWindow(hostWindow).isEmpty());
        if (firstPin != HostProcess::userPin) {
            QVERIFY(display.type({}, firstPin, "Return") && !display.waitForWindow(hostWindow).isEmpty());
            QVERIFY(display.type({}, {}, "Return") && !display.waitForWindow(hostWindow).isEmpty());
            QVERIFY(th.logContains("CKR_PIN_INCORRECT"));
        }
        QVERIFY(display.type({}, HostProcess::userPin, "Return"));
        const QJsonObject answer = th.readAnswer(60000);
        QCOMPARE(HostProcess::error(answer), QString());
        QCOMPARE(HostProcess::texts(HostProcess::result(answer), "Label"), QStringList("Scriva token"));
        QVERIFY(th.terminate());
    }
};

QTEST_GUILESS_MAIN(TestE2eWayland)
#include "tst_e2ewayland.moc"
