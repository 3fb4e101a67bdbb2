#include "enginetesthelpers.h"

#include "pkcs11library.h"
#include "terminatingflag.h"

#include <QCryptographicHash>
#include <QTranslator>

#include <dlfcn.h>
#include <gnu/libc-version.h>

#include <algorithm>

using namespace EngineTest;
using User = ScriptedUser;

// The module wrapper against SoftHSM tokens, through the forwarding test module where a token
// must misbehave: loading, PIN dialogues with the real form and message box, signing, searching.
class TestPkcs11Library : public QObject
{
    Q_OBJECT

    TraceSwitch traceSwitch;
    QTemporaryDir work;
    QTranslator translator;
    std::unique_ptr<SoftHsmToken> store;
    std::unique_ptr<Pkcs11Library> library;
    const QString userPin = QStringLiteral("user-pin-1");
    const QString wrongPinText = QStringLiteral("Corvant Scriva: The User PIN you entered is not correct. Please "
                                                "try again.");

    struct Token
    {
        Pkcs11SlotInfo slotInfo;
        Pkcs11TokenInfo tokenInfo;
        CK_SESSION_HANDLE session = 0;
    };

    void configure(const QStringList& config)
    {
        QVERIFY(Pkcs11TestHelpers::writeModuleConfig(work.filePath(QStringLiteral("module.conf")), config));
    }

    void open(const QStringList& config = {}, Pkcs11Library::SignatureType type = Pkcs11Library::SignatureTypeDefault,
              const QString& vendorExtensions = {})
    {
        configure(config);
        library.reset();
        library = std::make_unique<Pkcs11Library>(SoftHsmToken::testModulePath(), type, false,
                                                  QStringLiteral("User PIN"), QStringLiteral("Signature PIN"),
                                                  vendorExtensions);
    }

    // The test token with a read-write session on it.
    Token openToken()
    {
        Token token;
        for (const unsigned long slot : library->getSlots(CK_TRUE)) {
            token.tokenInfo = library->getTokenInfo(slot);
            if (token.tokenInfo.getLabel() == QLatin1String("Engine Token")) {
                token.slotInfo = library->getSlotInfo(slot);
                token.session = library->openReadWriteSession(slot);
                return token;
            }
        }
        qFatal("The test token is missing");
    }

    Outcome login(const Token& token, bool cancelIsError = true)
    {
        return runOnWorker([&] {
            library->login(token.session, token.slotInfo, token.tokenInfo, cancelIsError);
            return QString();
        });
    }

    CK_OBJECT_HANDLE findOne(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass)
    {
        CK_ATTRIBUTE search[] = {{CKA_CLASS, &objectClass, sizeof(objectClass)}};
        const QList<unsigned long> found = library->findObjects(session, search, 1);
        return found.size() == 1 ? found.first() : CK_INVALID_HANDLE;
    }

    static AppException loadFailure(const QString& path)
    {
        return failureOf([&] { Pkcs11Library(path, Pkcs11Library::SignatureTypeDefault, false, "1", "2", {}); });
    }

    static AppException failureOf(const std::function<void()>& call)
    {
        try {
            call();
        } catch (const AppException& e) {
            return e;
        }
        return AppException({}, {}, 0, {}, {});
    }

private slots:
    void initTestCase()
    {
        QVERIFY(holdModulesLoaded());
        traceSwitch.install();
        qputenv("SCRIVA_TEST_P11_CONFIG", work.filePath(QStringLiteral("module.conf")).toUtf8());
        QVERIFY(translator.load(QStringLiteral("Scriva_en"), QStringLiteral(SCRIVA_BUILD_DIR "/share/translations")));
        QCoreApplication::installTranslator(&translator);
    }

    void init()
    {
        traceSwitch.set(false);
        store = std::make_unique<SoftHsmToken>();
        QVERIFY2(store->initToken(QStringLiteral("Engine Token"), QStringLiteral("so-pin-1"), userPin),
                 qPrintable(store->lastError()));
    }

