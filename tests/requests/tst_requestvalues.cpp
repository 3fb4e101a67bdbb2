#include "tst_requests.h"

#include "requesttesthelpers.h"
#include "warninglog.h"

#include "devpki.h"
#include "pkcs11/XmlParser/ckattributeparser.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/createobjectoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/generatecsroperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getslotsoperationdata.h"
#include "x509certificate2ultra.h"

#include <QtTest>

#include <cstdlib>
#include <memory>

// Attribute values, the records' own checks and ownership, and the signed envelope in front of
// the reader.

namespace {

CK_ATTRIBUTE makeAttribute(CK_ATTRIBUTE_TYPE type, const QByteArray& value)
{
    CK_ATTRIBUTE attribute{};
    CkAttributeParser().getAttributeByteArray(type, value, &attribute);
    return attribute;
}

QList<CK_ATTRIBUTE> someAttributes()
{
    return {makeAttribute(0, ulongBytes(1)), makeAttribute(3, "label")};
}

bool encode(const QString& kind, const QString& text, CK_ATTRIBUTE* attribute)
{
    const CkAttributeParser parser;
    const CK_ATTRIBUTE_TYPE type = 0x80000007;
    if (kind == "bool")
        return parser.getAttributeBoolean(type, text, attribute);
    if (kind == "string")
        return parser.getAttributeString(type, text, attribute);
    if (kind == "hex")
        return parser.getAttributeHexByteArray(type, text, attribute);
    if (kind == "ulong")
        return parser.getAttributeUnsignedLong(type, text, attribute);
    return parser.getAttributeDate(type, text, attribute);
}

} // namespace

void TestRequests::encodesAttributeValues_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("bool TRUE") << "bool" << "TRUE" << QByteArray(1, '\1');
    QTest::newRow("bool True") << "bool" << "True" << QByteArray(1, '\1');
    QTest::newRow("bool false") << "bool" << "false" << QByteArray(1, '\0');
    QTest::newRow("string in UTF-8") << "string" << "Žluťoučký kůň" << QStringLiteral("Žluťoučký kůň").toUtf8();
    QTest::newRow("hex either case") << "hex" << "0A0b" << QByteArray("\x0A\x0B");
    QTest::newRow("hex skips strays") << "hex" << "0A zz 0b" << QByteArray("\x0A\x0B");
    QTest::newRow("unsigned long 1") << "ulong" << "1" << ulongBytes(1);
    QTest::newRow("largest unsigned long") << "ulong" << "18446744073709551615" << QByteArray(8, '\xFF');
    QTest::newRow("leap day in UTC") << "date" << "2024-02-29T23:59:59Z" << QByteArray("20240229");
    QTest::newRow("date in its stated zone") << "date" << "2024-03-01T00:30:00+01:00" << QByteArray("20240301");
}

void TestRequests::encodesAttributeValues()
{
    QFETCH(QString, kind);
    QFETCH(QString, text);
    QFETCH(QByteArray, bytes);
    CK_ATTRIBUTE attribute{};
    QVERIFY(encode(kind, text, &attribute));
    const QByteArray value = valueOf(attribute);
    std::free(attribute.pValue);
    QCOMPARE(attribute.type, CK_ATTRIBUTE_TYPE(0x80000007));
    QCOMPARE(value, bytes);
    QCOMPARE(attribute.ulValueLen, CK_ULONG(bytes.size()));
}

void TestRequests::refusesAttributeValues_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("warning");
    QTest::newRow("bool 1") << "bool" << "1" << "Attribute value is invalid";
    QTest::newRow("bool 0") << "bool" << "0" << "Attribute value is invalid";
    QTest::newRow("bool yes") << "bool" << "yes" << "Attribute value is invalid";
    QTest::newRow("one beyond the largest") << "ulong" << "18446744073709551616" << "Unable to convert parsed value to ULong!";
    QTest::newRow("negative") << "ulong" << "-1" << "Unable to convert parsed value to ULong!";
    QTest::newRow("hex as unsigned long") << "ulong" << "0x10" << "Unable to convert parsed value to ULong!";
    QTest::newRow("no such day") << "date" << "2023-02-29T00:00:00Z" << "Unable to parse the dateTime!";
}

