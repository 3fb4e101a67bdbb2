#include "loghandler.h"
#include "pkcs11logger.h"
#include "pkcs11testhelpers.h"
#include "softhsmtoken.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <cstring>

using namespace Pkcs11TestHelpers;

namespace {

// A module that answers from these stubs, so the trace can be checked line by line.
CK_RV stubGetAttributeValue(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR attributes, CK_ULONG count)
{
    // The third attribute is refused, the others are left as they came.
    if (count > 2)
        attributes[2].ulValueLen = CK_UNAVAILABLE_INFORMATION;
    return CKR_ATTRIBUTE_SENSITIVE;
}

CK_RV stubGenerateKeyPair(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_ATTRIBUTE_PTR, CK_ULONG, CK_ATTRIBUTE_PTR, CK_ULONG,
                          CK_OBJECT_HANDLE_PTR publicKey, CK_OBJECT_HANDLE_PTR privateKey)
{
    *publicKey = 11;
    *privateKey = 12;
    return CKR_OK;
}

CK_RV stubFinalize(CK_VOID_PTR) { return 0x80000001UL; }

CK_RV stubFindObjectsInit(CK_SESSION_HANDLE, CK_ATTRIBUTE_PTR, CK_ULONG) { return CKR_OK; }

// A module whose texts try to start log lines of their own.
CK_RV stubGetSlotInfo(CK_SLOT_ID, CK_SLOT_INFO_PTR info)
{
    std::memset(info, ' ', sizeof(info->slotDescription) + sizeof(info->manufacturerID));
    std::memcpy(info->slotDescription, "Reader\nFORGED", 13);
    std::memcpy(info->manufacturerID, "Maker\r\t", 7);
    info->flags = 0;
    info->hardwareVersion = info->firmwareVersion = CK_VERSION{1, 0};
    return CKR_OK;
}

CK_FUNCTION_LIST stubList()
{
    CK_FUNCTION_LIST list;
    std::memset(&list, 0, sizeof(list));
    list.C_GetAttributeValue = stubGetAttributeValue;
    list.C_GenerateKeyPair = stubGenerateKeyPair;
    list.C_Finalize = stubFinalize;
    list.C_FindObjectsInit = stubFindObjectsInit;
    list.C_GetSlotInfo = stubGetSlotInfo;
    return list;
}

QString pointer(const void* p) { return QString::asprintf("%p", p); }
QString pointer(quintptr p) { return pointer(reinterpret_cast<const void*>(p)); }

// Attribute entries as the bytes of an attribute value, one byte off alignment.
QByteArray entryBytes(const QList<CK_ATTRIBUTE>& entries)
{
    return QByteArray(1, '\x55')
           + QByteArray(reinterpret_cast<const char*>(entries.constData()), entries.size() * int(sizeof(CK_ATTRIBUTE)));
}

// Each expected message appears, in this order, with anything between.
QString missingInOrder(const QStringList& messages, const QStringList& expected)
{
    int at = 0;
    for (const QString& message : expected)
        if ((at = messages.indexOf(message, at)) < 0)
            return message;
    return QString();
}

} // namespace

// The PKCS#11 call trace: its switch, one dump of each line layout, and no PIN in it.
class TestPkcs11Trace : public QObject
{
    Q_OBJECT

    QTemporaryDir home;

    void switchTrace(bool on)
    {
        QFile::remove(LogHandler::hostLogPath());
        if (on) {
            QFile file(LogHandler::hostLogPath());
            QVERIFY(file.open(QIODevice::WriteOnly));
        }
        LogHandler::refreshHostLogCheck();
    }

private slots:
    void initTestCase()
    {
        qputenv("XDG_DATA_HOME", home.path().toUtf8());
        LogHandler::init(QString::fromLatin1(LogHandler::hostLogFileName));
        QVERIFY(QDir().mkpath(LogHandler::logDirectory()));
    }