    void cleanup()
    {
        library.reset();
        store.reset();
        TerminatingFlag::reset();
    }

    void initialisesWithoutOsLockingWhenTheModuleCannotLock()
    {
        traceSwitch.set(true);
        open({QStringLiteral("cant_lock_once=1")});
        library.reset();
        const QStringList trace = TraceSwitch::trace();
        QCOMPARE(trace.filter(QRegularExpression(QStringLiteral("^(  Flags|C_Initialize returned|C_Finalize returned)"))),
                 QStringList({"  Flags: 2", "C_Initialize returned 10 (CKR_CANT_LOCK)", "  Flags: 0",
                              "C_Initialize returned 0 (CKR_OK)", "C_Finalize returned 0 (CKR_OK)"}));
        const QString log = TraceSwitch::text();
        QVERIFY(log.contains(QStringLiteral(" - Loading PKCS#11 library ") + SoftHsmToken::testModulePath() + " - "));
        QVERIFY(log.contains(QStringLiteral(" - Unloading PKCS#11 library ") + SoftHsmToken::testModulePath() + " - "));
    }

    void failedInitialisationIsReportedAndNothingIsFinalised()
    {
        traceSwitch.set(true);
        configure({QStringLiteral("initialize_rv=0x191")});
        std::unique_ptr<AppException> failure;
        try {
            Pkcs11Library(SoftHsmToken::testModulePath(), Pkcs11Library::SignatureTypeDefault, false, "1", "2", {});
        } catch (const Pkcs11Exception& e) {
            failure.reset(e.clone());
            QCOMPARE(e.getRv(), CKR_CRYPTOKI_ALREADY_INITIALIZED);
        }
        QVERIFY(failure);
        QCOMPARE(failure->className(), QStringLiteral("Pkcs11Exception"));
        QCOMPARE(failure->getMessage(), QStringLiteral("PKCS#11 method C_Initialize returned error "
                                                       "CKR_CRYPTOKI_ALREADY_INITIALIZED (0x00000191)"));
        QCOMPARE(failure->getGeneralMessage(), QStringLiteral("Pkcs11GeneralExceptionMessage"));
        QVERIFY(TraceSwitch::trace().contains("C_Initialize returned 401 (CKR_CRYPTOKI_ALREADY_INITIALIZED)"));
        QVERIFY(TraceSwitch::trace().filter("C_Finalize").isEmpty());
        // The module was left uninitialised: the next load initialises it normally.
        open();
        QVERIFY(openToken().session != 0);
    }

    void refusesFilesThatAreNoUsableModule()
    {
        const QString missing = work.filePath(QStringLiteral("no-such-module.so"));
        const AppException notLoaded = loadFailure(missing);
        QVERIFY2(notLoaded.getMessage().startsWith(QStringLiteral("UnableToLoad: ") + missing + QStringLiteral(": ")),
                 qPrintable(notLoaded.getMessage()));
        QVERIFY(notLoaded.getMessage().size() > QStringLiteral("UnableToLoad: : ").size() + missing.size());
        QCOMPARE(notLoaded.getGeneralMessage(), QStringLiteral("Pkcs11GeneralExceptionMessage"));

        Dl_info libc{};
        QVERIFY(dladdr(reinterpret_cast<void*>(&gnu_get_libc_version), &libc));
        const QString libcPath = QString::fromLocal8Bit(libc.dli_fname);
        QCOMPARE(loadFailure(libcPath).getMessage(), QStringLiteral("UnableToFind: C_GetFunctionList(): ") + libcPath);
    }

