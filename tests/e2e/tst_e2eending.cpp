#include "hostprocess.h"
#include "virtualdisplay.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

// The browser goes away (closes the host's input, sends Terminate, creates a new instance, or has
// the host signalled) while a token operation runs, wherever it is: the operation gets no answer
// and the host ends normally. Each row has its own host on a private X server, so the real windows
// show; the test module holds the chosen token call at a gate until the row has ended the
// conversation, or for ever: a call that never returns (a reader driver waiting on a dead daemon)
// must not keep the host either.
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
        QTest::addColumn<QString>("heldCall"); // empty: the PIN form waits for the user
        QTest::addColumn<bool>("pinTyped");
        QTest::addColumn<bool>("callReturns"); // once the row has ended the conversation
        QTest::addColumn<QString>("ending"); // "input" closed, a signal, or what the browser sends first
        // The ending does not depend on the operation; a GenerateCsr passes every point of one.
        const QList<std::tuple<QString, QString, bool>> points{
            {"slow session opening", "C_OpenSession", false}, {"PIN form open", "", false},
            {"slow key generation", "C_GenerateKeyPair", true}, {"token work done", "C_CloseSession", true}};
        for (const auto& [point, heldCall, pinTyped] : points)
            for (const char* ending : {"input", "Terminate", "CreateInstance"})
                QTest::addRow("GenerateCsr, %s, %s", qPrintable(point), ending)
                    << "generatecsr-2026" << heldCall << pinTyped << true << QString(ending);
        for (const char* ending : {"SIGINT", "SIGHUP"})
            QTest::addRow("GenerateCsr, PIN form open, %s", ending) << "generatecsr-2026" << "" << false << true << QString(ending);
        for (const char* ending : {"input", "Terminate, input", "SIGTERM"})
            QTest::addRow("GetSlots never returning, %s", ending) << "getslots-2026" << "C_GetSlotList" << false << false << QString(ending);
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

        QElapsedTimer ended;
        ended.start();
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

        // Long enough for any orderly ending; a host that waits for a user or a dead pipe exceeds it,
        // and one still in a module call waits for it no longer than a short grace period.
        QVERIFY2(th.waitForExit(callReturns ? 20000 : 5000), "the host did not end in time");
        qInfo("ended after %lld ms", ended.elapsed());
        QVERIFY2(th.endedNormally(0), "ended by a signal or with an error");
        const QStringList log = th.logLines();
        const QString quits = "Application quits with exit code: 0";
        // An abandoned call leaves nothing to destroy after the last word; a closed form leaves no worker behind.
        QVERIFY(callReturns ? th.logContains(quits) : log.value(log.size() - 1).contains(quits));
        if (formOpen)
            QVERIFY2(!th.logContains("it is abandoned"), "the worker waiting for the form was abandoned");
    }
};

QTEST_GUILESS_MAIN(TestE2eEnding)
#include "tst_e2eending.moc"
