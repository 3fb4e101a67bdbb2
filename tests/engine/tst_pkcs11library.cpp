#include "enginetesthelpers.h"

#include "pkcs11library.h"
#include "terminatingflag.h"

#include <QTranslator>

#include <algorithm>

using namespace EngineTest;

// The module wrapper against a SoftHSM token, through the test module where the token must misbehave.
// The cases of the tests with data rows are in tests/data/engine-cases.txt.
class TestPkcs11Library : public QObject
{
    Q_OBJECT

    TraceSwitch traceSwitch;
    QTemporaryDir work;
    QTranslator translator;
    ScriptedUser user;
    std::unique_ptr<SoftHsmToken> store;
    std::unique_ptr<Pkcs11Library> library;
    Pkcs11SlotInfo slotInfo;
    Pkcs11TokenInfo tokenInfo;
    CK_SESSION_HANDLE session = 0;
    const QString userPin = QStringLiteral("user-pin-1");

    // Loads the test module with the configuration and opens a read-write session on the token.
    void open(const QStringList& config, Pkcs11Library::SignatureType type = Pkcs11Library::SignatureTypeDefault,
              const QString& vendorExtensions = {})
    {
        QVERIFY(configureModule(work, config));
        library.reset();
        library = std::make_unique<Pkcs11Library>(SoftHsmToken::testModulePath(), type, false, "User PIN", "Signature PIN", vendorExtensions);
        library->setPinPrompt(&user);
        const CK_SLOT_ID slot = CK_SLOT_ID(store->slotId("Engine Token"));
        slotInfo = library->getSlotInfo(slot);
        tokenInfo = library->getTokenInfo(slot);
        session = library->openReadWriteSession(slot);
    }

    CK_OBJECT_HANDLE findOne(CK_OBJECT_CLASS objectClass)
    {
        CK_ATTRIBUTE search[] = {{CKA_CLASS, &objectClass, sizeof(objectClass)}};
        const QList<unsigned long> found = library->findObjects(session, search, 1);
        return found.size() == 1 ? found.first() : CK_INVALID_HANDLE;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(prepareModules(work));
        traceSwitch.install();
        QVERIFY(translator.load(QStringLiteral("Scriva_en"), QStringLiteral(SCRIVA_BUILD_DIR "/share/translations")));
        QCoreApplication::installTranslator(&translator);
    }

    void init()
    {
        TraceSwitch::set(false);
        store = std::make_unique<SoftHsmToken>();
        QVERIFY2(store->initToken("Engine Token", "so-pin-1", userPin), qPrintable(store->lastError()));
    }

    void cleanup()
    {
        library.reset();
        store.reset();
        TerminatingFlag::reset();
    }

    void loadsOnlyRealModulesAndFinalisesOnlyWhatItInitialised_data() { rowsFrom(); }

    void loadsOnlyRealModulesAndFinalisesOnlyWhatItInitialised()
    {
        QFETCH(QString, module);
        QFETCH(QStringList, config);
        QFETCH(QString, error);
        QFETCH(QString, cause);
        QFETCH(QStringList, trace);
        const QString path = module == "test module" ? SoftHsmToken::testModulePath()
            : module.startsWith("lib")                 ? module : work.filePath(module);
        QVERIFY(configureModule(work, config));
        QFile::copy(SoftHsmToken::testModulePath(), work.filePath("copy.so"));
        if (module == "copy.so")
            qputenv("SCRIVA_TEST_P11_TARGET", work.filePath("none.so").toUtf8());
        TraceSwitch::set(true);
        const Outcome outcome = attempt([&] { Pkcs11Library(path, Pkcs11Library::SignatureTypeDefault, false, "1", "2", {}); });
        qunsetenv("SCRIVA_TEST_P11_TARGET");
        QCOMPARE(outcome.error, error);
        cause.replace("<module>", QRegularExpression::escape(path));
        QVERIFY2(QRegularExpression(cause).match(outcome.cause).hasMatch(), qPrintable(outcome.cause));
        QCOMPARE(TraceSwitch::trace().filter(QRegularExpression("^(  Flags|C_Initialize ret|C_Finalize ret)"))
                     .replaceInStrings(QRegularExpression("^ +"), ""), trace);
    }