void TestRequests::refusesAttributeValues()
{
    QFETCH(QString, kind);
    QFETCH(QString, text);
    QFETCH(QString, warning);
    CK_ATTRIBUTE attribute{42, nullptr, 0};
    WarningLog log;
    QVERIFY(!encode(kind, text, &attribute));
    QCOMPARE(log.warnings(), QStringList{warning});
    QCOMPARE(attribute.type, CK_ATTRIBUTE_TYPE(42));
    QCOMPARE(attribute.pValue, nullptr);
}

void TestRequests::attributeParserRefusesNullOutput()
{
    WarningLog log;
    for (const char* kind : {"bool", "string", "hex", "ulong", "date"})
        QVERIFY(!encode(kind, "1", nullptr));
    QVERIFY(CkAttributeParser().translateBool("true", nullptr) != CKR_OK);
    QCOMPARE(log.warnings(), QStringList(6, "Output parameter is NULL!"));
}

void TestRequests::recordsRefuseWithTheirOwnTexts()
{
    const QList<Location> locations{Location("a.so", Location::Architecture::x64)};
    const auto library = [&](const QList<Location>& l, const QString& pin1, const QString& pin2) {
        return [=] { Pkcs11LibraryData(l, pin1, pin2, true, true, {}); };
    };
    QCOMPARE(refusal(library({}, "1", "2")), "No PKCS#11 library location provided!");
    QCOMPARE(refusal(library(locations, "", "2")), "Pin2Name is null or empty!");
    QCOMPARE(refusal(library(locations, "1", "")), "Pin2Name is null or empty!");
    QCOMPARE(refusal([] { Pkcs11LibraryData(static_cast<const Pkcs11LibraryData*>(nullptr)); }), "Other is NULL!");

    QCOMPARE(refusal([] { GetCertificatesOperationData("", "label"); }), "Token serial number is null or empty!");
    QCOMPARE(refusal([] { GetCertificatesOperationData(static_cast<const GetCertificatesOperationData*>(nullptr)); }),
             "Other is NULL!");

    // A refused record leaves the buffers with the caller, who frees them here once.
    QList<CK_ATTRIBUTE> attributes = someAttributes();
    QCOMPARE(refusal([] { CreateObjectOperationData("01", "", {}); }), "No CK_ATTRIBUTE provided!");
    QCOMPARE(refusal([&] { CreateObjectOperationData("", "", attributes); }), "TokenSerialNumber is null or empty!");
    QCOMPARE(refusal([] { CreateObjectOperationData(static_cast<const CreateObjectOperationData*>(nullptr)); }),
             "Other is NULL!");

    const auto csr = [&](const QList<CK_ATTRIBUTE>& pub, const QList<CK_ATTRIBUTE>& priv, const QString& serial,
                         const QString& subject, const QString& provider) {
        return [=] { GenerateCsrOperationData(serial, "", 0, 1, 592, CsrType::PKCS10, subject, provider, pub, priv, false); };
    };
    for (const auto& action : {csr({}, attributes, "01", "30", "p"), csr(attributes, {}, "01", "30", "p"),
                               csr(attributes, attributes, "", "30", "p"), csr(attributes, attributes, "01", "", "p"),
                               csr(attributes, attributes, "01", "30", "")})
        QCOMPARE(refusal(action), "No CK_ATTRIBUTE provided!");
    QCOMPARE(refusal([] { GenerateCsrOperationData(static_cast<const GenerateCsrOperationData*>(nullptr)); }),
             "Other is null!");
    CkAttributeParser::freeAttributeValues(attributes);

    using Record = ScrivaPkcs11OperationData<GetSlotsOperationData>;
    Pkcs11LibraryData libraryData(locations, "1", "2", false, false, {});
    GetSlotsOperationData slotsData;
    const QString ns = ScrivaNamespaces::version20260204();
    QCOMPARE(refusal([&] { Record(&libraryData, nullptr, ns, requestNonce); }), "Operation specific data is NULL");
    QCOMPARE(refusal([&] { Record(nullptr, &slotsData, ns, requestNonce); }), "Library data is NULL!");
    QCOMPARE(refusal([&] { Record(&libraryData, &slotsData, ns, ""); }), "Nonce is null or empty!");
    QCOMPARE(refusal([&] { Record(&libraryData, &slotsData, "", requestNonce); }), "XML namespace is null or empty!");
    QCOMPARE(refusal([] { Record(static_cast<const Record*>(nullptr)); }), "Other is NULL!");
    try {
        Record(nullptr, nullptr, ns, requestNonce);
    } catch (const AppException& exception) {
        QCOMPARE(exception.getGeneralMessage(), "GeneralExceptionMessage");
    }
}

