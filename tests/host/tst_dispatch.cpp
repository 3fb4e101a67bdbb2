#include "hostprocess.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTest>

// The JSON envelope and the protocol-1 method table of the built host.
class TestDispatch : public QObject
{
    Q_OBJECT

private:
    static QString error(const QJsonObject& answer) { return answer.value(QStringLiteral("error")).toString(); }
    static QJsonValue result(const QJsonObject& answer) { return answer.value(QStringLiteral("result")); }

    static void startWithInstance(HostProcess& host)
    {
        host.enableLog();
        QVERIFY(host.start());
        const QJsonObject answer = host.call(QStringLiteral("CreateInstance"));
        QCOMPARE(answer.value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
    }

private slots:
    void invalidFirstMessageEndsTheHostWithoutAnswer_data()
    {
        QTest::addColumn<QByteArray>("payload");
        QTest::addColumn<QString>("reason");
        QTest::newRow("empty object") << QByteArray("{}") << "Received empty JSON message";
        QTest::newRow("top-level array") << QByteArray("[{\"method\":\"x\"}]") << "Received empty JSON message";
        QTest::newRow("no method") << QByteArray("{\"id\":\"1\"}") << "Received JSON message does not specify NM method";
        QTest::newRow("not CreateInstance")
            << QByteArray("{\"method\":\"ScrivaPkcs11.1.0.0.qt.QES.GetSlots\"}")
            << "Invalid NM method: ScrivaPkcs11.1.0.0.qt.QES.GetSlots";
        QTest::newRow("other version")
            << QByteArray("{\"method\":\"ScrivaPkcs11.1.0.1.qt.QES.CreateInstance\"}") << "Unsupported NM version: 1.0.1";
        QTest::newRow("other host type")
            << QByteArray("{\"method\":\"ScrivaPkcs11.1.0.0.js.QES.CreateInstance\"}") << "Invalid NM host type: js";
    }

    void invalidFirstMessageEndsTheHostWithoutAnswer()
    {
        QFETCH(QByteArray, payload);
        QFETCH(QString, reason);
        HostProcess host;
        host.enableLog();
        QVERIFY(host.start());
        host.sendRaw(HostProcess::frame(payload));
        // Input stays open: the host must end on its own.
        QVERIFY(host.waitForExit());
        QCOMPARE(host.exitCode(), 0);
        QVERIFY(host.pendingOutput().isEmpty());
        QVERIFY2(host.logContains(QStringLiteral("Unable to initialize NativeMessagingAdapter: AppException: ") + reason),
                 qPrintable(host.logLines().join('\n')));
    }

    void answersCarryFourKeysAndTheIdOnlyWhenGiven()
    {
        HostProcess host;
        startWithInstance(host);

        const QJsonObject withId = host.call(QStringLiteral("GetVersion"), QString(), QStringLiteral("req-7"));
        QCOMPARE(withId, (QJsonObject{{QStringLiteral("error"), QJsonValue::Null},
                                      {QStringLiteral("method"), HostProcess::method(QStringLiteral("GetVersion"))},
                                      {QStringLiteral("result"), QStringLiteral("2.6.1 (qt)")},
                                      {QStringLiteral("id"), QStringLiteral("req-7")}}));

        const QJsonObject withoutId = host.call(QStringLiteral("BringToFront"));
        QCOMPARE(withoutId.keys(), (QStringList{"error", "method", "result"}));
        QCOMPARE(result(withoutId), QJsonValue(QJsonValue::Null));

        host.send(QJsonObject{{QStringLiteral("method"), HostProcess::method(QStringLiteral("GetVersion"))},
                              {QStringLiteral("id"), QString()}});
        QVERIFY(!host.readAnswer().contains(QStringLiteral("id")));
    }

    void refusesRequestsItCannotRouteAndStaysUp()
    {
        HostProcess host;
        startWithInstance(host);

        QCOMPARE(error(host.call(QStringLiteral("getslots"), QString(), QStringLiteral("a"))),
                 QStringLiteral("Unknown method ScrivaPkcs11.1.0.0.qt.QES.getslots"));
        QCOMPARE(error(host.call(QStringLiteral("Sign"))), QStringLiteral("Unknown method ScrivaPkcs11.1.0.0.qt.QES.Sign"));

        host.send(QJsonObject{{QStringLiteral("id"), QStringLiteral("no-method")}});
        const QJsonObject noMethod = host.readAnswer();
        QCOMPARE(error(noMethod), QStringLiteral("NoMethodOrEventSpecified"));
        QCOMPARE(noMethod.value(QStringLiteral("id")).toString(), QStringLiteral("no-method"));

        // Another protocol's names are not this protocol's methods.
        host.send(QJsonObject{{QStringLiteral("method"), QStringLiteral("ScrivaPkcs11.1.0.1.qt.QES.GetVersion")}});
        QCOMPARE(error(host.readAnswer()), QStringLiteral("Unknown method ScrivaPkcs11.1.0.1.qt.QES.GetVersion"));

        QCOMPARE(result(host.call(QStringLiteral("GetVersion"))).toString(), QStringLiteral("2.6.1 (qt)"));
    }

    // Text from the page or the browser is logged escaped, so it cannot start a log line of its own.
    void outsideTextCannotAddLogLines_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QJsonObject>("request");
        const QString forged = QStringLiteral("\nFORGED-LINE");
        QTest::newRow("method name") << QStringList()
                                     << QJsonObject{{QStringLiteral("method"), HostProcess::method(QStringLiteral("Get") + forged)}};
        QTest::newRow("id") << QStringList()
                            << QJsonObject{{QStringLiteral("method"), HostProcess::method(QStringLiteral("GetVersion"))},
                                           {QStringLiteral("id"), QStringLiteral("7") + forged}};
        QTest::newRow("command-line argument")
            << QStringList{QStringLiteral("--bogus") + forged}
            << QJsonObject{{QStringLiteral("method"), HostProcess::method(QStringLiteral("GetVersion"))}};
    }

