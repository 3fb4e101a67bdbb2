#include "hostprocess.h"
#include "testrequests.h"

#include <QDir>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <unistd.h>

// The built host through its pipes: start-up, framing, the method table and the log. Every host must
// end normally, on its own or at the end of its input, with nothing left unread.
class TestHost : public QObject
{
    Q_OBJECT

private slots:
    void conversation_data()
    {
        QTest::addColumn<QStringList>("lines"); // as tests/data/host-conversations.txt describes them
        // Those of tests/data/host-conversations.txt and docs/host-messages.md, then one too long to write.
        const auto read = [](const char* path) { QFile file(path); return file.open(QIODevice::ReadOnly) ? QString(file.readAll()) : QString(); };
        QString written = read(SCRIVA_TEST_DATA_DIR "/host-conversations.txt");
        static const QRegularExpression shown("^```\\n(== .*?)^```", QRegularExpression::MultilineOption
                                                                      | QRegularExpression::DotMatchesEverythingOption);
        for (const QRegularExpressionMatch& block : shown.globalMatch(read(SCRIVA_SOURCE_DIR "/docs/host-messages.md")))
            written += "\n" + block.captured(1);
        QVERIFY(written.contains("\n== Terminate") && written.contains("\n== GetVersion")); // one from each
        for (const QString& conversation : written.split("\n== ").mid(1)) {
            QStringList lines = conversation.split('\n', Qt::SkipEmptyParts);
            const QString name = lines.takeFirst();
            if (!conversation.contains(" signed by ") || TestRequests::canSign())
                QTest::newRow(qPrintable(name)) << lines;
        }
        // GetVersion echoes the id, so the id sets the answer's size: 1 MiB less one byte is written.
        const QString answer = R"x(< {"error":null,"id":"%1","method":"ScrivaPkcs11.1.0.0.qt.QES.GetVersion","result":"2.6.1 (qt)"})x";
        const QString id(1048575 - int(answer.size()) + 4, 'a'), request = R"(> {"id":"%1","method":"ScrivaPkcs11.1.0.0.qt.QES.GetVersion"})";
        QTest::newRow("answers up to one byte under 1 MiB")
            << QStringList{R"(> {"method":"ScrivaPkcs11.1.0.0.qt.QES.CreateInstance"})", request.arg(id), request.arg(id + 'a'),
                           R"(< {"error":null,"method":"ScrivaPkcs11.1.0.0.qt.QES.CreateInstance","result":null})", answer.arg(id),
                           "ends", "log Exiting write thread because of exception: AppException: Outgoing JSON message size "
                                   "1048576 exceedes maximum allowed size 1048576"};
    }

    void conversation()
    {
        QFETCH(QStringList, lines);
        QMap<QString, QStringList> given; // the texts of each kind of line
        for (const QString& line : lines) {
            given[line.section(' ', 0, 0)] << line.section(' ', 1);
            QVERIFY2(QStringList({"args", "module", "log", "out", ">", ">hex", ">close", "<", "<~", "ends", "token", "elsewhere", "#"})
                         .contains(line.section(' ', 0, 0)), qPrintable(line));
        }
        const QStringList module = given.value("module"), log = given.value("log"), printed = given.value("out");
        HostProcess host;
        host.qprocess().setWorkingDirectory(given.contains("elsewhere") ? QDir::tempPath() : QFileInfo(HostProcess::executable()).path());
        if (!module.isEmpty())
            QVERIFY(host.configureTestModule((module.join('\n') + '\n').toUtf8()));
        if (!log.isEmpty())
            host.enableLog();
        const QStringList arguments = QJsonDocument::fromJson(given.value("args").value(0).toUtf8()).toVariant().toStringList();
        QVERIFY2(given.contains("token") ? host.startWithToken(arguments) : host.start(arguments), qPrintable(host.lastError()));
        // "${<tests/data/requests name> signed by <signer>}", with the sample nonce or the host's latest.
        static const QRegularExpression signedRequest("\\$\\{([\\w-]+) signed by ([\\w-]+)( with the nonce)?\\}");
        static const QRegularExpression uuid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
        QString nonce;
        for (const QString& line : lines) {
            const QString kind = line.section(' ', 0, 0), text = line.section(' ', 1);
            if (kind == ">") {
                QString request = text;
                if (const QRegularExpressionMatch sign = signedRequest.match(text); sign.hasMatch()) {
                    const QString name = sign.captured(1), used = sign.hasCaptured(3) ? nonce : "0f8fad5b-d9cb-469f-a165-70867728950e";
                    request.replace(sign.captured(0), given.contains("token")
                        ? host.signedRequest(name, used, HostProcess::onTestModule(), sign.captured(2))
                        : TestRequests::signedXml(TestRequests::xml(name, used), sign.captured(2)));
                }
                host.sendRaw(HostProcess::frame(request.toUtf8()));
            } else if (kind == ">hex" || kind == ">close") {
                kind == ">hex" ? host.sendRaw(QByteArray::fromHex(text.toLatin1())) : host.closeInput();
            } else if (kind.startsWith('<')) {
                const QJsonObject answer = host.readAnswer(60000);
                QString actual = QString::fromUtf8(QJsonDocument(answer).toJson(QJsonDocument::Compact));
                if (kind == "<") {
                    QCOMPARE(actual.replace(uuid, "UUID"), QString(text).replace(uuid, "UUID"));
                } else { // "*" stands for any text
                    QStringList parts = QString(text).replace("${nonce}", nonce).replace("${serial}", host.serialNumber())
                                            .replace("${module}", SoftHsmToken::testModulePath()).split('*');
                    for (QString& part : parts)
                        part = QRegularExpression::escape(part);
                    const QRegularExpression expected("^" + parts.join(".*") + "$", QRegularExpression::DotMatchesEverythingOption);
                    QVERIFY2(expected.match(actual).hasMatch(), qPrintable(actual));
                }
                if (answer.value("method").toString().endsWith(".GetNonce"))
                    nonce = answer.value("result").toString();
            }
        }
        if (!given.contains("ends"))
            host.closeInput();
        QVERIFY(printed.isEmpty() ? host.endedNormally(20000) : host.waitForExit() && host.exitCode() == 0);
        QVERIFY(!log.isEmpty() || !QFileInfo::exists(QFileInfo(host.logPath()).path())); // opt-in: no log, no file
        const QString output = host.pendingOutput(), text = host.logLines().join('\n');
        for (const QString& pattern : printed + log) {
            const bool absent = pattern.startsWith('!');
            const QRegularExpression expression(pattern.mid(absent ? 1 : 0), QRegularExpression::MultilineOption
                                                                                  | QRegularExpression::DotMatchesEverythingOption);
            const QString& seen = printed.contains(pattern) ? output : text;
            QVERIFY2(expression.match(seen).hasMatch() != absent, qPrintable(pattern + "\n" + seen));
        }
    }