void TestRequests::recordCopiesOwnTheirValueBuffers()
{
    auto original = std::make_unique<ScrivaPkcs11OperationData<GenerateCsrOperationData>>(
        new Pkcs11LibraryData({Location("a.so", Location::Architecture::x86)}, "1", "2", true, false, "ext"),
        new GenerateCsrOperationData("01", "label", 0, 1, 592, CsrType::PKCS10, "30", "p", someAttributes(),
                                     someAttributes(), true),
        ScrivaNamespaces::version20221229(), requestNonce);
    ScrivaPkcs11OperationData<GenerateCsrOperationData> copy(original.get());
    const CK_ATTRIBUTE first = original->getOperationData()->getPrivateKeyAttributes()[1];
    QVERIFY(copy.getOperationData()->getPrivateKeyAttributes()[1].pValue != first.pValue);
    QVERIFY(copy.getLibraryData() != original->getLibraryData());
    original.reset(); // the copy must not depend on anything the original freed
    QCOMPARE(valueOf(copy.getOperationData()->getPrivateKeyAttributes()[1]), "label");
    QCOMPARE(copy.getLibraryData()->getVendorExtensions(), "ext");
    QCOMPARE(copy.getNonce(), requestNonce);

    auto createObject = std::make_unique<CreateObjectOperationData>("01", "", someAttributes());
    CreateObjectOperationData objectCopy(createObject.get());
    createObject.reset();
    QCOMPARE(valueOf(objectCopy.getAttributes()[0]), ulongBytes(1));
}

void TestRequests::parseOpensSignedEnvelopeFirst()
{
    if (!DevPki::isAvailable())
        QSKIP("this build trusts real anchors");
    const QString argument = DevPki::signedArgument(readData("getcertificates-2026.xml").toUtf8());
    X509Certificate2Ultra signer;
    const std::unique_ptr<ScrivaPkcs11OperationData<GetCertificatesOperationData>> record(
        ScrivaPkcs11InputXmlParser<GetCertificatesOperationData>::parse(argument, &signer));
    QCOMPARE(record->getOperationData()->getTokenLabel(), "Scriva token");
    QVERIFY(!signer.isNull());

    // The plain XML is no argument: it must come inside a signed envelope.
    QVERIFY(!refusal([&] { delete ScrivaPkcs11InputXmlParser<GetSlotsOperationData>::parse(readData("getslots-2026.xml")); })
                 .isEmpty());
}

void TestRequests::parseRefusesUntrustedSigner()
{
    if (!DevPki::isAvailable())
        QSKIP("this build trusts real anchors");
    const QString argument = DevPki::signedArgument(readData("getslots-2022.xml").toUtf8(), "signer-unknown-root");
    WarningLog log;
    QCOMPARE(refusal([&] { delete ScrivaPkcs11InputXmlParser<GetSlotsOperationData>::parse(argument); }),
             "CommunicationMismatchUnstrustedServer");
    QVERIFY(!log.contains("Validation of input XML started"));
}

void TestRequests::describesEachOperation()
{
    QCOMPARE(ScrivaPkcs11InputXmlParser<GetSlotsOperationData>::operationDescription(), "GetSlotsDescription");
    QCOMPARE(ScrivaPkcs11InputXmlParser<GetCertificatesOperationData>::operationDescription(), "GetCertificatesDescription");
    QCOMPARE(ScrivaPkcs11InputXmlParser<GenerateCsrOperationData>::operationDescription(), "GenerateCsrDescription");
    QCOMPARE(ScrivaPkcs11InputXmlParser<CreateObjectOperationData>::operationDescription(), "CreateObjectDescription");
}