    void cleanupTestCase() { LogHandler::shutdown(); }

    void forwardsSilentlyWhileTheLogFileIsAbsent()
    {
        switchTrace(false);
        CK_FUNCTION_LIST list = stubList();
        Pkcs11Logger logger(&list);
        QCOMPARE(logger.C_Finalize(nullptr), 0x80000001UL);
        QVERIFY(!QFile::exists(LogHandler::hostLogPath()));

        switchTrace(true);
        QCOMPARE(logger.C_Finalize(nullptr), 0x80000001UL);
        QCOMPARE(traceMessages(LogHandler::hostLogPath()),
                 QStringList({QStringLiteral("Going to call C_Finalize"), QStringLiteral("Input"),
                              QStringLiteral(" pReserved: (nil)"),
                              QStringLiteral("C_Finalize returned 2147483649 (Unknown)")}));
    }

    void missingFunctionListAnswersGeneralErrorWithoutTrace()
    {
        switchTrace(true);
        Pkcs11Logger logger(nullptr);
        QCOMPARE(logger.C_Login(1, CKU_USER, nullptr, 0), CKR_GENERAL_ERROR);
        CK_FUNCTION_LIST list = stubList();
        QCOMPARE(Pkcs11Logger(&list).C_CloseSession(1), CKR_GENERAL_ERROR); // no entry in the list
        QCOMPARE(QFileInfo(LogHandler::hostLogPath()).size(), 0);
    }

    void dumpsTemplatesNestedTemplatesAndRefusedValues()
    {
        switchTrace(true);
        CK_FUNCTION_LIST list = stubList();
        Pkcs11Logger logger(&list);
        CK_OBJECT_CLASS keyClass = CKO_PRIVATE_KEY;
        CK_ATTRIBUTE nested[] = {{CKA_CLASS, &keyClass, sizeof(keyClass)}};
        unsigned char bytes[] = {1, 2, 3, 4, 0xAB};
        char empty[1] = {0};
        CK_ATTRIBUTE attributes[] = {
            {CKA_LABEL, nullptr, 0},                      // a length query: no value line
            {CKA_WRAP_TEMPLATE, nested, sizeof(nested)},  // an array attribute: shown nested
            {CKA_UNWRAP_TEMPLATE, bytes, sizeof(bytes)},  // not whole attributes: shown as bytes
            {CKA_VALUE, empty, 0},
        };
        QCOMPARE(logger.C_GetAttributeValue(7, 9, attributes, 4), CKR_ATTRIBUTE_SENSITIVE);

        auto templateLines = [&](bool refused) {
            return QStringList{
                QStringLiteral("  *** Begin attribute template ***"),
                QStringLiteral("  Attribute 0"), QStringLiteral("   Attribute: 3 (CKA_LABEL)"),
                QStringLiteral("   pValue: (nil)"), QStringLiteral("   ulValueLen: 0"),
                QStringLiteral("  Attribute 1"), QStringLiteral("   Attribute: 1073742353 (CKA_WRAP_TEMPLATE)"),
                QStringLiteral("   pValue: ") + pointer(nested), QStringLiteral("   ulValueLen: 24"),
                QStringLiteral("  *** Begin attribute template ***"),
                QStringLiteral("  Attribute 0"), QStringLiteral("   Attribute: 0 (CKA_CLASS)"),
                QStringLiteral("   pValue: ") + pointer(&keyClass), QStringLiteral("   ulValueLen: 8"),
                QStringLiteral("  *** End attribute template ***"),
                QStringLiteral("  Attribute 2"), QStringLiteral("   Attribute: 1073742354 (CKA_UNWRAP_TEMPLATE)"),
                QStringLiteral("   pValue: ") + pointer(bytes),
                refused ? QStringLiteral("   ulValueLen: 18446744073709551615") : QStringLiteral("   ulValueLen: 5"),
                refused ? QStringLiteral("   *pValue: *** cannot be displayed ***")
                        : QStringLiteral("   *pValue: HEX(01020304AB)"),
                QStringLiteral("  Attribute 3"), QStringLiteral("   Attribute: 17 (CKA_VALUE)"),
                QStringLiteral("   pValue: ") + pointer(empty), QStringLiteral("   ulValueLen: 0"),
                QStringLiteral("   *pValue: HEX()"),
                QStringLiteral("  *** End attribute template ***"),
            };
        };
        const QString templatePointer = QStringLiteral(" pTemplate: ") + pointer(attributes);
        const QStringList expected = QStringList{QStringLiteral("Going to call C_GetAttributeValue"),
                                                 QStringLiteral("Input"), QStringLiteral(" hSession: 7"),
                                                 QStringLiteral(" hObject: 9"), templatePointer,
                                                 QStringLiteral(" ulCount: 4")}
                                     + templateLines(false)
                                     + QStringList{QStringLiteral("Output"), templatePointer,
                                                   QStringLiteral(" ulCount: 4")}
                                     + templateLines(true)
                                     + QStringList{QStringLiteral("C_GetAttributeValue returned 17 "
                                                                  "(CKR_ATTRIBUTE_SENSITIVE)")};
        QCOMPARE(traceMessages(LogHandler::hostLogPath()), expected);
    }

