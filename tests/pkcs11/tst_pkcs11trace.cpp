#include "pkcs11logger.h"
#include "pkcs11names.h"
#include "pkcs11testhelpers.h"

#include <QFileInfo>
#include <QTest>

#include <cstring>

namespace {

// A module that answers every traced call from fixed values, so the whole trace can be compared.
constexpr auto ok = [](auto...) -> CK_RV { return CKR_OK; };
constexpr auto fill = [](auto* out, auto value) -> CK_RV { *out = value; return CKR_OK; };

CK_FUNCTION_LIST stubList()
{
    CK_FUNCTION_LIST list{};
    list.C_Initialize = ok, list.C_Login = ok, list.C_FindObjectsInit = ok, list.C_FindObjectsFinal = ok;
    list.C_DigestInit = ok, list.C_SignInit = ok, list.C_DestroyObject = ok;
    list.C_Finalize = [](auto) -> CK_RV { return 0x80000001UL; };
    // Counts that outgrow their buffers: no more than the buffer is dumped.
    list.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID_PTR ids, CK_ULONG_PTR count) {
        if (ids)
            ids[0] = 7, ids[1] = 9;
        return fill(count, CK_ULONG(ids ? 3 : 2));
    };
    list.C_GetSlotInfo = [](CK_SLOT_ID, CK_SLOT_INFO_PTR info) {
        // Texts of a module that try to start log lines of their own.
        std::memset(info, ' ', sizeof(*info));
        std::memcpy(info->slotDescription, "Reader\nFORGED", 13);
        std::memcpy(info->manufacturerID, "Maker\r\t", 7);
        info->flags = CKF_TOKEN_PRESENT | CKF_HW_SLOT;
        info->hardwareVersion = CK_VERSION{1, 2}, info->firmwareVersion = CK_VERSION{3, 4};
        return ok();
    };
    list.C_GetTokenInfo = [](CK_SLOT_ID, CK_TOKEN_INFO_PTR info) {
        std::memset(info, 0, sizeof(*info));
        std::memcpy(info, "Label", 5);
        std::memset(info->utcTime, '2', sizeof(info->utcTime));
        info->flags = CKF_LOGIN_REQUIRED | CKF_USER_PIN_LOCKED | CKF_SO_PIN_TO_BE_CHANGED;
        info->ulMaxSessionCount = 1, info->ulSessionCount = 2, info->ulMaxRwSessionCount = 3, info->ulRwSessionCount = 4;
        info->ulMaxPinLen = 5, info->ulMinPinLen = 6, info->ulTotalPublicMemory = 7, info->ulFreePublicMemory = 8;
        info->ulTotalPrivateMemory = 9, info->ulFreePrivateMemory = 10, info->hardwareVersion = CK_VERSION{11, 12};
        return ok();
    };
    list.C_OpenSession = [](auto, auto, auto, auto, CK_SESSION_HANDLE_PTR session) { return fill(session, 5UL); };
    list.C_CloseSession = [](auto) -> CK_RV { return CKR_SESSION_HANDLE_INVALID; };
    list.C_GetSessionInfo = [](CK_SESSION_HANDLE, CK_SESSION_INFO_PTR info) {
        return fill(info, CK_SESSION_INFO{7, CKS_RW_USER_FUNCTIONS, CKF_SERIAL_SESSION, 99});
    };
    list.C_Logout = [](auto) -> CK_RV { return CKR_VENDOR_DEFINED; };
    list.C_CreateObject = [](auto, auto, auto, CK_OBJECT_HANDLE_PTR object) { return fill(object, 21UL); };
    list.C_GetAttributeValue = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR attributes, CK_ULONG) -> CK_RV {
        attributes[2].ulValueLen = CK_UNAVAILABLE_INFORMATION; // refused: no more than its buffer is dumped
        return CKR_ATTRIBUTE_SENSITIVE;
    };
    list.C_FindObjects = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE_PTR objects, CK_ULONG room, CK_ULONG_PTR count) {
        if (objects)
            objects[0] = 31, objects[1] = 32;
        return fill(count, room + 2);
    };
    list.C_Digest = [](auto, auto, auto, CK_BYTE_PTR digest, CK_ULONG_PTR length) {
        digest[0] = 0xAB, digest[1] = 0x01;
        return fill(length, 9UL);
    };
    list.C_Sign = [](auto...) -> CK_RV { return CKR_BUFFER_TOO_SMALL; };
    list.C_GenerateKeyPair = [](auto, auto, auto, auto, auto, auto, CK_OBJECT_HANDLE_PTR publicKey, CK_OBJECT_HANDLE_PTR privateKey) {
        *publicKey = 11;
        return fill(privateKey, 12UL);
    };
    return list;
}

} // namespace

// The PKCS#11 call trace: its switch, every call's lines, and no PIN in it.
class TestPkcs11Trace : public QObject
{
    Q_OBJECT

    TraceSwitch traceSwitch;

private slots:
    void initTestCase() { traceSwitch.install(); }

