#include "externaltool.h"
#include "hostprocess.h"
#include "virtualdisplay.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <cstring>
#include <sys/prctl.h>

// The user's PIN is looked for in the memory of the built host once its PIN form is done with. A
// GenerateCsr's form on a private X server is answered with a keyboard in four ways; then the host's
// process is dumped with gdb and the dump searched for the PIN in UTF-8 and in UTF-16.
class TestPinMemory : public QObject
{
    Q_OBJECT

    VirtualDisplay display;
    QTemporaryDir work;
    const QString formTitle = "^Corvant Scriva$";
    const char* wrongPin = "Hm3rT9vB";

    static int copies(const QByteArray& dump, const QByteArray& pin)
    {
        int found = 0;
        const char* at = dump.constData();
        while ((at = static_cast<const char*>(memmem(at, size_t(dump.constEnd() - at), pin.constData(), size_t(pin.size())))))
            ++found, ++at;
        return found;
    }

private slots:
    void initTestCase()
    {
        SKIP_WITHOUT_DEV_PKI();
        QVERIFY2(display.start(), qPrintable(display.lastError()));
    }

    void pinIsGoneOnceTheFormIsDone_data()
    {
        QTest::addColumn<QString>("answer"); // how the form ends
        QTest::addColumn<QString>("error");  // the GenerateCsr's
        QTest::newRow("a wrong PIN, the message, then OK") << "wrong" << "";
        // The operation is held in its last token call, after the form closed and before the host ends.
        QTest::newRow("Terminate while the form is open") << "terminate" << "";
        // From the PIN field Tab reaches OK, then Cancel; space presses the focused button.
        QTest::newRow("Cancel") << "cancel" << "OperationCanceled";
    }

    void pinIsGoneOnceTheFormIsDone()
    {
        QFETCH(QString, answer);
        QFETCH(QString, error);
        HostProcess th;
        QTemporaryDir gates;
        QVERIFY(th.configureTestModule("kov_data_hex=3003020101\nhold_dir=" + gates.path().toUtf8()
                                       + (answer == "terminate" ? "\nhold_calls=C_Finalize\n" : "\n")));
        display.addTo(th.environment());
        th.enableLog();
        // gdb may trace the host even where only a parent may trace its children.
        th.qprocess().setChildProcessModifier([] { prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY); });
        QVERIFY2(th.startWithToken(), qPrintable(th.lastError()));
        th.send("generatecsr-2026", th.argument("generatecsr-2026", HostProcess::onTestModule()));
        QString form = display.waitForWindow(formTitle);
        if (answer == "wrong") {
            QVERIFY(display.type(form, wrongPin, "Return"));
            const QString message = display.waitForWindow(formTitle, {form});
            QVERIFY(display.type(message, {}, "Return"));
            form = display.waitForWindow(formTitle, {form, message});
        }
        QVERIFY(!form.isEmpty());
        const QString keys = answer == "cancel" ? "Tab Tab space" : answer == "terminate" ? "" : "Return";
        QVERIFY(display.type(form, HostProcess::userPin, keys));
        if (answer == "terminate") {
            QCOMPARE(HostProcess::error(th.call("Terminate")), QString());
            QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(gates.filePath("C_Finalize.entered")) && display.windows(formTitle).isEmpty(),
                                     20000);
        } else {
            QCOMPARE(HostProcess::error(th.readAnswer(60000)), error);
        }

        // gdb writes the core dump without reading any debug information.
        QFile core(work.filePath(answer + ".core"));
        QString output;
        QVERIFY2(ExternalTool::run("gdb", {"--batch", "-nx", "--readnever", "-iex", "set auto-solib-add off", "-p",
                                           QString::number(th.qprocess().processId()), "-ex", "gcore " + core.fileName()}, &output),
                 qPrintable(output));
        QVERIFY(core.open(QIODevice::ReadOnly));
        const uchar* mapped = core.map(0, core.size());
        QVERIFY(mapped);
        const QByteArray dump = QByteArray::fromRawData(reinterpret_cast<const char*>(mapped), core.size());
        for (const QString& pin : {QString(HostProcess::userPin), QString(wrongPin)}) {
            const int utf8 = copies(dump, pin.toUtf8()), logged = th.logLines().filter(pin).size(),
                      utf16 = copies(dump, QByteArray(reinterpret_cast<const char*>(pin.utf16()), pin.size() * 2));
            QVERIFY2(utf8 + utf16 + logged == 0, qPrintable(QString("%1: %2 copies in UTF-8, %3 in UTF-16, %4 in the log")
                                                                .arg(pin).arg(utf8).arg(utf16).arg(logged)));
        }
        QVERIFY(core.remove());
        QVERIFY(QFile(gates.filePath("C_Finalize.release")).open(QIODevice::WriteOnly));
        QVERIFY(answer == "terminate" ? th.endedNormally(20000) : th.terminate());
    }
};

QTEST_GUILESS_MAIN(TestPinMemory)
#include "tst_pinmemory.moc"