    // An array attribute's value comes from a request: the pointers in it are never followed.
    void nestedTemplatesAreShownFromTheValueBytesOnly_data()
    {
        QTest::addColumn<CK_ATTRIBUTE_TYPE>("type");
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<QStringList>("lines");
        QTest::newRow("wrap template with wild pointers")
            << CK_ATTRIBUTE_TYPE(CKA_WRAP_TEMPLATE)
            << entryBytes({{CKA_CLASS, reinterpret_cast<void*>(0x10), 8},
                           {CKA_UNWRAP_TEMPLATE, reinterpret_cast<void*>(0xdead0000), 2 * sizeof(CK_ATTRIBUTE)}})
            << QStringList{QStringLiteral("   Attribute: 1073742353 (CKA_WRAP_TEMPLATE)"), QStringLiteral("   ulValueLen: 48"),
                           QStringLiteral("  Attribute 0"), QStringLiteral("   Attribute: 0 (CKA_CLASS)"),
                           QStringLiteral("   pValue: ") + pointer(0x10), QStringLiteral("   ulValueLen: 8"),
                           QStringLiteral("  Attribute 1"), QStringLiteral("   Attribute: 1073742354 (CKA_UNWRAP_TEMPLATE)"),
                           QStringLiteral("   pValue: ") + pointer(0xdead0000), QStringLiteral("   ulValueLen: 48")};
        // CKM_RSA_PKCS, CKM_SHA256_RSA_PKCS, CKM_ECDSA: 24 bytes, read as one attribute.
        const CK_MECHANISM_TYPE mechanisms[] = {CKM_RSA_PKCS, CKM_SHA256_RSA_PKCS, CKM_ECDSA};
        QTest::newRow("24-byte allowed mechanisms")
            << CK_ATTRIBUTE_TYPE(CKA_ALLOWED_MECHANISMS)
            << QByteArray(1, '\x55') + QByteArray(reinterpret_cast<const char*>(mechanisms), sizeof(mechanisms))
            << QStringList{QStringLiteral("   Attribute: 1073743360 (CKA_ALLOWED_MECHANISMS)"), QStringLiteral("   ulValueLen: 24"),
                           QStringLiteral("  Attribute 0"), QStringLiteral("   Attribute: 1 (CKA_TOKEN)"),
                           QStringLiteral("   pValue: ") + pointer(0x40), QStringLiteral("   ulValueLen: 4161")};
    }

