#include "hostprocess.h"
#include "virtualdisplay.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

// The browser goes away (closes the host's input, sends Terminate, or creates a new instance) while
// a token operation runs, wherever it is: the operation gets no answer and the host ends normally.
// Each row has its own host on a private X server, so the real PIN form shows; the test module
// holds the chosen token call at a gate until the row has ended the conversation.
class TestE2eEnding : public QObject
{
    Q_OBJECT

    VirtualDisplay display;
    const QString formTitle = "^Corvant Scriva$";

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
        QTest::addColumn<QString>("ending"); // "input" closed, or the method the browser sends
        for (const auto& [request, tokenWork] : {std::pair("generatecsr-2026", "C_GenerateKeyPair"),
                                                 std::pair("createobject-2026", "C_CreateObject")}) {
            const QList<std::tuple<QString, QString, bool>> points{
                {"slow session opening", "C_OpenSession", false}, {"PIN form open", "", false},
                {QString("slow ") + tokenWork, tokenWork, true}, {"token work done", "C_CloseSession", true}};
            for (const auto& [point, heldCall, pinTyped] : points)
                for (const char* ending : {"input", "Terminate", "CreateInstance"})
                    QTest::addRow("%s, %s, %s", qPrintable(HostProcess::operation(request)), qPrintable(point), ending)
                        << QString(request) << heldCall << pinTyped << QString(ending);
        }
    }

    void browserLeavesDuringAnOperation()
    {
        QFETCH(QString, request);
        QFETCH(QString, heldCall);
        QFETCH(bool, pinTyped);
        QFETCH(QString, ending);
        HostProcess th;
        QTemporaryDir gates;
        QVERIFY(th.configureTestModule("kov_data_hex=3003020101\nhold_dir=" + gates.path().toUtf8()
                                       + "\nhold_calls=" + heldCall.toUtf8() + "\n"));
        th.environment().insert("DISPLAY", display.name());
        th.environment().insert("QT_QPA_PLATFORM", "xcb");
        th.enableLog();
        QVERIFY2(th.startWithToken(), qPrintable(th.lastError()));
        th.send(request, th.argument(request, HostProcess::onTestModule()));

        QString form;
        if (heldCall.isEmpty() || pinTyped)
            QVERIFY(!(form = display.waitForWindow(formTitle)).isEmpty());
        if (pinTyped)
            QVERIFY(display.type(form, HostProcess::userPin, "Return"));
        if (!heldCall.isEmpty())
            QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(gates.filePath(heldCall + ".entered")), 30000);

        if (ending == "input") {
            th.closeInput();
            QTRY_VERIFY_WITH_TIMEOUT(th.logContains("End of file reached"), 10000);
        } else {
            const QJsonObject answer = th.call(ending);
            QCOMPARE(answer.value("method").toString(), HostProcess::method(ending));
            QCOMPARE(answer.value("error"), QJsonValue(QJsonValue::Null));
            // Nobody is left to answer the form: the host closes it itself.
            if (!form.isEmpty() && !pinTyped)
                QVERIFY2(display.waitUntilGone(form), "the PIN form stayed open");
            if (ending == "CreateInstance" && !heldCall.isEmpty())
                QCOMPARE(HostProcess::error(th.call("getslots-2026")), "Another asynchronous method is already running");
        }

        // The token call returns; the old operation must go no further than its next step.
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

        // Long enough for any orderly ending; a host that waits for a user or a dead pipe exceeds it.
        QVERIFY2(th.endedNormally(20000), "the host did not end normally");
        QVERIFY(th.logContains("Application quits with exit code: 0"));
    }

    // A module call that never returns (a reader driver waiting on a dead daemon), or a PIN form
    // nobody answers, must not keep the host once the browser has gone or sent a signal.
    void hostEndsWhileNothingReturns_data()
    {
        QTest::addColumn<QString>("heldCall"); // in GetSlots, held for ever; empty: a GenerateCsr's PIN form waits
        QTest::addColumn<bool>("terminateFirst");
        QTest::addColumn<int>("signal"); // 0: the input closes
        QTest::newRow("closed input") << "C_GetSlotList" << false << 0;
        QTest::newRow("Terminate, closed input") << "C_GetSlotList" << true << 0;
        for (const auto& [name, signal] : {std::pair("SIGTERM", SIGTERM), {"SIGINT", SIGINT}, {"SIGHUP", SIGHUP}})
            QTest::newRow(name) << "C_GetSlotList" << false << signal;
        QTest::newRow("PIN form open, SIGTERM") << "" << false << SIGTERM;
    }

    void hostEndsWhileNothingReturns()
    {
        QFETCH(QString, heldCall);
        QFETCH(bool, terminateFirst);
        QFETCH(int, signal);
        HostProcess th;
        QTemporaryDir gates;
        QVERIFY(th.configureTestModule("hold_dir=" + gates.path().toUtf8() + "\nhold_calls=" + heldCall.toUtf8() + "\n"));
        th.environment().insert("DISPLAY", display.name());
        th.environment().insert("QT_QPA_PLATFORM", "xcb");
        th.enableLog();
        QVERIFY2(th.startWithToken(), qPrintable(th.lastError()));
        const QString request = heldCall.isEmpty() ? "generatecsr-2026" : "getslots-2026";
        th.send(request, th.argument(request, HostProcess::onTestModule()));
        QVERIFY(!display.waitForWindow(heldCall.isEmpty() ? formTitle : "^Corvant Scriva").isEmpty());
        if (!heldCall.isEmpty())
            QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(gates.filePath(heldCall + ".entered")), 30000);
        if (terminateFirst)
            QCOMPARE(th.call("Terminate").value("error"), QJsonValue(QJsonValue::Null));

        QElapsedTimer ending;
        ending.start();
        if (signal)
            ::kill(pid_t(th.qprocess().processId()), signal);
        else
            th.closeInput();
        const bool windowsClosed = QTest::qWaitFor([&] { return display.windows("^Corvant Scriva").isEmpty(); }, 1000);
        QVERIFY2(th.waitForExit(5000), "still running after 5 s");
        qInfo("ended after %lld ms", ending.elapsed());
        QVERIFY2(th.endedNormally(0), "ended by a signal or with an error");
        QVERIFY2(windowsClosed, "a window stayed open while the host was ending");
        // An abandoned call leaves nothing to destroy after the last word.
        const QStringList log = th.logLines();
        const QString quits = "Application quits with exit code: 0";
        QVERIFY(heldCall.isEmpty() ? th.logContains(quits) : log.value(log.size() - 1).contains(quits));
    }
};

QTEST_GUILESS_MAIN(TestE2eEnding)
#include "tst_e2eending.moc"