    void readsSlotsObjectsAndThePlatformAsTheModuleAnswers_data() { rowsFrom(); }

    void readsSlotsObjectsAndThePlatformAsTheModuleAnswers()
    {
        QFETCH(QString, config);
        QFETCH(QString, extensions);
        QFETCH(QString, read);
        QFETCH(QString, result);
        QFETCH(QStringList, calls);
        open({config}, Pkcs11Library::SignatureTypeDefault, extensions);
        CK_OBJECT_CLASS dataClass = CKO_DATA;
        CK_BBOOL no = CK_FALSE;
        QList<CK_ATTRIBUTE> data = {{CKA_CLASS, &dataClass, sizeof(dataClass)}, {CKA_TOKEN, &no, sizeof(no)},
                                    {CKA_PRIVATE, &no, sizeof(no)}};
        QList<unsigned long> created(read.section(' ', 1).toInt()); // "objects <count>"
        for (unsigned long& object : created)
            library->createObject(session, data, &object);
        TraceSwitch::set(true);
        const Outcome outcome = attempt([&] {
            if (read != "slots" && read != "platform") {
                QList<unsigned long> found = library->findObjects(session, data.data(), 1);
                std::sort(found.begin(), found.end());
                std::sort(created.begin(), created.end());
                return QString(found == created ? "all" : "others");
            }
            return read == "slots" ? QString::number(library->getSlots(CK_TRUE).size()) : library->getTokenPlatform(slotInfo.getSlotId());
        });
        QCOMPARE(outcome.error + outcome.document, result);
        QCOMPARE(TraceSwitch::trace().filter(QRegularExpression("^(Going to call | pSlotList: | \\*pul(Count|ObjectCount): )"))
                     .replaceInStrings(QRegularExpression("^(Going to call | )"), ""), calls);
    }

    void pinDialogue_data() { rowsFrom(); }

    void pinDialogue()
    {
        QFETCH(QStringList, config);
        QFETCH(QString, terminating);
        QFETCH(bool, cancelIsError);
        QFETCH(QStringList, answers);
        QFETCH(QString, error);
        QFETCH(QStringList, shown);
        open(config);
        TraceSwitch::set(true);
        QSignalSpy requested(library.get(), &Pkcs11Library::pinRequestedSignal);
        if (terminating == "before")
            TerminatingFlag::set();
        else if (terminating == "during")
            connect(library.get(), &Pkcs11Library::pinRequestedSignal, this, [] { TerminatingFlag::set(); }, Qt::DirectConnection);
        user.script(answers);
        QCOMPARE(attempt([&] {
                     library->login(session, slotInfo, tokenInfo, cancelIsError);
                     if (cancelIsError) // logged in now: neither a form nor a C_Login again
                         library->login(session, slotInfo, tokenInfo, true);
                 }).error, error);
        QCOMPARE(user.seen(), shown);
        QCOMPARE(requested.count(), shown.filter(QRegularExpression("^form")).count());
        QCOMPARE(TraceSwitch::trace().count(" pPin: (nil)"), int(config.join("").contains("pin_pad")));
        QCOMPARE(TraceSwitch::trace().filter("C_Login").isEmpty(), !terminating.isEmpty() || answers.value(0) == "cancel");
        const QString log = TraceSwitch::text();
        for (const QString& answer : answers.filter(QRegularExpression("^pin:")))
            QVERIFY(!log.contains(answer.mid(4)) && !log.contains(answer.mid(4).toUtf8().toHex().toUpper()));
        QCOMPARE(library->isUserLoggedIn(session), error.isEmpty() && cancelIsError);
    }

    void signingAsksForTheContextPinAsItsTypeSays_data() { rowsFrom(); }