    void nestedTemplatesAreShownFromTheValueBytesOnly()
    {
        QFETCH(CK_ATTRIBUTE_TYPE, type);
        QFETCH(QByteArray, value);
        QFETCH(QStringList, lines); // the attribute's type and length lines, then the nested entries
        switchTrace(true);
        CK_FUNCTION_LIST list = stubList();
        CK_ATTRIBUTE attribute = {type, value.data() + 1, CK_ULONG(value.size() - 1)};
        QCOMPARE(Pkcs11Logger(&list).C_FindObjectsInit(5, &attribute, 1), CKR_OK);

        const QString begin = QStringLiteral("  *** Begin attribute template ***");
        const QString end = QStringLiteral("  *** End attribute template ***");
        const QStringList expected = QStringList{QStringLiteral("Going to call C_FindObjectsInit"), QStringLiteral("Input"),
                                                 QStringLiteral(" hSession: 5"), QStringLiteral(" pTemplate: ") + pointer(&attribute),
                                                 QStringLiteral(" ulCount: 1"), begin, QStringLiteral("  Attribute 0"), lines[0],
                                                 QStringLiteral("   pValue: ") + pointer(attribute.pValue), lines[1], begin}
                                     + lines.mid(2)
                                     + QStringList{end, end, QStringLiteral("C_FindObjectsInit returned 0 (CKR_OK)")};
        QCOMPARE(traceMessages(LogHandler::hostLogPath()), expected);
    }

    void moduleTextsStayOnTheirLine()
    {
        switchTrace(true);
        CK_FUNCTION_LIST list = stubList();
        CK_SLOT_INFO info;
        QCOMPARE(Pkcs11Logger(&list).C_GetSlotInfo(1, &info), CKR_OK);
        const QStringList messages = traceMessages(LogHandler::hostLogPath());
        QCOMPARE(missingInOrder(messages, {QStringLiteral("  slotDescription: Reader\\nFORGED") + QString(51, QLatin1Char(' ')),
                                           QStringLiteral("  manufacturerID: Maker\\r\\t") + QString(25, QLatin1Char(' '))}),
                 QString());
    }

    void showsMechanismParametersAndNewKeyHandles()
    {
        switchTrace(true);
        CK_FUNCTION_LIST list = stubList();
        Pkcs11Logger logger(&list);
        unsigned char curve[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
        CK_MECHANISM mechanism = {CKM_EC_KEY_PAIR_GEN, curve, sizeof(curve)};
        CK_OBJECT_HANDLE publicKey = 0;
        CK_OBJECT_HANDLE privateKey = 0;
        QCOMPARE(logger.C_GenerateKeyPair(3, &mechanism, nullptr, 0, nullptr, 0, &publicKey, &privateKey), CKR_OK);
        QCOMPARE(publicKey, 11UL);

        const QStringList messages = traceMessages(LogHandler::hostLogPath());
        QCOMPARE(missingInOrder(messages, {QStringLiteral("  mechanism: 4160 (CKM_ECDSA_KEY_PAIR_GEN or CKM_EC_KEY_PAIR_GEN)"),
                                           QStringLiteral("  *pParameter: HEX(06082A8648CE3D030107)"),
                                           QStringLiteral("  ulParameterLen: 0xa"),
                                           QStringLiteral(" ulPublicKeyAttributeCount: 0"), QStringLiteral("Output"),
                                           QStringLiteral(" *phPublicKey: 11"), QStringLiteral(" *phPrivateKey: 12"),
                                           QStringLiteral("C_GenerateKeyPair returned 0 (CKR_OK)")}),
                 QString());
        QVERIFY(!messages.contains(QStringLiteral("  *** Begin attribute template ***")));
    }

    void tracesSoftHsmSessionButNeverThePin()
    {
        SoftHsmToken store;
        QVERIFY2(store.isValid(), qPrintable(store.lastError()));
        const QString pin = QStringLiteral("Zq7-Distinct-Pin-93");
        QVERIFY2(store.initToken(QStringLiteral("Trace Token"), QStringLiteral("so-secret-1"), pin),
                 qPrintable(store.lastError()));
        const QString serial = store.serialNumber(QStringLiteral("Trace Token"));
        QCOMPARE(serial.size(), 16);

        CK_FUNCTION_LIST_PTR module = loadFunctionList(SoftHsmToken::softHsmModulePath());
        QVERIFY(module);
        Pkcs11Logger logger(module);
        switchTrace(true);

        CK_C_INITIALIZE_ARGS args = {nullptr, nullptr, nullptr, nullptr, CKF_OS_LOCKING_OK, nullptr};
        QCOMPARE(logger.C_Initialize(&args), CKR_OK);
        CK_ULONG count = 0;
        QCOMPARE(logger.C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
        QList<CK_SLOT_ID> slotIds(static_cast<int>(count));
        QCOMPARE(logger.C_GetSlotList(CK_TRUE, slotIds.data(), &count), CKR_OK);
        const CK_SLOT_ID slot = static_cast<CK_SLOT_ID>(store.slotId(QStringLiteral("Trace Token")));
        QVERIFY(slotIds.contains(slot));
        CK_TOKEN_INFO tokenInfo;
        QCOMPARE(logger.C_GetTokenInfo(slot, &tokenInfo), CKR_OK);
        CK_SESSION_HANDLE session = 0;
        QCOMPARE(logger.C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session), CKR_OK);
        QByteArray pinBytes = pin.toUtf8();
        QCOMPARE(logger.C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pinBytes.data()),
                                static_cast<CK_ULONG>(pinBytes.size())),
                 CKR_OK);
        QCOMPARE(logger.C_Logout(session), CKR_OK);
        QCOMPARE(logger.C_CloseSession(session), CKR_OK);
        QCOMPARE(logger.C_Finalize(nullptr), CKR_OK);

