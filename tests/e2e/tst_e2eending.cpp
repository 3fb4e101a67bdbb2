#include "devpki.h"
#include "tokenhost.h"
#include "virtualdisplay.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

// The browser goes away while a token operation runs: it closes the host's input, sends
// Terminate, or creates a new instance. Wherever the operation is (inside a slow token call, with
// the PIN form open, after the token has done its work), the operation gets no answer and the
// host ends by itself, normally and with exit code 0. Each row has its own host on a private X
// server, so the real PIN form shows; the test module holds the chosen token call at a gate until
// the row has ended the conversation.
class TestE2eEnding : public QObject
{
    Q_OBJECT

    VirtualDisplay display;

    static constexpr const char* formTitle = "^Corvant Scriva$";
    // Long enough for any orderly ending; a host that waits for a user or a dead pipe exceeds it.
    static constexpr int exitBoundMs = 20000;

    static QString dataObject()
    {
        return QStringLiteral("<UnsignedLongAttribute><Attribute>0</Attribute><Value>0</Value></UnsignedLongAttribute>"
                              "<BoolAttribute><Attribute>1</Attribute><Value>true</Value></BoolAttribute>"
                              "<BoolAttribute><Attribute>2</Attribute><Value>true</Value></BoolAttribute>"
                              "<StringAttribute><Attribute>3</Attribute><Value>left behind</Value></StringAttribute>");
    }

private slots:
    void initTestCase()
    {
        if (!DevPki::isAvailable())
            QSKIP("this build trusts real anchors; requests cannot be signed here");
        QVERIFY2(display.start(), qPrintable(display.lastError()));
    }

    void browserLeavesDuringAnOperation_data()
    {
        QTest::addColumn<QString>("request");
        QTest::addColumn<QString>("heldCall"); // empty: the PIN form waits for the user
        QTest::addColumn<bool>("pinTyped");
        QTest::addColumn<QString>("ending"); // "input" closed, or the method the browser sends

        const QList<QPair<QString, QString>> operations{{QStringLiteral("generatecsr-2026"), QStringLiteral("C_GenerateKeyPair")},
                                                        {QStringLiteral("createobject-2026"), QStringLiteral("C_CreateObject")}};
        for (const auto& [request, tokenWork] : operations) {
            const QList<std::tuple<QString, QString, bool>> points{
                {QStringLiteral("slow session opening"), QStringLiteral("C_OpenSession"), false},
                {QStringLiteral("PIN form open"), QString(), false},
                {QStringLiteral("slow ") + tokenWork, tokenWork, true},
                {QStringLiteral("token work done"), QStringLiteral("C_CloseSession"), true}};
            for (const auto& [point, heldCall, pinTyped] : points)
                for (const QString& ending : {QStringLiteral("input"), QStringLiteral("Terminate"), QStringLiteral("CreateInstance")})
                    QTest::addRow("%s, %s, %s", qPrintable(TokenHost::operation(request)), qPrintable(point), qPrintable(ending))
                        << request << heldCall << pinTyped << ending;
        }
    }

    void browserLeavesDuringAnOperation()
    {
        QFETCH(QString, request);
        QFETCH(QString, heldCall);
        QFETCH(bool, pinTyped);
        QFETCH(QString, ending);

        TokenHost th;
        QTemporaryDir gates;
        QVERIFY(th.configureTestModule("kov_data_hex=3003020101\nhold_dir=" + gates.path().toUtf8()
                                       + "\nhold_calls=" + heldCall.toUtf8() + "\n"));
        th.host().environment().insert(QStringLiteral("DISPLAY"), display.name());
        th.host().environment().insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        th.host().enableLog();
        QVERIFY2(th.start(), qPrintable(th.lastError()));
        const QMap<QString, QString> viaTestModule{{QString::fromLatin1(TokenHost::sampleModule), SoftHsmToken::testModulePath()}};
        th.send(request, request.startsWith(QLatin1String("createobject"))
                             ? th.createObjectArgument(request, dataObject(), viaTestModule)
                             : th.argument(request, viaTestModule));

        QString form;
        if (heldCall.isEmpty() || pinTyped) {
            form = display.waitForWindow(QString::fromLatin1(formTitle));
            QVERIFY(!form.isEmpty());
        }
        if (pinTyped) {
            QVERIFY(display.type(form, TokenHost::userPin));
            QVERIFY(display.key(form, QStringLiteral("Return")));
        }
        if (!heldCall.isEmpty())
            QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(gates.filePath(heldCall + QStringLiteral(".entered"))), 30000);

        if (ending == QLatin1String("input")) {
            th.host().closeInput();
            QTRY_VERIFY_WITH_TIMEOUT(th.host().logContains(QStringLiteral("End of file reached")), 10000);
        } else {
            const QJsonObject answer = th.callMethod(ending);
            QCOMPARE(answer.value(QStringLiteral("method")).toString(), HostProcess::method(ending));
            QCOMPARE(answer.value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
            // Nobody is left to answer the form: the host closes it itself.
            if (!form.isEmpty() && !pinTyped)
                QVERIFY2(display.waitUntilGone(form, 10000), "the PIN form stayed open");
            if (ending == QLatin1String("CreateInstance") && !heldCall.isEmpty())
                QCOMPARE(TokenHost::error(th.call(QStringLiteral("getslots-2026"))),
                         QStringLiteral("Another asynchronous method is already running"));
        }

        // The token call returns; the old operation must go no further than its next step.
        QFile release(gates.filePath(heldCall + QStringLiteral(".release")));
        QVERIFY(release.open(QIODevice::WriteOnly));
        release.close();
        if (ending == QLatin1String("CreateInstance")) {
            // The discarded operation ends without asking anybody, and then the new instance may
            // use the token.
            QTRY_VERIFY2_WITH_TIMEOUT(th.host().logContains(QStringLiteral("Unloading PKCS#11 library")),
                                      "the discarded operation did not end", 10000);
            QVERIFY(display.windows(QString::fromLatin1(formTitle)).isEmpty());
            const QJsonObject listed = th.call(QStringLiteral("getslots-2026"));
            QCOMPARE(listed.value(QStringLiteral("method")).toString(), HostProcess::method(QStringLiteral("GetSlots")));
            QCOMPARE(TokenHost::error(listed), QString());
            // Had the old operation been answered, that answer would have come before.
            const QJsonObject answer = th.callMethod(QStringLiteral("Terminate"));
            QCOMPARE(answer.value(QStringLiteral("method")).toString(), HostProcess::method(QStringLiteral("Terminate")));
        }

        QVERIFY2(th.host().waitForExit(exitBoundMs), "the host did not end");
        QCOMPARE(th.host().exitStatus(), QProcess::NormalExit);
        QCOMPARE(th.host().exitCode(), 0);
        QVERIFY(th.host().logContains(QStringLiteral("Application quits with exit code: 0")));
        QCOMPARE(th.host().pendingOutput(), QByteArray());
    }
};

QTEST_GUILESS_MAIN(TestE2eEnding)
#include "tst_e2eending.moc"
