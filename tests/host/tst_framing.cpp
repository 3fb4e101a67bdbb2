#include "hostprocess.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>
#include <QtEndian>

#include <unistd.h>

// The stdin/stdout framing of the built host, driven through real pipes.
class TestFraming : public QObject
{
    Q_OBJECT

private:
    static QByteArray lengthPrefix(quint32 length)
    {
        QByteArray bytes(4, '\0');
        qToLittleEndian<quint32>(length, bytes.data());
        return bytes;
    }

    static void startWithInstance(HostProcess& host)
    {
        host.enableLog();
        QVERIFY(host.start());
        host.send(QJsonObject{{QStringLiteral("method"), QString::fromLatin1(HostProcess::createInstance)}});
        QCOMPARE(host.readAnswer().value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
    }

private slots:
    void brokenFramesEndTheHostWithTheReasonLogged_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("reason");
        QTest::newRow("empty payload") << lengthPrefix(0) << "Unable to process received data as JSON message.";
        QTest::newRow("not JSON") << HostProcess::frame("{\"method\":") << "Unable to process received data as JSON message.";
        QTest::newRow("negative length") << lengthPrefix(0xFFFFFFFFu) << "Unable to process received data as JSON message.";
        // Only the header is sent: the host must refuse before it waits for any payload byte.
        QTest::newRow("one byte over the limit")
            << lengthPrefix(536870913u) << "Incoming JSON message size 536870913 exceedes maximum allowed size 536870912";
    }

