#include "pkcs11logger.h"
#include "pkcs11testhelpers.h"

#include <QLibrary>
#include <QTest>

// The PKCS#11 call trace: its switch, every call's lines, and no PIN in it. The module is the fuzz
// module, which answers every call from the bytes it is given, so the whole trace can be compared.
class TestPkcs11Trace : public QObject
{
    Q_OBJECT

    TraceSwitch traceSwitch;
    QLibrary module{QStringLiteral(SCRIVA_FUZZ_MODULE)};
    CK_FUNCTION_LIST_PTR list = nullptr;
    void (*answers)(const uint8_t*, size_t) = nullptr;

private slots:
    void initTestCase()
    {
        traceSwitch.install();
        answers = reinterpret_cast<decltype(answers)>(module.resolve("scrivaFuzzAnswers"));
        const auto getList = reinterpret_cast<CK_C_GetFunctionList>(module.resolve("C_GetFunctionList"));
        QVERIFY2(answers && getList && getList(&list) == CKR_OK, qPrintable(module.errorString()));
    }

    // Every traced call once, and nothing while the log file is absent or for a call without a
    // function; tests/data/pkcs11trace.txt holds the module's answers and the lines expected.
    void tracesEveryCallWhileTheLogFileExists()
    {
        QFile file(QStringLiteral(SCRIVA_TEST_DATA_DIR "/pkcs11trace.txt"));
        QVERIFY(file.open(QIODevice::ReadOnly | QIODevice::Text));
        const QStringList lines = QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts);
        Pkcs11Logger logger(list);
        TraceSwitch::set(false);
        answers(reinterpret_cast<const uint8_t*>("\x8f"), 1); // CKR_VENDOR_DEFINED
        QCOMPARE(logger.C_Finalize(nullptr), CKR_VENDOR_DEFINED);
        QVERIFY(!QFile::exists(LogHandler::hostLogPath()));
        TraceSwitch::set(true);
        QCOMPARE(Pkcs11Logger(nullptr).C_Login(1, CKU_USER, nullptr, 0), CKR_GENERAL_ERROR);
        CK_FUNCTION_LIST empty{};
        QCOMPARE(Pkcs11Logger(&empty).C_Login(1, CKU_USER, nullptr, 0), CKR_GENERAL_ERROR);

