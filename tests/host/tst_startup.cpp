#include "hostprocess.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

// Start-up of the built host: command line, catalogue, working directory and the opt-in log.
class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    void versionAndHelpArePrintedAndUnknownOptionsOnlyWarned()
    {
        HostProcess version;
        QVERIFY(version.start({QStringLiteral("--version")}));
        QVERIFY(version.waitForExit());
        QCOMPARE(version.exitCode(), 0);
        const QString printed = QString::fromUtf8(version.pendingOutput()).trimmed();
        QVERIFY2(QRegularExpression(QStringLiteral("^ScrivaPkcs11 2\\.6\\.1 \\([0-9a-f]{40}\\)$")).match(printed).hasMatch(),
                 qPrintable(printed));

        HostProcess help;
        QVERIFY(help.start({QStringLiteral("--help")}));
        QVERIFY(help.waitForExit());
        QVERIFY(QString::fromUtf8(help.pendingOutput()).contains(QStringLiteral("--version")));

        // A browser passes its own arguments; an unknown option must not stop the host.
        HostProcess unknown;
        unknown.enableLog();
        QVERIFY(unknown.start({QStringLiteral("--bogus"), QStringLiteral("chrome-extension://abc/")}));
        QCOMPARE(unknown.call(QStringLiteral("CreateInstance")).value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
        QVERIFY(unknown.logContains(QStringLiteral("CommandLineParser error: Unknown option 'bogus'.")));
        QVERIFY(unknown.logContains(QStringLiteral("with arguments: ")));
    }

    void missingDefaultCatalogueEndsWithExitCodeOne()
    {
        // A copy of the executable with no share/translations beside it.
        QTemporaryDir prefix;
        QDir().mkpath(prefix.path() + QStringLiteral("/bin"));
        const QString copy = prefix.path() + QStringLiteral("/bin/ScrivaPkcs11");
        QVERIFY(QFile::copy(HostProcess::executable(), copy));
        QFile::setPermissions(copy, QFile::ReadOwner | QFile::ExeOwner);

        HostProcess host;
        host.enableLog();
        host.qprocess().setProcessEnvironment(host.environment());
        host.qprocess().start(copy, {});
        QVERIFY(host.qprocess().waitForFinished(10000));
        QCOMPARE(host.qprocess().exitCode(), 1);
        QVERIFY(host.logContains(QStringLiteral("Unable to load translation file")));
    }

    void worksFromAnyWorkingDirectoryAndSaysSo()
    {
        QTemporaryDir elsewhere;
        HostProcess host;
        host.enableLog();
        host.qprocess().setWorkingDirectory(elsewhere.path());
        QVERIFY(host.start());
        QCOMPARE(host.call(QStringLiteral("CreateInstance")).value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
        QVERIFY(host.logContains(QStringLiteral("Working directory was not set before the application has started")));

        HostProcess inPlace;
        inPlace.enableLog();
        inPlace.qprocess().setWorkingDirectory(QFileInfo(HostProcess::executable()).path());
        QVERIFY(inPlace.start());
        QCOMPARE(inPlace.call(QStringLiteral("CreateInstance")).value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
        QVERIFY(!inPlace.logContains(QStringLiteral("Working directory was not set")));
    }

    void logLinesHaveTheDocumentedShapeInUtc()
    {
        HostProcess host;
        host.enableLog();
        QVERIFY(host.start());
        host.call(QStringLiteral("CreateInstance"));
        host.closeInput();
        QVERIFY(host.waitForExit());

        const QRegularExpression shape(
            QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ - (\\d+) - (\\d+) - ([DWCFI]) - (.*) - at (.*) in (.*) line (\\d+)$"),
            QRegularExpression::DotMatchesEverythingOption);
        // A record starts with its time; messages with line breaks continue on the next lines.
        const QStringList records = host.logLines().join(QLatin1Char('\n')).split(
            QRegularExpression(QStringLiteral("\\n(?=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ - )")));
        bool sawBanner = false;
        QSet<QString> processIds;
        for (const QString& line : records) {
            const QRegularExpressionMatch match = shape.match(line);
            QVERIFY2(match.hasMatch(), qPrintable(line));
            processIds.insert(match.captured(1));
            if (match.captured(4) == QLatin1String("Qt build version: " QT_VERSION_STR)) {
                sawBanner = true;
                QCOMPARE(match.captured(3), QStringLiteral("I"));
                QVERIFY(match.captured(5).contains(QStringLiteral("main")));
                QVERIFY(match.captured(6).endsWith(QStringLiteral("main.cpp")));
                QVERIFY(match.captured(7).toInt() > 0);
            }
        }
        QVERIFY(sawBanner);
        QCOMPARE(processIds.size(), 1);
    }

    void withoutTheLogFileNothingIsWritten()
    {
        HostProcess host;
        QVERIFY(host.start());
        host.call(QStringLiteral("CreateInstance"));
        host.closeInput();
        QVERIFY(host.waitForExit());
        QVERIFY(!QFileInfo::exists(host.logPath()));
        QVERIFY(!QFileInfo::exists(QFileInfo(host.logPath()).path()));
    }
};

QTEST_GUILESS_MAIN(TestStartup)
#include "tst_startup.moc"
