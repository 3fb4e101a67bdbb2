#include "hostprocess.h"
#include "virtualdisplay.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

// The browser goes away (closes the input, sends Terminate, creates a new instance, signals the host) wherever a
// token operation is: it gets no answer and the host ends normally. A host per row, its windows on a private X
// server; the test module holds the chosen call at a gate until the row has ended the conversation, or for ever (a
// reader driver waiting on a dead daemon must not keep the host either).
class TestE2eEnding : public QObject
{
    Q_OBJECT

    VirtualDisplay display;
    const QString formTitle = "^Corvant Scriva$";
    const QMap<QString, int> signalNumbers{{"SIGTERM", SIGTERM}, {"SIGINT", SIGINT}, {"SIGHUP", SIGHUP}};

private slots:
    void initTestCase()
    {
        SKIP_WITHOUT_DEV_PKI();
        QVERIFY2(display.start(), qPrintable(display.lastError()));
    }

    void browserLeavesDuringAnOperation_data()
    {
        QTest::addColumn<QString>("request");
        QTest::addColumn<QString>("heldCall");
        QTest::addColumn<bool>("pinTyped");
        QTest::addColumn<bool>("callReturns");
        QTest::addColumn<QString>("ending");
        QFile rows(SCRIVA_TEST_DATA_DIR "/ui/endings.txt");
        QVERIFY(rows.open(QIODevice::ReadOnly));
        for (const QString& line : QString(rows.readAll()).split('\n'))
            if (const QStringList row = line.split(" | "); row.size() == 6 && !line.startsWith('#'))
                QTest::newRow(qPrintable(row[0])) << row[1] << (row[2] == "none" ? QString() : row[2]) << (row[3] == "typed")
                                                  << (row[4] == "returns") << row[5];
    }

    void browserLeavesDuringAnOperation()
    {
        QFETCH(QString, request);
        QFETCH(QString, heldCall);
        QFETCH(bool, pinTyped);
        QFETCH(bool, callReturns);
        QFETCH(QString, ending);
        HostProcess th;
        QTemporaryDir gates;
        QVERIFY(th.configureTestModule("kov_data_hex=3003020101\nhold_dir=" + gates.path().toUtf8()
                                       + "\nhold_calls=" + heldCall.toUtf8() + "\n"));
        display.addTo(th.environment());
        th.enableLog();
        QVERIFY2(th.startWithToken(), qPrintable(th.lastError()));
        th.send(request, th.argument(request, HostProcess::onTestModule()));

        const bool formOpen = heldCall.isEmpty();
        const QString window = display.waitForWindow(formOpen || pinTyped ? formTitle : "^Corvant Scriva");
        QVERIFY(!window.isEmpty());
        // Meanwhile the host answers, and refuses a second operation without disturbing the first.
        QCOMPARE(HostProcess::error(th.call("getslots-2022")), "Another asynchronous method is already running");
        QCOMPARE(HostProcess::result(th.call("GetVersion")), "2.6.1 (qt)");
        if (pinTyped)
            QVERIFY(display.type(window, HostProcess::userPin, "Return"));
        if (!formOpen)
            QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(gates.filePath(heldCall + ".entered")), 30000);

        if (signalNumbers.contains(ending))
            ::kill(pid_t(th.qprocess().processId()), signalNumbers[ending]);
        if (const QString method = ending.section(',', 0, 0); method != "input" && !signalNumbers.contains(method)) {
            const QJsonObject answer = th.call(method);
            QCOMPARE(answer.value("method").toString(), HostProcess::method(method));
            QCOMPARE(answer.value("error"), QJsonValue(QJsonValue::Null));
            // Nobody is left to answer the form: the host closes it itself.
            if (formOpen)
                QVERIFY2(display.waitUntilGone(window), "the PIN form stayed open");
            if (method == "CreateInstance" && !formOpen)
                QCOMPARE(HostProcess::error(th.call("getslots-2026")), "Another asynchronous method is already running");
        }
        if (ending.endsWith("input"))
            th.closeInput();
        // On its way out the host takes its windows away at once, before any worker has finished.
        if (ending.endsWith("input") || signalNumbers.contains(ending))
            QVERIFY2(QTest::qWaitFor([&] { return display.windows("^Corvant Scriva").isEmpty(); }, 1000),
                     "a window stayed open while the host was ending");

        // The token call returns; the old operation must go no further than its next step.
        if (callReturns)
            QVERIFY(QFile(gates.filePath(heldCall + ".release")).open(QIODevice::WriteOnly));
        if (ending == "CreateInstance") {
            // The discarded operation ends without asking anybody; then the new instance may use the token.
            QTRY_VERIFY2_WITH_TIMEOUT(th.logContains("Unloading PKCS#11 library"),
                                      "the discarded operation did not end", 10000);
            QVERIFY(display.windows(formTitle).isEmpty());
            QCOMPARE(th.call("getslots-2026").value("method").toString(), HostProcess::method("GetSlots"));
            // Had the old operation been answered, that answer would have come before Terminate's.
            QVERIFY(th.terminate());
        }

        // Enough for an orderly ending, not for waiting on a user or a dead pipe; a hung module call gets a short grace.
        QVERIFY2(th.waitForExit(callReturns ? 20000 : 5000), "the host did not end in time");
        QVERIFY2(th.endedNormally(0), "ended by a signal or with an error");
        const QStringList log = th.logLines();
        // An abandoned call leaves nothing to destroy after the last word; a closed form leaves no worker behind.
        QVERIFY((callReturns ? log.join('\n') : log.value(log.size() - 1)).contains("Application quits with exit code: 0"));
        if (formOpen)
            QVERIFY2(!th.logContains("it is abandoned"), "the worker waiting for the form was abandoned");
    }
};

QTEST_GUILESS_MAIN(TestE2eEnding)
#include "tst_e2eending.moc"
