#include "devpki.h"
#include "tokenhost.h"

#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QXmlStreamReader>

// One whole conversation (CreateInstance, GetNonce, GetSlots on SoftHSM, Terminate) with the
// host running under valgrind's memcheck: no block definitely lost may have our code on its
// stack, and no memory error may happen in our code. Leaks and errors inside libraries (Qt's
// vectorised string code reads whole words past the end of a string, which memcheck may flag)
// are counted and printed, not judged.
class TestHostLeaks : public QObject
{
    Q_OBJECT

    struct Finding
    {
        QString kind;
        qint64 bytes = 0;
        qint64 blocks = 0;
        QStringList frames; // "function (file:line)"
        bool ours = false; // some frame is ours
        bool inOurs = false; // the innermost frame outside the C library and valgrind is ours
        bool placed = false;
    };

    static bool isOurs(const QString& directory)
    {
        return directory.contains(QStringLiteral("/src/ScrivaLib")) || directory.contains(QStringLiteral("/src/ScrivaPkcs11"));
    }

    // The <error> records of valgrind's XML output.
    static QList<Finding> readFindings(const QString& path)
    {
        QList<Finding> findings;
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            return findings;
        QXmlStreamReader xml(&file);
        Finding current;
        QString function, directory, fileName, line, object;
        while (!xml.atEnd()) {
            xml.readNext();
            const QStringView name = xml.name();
            if (xml.isStartElement()) {
                if (name == QLatin1String("error"))
                    current = Finding();
                else if (name == QLatin1String("kind"))
                    current.kind = xml.readElementText();
                else if (name == QLatin1String("leakedbytes"))
                    current.bytes = xml.readElementText().toLongLong();
                else if (name == QLatin1String("leakedblocks"))
                    current.blocks = xml.readElementText().toLongLong();
                else if (name == QLatin1String("frame"))
                    function = directory = fileName = line = object = QString();
                else if (name == QLatin1String("obj"))
                    object = xml.readElementText();
                else if (name == QLatin1String("fn"))
                    function = xml.readElementText();
                else if (name == QLatin1String("dir"))
                    directory = xml.readElementText();
                else if (name == QLatin1String("file"))
                    fileName = xml.readElementText();
                else if (name == QLatin1String("line"))
                    line = xml.readElementText();
            } else if (xml.isEndElement()) {
                if (name == QLatin1String("frame")) {
                    current.frames.append(QStringLiteral("%1 (%2:%3)").arg(function, fileName, line));
                    current.ours = current.ours || isOurs(directory);
                    if (!current.placed && !object.contains(QLatin1String("vgpreload"))
                        && !object.contains(QLatin1String("/libc.so"))) {
                        current.placed = true;
                        current.inOurs = isOurs(directory);
                    }
                } else if (name == QLatin1String("error")) {
                    findings.append(current);
                }
            }
        }
        return findings;
    }

private slots:
    void conversationUnderMemcheckLeavesNothingOfOurs()
    {
        if (!DevPki::isAvailable())
            QSKIP("this build trusts real anchors; requests cannot be signed here");
        const QString valgrind = QStandardPaths::findExecutable(QStringLiteral("valgrind"));
        if (valgrind.isEmpty())
            QSKIP("valgrind is not installed");
        QTemporaryDir work;
        const QString report = work.filePath(QStringLiteral("memcheck.xml"));

        TokenHost th;
        th.setAnswerTimeout(300000);
        th.host().setLauncher(valgrind, {QStringLiteral("--leak-check=full"), QStringLiteral("--errors-for-leak-kinds=definite"),
                                         QStringLiteral("--show-leak-kinds=definite"), QStringLiteral("--num-callers=40"),
                                         QStringLiteral("--xml=yes"), QStringLiteral("--xml-file=") + report});
        QVERIFY2(th.start(), qPrintable(th.lastError()));
        const QJsonObject listing = th.call(QStringLiteral("getslots-2026"));
        QCOMPARE(TokenHost::error(listing), QString());
        QVERIFY(TokenHost::texts(TokenHost::result(listing), QStringLiteral("SerialNumber")).contains(th.serialNumber()));
        QCOMPARE(th.callMethod(QStringLiteral("Terminate")).value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
        QVERIFY(th.host().waitForExit(300000));
        QCOMPARE(th.host().exitCode(), 0);

        QVERIFY2(QFile::exists(report), "valgrind wrote no report");
        const QList<Finding> findings = readFindings(report);
        qint64 lostBytes = 0, lostBlocks = 0;
        int otherErrors = 0;
        QStringList ours;
        for (const Finding& finding : findings) {
            const bool leak = finding.kind == QLatin1String("Leak_DefinitelyLost");
            if (leak) {
                lostBytes += finding.bytes;
                lostBlocks += finding.blocks;
            } else if (!finding.kind.startsWith(QLatin1String("Leak_"))) {
                ++otherErrors;
            }
            if ((leak && finding.ours) || (!finding.kind.startsWith(QLatin1String("Leak_")) && finding.inOurs))
                ours.append(QStringLiteral("%1, %2 bytes in %3 blocks:\n    ").arg(finding.kind).arg(finding.bytes).arg(finding.blocks)
                            + finding.frames.join(QStringLiteral("\n    ")));
        }
        qInfo("memcheck: %lld bytes definitely lost in %lld blocks, %d other errors, %d findings with our frames",
              lostBytes, lostBlocks, otherErrors, int(ours.size()));
        QVERIFY2(ours.isEmpty(), qPrintable(ours.join(QStringLiteral("\n"))));
    }
};

QTEST_GUILESS_MAIN(TestHostLeaks)
#include "tst_hostleaks.moc"
