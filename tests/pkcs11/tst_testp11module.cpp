#include "pkcs11testhelpers.h"
#include "softhsmtoken.h"

#include <QTemporaryDir>
#include <QTest>

using namespace Pkcs11TestHelpers;

// The forwarding test module: what it passes to SoftHSM and what it adds, so that the engine's
// tests can rely on it.
class TestP11Module : public QObject
{
    Q_OBJECT

    SoftHsmToken store;
    QTemporaryDir work;
    QString configPath;
    CK_FUNCTION_LIST_PTR module = nullptr;
    const QByteArray userPin = "module-pin-1";

    // Initialises the module with a fresh configuration and opens a session on the token.
    void start(const QStringList& config, CK_SESSION_HANDLE* session = nullptr, const QByteArray& label = "Module Token")
    {
        QVERIFY(writeModuleConfig(configPath, config));
        QCOMPARE(module->C_Initialize(nullptr), CKR_OK);
        if (!session)
            return;
        CK_SLOT_ID slot = 0;
        QVERIFY(findSlotByLabel(module, label, &slot));
        QCOMPARE(module->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, session), CKR_OK);
    }

    CK_RV login(CK_SESSION_HANDLE session, CK_USER_TYPE user, QByteArray pin)
    {
        return module->C_Login(session, user, pin.isNull() ? nullptr : reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()),
                               CK_ULONG(pin.size()));
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(store.isValid(), qPrintable(store.lastError()));
        QVERIFY2(store.initToken(QStringLiteral("Module Token"), QStringLiteral("so-pin-1"), QString::fromLatin1(userPin)),
                 qPrintable(store.lastError()));
        QVERIFY2(store.initToken(QStringLiteral("Broken"), QStringLiteral("so-pin-1"), QString::fromLatin1(userPin)),
                 qPrintable(store.lastError()));
        QVERIFY2(store.generateRsaKeyPair(QStringLiteral("Module Token"), QString::fromLatin1(userPin),
                                          QStringLiteral("01"), QStringLiteral("Signing Key")),
                 qPrintable(store.lastError()));
        configPath = work.filePath(QStringLiteral("module.conf"));
        qputenv("SCRIVA_TEST_P11_CONFIG", configPath.toUtf8());
        module = loadFunctionList(SoftHsmToken::testModulePath());
        QVERIFY(module);
    }

    void cleanup() { module->C_Finalize(nullptr); }

    void refusesOsLockingOnceAndAnswersConfiguredInitializeResult()
    {
        QVERIFY(writeModuleConfig(configPath, {QStringLiteral("cant_lock_once=1")}));
        CK_C_INITIALIZE_ARGS args = {nullptr, nullptr, nullptr, nullptr, CKF_OS_LOCKING_OK, nullptr};
        QCOMPARE(module->C_Initialize(&args), CKR_CANT_LOCK);
        args.flags = 0;
        QCOMPARE(module->C_Initialize(&args), CKR_OK);
        QCOMPARE(module->C_Finalize(nullptr), CKR_OK);

        QVERIFY(writeModuleConfig(configPath, {QStringLiteral("initialize_rv=0x191")}));
        QCOMPARE(module->C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
    }

    void countsWrongPinsUntilTheTokenLocks()
    {
        CK_SESSION_HANDLE session = 0;
        start({QStringLiteral("lock_after_wrong_pins=3")}, &session);
        for (int attempt = 0; attempt < 3; ++attempt)
            QCOMPARE(login(session, CKU_USER, "wrong-pin"), CKR_PIN_INCORRECT);
        QCOMPARE(login(session, CKU_USER, userPin), CKR_PIN_LOCKED);
    }

    void pinPadLogsInWithoutPinAndFailsTokenInfoOfOneToken()
    {
        CK_SESSION_HANDLE session = 0;
        start({QStringLiteral("pin_pad_pin=") + QString::fromLatin1(userPin),
               QStringLiteral("token_info_fail_label=Broken"), QStringLiteral("token_info_fail_rv=0x30")},
              &session);
        CK_SLOT_ID brokenSlot = static_cast<CK_SLOT_ID>(store.slotId(QStringLiteral("Broken")));
        CK_TOKEN_INFO info;
        QCOMPARE(module->C_GetTokenInfo(brokenSlot, &info), CKR_DEVICE_ERROR);
        CK_SESSION_INFO sessionInfo;
        QCOMPARE(module->C_GetSessionInfo(session, &sessionInfo), CKR_OK);
        QCOMPARE(module->C_GetTokenInfo(sessionInfo.slotID, &info), CKR_OK);
        QVERIFY(info.flags & CKF_PROTECTED_AUTHENTICATION_PATH);

        QCOMPARE(login(session, CKU_USER, QByteArray()), CKR_OK);
        QCOMPARE(module->C_GetSessionInfo(session, &sessionInfo), CKR_OK);
        QCOMPARE(sessionInfo.state, CKS_RW_USER_FUNCTIONS);
    }

    void demandsContextLoginAndCancelsSigning()
    {
        CK_SESSION_HANDLE session = 0;
        start({QStringLiteral("always_authenticate=1"), QStringLiteral("context_pin=ctx-pin"),
               QStringLiteral("cancel_sign=1")},
              &session);
        QCOMPARE(login(session, CKU_USER, userPin), CKR_OK);
        CK_OBJECT_CLASS keyClass = CKO_PRIVATE_KEY;
        CK_ATTRIBUTE search[] = {{CKA_CLASS, &keyClass, sizeof(keyClass)}};
        CK_OBJECT_HANDLE key = 0;
        CK_ULONG found = 0;
        QCOMPARE(module->C_FindObjectsInit(session, search, 1), CKR_OK);
        QCOMPARE(module->C_FindObjects(session, &key, 1, &found), CKR_OK);
        QCOMPARE(module->C_FindObjectsFinal(session), CKR_OK);
        QCOMPARE(found, 1UL);
        QCOMPARE(readAttribute(module, session, key, CKA_ALWAYS_AUTHENTICATE), QByteArray(1, '\1'));

        CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
        QByteArray data("data to sign");
        QByteArray signature(256, '\0');
        CK_ULONG length = 0;
        auto sign = [&](CK_BYTE_PTR out) {
            length = out ? CK_ULONG(signature.size()) : 0;
            return module->C_Sign(session, reinterpret_cast<CK_BYTE_PTR>(data.data()), CK_ULONG(data.size()), out,
                                  &length);
        };
        QCOMPARE(module->C_SignInit(session, &mechanism, key), CKR_OK);
        QCOMPARE(sign(nullptr), CKR_USER_NOT_LOGGED_IN);
        QCOMPARE(login(session, CKU_CONTEXT_SPECIFIC, "wrong"), CKR_PIN_INCORRECT);
        QCOMPARE(login(session, CKU_CONTEXT_SPECIFIC, "ctx-pin"), CKR_OK);
        QCOMPARE(sign(nullptr), CKR_OK);
        QCOMPARE(length, 256UL);
        QCOMPARE(sign(reinterpret_cast<CK_BYTE_PTR>(signature.data())), CKR_FUNCTION_CANCELED);
        // The cancelled operation is over: a new one can start.
        QCOMPARE(module->C_SignInit(session, &mechanism, key), CKR_OK);
    }

    void answersVendorAttributesFromConfiguration()
    {
        CK_SESSION_HANDLE session = 0;
        start({QStringLiteral("token_platform=Platform 7.1"), QStringLiteral("kov_data_hex=0403010203")}, &session);
        CK_RV rv = CKR_GENERAL_ERROR;
        QCOMPARE(readAttribute(module, session, 0, 0x80001070UL, &rv), QByteArray("Platform 7.1"));
        QCOMPARE(rv, CKR_OK);

        QCOMPARE(login(session, CKU_USER, userPin), CKR_OK);
        CK_OBJECT_CLASS keyClass = CKO_PUBLIC_KEY;
        CK_ATTRIBUTE search[] = {{CKA_CLASS, &keyClass, sizeof(keyClass)}};
        CK_OBJECT_HANDLE key = 0;
        CK_ULONG found = 0;
        QCOMPARE(module->C_FindObjectsInit(session, search, 1), CKR_OK);
        QCOMPARE(module->C_FindObjects(session, &key, 1, &found), CKR_OK);
        QCOMPARE(module->C_FindObjectsFinal(session), CKR_OK);
        QCOMPARE(readAttribute(module, session, key, 0x80000007UL), QByteArray::fromHex("0403010203"));
        // Without configuration the module forwards, and SoftHSM knows no such attribute.
        QCOMPARE(module->C_Finalize(nullptr), CKR_OK);
        start({}, &session);
        readAttribute(module, session, 0, 0x80001070UL, &rv);
        QCOMPARE(rv, CKR_OBJECT_HANDLE_INVALID);
    }
};

QTEST_GUILESS_MAIN(TestP11Module)
#include "tst_testp11module.moc"