    void forwardsSilentlyWhileTheLogFileIsAbsentOrTheListMissing()
    {
        TraceSwitch::set(false);
        CK_FUNCTION_LIST list = stubList();
        QCOMPARE(Pkcs11Logger(&list).C_Finalize(nullptr), 0x80000001UL);
        QVERIFY(!QFile::exists(LogHandler::hostLogPath()));
        TraceSwitch::set(true);
        QCOMPARE(Pkcs11Logger(nullptr).C_Login(1, CKU_USER, nullptr, 0), CKR_GENERAL_ERROR);
        list.C_Login = nullptr;
        QCOMPARE(Pkcs11Logger(&list).C_Login(1, CKU_USER, nullptr, 0), CKR_GENERAL_ERROR);
        QCOMPARE(QFileInfo(LogHandler::hostLogPath()).size(), 0);
    }

    // Every traced call once; the expected lines are in tests/data/pkcs11trace.txt.
    void tracesEveryCall()
    {
        TraceSwitch::set(true);
        CK_FUNCTION_LIST list = stubList();
        Pkcs11Logger logger(&list);
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
        QByteArray pin("Zq7-Distinct-Pin-93");
        QCOMPARE(logger.C_Login(session, CKU_CONTEXT_SPECIFIC, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()), 19), CKR_OK);

        CK_OBJECT_CLASS keyClass = CKO_PRIVATE_KEY;
        CK_ATTRIBUTE nested[] = {{CKA_CLASS, &keyClass, sizeof(keyClass)}};
        unsigned char bytes[] = {1, 2, 3, 4, 0xAB};
        CK_ATTRIBUTE attributes[] = {
            {CKA_LABEL, nullptr, 0},                     // a length query: no value line
            {CKA_WRAP_TEMPLATE, nested, sizeof(nested)}, // an array attribute: shown nested
            {CKA_UNWRAP_TEMPLATE, bytes, sizeof(bytes)}, // not whole attributes: shown as bytes
            {CKA_VALUE, bytes, 0},
        };
        CK_OBJECT_HANDLE object = 0;
        QCOMPARE(logger.C_CreateObject(session, attributes + 3, 1, &object), CKR_OK);
        QCOMPARE(logger.C_GetAttributeValue(session, object, attributes, 4), CKR_ATTRIBUTE_SENSITIVE);

        // An array attribute's value comes from a request: the pointers in it are never followed. Both
        // values lie one byte off alignment.
        const CK_ATTRIBUTE entries[] = {{CKA_CLASS, reinterpret_cast<void*>(0x10), 8},
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
        mechanism = {CKM_RSA_PKCS, bytes, 0};
        QCOMPARE(logger.C_SignInit(session, &mechanism, 12), CKR_OK);
        QCOMPARE(logger.C_Sign(session, bytes, 2, nullptr, &digestLength), CKR_BUFFER_TOO_SMALL);
        mechanism = {CKM_EC_KEY_PAIR_GEN, curve, sizeof(curve)};
        CK_OBJECT_HANDLE publicKey = 0, privateKey = 0;
        QCOMPARE(logger.C_GenerateKeyPair(session, &mechanism, attributes + 3, 1, nullptr, 0, &publicKey, &privateKey), CKR_OK);
        QCOMPARE(logger.C_DestroyObject(session, privateKey), CKR_OK);
        QCOMPARE(logger.C_Logout(session), CKR_VENDOR_DEFINED);
        QCOMPARE(logger.C_CloseSession(session), CKR_SESSION_HANDLE_INVALID);
        QCOMPARE(logger.C_Finalize(nullptr), 0x80000001UL);

        QFile expected(QStringLiteral(SCRIVA_TEST_DATA_DIR "/pkcs11trace.txt"));
        QVERIFY(expected.open(QIODevice::ReadOnly | QIODevice::Text));
        QCOMPARE(TraceSwitch::trace(), QString::fromUtf8(expected.readAll()).split('\n', Qt::SkipEmptyParts));
        // Only the PIN's address and length are written, never the PIN.
        const QString log = TraceSwitch::text();
        QVERIFY(!log.contains(pin) && !log.toUpper().contains(pin.toHex().toUpper()));
    }

    // Values between and beyond the tables' entries, and one value with two names.
    void namesValuesByTheStandardsTables()
    {
        QCOMPARE(Pkcs11Names::returnValueName(0x4), "Unknown");
        QCOMPARE(Pkcs11Names::mechanismName(0x80000001UL), "Unknown");
        QCOMPARE(Pkcs11Names::attributeTypeName(CKA_SUB_PRIME_BITS), "CKA_SUBPRIME_BITS or CKA_SUB_PRIME_BITS");
        QCOMPARE(Pkcs11Names::attributeTypeName(0x7FFFFFFFUL), "Unknown");
        QCOMPARE(Pkcs11Names::userTypeName(3), "Unknown");
        QCOMPARE(Pkcs11Names::sessionStateName(5), "Unknown");
    }
};

QTEST_GUILESS_MAIN(TestPkcs11Trace)
#include "tst_pkcs11trace.moc"