        const QByteArray answered = QByteArray::fromHex(lines.filter(QRegularExpression("^< ")).join(' ').toLatin1());
        answers(reinterpret_cast<const uint8_t*>(answered.constData()), size_t(answered.size()));
        CK_C_INITIALIZE_ARGS args = {nullptr, nullptr, nullptr, nullptr, CKF_OS_LOCKING_OK, nullptr};
        QCOMPARE(logger.C_Initialize(&args), CKR_OK);
        QCOMPARE(logger.C_Initialize(nullptr), CKR_OK);
        CK_ULONG count = 0;
        QCOMPARE(logger.C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
        CK_SLOT_ID ids[2];
        QCOMPARE(logger.C_GetSlotList(CK_FALSE, ids, &count), CKR_OK);
        CK_SLOT_INFO slotInfo;
        QCOMPARE(logger.C_GetSlotInfo(7, &slotInfo), CKR_OK);
        CK_TOKEN_INFO tokenInfo;
        QCOMPARE(logger.C_GetTokenInfo(7, &tokenInfo), CKR_OK);
        CK_SESSION_HANDLE session = 0;
        QCOMPARE(logger.C_OpenSession(7, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
        CK_SESSION_INFO sessionInfo;
        QCOMPARE(logger.C_GetSessionInfo(session, &sessionInfo), CKR_OK);
        QCOMPARE(logger.C_GetSessionInfo(session, &sessionInfo), CKR_OK);
        QByteArray pin("Zq7-Distinct-Pin-93");
        QCOMPARE(logger.C_Login(session, CKU_CONTEXT_SPECIFIC, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()), 19), CKR_OK);
        QCOMPARE(logger.C_Login(session, 3, nullptr, 0), CKR_OK);

        CK_OBJECT_CLASS keyClass = CKO_PRIVATE_KEY;
        CK_ATTRIBUTE nested[] = {{CKA_CLASS, &keyClass, sizeof(keyClass)}};
        unsigned char bytes[] = {1, 2, 3, 4, 0xAB};
        CK_ATTRIBUTE attributes[] = {
            {0x7FFFFFFFUL, nullptr, 0},                  // a length query: no value line
            {CKA_WRAP_TEMPLATE, nested, sizeof(nested)}, // an array attribute: shown nested
            {CKA_UNWRAP_TEMPLATE, bytes, sizeof(bytes)}, // not whole attributes: shown as bytes
            {CKA_VALUE, bytes, 0},
        };
        CK_OBJECT_HANDLE object = 0;
        QCOMPARE(logger.C_CreateObject(session, attributes + 3, 1, &object), CKR_OK);
        QCOMPARE(logger.C_GetAttributeValue(session, object, attributes, 4), CKR_ATTRIBUTE_SENSITIVE);

        // Array values from a request, one byte off alignment: the pointers in them are never followed.
        const CK_ATTRIBUTE entries[] = {{CKA_SUB_PRIME_BITS, reinterpret_cast<void*>(0x10), 8},
                                        {CKA_UNWRAP_TEMPLATE, reinterpret_cast<void*>(0xdead0000), 2 * sizeof(CK_ATTRIBUTE)}};
        QByteArray wild = QByteArray(1, '\x55') + QByteArray(reinterpret_cast<const char*>(entries), sizeof(entries));
        const CK_MECHANISM_TYPE allowed[] = {CKM_RSA_PKCS, CKM_SHA256_RSA_PKCS, CKM_ECDSA}; // read as one attribute
        QByteArray mechanisms = QByteArray(1, '\x55') + QByteArray(reinterpret_cast<const char*>(allowed), sizeof(allowed));
        CK_ATTRIBUTE search[] = {{CKA_WRAP_TEMPLATE, wild.data() + 1, CK_ULONG(wild.size() - 1)},
                                 {CKA_ALLOWED_MECHANISMS, mechanisms.data() + 1, sizeof(allowed)}};
        QCOMPARE(logger.C_FindObjectsInit(session, search, 2), CKR_OK);
        CK_OBJECT_HANDLE found[4] = {};
        QCOMPARE(logger.C_FindObjects(session, found, 4, &count), CKR_OK);
        QCOMPARE(logger.C_FindObjects(session, nullptr, 4, &count), CKR_OK); // no array: none read
        QCOMPARE(logger.C_FindObjectsFinal(session), CKR_OK);

        unsigned char curve[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
        CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
        QCOMPARE(logger.C_DigestInit(session, &mechanism), CKR_OK);
        unsigned char digest[2];
        CK_ULONG digestLength = sizeof(digest);
        QCOMPARE(logger.C_Digest(session, bytes, 3, digest, &digestLength), CKR_OK);
        mechanism = {0x80000001UL, bytes, 0};
        QCOMPARE(logger.C_SignInit(session, &mechanism, 12), CKR_OK);
        QCOMPARE(logger.C_Sign(session, bytes, 2, nullptr, &digestLength), CKR_BUFFER_TOO_SMALL);
        mechanism = {CKM_EC_KEY_PAIR_GEN, curve, sizeof(curve)};
        CK_OBJECT_HANDLE publicKey = 0, privateKey = 0;
        QCOMPARE(logger.C_GenerateKeyPair(session, &mechanism, attributes + 3, 1, nullptr, 0, &publicKey, &privateKey), CKR_OK);
        QCOMPARE(logger.C_DestroyObject(session, privateKey), CKR_OK);
        QCOMPARE(logger.C_Logout(session), CKR_VENDOR_DEFINED);
        QCOMPARE(logger.C_CloseSession(session), CKR_SESSION_HANDLE_INVALID);
        QCOMPARE(logger.C_Finalize(nullptr), 0x92UL);
        QCOMPARE(TraceSwitch::trace(), lines.filter(QRegularExpression("^[^#<]")));
        // Only the PIN's address and length are written, never the PIN.
        const QString log = TraceSwitch::text();
        QVERIFY(!log.contains(pin) && !log.toUpper().contains(pin.toHex().toUpper()));
    }
};

QTEST_GUILESS_MAIN(TestPkcs11Trace)
#include "tst_pkcs11trace.moc"