    void outsideTextCannotAddLogLines()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QJsonObject, request);
        HostProcess host;
        host.enableLog();
        QVERIFY(host.start(arguments));
        QCOMPARE(host.call(QStringLiteral("CreateInstance")).value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
        host.send(request);
        QVERIFY(!host.readAnswer().isEmpty());
        const QStringList lines = host.logLines();
        for (const QString& line : lines)
            QVERIFY2(!line.startsWith(QStringLiteral("FORGED-LINE")), qPrintable(line));
        QVERIFY2(host.logContains(QStringLiteral("\\nFORGED-LINE")), qPrintable(lines.join('\n')));
    }

    void methodsNeedingAnArgumentRefuseEveryFormOfNone()
    {
        HostProcess host;
        startWithInstance(host);
        const QStringList methods{"GetSlots", "GetCertificates", "GenerateCsr", "CreateObject", "SetProperty"};
        const QList<QJsonValue> missingForms{QJsonValue(QJsonValue::Undefined), QJsonArray(), QJsonArray{42},
                                             QJsonArray{QString()}};
        for (const QString& name : methods) {
            for (const QJsonValue& args : missingForms) {
                QJsonObject request{{QStringLiteral("method"), HostProcess::method(name)}};
                if (!args.isUndefined())
                    request.insert(QStringLiteral("args"), args);
                host.send(request);
                QCOMPARE(error(host.readAnswer()),
                         QStringLiteral("Method %1 requires an argument but it was not provided").arg(name));
            }
        }
    }

    void nonceIsFreshLowerCaseUuidText()
    {
        HostProcess host;
        startWithInstance(host);
        const QString first = result(host.call(QStringLiteral("GetNonce"))).toString();
        const QString second = result(host.call(QStringLiteral("GetNonce"))).toString();
        static const QRegularExpression uuid(QStringLiteral("^[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}$"));
        QVERIFY2(uuid.match(first).hasMatch(), qPrintable(first));
        QVERIFY(uuid.match(second).hasMatch());
        QVERIFY(first != second);
    }

    void secondCreateInstanceStartsFromAFreshInstance()
    {
        HostProcess host;
        startWithInstance(host);
        const QString set100 = QStringLiteral("{\"MinimalWindowDisplayTime\": 100}");
        const QString set200 = QStringLiteral("{\"MinimalWindowDisplayTime\": 200}");
        QCOMPARE(result(host.call(QStringLiteral("SetProperty"), set100)), QJsonValue(QJsonValue::Null));
        QVERIFY(error(host.call(QStringLiteral("SetProperty"), set200)).contains(QStringLiteral("new is different than previous")));
        QCOMPARE(error(host.call(QStringLiteral("CreateInstance"))), QString());
        QCOMPARE(host.call(QStringLiteral("SetProperty"), set200).value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
    }

    void terminationIsAnsweredAfterTheInstanceIsToldAndEndsTheHost_data()
    {
        QTest::addColumn<QString>("method");
        QTest::newRow("Terminate") << "Terminate";
        QTest::newRow("DisposeInstance") << "DisposeInstance";
    }

    void terminationIsAnsweredAfterTheInstanceIsToldAndEndsTheHost()
    {
        QFETCH(QString, method);
        HostProcess host;
        startWithInstance(host);
        host.send(QJsonObject{{QStringLiteral("method"), HostProcess::method(method)}, {QStringLiteral("id"), QStringLiteral("bye")}});
        const QJsonObject answer = host.readAnswer();
        QCOMPARE(answer.value(QStringLiteral("method")).toString(), HostProcess::method(method));
        QCOMPARE(answer.value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
        QCOMPARE(answer.value(QStringLiteral("id")).toString(), QStringLiteral("bye"));
        QVERIFY(host.waitForExit());
        QCOMPARE(host.exitStatus(), QProcess::NormalExit);
        QCOMPARE(host.exitCode(), 0);
        // The instance is told first; the answer is prepared after it.
        const QStringList lines = host.logLines();
        const auto at = [&](const QString& text) {
            for (int i = 0; i < lines.size(); ++i)
                if (lines.at(i).contains(text))
                    return i;
            return -1;
        };
        const int told = at(QStringLiteral("Application is ready to terminate"));
        QVERIFY(told >= 0);
        QVERIFY(told < at(QStringLiteral("Preparing answer method with name: ") + HostProcess::method(method)));
        QVERIFY(at(QStringLiteral("Terminating...")) >= 0);
        QVERIFY(at(QStringLiteral("Application quits with exit code: 0")) >= 0);
    }
};

QTEST_GUILESS_MAIN(TestDispatch)
#include "tst_dispatch.moc"