    void wrongPinIsReportedAndAskedAgainAndNeverTraced()
    {
        traceSwitch.set(true);
        open();
        const Token token = openToken();
        QSignalSpy requested(library.get(), &Pkcs11Library::pinRequestedSignal);
        User user({User::type(QStringLiteral("wrong-pin")), User::acknowledge(), User::type(userPin)});
        QCOMPARE(login(token).error, QString());
        QCOMPARE(user.shown, QStringList({"form", "box: " + wrongPinText, "form"}));
        QCOMPARE(requested.count(), 2);
        QVERIFY(library->isUserLoggedIn(token.session));

        const QStringList trace = TraceSwitch::trace();
        QCOMPARE(trace.filter("C_Login returned"),
                 QStringList({"C_Login returned 160 (CKR_PIN_INCORRECT)", "C_Login returned 0 (CKR_OK)"}));
        QVERIFY(trace.contains(" ulPinLen: 10"));
        const QString log = TraceSwitch::text();
        for (const QString& pin : {userPin, QStringLiteral("wrong-pin")}) {
            QVERIFY(!log.contains(pin));
            QVERIFY(!log.contains(QString::fromLatin1(pin.toUtf8().toHex().toUpper())));
        }

        // A session already logged in needs neither a form nor C_Login.
        traceSwitch.set(true);
        QCOMPARE(login(token).error, QString());
        QCOMPARE(user.shown.size(), 3);
        QVERIFY(TraceSwitch::trace().filter("C_Login").isEmpty());
    }

    void tokenLockedByWrongPinsEndsWithPinBlocked()
    {
        open({QStringLiteral("lock_after_wrong_pins=2")});
        const Token token = openToken();
        User user({User::type("bad-1"), User::acknowledge(), User::type("bad-2"), User::acknowledge(),
                   User::type(userPin)});
        QCOMPARE(login(token).error, QStringLiteral("PinBlocked"));
        QCOMPARE(user.shown, QStringList({"form", "box: " + wrongPinText, "form", "box: " + wrongPinText, "form"}));
    }

    void cancelledFormEndsOrSkipsTheLogin_data()
    {
        QTest::addColumn<bool>("cancelIsError");
        QTest::addColumn<QString>("error");
        QTest::newRow("cancel is an error") << true << "OperationCanceled";
        QTest::newRow("cancel goes on without login") << false << "";
    }

    void cancelledFormEndsOrSkipsTheLogin()
    {
        QFETCH(bool, cancelIsError);
        QFETCH(QString, error);
        open();
        const Token token = openToken();
        User user({User::cancel()});
        QCOMPARE(login(token, cancelIsError).error, error);
        QCOMPARE(user.shown, QStringList("form"));
        QVERIFY(!library->isUserLoggedIn(token.session));
    }

    void pinPadLogsInWithoutForm()
    {
        traceSwitch.set(true);
        open({QStringLiteral("pin_pad_pin=") + userPin});
        const Token token = openToken();
        QVERIFY(token.tokenInfo.hasProtectedAuthPath());
        User user({});
        QCOMPARE(login(token).error, QString());
        QVERIFY(user.shown.isEmpty());
        QVERIFY(library->isUserLoggedIn(token.session));
        const QStringList trace = TraceSwitch::trace();
        QVERIFY(trace.contains(" pPin: (nil)"));
        QVERIFY(trace.contains(" ulPinLen: 0"));
    }

    void terminatingHostStopsThePinDialogue()
    {
        open();
        const Token token = openToken();
        TerminatingFlag::set();
        {
            User idle({});
            QCOMPARE(login(token).error, QStringLiteral("Scriva is terminating"));
            QVERIFY(idle.shown.isEmpty());
        }

        // Set while the form is open: the PIN typed is not used.
        TerminatingFlag::reset();
        traceSwitch.set(true);
        connect(library.get(), &Pkcs11Library::pinRequestedSignal, this, [] { TerminatingFlag::set(); },
                Qt::DirectConnection);
        User user({User::type(userPin)});
        QCOMPARE(login(token).error, QStringLiteral("Scriva is terminating"));
        QCOMPARE(user.shown, QStringList("form"));
        QVERIFY(TraceSwitch::trace().filter("C_Login").isEmpty());
    }

