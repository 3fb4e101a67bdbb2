#include "appexception.h"
#include "loghandler.h"
#include "secretpin.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace {

class DerivedException : public AppException
{
public:
    using AppException::AppException;
    QString className() const override { return QStringLiteral("DerivedException"); }
    AppException* clone() const override { return new DerivedException(*this); }
};

} // namespace

// The exception type and the opt-in log handler, in-process.
class TestCore : public QObject
{
    Q_OBJECT

    QTemporaryDir home;

private slots:
    void initTestCase()
    {
        qputenv("XDG_DATA_HOME", home.path().toUtf8());
        LogHandler::init(QStringLiteral("ScrivaPkcs11Log.txt"));
    }

    void cleanupTestCase() { LogHandler::shutdown(); }

    void exceptionTextNamesClassMessageLocationAndWholeCauseChain()
    {
        const AppException innermost(QString(), QStringLiteral("a.cpp"), 1, QStringLiteral("void a()"), QStringLiteral("G"));
        // A message may carry outside text: its line break is escaped, the chain's own stay.
        const DerivedException middle(QStringLiteral("mid\ndle"), QStringLiteral("b.cpp"), 2, QStringLiteral("void b()"),
                                      QStringLiteral("G"), innermost);
        const AppException outer(QStringLiteral("outer"), QStringLiteral("c.cpp"), 3, QStringLiteral("void c()"),
                                 QStringLiteral("G"), middle);

        QCOMPARE(outer.toString(false),
                 QStringLiteral("AppException: outer\ncaused by DerivedException: mid\\ndle\ncaused by AppException: "
                                "<No message available>"));
        QCOMPARE(outer.toString(true),
                 QStringLiteral("AppException: outer\n  at void c() in c.cpp line 3\n"
                                "caused by DerivedException: mid\\ndle\n  at void b() in b.cpp line 2\n"
                                "caused by AppException: <No message available>\n  at void a() in a.cpp line 1"));
        // Outside text cannot start a line of its own, in a message or a trace.
        QCOMPARE(LogHandler::escaped(QStringLiteral("a\rb\tc\x01\x1f \x7f\u009f\u00a0\u2028\u2029~")),
                 QStringLiteral("a\\rb\\tc\\u0001\\u001f \\u007f\\u009f\u00a0\\u2028\\u2029~"));
    }

    void throwSiteMacroRecordsWhereAndKeepsCopiesIndependent()
    {
        try {
            throw APP_EXCEPTION(QStringLiteral("detail"));
        } catch (const AppException& e) {
            QCOMPARE(e.getMessage(), QStringLiteral("detail"));
            QCOMPARE(e.getGeneralMessage(), QStringLiteral("GeneralExceptionMessage"));
            QVERIFY(e.getFile().endsWith(QStringLiteral("tst_core.cpp")));
            QVERIFY(e.getFunction().contains(QStringLiteral("throwSiteMacroRecordsWhereAndKeepsCopiesIndependent")));
            AppException copy = e;
            const AppException wrapped = APP_EXCEPTION_CAUSED(QStringLiteral("outer"), copy);
            copy = APP_EXCEPTION(QStringLiteral("replaced"));
            QCOMPARE(wrapped.getCause()->getMessage(), QStringLiteral("detail"));
        }
    }

    void pinKeepsItsBytesMovesWholeAndWipesInPlace()
    {
        SecretPin pin = SecretPin::fromText(u"Žx1");
        QCOMPARE(QByteArray(reinterpret_cast<const char*>(pin.utf8()), int(pin.size())), QStringLiteral("Žx1").toUtf8());
        SecretPin moved(std::move(pin));
        QVERIFY(pin.isEmpty() && !pin.utf8() && moved.size() == 4);
        pin = std::move(moved);
        QVERIFY(moved.isEmpty() && !moved.utf8() && pin.size() == 4);
        QVERIFY(SecretPin::fromText(u"").isEmpty());
        // Every string that shares the buffer sees the zeros; no copy is left behind.
        QString text = QStringLiteral("1234").repeated(2);
        const QString sharer = text;
        SecretPin::wipe(text);
        QVERIFY(text.isEmpty());
        QCOMPARE(sharer, QString(8, QChar(0)));
    }

    void logPathsFollowTheDataLocation()
    {
        const QString expected = home.path() + QStringLiteral("/Corvant/Scriva/Logs/ScrivaPkcs11Log.txt");
        QCOMPARE(LogHandler::hostLogPath(), expected);
        QCOMPARE(LogHandler::certStoreLogPath(), home.path() + QStringLiteral("/Corvant/Scriva/Logs/CertStoreLog.txt"));
        QCOMPARE(LogHandler::keyChainLogPath(), home.path() + QStringLiteral("/Corvant/Scriva/Logs/KeyChainLog.txt"));
        QCOMPARE(LogHandler::dataDirectory(), home.path() + QStringLiteral("/Corvant/Scriva/"));
    }

    void writesOnlyWhileTheLogFileExists()
    {
        const QString path = LogHandler::hostLogPath();
        QFile::remove(path);
        qInfo("before the file exists");
        QVERIFY(!QFileInfo::exists(path));
        QVERIFY(!LogHandler::hostLogExists());

        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        QFile(path).open(QIODevice::WriteOnly);
        LogHandler::refreshHostLogCheck(); // the look at the file is reused for a millisecond
        qWarning().noquote() << "100% sure %1 %2 stay as written";
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 1);
        const QRegularExpression shape(
            QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ - ") + QString::number(QCoreApplication::applicationPid())
            + QStringLiteral(" - \\d+ - W - 100% sure %1 %2 stay as written - at .*writesOnlyWhileTheLogFileExists.* in "
                             ".*tst_core\\.cpp line \\d+$"));
        QVERIFY2(shape.match(lines.first()).hasMatch(), qPrintable(lines.first()));

        // A directory in the file's place is not a log file.
        QFile::remove(path);
        QVERIFY(QDir().mkpath(path));
        qInfo("into a directory");
        QVERIFY(QDir().rmdir(path));
        QVERIFY(!QFileInfo::exists(path));
    }

    void unknownMessageTypesGetAQuestionMark()
    {
        const QMessageLogContext context("f.cpp", 7, "void f()", nullptr);
        QVERIFY(LogHandler::formatLine(static_cast<QtMsgType>(42), context, QStringLiteral("m"))
                    .endsWith(QStringLiteral(" - ? - m - at void f() in f.cpp line 7")));
        const QList<QtMsgType> types{QtDebugMsg, QtWarningMsg, QtCriticalMsg, QtFatalMsg, QtInfoMsg};
        for (int i = 0; i < types.size(); ++i)
            QVERIFY(LogHandler::formatLine(types[i], context, "m").contains(QStringLiteral(" - %1 - m - ").arg("DWCFI"[i])));
    }
};

QTEST_GUILESS_MAIN(TestCore)
#include "tst_core.moc"
