#include "Protocol1/nativemessaging1.h"
#include "loghandler.h"
#include "pkcs11/scrivapkcs11.h"
#include "pkcs11/ui/mainwindowpkcs11.h"
#include "pkcs11exception.h"
#include "secretpin.h"
#include "x509certificate2ultra.h"

#include <QApplication>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTranslator>

namespace {

// The first group of every match in the file; by default its lines that are not empty.
QStringList read(const QString& path, const QString& pattern = QStringLiteral("([^\n]+)"))
{
    QFile file(path);
    const QString text = file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    QStringList found;
    for (auto matches = QRegularExpression(pattern).globalMatch(text); matches.hasNext();)
        found.append(matches.next().captured(1));
    return found;
}

// A PIN buffer watched as it is released, and its first bytes at that moment.
const void* watchedBuffer = nullptr;
char atRelease[4];

} // namespace

// Every array the process allocates passes here, so a PIN's buffer can be looked at as it goes.
void* operator new[](std::size_t size)
{
    if (void* block = std::malloc(size ? size : 1))
        return block;
    throw std::bad_alloc();
}

void operator delete[](void* block) noexcept
{
    if (block && block == watchedBuffer)
        std::memcpy(atRelease, block, sizeof atRelease);
    std::free(block);
}

void operator delete[](void* block, std::size_t) noexcept { operator delete[](block); }

// In-process: exception texts, the opt-in log, PINs, the instance with its window, the protocol, catalogues.
class TestCore : public QObject
{
    Q_OBJECT