    void contextLoginRemembersTheSavedPinOnlyForItsType_data()
    {
        QTest::addColumn<int>("signatureType");
        QTest::addColumn<QStringList>("expected");
        const QString box = "box: Corvant Scriva: The Signature PIN you entered is not correct. Please try again.";
        QTest::newRow("remembered context PIN")
            << int(Pkcs11Library::SignatureTypeCachedContextPin)
            << QStringList({"form", "context form", box, "context form"});
        QTest::newRow("context PIN asked at every signature")
            << int(Pkcs11Library::SignatureTypeDefault) << QStringList({"form", "form", box, "form", "form"});
    }

    void contextLoginRemembersTheSavedPinOnlyForItsType()
    {
        QFETCH(int, signatureType);
        QFETCH(QStringList, expected);
        QVERIFY2(store->generateRsaKeyPair(QStringLiteral("Engine Token"), userPin, QStringLiteral("01"),
                                           QStringLiteral("Signing Key")),
                 qPrintable(store->lastError()));
        open({QStringLiteral("always_authenticate=1"), QStringLiteral("context_pin=ctx-pin-2")},
             Pkcs11Library::SignatureType(signatureType));
        const Token token = openToken();
        User user({User::type(userPin), User::type("bad", true), User::acknowledge(), User::type("ctx-pin-2", true),
                   User::type("ctx-pin-2")});
        QList<QByteArray> signatures;
        const Outcome outcome = runOnWorker([&] {
            library->login(token.session, token.slotInfo, token.tokenInfo, true);
            const CK_OBJECT_HANDLE key = findOne(token.session, CKO_PRIVATE_KEY);
            const bool always = library->getCkaAlwaysAuthenticateValue(token.session, key);
            CK_MECHANISM digest = {CKM_SHA256, nullptr, 0};
            const QByteArray hash = library->computeHash(token.session, &digest, "to be signed");
            CK_MECHANISM rsa = {CKM_RSA_PKCS, nullptr, 0};
            for (int round = 0; round < 2; ++round)
                signatures << library->signHash(token.session, key, &rsa, hash, always, token.slotInfo, token.tokenInfo);
            return QString::fromLatin1(hash.toHex());
        });
        QCOMPARE(outcome.error, QString());
        QCOMPARE(outcome.document, QCryptographicHash::hash("to be signed", QCryptographicHash::Sha256).toHex());
        QCOMPARE(user.shown, expected);
        QCOMPARE(signatures.size(), 2);
        QCOMPARE(signatures.first().size(), 256);
        QCOMPARE(signatures.first(), signatures.last());
    }

    void signingCancelledOnTheTokenIsOperationCanceled()
    {
        QVERIFY(store->generateRsaKeyPair(QStringLiteral("Engine Token"), userPin, QStringLiteral("01"),
                                          QStringLiteral("Signing Key")));
        open({QStringLiteral("pin_pad_pin=") + userPin, QStringLiteral("cancel_sign=1")});
        const Token token = openToken();
        const Outcome outcome = runOnWorker([&] {
            library->login(token.session, token.slotInfo, token.tokenInfo, true);
            CK_MECHANISM rsa = {CKM_SHA256_RSA_PKCS, nullptr, 0};
            library->signHash(token.session, findOne(token.session, CKO_PRIVATE_KEY), &rsa, "data", false,
                              token.slotInfo, token.tokenInfo);
            return QString();
        });
        QCOMPARE(outcome.error, QStringLiteral("OperationCanceled"));
    }