    // The browser closed its end of a pipe (stdout: the first answer meets a broken pipe), gave none,
    // gave one that cannot be read, or has the answers written into a file: the host ends normally.
    // A copy of the host without its catalogue beside it ends at once, with exit code 1.
    void hostEndsOnItsOwnWhateverItsSurroundings_data()
    {
        QTest::addColumn<int>("fd"); // the descriptor given otherwise, or -1 for the copy
        QTest::addColumn<QByteArray>("openedInstead");
        QTest::addColumn<QString>("log");
        QTest::newRow("stdout closed") << STDOUT_FILENO << QByteArray() << "Exiting write thread because of exception: AppException: Unable to write the answer";
        QTest::newRow("stdout a file") << STDOUT_FILENO << QByteArray("answers") << "Exiting write thread without an exception";
        QTest::newRow("stdin closed") << STDIN_FILENO << QByteArray() << "Exiting read thread because of exception: AppException: End of file reached";
        QTest::newRow("stdin a folder") << STDIN_FILENO << QByteArray("/") << "Exiting read thread because of exception: AppException: "
                                                                          "Error was cought, errno from function read is 21";
        QTest::newRow("no catalogue") << -1 << QByteArray() << "Unable to load translation file";
    }

    void hostEndsOnItsOwnWhateverItsSurroundings()
    {
        QFETCH(int, fd);
        QFETCH(QByteArray, openedInstead);
        QFETCH(QString, log);
        QTemporaryDir dir;
        HostProcess host;
        host.enableLog();
        host.qprocess().setWorkingDirectory(dir.path());
        host.qprocess().setChildProcessModifier([fd, openedInstead] {
            int ends[2];
            if (fd == STDOUT_FILENO && openedInstead.isEmpty() && ::pipe(ends) == 0)
                ::close(ends[0]), ::dup2(ends[1], STDOUT_FILENO), ::close(ends[1]);
            else if (::close(fd) == 0 && !openedInstead.isEmpty())
                ::open(openedInstead.constData(), fd == STDIN_FILENO ? O_RDONLY : O_WRONLY | O_CREAT, 0600);
        });
        const QString copy = dir.filePath("bin/ScrivaPkcs11"); // with no share/translations beside it
        if (fd < 0 && QDir(dir.path()).mkpath("bin") && QFile::copy(HostProcess::executable(), copy))
            host.qprocess().setProcessEnvironment(host.environment()), host.qprocess().start(copy, {});
        QVERIFY(fd < 0 || host.start());
        if (fd == STDOUT_FILENO)
            host.send("CreateInstance");
        if (!openedInstead.isEmpty())
            host.closeInput();
        QVERIFY(fd < 0 ? host.waitForExit() && host.exitCode() == 1 : host.endedNormally());
        QVERIFY(host.logContains(log));
        QFile answers(dir.filePath("answers"));
        QCOMPARE(answers.open(QIODevice::ReadOnly) ? answers.readAll() : QByteArray(), fd == STDOUT_FILENO && !openedInstead.isEmpty()
                 ? HostProcess::frame(R"({"error":null,"method":"ScrivaPkcs11.1.0.0.qt.QES.CreateInstance","result":null})") : QByteArray());
    }

    // A large frame's pages stay while large frames come, and go back once they stop.
    void givesBackALargeFramesMemoryWhenFramesStop()
    {
#ifdef __SANITIZE_ADDRESS__
        QSKIP("the sanitizer's allocator keeps freed memory in quarantine");
#endif
        HostProcess host;
        QVERIFY(host.start());
        const auto residentKiB = [&host] {
            QFile status(QStringLiteral("/proc/%1/status").arg(host.qprocess().processId()));
            status.open(QIODevice::ReadOnly);
            return QRegularExpression("VmRSS:\\s+(\\d+)").match(QString::fromLatin1(status.readAll())).captured(1).toInt();
        };
        host.send("CreateInstance");
        host.send("GetVersion", QString(16 << 20, 'x'));
        QVERIFY(!host.readAnswer().isEmpty() && !host.readAnswer().isEmpty());
        const int peak = residentKiB();
        QTRY_VERIFY2_WITH_TIMEOUT(residentKiB() < peak - (16 << 10), qPrintable(QString::number(residentKiB())), 5000);
    }
};

QTEST_GUILESS_MAIN(TestHost)
#include "tst_host.moc"