    QTemporaryDir home;

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(scriva);
        qputenv("XDG_DATA_HOME", home.path().toUtf8());
        LogHandler::init(QStringLiteral("ScrivaPkcs11Log.txt"));
    }

    void cleanupTestCase() { LogHandler::shutdown(); }

    void exceptionTextNamesClassMessageLocationAndWholeCauseChain()
    {
        const AppException innermost(QString(), "a.cpp", 1, "void a()", "G");
        const Pkcs11Exception middle("C_Lo\ngin", CKR_PIN_INCORRECT, "b.cpp", 2, "void b()");
        // A message may carry outside text: its line break is escaped, the chain's own stay.
        const AppException outer("outer", "c.cpp", 3, "void c()", "G", AppException("mid", "m.cpp", 4, "void m()", "G", middle));
        QCOMPARE(outer.toString(false), "AppException: outer\ncaused by AppException: mid\ncaused by Pkcs11Exception: PKCS#11 "
                                        "method C_Lo\\ngin returned error CKR_PIN_INCORRECT (0x000000a0)");
        QCOMPARE(AppException("outer", "c.cpp", 3, "void c()", "G", innermost).toString(true),
                 "AppException: outer\n  at void c() in c.cpp line 3\ncaused by AppException: <No message available>\n"
                 "  at void a() in a.cpp line 1");
        AppException copy = APP_EXCEPTION(QStringLiteral("detail"));
        QVERIFY(copy.getFile().endsWith("tst_core.cpp") && copy.getFunction().contains("exceptionText"));
        const AppException wrapped = APP_EXCEPTION_CAUSED(QStringLiteral("outer"), copy);
        copy = APP_EXCEPTION(QStringLiteral("replaced"));
        QCOMPARE(wrapped.getCause()->getMessage(), "detail");
        // Outside text cannot start a line of its own, in a message or a trace.
        QCOMPARE(LogHandler::escaped("a\rb\tc\x01\x1f \x7f\u009f\u00a0\u2028\u2029~"),
                 "a\\rb\\tc\\u0001\\u001f \\u007f\\u009f\u00a0\\u2028\\u2029~");
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
        // Its bytes are zeroed before release: when it dies, and when another PIN is moved into it.
        const QByteArray zeros(sizeof atRelease, '\0');
        watchedBuffer = pin.utf8();
        pin = SecretPin::fromText(u"1111");
        QCOMPARE(QByteArray(atRelease, sizeof atRelease), zeros);
        {
            const SecretPin dying(std::move(pin));
            watchedBuffer = dying.utf8();
        }
        QCOMPARE(QByteArray(atRelease, sizeof atRelease), zeros);
        // Every string that shares the buffer sees the zeros; no copy is left behind.
        QString text = QStringLiteral("1234").repeated(2);
        const QString sharer = text;
        SecretPin::wipe(text);
        QVERIFY(text.isEmpty());
        QCOMPARE(sharer, QString(8, QChar(0)));
        // An end without destructors still reaches every PIN alive, also one that was moved.
        const SecretPin kept(std::move(pin = SecretPin::fromText(u"5678")));
        SecretPin::wipeAll();
        QCOMPARE(QByteArray(reinterpret_cast<const char*>(kept.utf8()), 4), QByteArray(4, '\0'));
    }

    void logWritesOnlyWhileItsFileExists()
    {
        const QString path = LogHandler::hostLogPath();
        qInfo("before the file exists");
        QVERIFY(!QFileInfo::exists(path) && !LogHandler::hostLogExists() && LogHandler::dropsLines());

        QVERIFY(QDir().mkpath(LogHandler::logDirectory()));
        QFile(path).open(QIODevice::WriteOnly);
        LogHandler::refreshHostLogCheck(); // the look at the file is reused for a millisecond
        QVERIFY(!LogHandler::dropsLines());
        const QMessageLogContext context("f.cpp", 7, "void f()", nullptr);
        for (QtMsgType type : {QtDebugMsg, QtWarningMsg, QtCriticalMsg, QtFatalMsg, QtInfoMsg, QtMsgType(5)})
            LogHandler::messageHandler(type, context, "100% sure %1 %2 stay as written");
        qWarning("from here");
        const QString record = "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ - " + QString::number(QCoreApplication::applicationPid())
                               + " - \\d+ - %1 - %2 - at %3 in %4 line \\d+";
        QStringList expected;
        for (const char* level : {"D", "W", "C", "F", "I", "\\?"})
            expected << record.arg(level, "100% sure %1 %2 stay as written", "void f\\(\\)", "f\\.cpp");
        expected << record.arg("W", "from here", ".*logWritesOnlyWhileItsFileExists.*", ".*tst_core\\.cpp");
        const QString lines = read(path).join('\n');
        QVERIFY2(QRegularExpression("^" + expected.join('\n') + "$").match(lines).hasMatch(), qPrintable(lines));

        // A directory in the file's place is not a log file.
        QFile::remove(path);
        QVERIFY(QDir().mkpath(path));
        LogHandler::refreshHostLogCheck();
        qInfo("into a directory");
        QVERIFY(LogHandler::dropsLines());
        QVERIFY(QDir().rmdir(path));
    }

    void windowFollowsSignerAndLanguageAndComesToFrontOnlyWhenShown()
    {
        ScrivaPkcs11 instance;
        MainWindowPkcs11* window = instance.window();
        // A self-signed certificate for signing.example.org.
        window->updateWindowTitle(X509Certificate2Ultra(QSslCertificate::fromPath(SCRIVA_TEST_DATA_DIR "/signing-certificate.pem").value(0)));
        QCOMPARE(window->titleText(), "AppName \u2013 signing.example.org");
        window->updateWindowTitle(X509Certificate2Ultra());
        QCOMPARE(window->titleText(), "AppName");
        window->setDescription("GetSlotsDescription");
        QString czech = "{\"Language\": \"cs\"}", english = "{\"Language\": \"en\"}";
        instance.setProperty(czech); // a refusal fails the test
        QTRY_COMPARE(window->descriptionText(), "Hledám vaše tokeny...");
        instance.setProperty(english);
        QTRY_COMPARE(window->descriptionText(), "Looking for your tokens...");
        QCOMPARE(window->titleText(), "Corvant Scriva");

        instance.bringToFront();
        QVERIFY(!window->isVisible());
        window->show();
        instance.bringToFront();
        QTRY_VERIFY(window->isActiveWindow());
    }

    // DisposeInstance leaves the protocol open and the instance refuses; Terminate closes the protocol.
    void terminationIsReportedOnceAndRefusesEverythingAfter()
    {
        NativeMessaging1 protocol("1.0.0", "qt");
        QSignalSpy sent(&protocol, &NativeMessagingAdapter::sendMessage);
        const auto request = [&](const QString& name, const QString& key = "error") {
            QJsonObject message{{"method", "ScrivaPkcs11.1.0.0.qt.QES." + name}, {"args", QJsonArray{"x"}}};
            protocol.processMessage(message);
            return sent.takeLast().first().value<QJsonDocument>().object().value(key).toString();
        };
        QCOMPARE(request("GetNonce"), "ScrivaInstanceDoesNotExist");
        request("CreateInstance");
        QSignalSpy ready(protocol.instance(), &ScrivaPkcs11::readyToTerminate);
        request("DisposeInstance");
        QCOMPARE(ready.count(), 1);
        for (const char* name : {"GetNonce", "GetSlots", "SetProperty", "BringToFront"})
            QCOMPARE(request(name), "The ScrivaPkcs11 is terminating!");
        QCOMPARE(request("GetVersion", "result"), "2.6.1 (qt)");
        request("Terminate");
        QVERIFY(protocol.isTerminating());
        for (const char* name : {"GetVersion", "CreateInstance", "Bogus"})
            QCOMPARE(request(name), "The ScrivaPkcs11 is terminating!");
    }

    // The built catalogues translate what a person sees and no error word, which web applications rely on.
    void catalogues_data()
    {
        QTest::addColumn<QString>("language");
        QTest::newRow("en") << "en";
        QTest::newRow("cs") << "cs";
    }

    void catalogues()
    {
        QFETCH(QString, language);
        const QString source = QStringLiteral(SCRIVA_SOURCE_DIR "/translations/Scriva_%1.ts").arg(language);
        const QStringList contexts = read(source, "<name>([^<]*)</name>");
        QVERIFY(!contexts.isEmpty() && read(source, "(type=\"unfinished\")").isEmpty());
        QTranslator translator;
        QVERIFY(translator.load(QCoreApplication::applicationDirPath() + "/../share/translations/Scriva_" + language));
        const QStringList words = read(SCRIVA_TEST_DATA_DIR "/errorwords.txt");
        QVERIFY(words.size() > 15);
        for (const QString& word : words)
            for (const QString& context : contexts)
                QVERIFY2(translator.translate(context.toUtf8().constData(), word.toUtf8().constData()).isEmpty(),
                         qPrintable(word + " is translated in " + context));
        for (const char* key : {"AppName", "Pkcs11FileDialogText", "GetSlotsDescription", "GetCertificatesDescription",
                                "GenerateCsrDescription", "CreateObjectDescription"}) {
            const QString text = translator.translate("MainWindowPkcs11", key);
            QVERIFY2(!text.isEmpty() && text != QLatin1String(key), key);
        }
    }
};

QTEST_MAIN(TestCore)
#include "tst_core.moc"