    void unreadableAttributesRaiseButNotForAlwaysAuthenticate()
    {
        QVERIFY(store->generateRsaKeyPair(QStringLiteral("Engine Token"), userPin, QStringLiteral("01"),
                                          QStringLiteral("Signing Key")));
        open({QStringLiteral("pin_pad_pin=") + userPin});
        const Token token = openToken();
        QCOMPARE(login(token).error, QString());
        QVERIFY(!library->getCkaAlwaysAuthenticateValue(token.session, findOne(token.session, CKO_PRIVATE_KEY)));
        QVERIFY(!library->getCkaAlwaysAuthenticateValue(token.session, 0xdead));
        try {
            library->getAttributeValue(token.session, 0xdead, CKA_VALUE);
            QFAIL("An invalid object was read");
        } catch (const Pkcs11Exception& e) {
            QCOMPARE(e.getRv(), CKR_OBJECT_HANDLE_INVALID);
            QVERIFY(e.getMessage().startsWith("PKCS#11 method C_GetAttributeValue returned error"));
        }
        const QByteArray exponent =
            library->getAttributeValue(token.session, findOne(token.session, CKO_PUBLIC_KEY), CKA_PUBLIC_EXPONENT);
        QCOMPARE(exponent, QByteArray::fromHex("010001"));
    }

    void findObjectsReadsInBatchesOfEight_data()
    {
        QTest::addColumn<int>("objects");
        QTest::addColumn<int>("calls");
        QTest::newRow("7") << 7 << 1;
        QTest::newRow("8") << 8 << 2;
        QTest::newRow("17") << 17 << 3;
    }

    void findObjectsReadsInBatchesOfEight()
    {
        QFETCH(int, objects);
        QFETCH(int, calls);
        open();
        const Token token = openToken();
        CK_OBJECT_CLASS dataClass = CKO_DATA;
        CK_BBOOL no = CK_FALSE;
        QList<CK_ATTRIBUTE> dataObject = {{CKA_CLASS, &dataClass, sizeof(dataClass)},
                                          {CKA_TOKEN, &no, sizeof(no)},
                                          {CKA_PRIVATE, &no, sizeof(no)}};
        QList<unsigned long> created;
        for (int i = 0; i < objects; ++i) {
            CK_OBJECT_HANDLE handle = 0;
            library->createObject(token.session, dataObject, &handle);
            created.append(handle);
        }
        traceSwitch.set(true);
        QList<unsigned long> found = library->findObjects(token.session, dataObject.data(), 1);
        std::sort(found.begin(), found.end());
        std::sort(created.begin(), created.end());
        QCOMPARE(found, created);
        QCOMPARE(TraceSwitch::trace().count("Going to call C_FindObjects"), calls);
    }

    void tokenPlatformNeedsTheKnownVendorExtensions()
    {
        open({QStringLiteral("token_platform=ProID+Q 2.1")});
        const CK_SLOT_ID slot = library->getSlots(CK_TRUE).first();
        traceSwitch.set(true);
        QCOMPARE(library->getTokenPlatform(slot), QString());
        QVERIFY(TraceSwitch::trace().isEmpty());

        open({QStringLiteral("token_platform=ProID+Q 2.1")}, Pkcs11Library::SignatureTypeDefault,
             QStringLiteral("monet+ proid+q"));
        QCOMPARE(failureOf([&] { library->getTokenPlatform(slot); }).getMessage(),
                 QStringLiteral("Unsupported vendor extensions requested"));

        open({QStringLiteral("token_platform=ProID+Q 2.1")}, Pkcs11Library::SignatureTypeDefault,
             QStringLiteral("Monet+ ProID+Q"));
        traceSwitch.set(true);
        QCOMPARE(library->getTokenPlatform(slot), QStringLiteral("ProID+Q 2.1"));
        const QStringList trace = TraceSwitch::trace();
        QCOMPARE(trace.count("Going to call C_OpenSession"), 1);
        QCOMPARE(trace.count("Going to call C_CloseSession"), 1);
        QVERIFY(trace.contains(" hObject: 0"));
    }
};

QTEST_MAIN(TestPkcs11Library)
#include "tst_pkcs11library.moc"