    void brokenFramesEndTheHostWithTheReasonLogged()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, reason);
        HostProcess host;
        startWithInstance(host);
        host.sendRaw(bytes);
        QVERIFY(host.waitForExit());
        QCOMPARE(host.exitCode(), 0);
        QVERIFY(host.pendingOutput().isEmpty());
        QVERIFY2(host.logContains(QStringLiteral("Exiting read thread because of exception: AppException: ") + reason),
                 qPrintable(host.logLines().join('\n')));
    }

    void closedInputEndsTheHostAfterItsAnswers()
    {
        HostProcess host;
        host.enableLog();
        QVERIFY(host.start());
        host.send(QJsonObject{{QStringLiteral("method"), QString::fromLatin1(HostProcess::createInstance)}});
        host.send(QJsonObject{{QStringLiteral("method"), HostProcess::method(QStringLiteral("GetVersion"))}});
        host.closeInput();
        QVERIFY(host.waitForExit());
        QCOMPARE(host.exitStatus(), QProcess::NormalExit);
        QCOMPARE(host.exitCode(), 0);
        QCOMPARE(host.readAnswer().value(QStringLiteral("method")).toString(), QString::fromLatin1(HostProcess::createInstance));
        QCOMPARE(host.readAnswer().value(QStringLiteral("result")).toString(), QStringLiteral("2.6.1 (qt)"));
        QVERIFY(host.logContains(QStringLiteral("End of file reached")));
        QVERIFY(host.logContains(QStringLiteral("Exiting write thread without an exception")));
    }

    void browserNoLongerReadingEndsTheHostNormally()
    {
        HostProcess host;
        host.enableLog();
        // The host's stdout is a pipe whose reading end is already closed, as when the browser
        // has stopped reading: the first answer meets a broken pipe.
        host.qprocess().setChildProcessModifier([] {
            int ends[2];
            if (::pipe(ends) == 0) {
                ::close(ends[0]);
                ::dup2(ends[1], STDOUT_FILENO);
                ::close(ends[1]);
            }
        });
        QVERIFY(host.start());
        host.send(QJsonObject{{QStringLiteral("method"), QString::fromLatin1(HostProcess::createInstance)}});
        QVERIFY(host.waitForExit());
        QCOMPARE(host.exitStatus(), QProcess::NormalExit);
        QCOMPARE(host.exitCode(), 0);
        QVERIFY2(host.logContains(QStringLiteral("Exiting write thread because of exception: AppException: ")),
                 qPrintable(host.logLines().join('\n')));
    }

    void framesArrivingInPiecesAndLargeFramesAreReadWhole()
    {
        HostProcess host;
        startWithInstance(host);

        // A frame dribbled out a few bytes at a time, header split too.
        const QByteArray framed = HostProcess::frame(
            QJsonDocument(QJsonObject{{QStringLiteral("method"), HostProcess::method(QStringLiteral("GetVersion"))},
                                      {QStringLiteral("id"), QStringLiteral("pieces")}})
                .toJson(QJsonDocument::Compact));
        for (int i = 0; i < framed.size(); i += 3) {
            host.sendRaw(framed.mid(i, 3));
            QTest::qWait(2);
        }
        QCOMPARE(host.readAnswer().value(QStringLiteral("id")).toString(), QStringLiteral("pieces"));

        // A 4 MiB frame followed at once by a small one: neither may swallow the other's bytes.
        QJsonObject large{{QStringLiteral("method"), HostProcess::method(QStringLiteral("GetVersion"))},
                          {QStringLiteral("id"), QStringLiteral("large")},
                          {QStringLiteral("padding"), QString(4 * 1024 * 1024, QLatin1Char('x'))}};
        QJsonObject small{{QStringLiteral("method"), HostProcess::method(QStringLiteral("GetVersion"))},
                          {QStringLiteral("id"), QStringLiteral("small")}};
        host.sendRaw(HostProcess::frame(QJsonDocument(large).toJson(QJsonDocument::Compact))
                     + HostProcess::frame(QJsonDocument(small).toJson(QJsonDocument::Compact)));
        QCOMPARE(host.readAnswer().value(QStringLiteral("id")).toString(), QStringLiteral("large"));
        QCOMPARE(host.readAnswer().value(QStringLiteral("id")).toString(), QStringLiteral("small"));
    }

    void topLevelArrayReachesDispatchAsAnEmptyObject()
    {
        HostProcess host;
        startWithInstance(host);
        host.sendRaw(HostProcess::frame("[1,2,3]"));
        const QJsonObject answer = host.readAnswer();
        QCOMPARE(answer.value(QStringLiteral("error")).toString(), QStringLiteral("NoMethodOrEventSpecified"));
        QCOMPARE(answer.value(QStringLiteral("method")).toString(), QString());
    }

    void answersOfOneMebibyteAreRefusedOneByteLessIsWritten()
    {
        // The answer to GetVersion echoes the id, so the id sets the answer's size exactly.
        const QByteArray shell = QJsonDocument(QJsonObject{{QStringLiteral("error"), QJsonValue::Null},
                                                           {QStringLiteral("id"), QStringLiteral("")},
                                                           {QStringLiteral("method"), HostProcess::method(QStringLiteral("GetVersion"))},
                                                           {QStringLiteral("result"), QStringLiteral("2.6.1 (qt)")}})
                                     .toJson(QJsonDocument::Compact);
        const int idForLimit = 1048575 - int(shell.size());

        HostProcess host;
        startWithInstance(host);
        const QJsonObject fits = host.call(QStringLiteral("GetVersion"), QString(), QString(idForLimit, QLatin1Char('a')));
        QCOMPARE(QJsonDocument(fits).toJson(QJsonDocument::Compact).size(), 1048575);

        host.send(QJsonObject{{QStringLiteral("method"), HostProcess::method(QStringLiteral("GetVersion"))},
                              {QStringLiteral("id"), QString(idForLimit + 1, QLatin1Char('a'))}});
        QVERIFY(host.waitForExit());
        QVERIFY(host.pendingOutput().isEmpty());
        QVERIFY(host.logContains(QStringLiteral(
                                      "Exiting write thread because of exception: AppException: Outgoing JSON message size "
                                      "1048576 exceedes maximum allowed size 1048576")));
    }
};

QTEST_GUILESS_MAIN(TestFraming)
#include "tst_framing.moc"