        const QStringList messages = traceMessages(LogHandler::hostLogPath());
        const QStringList expectedSubsequence{
            QStringLiteral("Going to call C_Initialize"), QStringLiteral("  Flags: 2"),
            QStringLiteral("   CKF_LIBRARY_CANT_CREATE_OS_THREADS: FALSE"), QStringLiteral("   CKF_OS_LOCKING_OK: TRUE"),
            QStringLiteral("C_Initialize returned 0 (CKR_OK)"),
            QStringLiteral(" pSlotList: (nil)"), QStringLiteral(" *pulCount: 0"),
            QStringLiteral(" pSlotList[0]: %1").arg(slotIds[0]),
            QStringLiteral("  label: ") + QStringLiteral("Trace Token").leftJustified(32),
            QStringLiteral("  serialNumber: ") + serial, QStringLiteral("   CKF_LOGIN_REQUIRED: TRUE"),
            QStringLiteral("   CKF_PROTECTED_AUTHENTICATION_PATH: FALSE"),
            QStringLiteral("  CKF_RW_SESSION: TRUE"), QStringLiteral(" *phSession: %1").arg(session),
            QStringLiteral("Going to call C_Login"), QStringLiteral(" userType: 1 (CKU_USER)"),
            QStringLiteral(" pPin: ") + pointer(pinBytes.constData()), QStringLiteral(" ulPinLen: 19"),
            QStringLiteral("C_Login returned 0 (CKR_OK)"),
            QStringLiteral("C_Finalize returned 0 (CKR_OK)")};
        QCOMPARE(missingInOrder(messages, expectedSubsequence), QString());

        QFile log(LogHandler::hostLogPath());
        QVERIFY(log.open(QIODevice::ReadOnly));
        const QByteArray whole = log.readAll();
        QVERIFY(!whole.contains(pinBytes));
        QVERIFY(!whole.toUpper().contains(pinBytes.toHex().toUpper()));
        switchTrace(false);
    }
};

QTEST_GUILESS_MAIN(TestPkcs11Trace)
#include "tst_pkcs11trace.moc"