    void signingAsksForTheContextPinAsItsTypeSays()
    {
        QFETCH(bool, cachedContextPin);
        QFETCH(QStringList, config);
        QFETCH(int, mechanism);
        QFETCH(QStringList, answers);
        QFETCH(int, endsAt);
        QFETCH(QStringList, results);
        QFETCH(QStringList, shown);
        QFETCH(QStringList, lengths);
        QVERIFY(store->generateRsaKeyPair("Engine Token", userPin, "01", "Signing Key"));
        open(config << "always_authenticate=1",
             cachedContextPin ? Pkcs11Library::SignatureTypeCachedContextPin : Pkcs11Library::SignatureTypeDefault);
        int requests = 0;
        connect(library.get(), &Pkcs11Library::pinRequestedSignal, this, [&] {
            if (++requests == endsAt)
                TerminatingFlag::set();
        }, Qt::DirectConnection);
        user.script(answers);
        CK_MECHANISM sign = {CK_MECHANISM_TYPE(mechanism), nullptr, 0}, digest = {CKM_SHA256, nullptr, 0};
        TraceSwitch::set(true);
        QStringList ends;
        while (ends.size() < results.size())
            ends << attempt([&] {
                library->login(session, slotInfo, tokenInfo, true);
                const CK_OBJECT_HANDLE key = findOne(CKO_PRIVATE_KEY);
                const bool always = library->getCkaAlwaysAuthenticateValue(session, key);
                const QByteArray hash = mechanism == CKM_RSA_PKCS ? library->computeHash(session, &digest, "to be signed") : "data";
                library->signHash(session, key, &sign, hash, always, slotInfo, tokenInfo);
            }).error;
        QCOMPARE(ends, results);
        QCOMPARE(user.seen(), shown);
        if (!lengths.isEmpty()) // each signature's lengths, in as 0 to ask the size, then as answered
            QCOMPARE(TraceSwitch::trace().filter(QRegularExpression("^ +(\\*pul\\w+|ulValueLen): ")).replaceInStrings(QRegularExpression("^ +"), ""),
                     lengths + lengths + lengths);
    }

    // A key without context login, a context login before signing, an unreadable object, and an
    // unavailable value asked again without a buffer.
    void readsAttributesOrSaysWhyNot()
    {
        QVERIFY(store->generateRsaKeyPair("Engine Token", userPin, "01", "Signing Key"));
        open({"pin_pad_pin=" + userPin});
        QCOMPARE(attempt([&] { library->login(session, slotInfo, tokenInfo, true); }).error, QString());
        // Not after a signing start: the token refuses the context login itself.
        QCOMPARE(attempt([&] { library->contextLogin(session, slotInfo, tokenInfo); }).error,
                 "PKCS#11 method C_Login returned error CKR_OPERATION_NOT_INITIALIZED (0x00000091)");
        QVERIFY(!library->getCkaAlwaysAuthenticateValue(session, findOne(CKO_PRIVATE_KEY)));
        QVERIFY(!library->getCkaAlwaysAuthenticateValue(session, 0xdead));
        QCOMPARE(attempt([&] { library->getAttributeValue(session, 0xdead, CKA_VALUE); }).error,
                 "PKCS#11 method C_GetAttributeValue returned error CKR_OBJECT_HANDLE_INVALID (0x00000082)");
        QCOMPARE(library->getAttributeValue(session, findOne(CKO_PUBLIC_KEY), CKA_PUBLIC_EXPONENT), QByteArray::fromHex("010001"));
        open({"unavailable_type=0x122"});
        const CK_OBJECT_HANDLE publicKey = findOne(CKO_PUBLIC_KEY);
        TraceSwitch::set(true);
        QCOMPARE(library->getAttributeValue(session, publicKey, CKA_PUBLIC_EXPONENT), QByteArray());
        // Asked twice, each time for the one attribute (in and out).
        QCOMPARE(TraceSwitch::trace().filter(QRegularExpression("^(Going to call| ulCount:)")).join('|'),
                 "Going to call C_GetAttributeValue| ulCount: 1| ulCount: 1|Going to call C_GetAttributeValue| ulCount: 1| ulCount: 1");
    }

};

QTEST_MAIN(TestPkcs11Library)
#include "tst_pkcs11library.moc"
