#include "requesttesthelpers.h"

#include "devpki.h"
#include "pkcs11/XmlParser/ckattributelist.h"
#include "pkcs11/XmlParser/ckattributeparser.h"
#include "pkcs11/XmlParser/pkcs11operationdataparser.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/createobjectoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/generatecsroperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getslotsoperationdata.h"
#include "x509certificate2ultra.h"

#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QTemporaryFile>
#include <QXmlStreamReader>
#include <QtTest>

#include <cstdlib>
#include <memory>

// Request documents: which the schemas accept, how the namespace is chosen, what the reader makes
// of them or refuses, attribute values, the records' own checks and ownership, and the signed
// envelope in front of the reader.
class TestRequests : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(scriva);
        // Progress lines of the parser are not what these tests look at.
        QLoggingCategory::setFilterRules(QStringLiteral("*.info=false\n*.debug=false"));
    }

    void schemaDecidesValidity_data();
    void schemaDecidesValidity();
    void validationReportsWhy_data();
    void validationReportsWhy();
    void choosesSchemaByRawTextOlderVersionFirst_data();
    void choosesSchemaByRawTextOlderVersionFirst();
    void readsLibraryAndNonce_data();
    void readsLibraryAndNonce();
    void readsCreateObjectTemplateInOrder();
    void readsOnlyWhatWasValidated_data();
    void readsOnlyWhatWasValidated();
    void refusesWhatTheSchemaLetsThrough_data();
    void refusesWhatTheSchemaLetsThrough();
    void readingRoutinesRefuse_data();
    void readingRoutinesRefuse();
    void readingRoutinesStopAtTheirEndTag();
    void externalEntitiesAreNeverLoaded();
    void encodesAttributeValues_data();
    void encodesAttributeValues();
    void refusesAttributeValues_data();
    void refusesAttributeValues();
    void recordsRefuseWithTheirOwnTexts();
    void recordCopiesOwnTheirValueBuffers();
    void parseOpensOnlyAnEnvelopeFromATrustedSigner();
};

namespace {

// Reads `xml` (or with `envelope`, the envelope argument) as a request of the named operation; the
// refusal's message, or empty.
QString parseRefusal(const QString& operation, const QString& xml, bool envelope = false)
{
    return refusal([&] {
        if (envelope)
            delete ScrivaPkcs11InputXmlParser<GetSlotsOperationData>::parse(xml);
        else if (operation == QLatin1String("GetSlots"))
            delete ScrivaPkcs11InputXmlParser<GetSlotsOperationData>::parseXml(xml);
        else if (operation == QLatin1String("GetCertificates"))
            delete ScrivaPkcs11InputXmlParser<GetCertificatesOperationData>::parseXml(xml);
        else if (operation == QLatin1String("CreateObject"))
            delete ScrivaPkcs11InputXmlParser<CreateObjectOperationData>::parseXml(xml);
        else
            delete ScrivaPkcs11InputXmlParser<GenerateCsrOperationData>::parseXml(xml);
    });
}

template<typename T>
std::unique_ptr<ScrivaPkcs11OperationData<T>> read(const QString& xml)
{
    return std::unique_ptr<ScrivaPkcs11OperationData<T>>(ScrivaPkcs11InputXmlParser<T>::parseXml(xml));
}

// A GenerateCsr group read straight by its reading routine; one element can be left out.
QString generateCsrFragment(const QString& without = {})
{
    QString fragment = QStringLiteral(
        "<GenerateCsr><TokenSerialNumber>01</TokenSerialNumber>"
        "<GenerateKeyPairMechanism>0</GenerateKeyPairMechanism>"
        "<PublicKeyAttributes><BoolAttribute><Attribute>2</Attribute><Value>true</Value></BoolAttribute>"
        "</PublicKeyAttributes>"
        "<PrivateKeyAttributes><BoolAttribute><Attribute>2</Attribute><Value>true</Value></BoolAttribute>"
        "</PrivateKeyAttributes>"
        "<CsrType>PKCS10</CsrType><CsrSubject>3000</CsrSubject>"
        "<CsrAttributes><EnrollmentCspProvider>csp</EnrollmentCspProvider></CsrAttributes>"
        "<CsrDigestMechanism>592</CsrDigestMechanism><CsrSigningMechanism>1</CsrSigningMechanism></GenerateCsr>");
    if (!without.isEmpty())
        fragment.remove(QRegularExpression(QStringLiteral("<%1>.*</%1>").arg(without),
                                           QRegularExpression::InvertedGreedinessOption));
    return fragment;
}

CK_ATTRIBUTE makeAttribute(CK_ATTRIBUTE_TYPE type, const QByteArray& value)
{
    CK_ATTRIBUTE attribute{};
    CkAttributeParser().getAttributeByteArray(type, value, &attribute);
    return attribute;
}

CkAttributeList someAttributes()
{
    CkAttributeList attributes;
    attributes.append(makeAttribute(0, ulongBytes(1)));
    attributes.append(makeAttribute(3, "label"));
    return attributes;
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

void TestRequests::schemaDecidesValidity_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("to");
    QTest::addColumn<bool>("valid");

    for (const char* file : {"getslots-2022.xml", "getcertificates-2022.xml", "createobject-2022.xml",
                             "generatecsr-2022.xml", "getslots-response-2022.xml", "getslots-2026.xml",
                             "getcertificates-2026.xml", "createobject-2026.xml", "generatecsr-2026.xml",
                             "getslots-response-2026.xml"})
        QTest::addRow("%s as written", file) << file << "" << "" << true;

    QTest::newRow("nonce of 15") << "getslots-2022.xml" << requestNonce << "0123456789abcde" << false;
    QTest::newRow("nonce of 16") << "getslots-2022.xml" << requestNonce << "0123456789abcdef" << true;
    QTest::newRow("no location") << "getslots-2022.xml" << "<Locations>.*</Locations>" << "<Locations/>" << false;
    QTest::newRow("architecture upper case") << "getslots-2026.xml" << ">x64<" << ">X64<" << false;
    QTest::newRow("library children reordered")
        << "getslots-2022.xml" << "(<Pin1Name>.*</Pin1Name>)(\\s*)(<Pin2Name>.*</Pin2Name>)" << "\\3\\2\\1" << false;
    QTest::newRow("unknown library child")
        << "getslots-2022.xml" << "</AllowManualSelection>" << "</AllowManualSelection><Extra/>" << false;

    QTest::newRow("2022 empty serial") << "getcertificates-2022.xml" << ">0123456789ABCDEF<" << "><" << false;
    QTest::newRow("2022 serial of 17") << "getcertificates-2022.xml" << "ABCDEF<" << "ABCDEFG<" << false;
    QTest::newRow("2026 empty serial") << "getcertificates-2026.xml" << ">0123456789ABCDEF<" << "><" << true;
    QTest::newRow("2026 serial of 17") << "createobject-2026.xml" << "ABCDEF<" << "ABCDEFG<" << false;
    QTest::newRow("2026 empty label") << "getcertificates-2026.xml" << ">Scriva token<" << "><" << true;
    QTest::newRow("2026 label of 32") << "getcertificates-2026.xml" << ">Scriva token<"
                                      << QString(">%1<").arg(QString(32, 'L')) << true;
    QTest::newRow("2026 label of 33") << "getcertificates-2026.xml" << ">Scriva token<"
                                      << QString(">%1<").arg(QString(33, 'L')) << false;
    QTest::newRow("2026 serial outside its group") << "getcertificates-2026.xml" << "<TokenIdentification>.*</TokenIdentification>"
                                                   << "<TokenSerialNumber>01</TokenSerialNumber>" << false;

    QTest::newRow("empty attribute list") << "createobject-2022.xml" << "<ObjectAttributes>.*</ObjectAttributes>"
                                          << "<ObjectAttributes></ObjectAttributes>" << false;
    QTest::newRow("unknown attribute kind") << "createobject-2026.xml" << "BoolAttribute>" << "FloatAttribute>" << false;
    QTest::newRow("attribute children reordered") << "createobject-2022.xml" << "(<Attribute>3</Attribute>)(\\s*)(<Value>[^<]*</Value>)"
                                                  << "\\3\\2\\1" << false;
    QTest::newRow("date with fraction") << "createobject-2022.xml" << "2024-02-29T23:59:59Z" << "2024-01-01T00:00:00.5Z" << false;
    QTest::newRow("date without Z") << "createobject-2026.xml" << "2024-02-29T23:59:59Z" << "2024-01-01T00:00:00" << false;
    QTest::newRow("date in UTC") << "createobject-2026.xml" << "2024-02-29T23:59:59Z" << "2024-01-01T00:00:00Z" << true;
    QTest::newRow("largest unsigned long") << "createobject-2022.xml" << "<Value>1</Value>" << "<Value>18446744073709551615</Value>" << true;
    QTest::newRow("unsigned long overflow") << "createobject-2022.xml" << "<Value>1</Value>" << "<Value>18446744073709551616</Value>" << false;
    QTest::newRow("odd hex digits") << "createobject-2022.xml" << "0A0b" << "0A0" << false;
    QTest::newRow("non-hex digit") << "createobject-2026.xml" << "0A0b" << "0G" << false;
    QTest::newRow("bool 1 for an attribute") << "createobject-2022.xml" << "<Value>true</Value>" << "<Value>1</Value>" << true;
    QTest::newRow("empty string value") << "createobject-2022.xml" << "Certifikát podpisu" << "" << true;

    QTest::newRow("csr type PKCS7") << "generatecsr-2022.xml" << ">PKCS10<" << ">PKCS7<" << false;
    QTest::newRow("no CsrAttributes") << "generatecsr-2022.xml" << "<CsrAttributes>.*</CsrAttributes>" << "" << true;
    QTest::newRow("KovData with content") << "generatecsr-2026.xml" << "<KovData/>" << "<KovData><Any>x</Any></KovData>" << true;
    QTest::newRow("empty enrollment provider") << "generatecsr-2026.xml" << ">Microsoft[^<]*<" << "><" << false;
    QTest::newRow("subject not hex") << "generatecsr-2022.xml" << "<CsrSubject>[^<]*<" << "<CsrSubject>CN=x<" << false;

    QTest::newRow("2026 without VendorExtensions") << "getslots-2026.xml" << "<VendorExtensions>.*</VendorExtensions>" << "" << false;
    QTest::newRow("2026 empty VendorExtensions") << "getslots-2026.xml" << "<VendorExtensions>.*</VendorExtensions>"
                                                 << "<VendorExtensions/>" << true;
    QTest::newRow("2022 with VendorExtensions") << "getslots-2022.xml" << "</AllowManualSelection>"
                                                << "</AllowManualSelection><VendorExtensions/>" << false;
    QTest::newRow("2022 answer with TokenPlatform") << "getslots-response-2022.xml" << "<TokenInfo/>"
                                                    << "<TokenInfo/><TokenPlatform>x</TokenPlatform>" << false;
    QTest::newRow("2026 answer without TokenPlatform") << "getslots-response-2026.xml" << "\\s*<TokenPlatform>[^<]*</TokenPlatform>"
                                                       << "" << false;
    QTest::newRow("answer with empty library path") << "getslots-response-2022.xml" << "<Pkcs11LibraryPath>[^<]*<"
                                                    << "<Pkcs11LibraryPath><" << false;
    QTest::newRow("element outside the namespace") << "getslots-2022.xml" << "<GetSlots/>" << "<GetSlots xmlns=\"\"/>" << false;
}

void TestRequests::schemaDecidesValidity()
{
    QFETCH(QString, file);
    QFETCH(QString, from);
    QFETCH(QString, to);
    QFETCH(bool, valid);
    const QString xml = edited(file, from, to);
    QVERIFY2(!xml.isNull(), "test edit did not apply");

    WarningLog log;
    QCOMPARE(Pkcs11OperationDataParser().validate(xml, namespaceOf(file)), valid);
    QCOMPARE(log.contains(QStringLiteral("Input XML is not valid!")), !valid);
}

void TestRequests::validationReportsWhy_data()
{
    QTest::addColumn<QString>("xml");
    QTest::addColumn<QString>("xmlNamespace");
    QTest::addColumn<QString>("warning");
    const QString request = readData(QStringLiteral("getslots-2022.xml"));
    const QString ns = ScrivaNamespaces::version20221229();
    QTest::newRow("unknown namespace") << request << QString(ns).replace("2022/12/29", "2023/01/01")
                                       << "Unable to find XSD schema for provided XML namespace!";
    QTest::newRow("not well-formed") << QString(request).remove("</ScrivaOperation>") << ns << "Unable to load XML.";
    QTest::newRow("libxml2 message logged") << QString(request).replace("<GetSlots/>", "<Bogus/>") << ns
                                            << "Element '{" + ns + "}Bogus': This element is not expected. Expected is one "
                                               "of ( {" + ns + "}CreateObject, {" + ns + "}GenerateCsr, {" + ns
                                                   + "}GetCertificates, {" + ns + "}GetSlots ).";
    QTest::newRow("request text stays on one line")
        << QString(request).replace(">x64<", ">x64\nforged line<") << ns
        << "Element '{" + ns + "}Architecture': [facet 'enumeration'] The value 'x64\\nforged line' is not an "
                               "element of the set {'x86', 'x64', 'both'}.";
}

void TestRequests::validationReportsWhy()
{
    QFETCH(QString, xml);
    QFETCH(QString, xmlNamespace);
    QFETCH(QString, warning);
    WarningLog log;
    QVERIFY(!Pkcs11OperationDataParser().validate(xml, xmlNamespace));
    QVERIFY2(log.contains(warning), qPrintable(log.warnings().join('\n')));
}

void TestRequests::choosesSchemaByRawTextOlderVersionFirst_data()
{
    QTest::addColumn<QString>("xml");
    QTest::addColumn<QString>("refusal");
    const QString comment22 = "<!-- " + ScrivaNamespaces::version20221229() + " -->";
    const QString comment26 = "<!-- " + ScrivaNamespaces::version20260204() + " -->";
    QTest::newRow("root in neither namespace")
        << edited("getslots-2026.xml", "2026/02/04", "2026/02/05") << "Invalid XML namespace!";
    QTest::newRow("namespace in other case")
        << edited("getslots-2022.xml", "corvant", "Corvant") << "Invalid XML namespace!";
    QTest::newRow("2026 root, 2022 URI in a comment")
        << edited("getslots-2026.xml", "<Pkcs11Operation>", comment22 + "<Pkcs11Operation>")
        << "Unsuccessful XML validation!";
    QTest::newRow("2022 root, 2026 URI in a comment")
        << edited("getslots-2022.xml", "<Pkcs11Operation>", comment26 + "<Pkcs11Operation>") << "";
}

void TestRequests::choosesSchemaByRawTextOlderVersionFirst()
{
    QFETCH(QString, xml);
    QFETCH(QString, refusal);
    QVERIFY(!xml.isNull());
    WarningLog log;
    QCOMPARE(parseRefusal(QStringLiteral("GetSlots"), xml), refusal);
}

void TestRequests::readsLibraryAndNonce_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("flag");
    QTest::addColumn<QString>("vendorExtensions");
    QTest::newRow("2022") << "getslots-2022.xml" << "true" << "";
    // The schema lets 1 through for a flag, but only the exact text "true" sets one.
    QTest::newRow("2026, flags written 1") << "getslots-2026.xml" << "1" << "{\"reader\":\"any\"}";
}

void TestRequests::readsLibraryAndNonce()
{
    QFETCH(QString, file);
    QFETCH(QString, flag);
    QFETCH(QString, vendorExtensions);
    const QString xml = edited(file, ">(true|false)</(ShowPinForm|AllowManualSelection)>", ">" + flag + "</\\2>");
    const auto record = read<GetSlotsOperationData>(xml);
    QCOMPARE(record->getNonce(), requestNonce);
    QCOMPARE(record->getXmlNamespace(), namespaceOf(file));
    QVERIFY(record->getOperationData());

    const Pkcs11LibraryData* library = record->getLibraryData();
    QCOMPARE(library->getLocations().size(), 2);
    QCOMPARE(library->getLocations()[0].getPath(), "/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so");
    QCOMPARE(library->getLocations()[0].getArchitecture(), Location::Architecture::x64);
    QCOMPARE(library->getLocations()[1].getPath(), "opensc-pkcs11.so");
    QCOMPARE(library->getLocations()[1].getArchitecture(), Location::Architecture::both);
    QCOMPARE(library->getPin1Name(), "User PIN");
    QCOMPARE(library->getPin2Name(), "Signature PIN");
    QCOMPARE(library->getShowPinForm(), flag == "true");
    QCOMPARE(library->getAllowManualSelection(), flag == "true");
    QCOMPARE(library->getVendorExtensions(), vendorExtensions);
}

void TestRequests::readsCreateObjectTemplateInOrder()
{
    for (const char* file : {"createobject-2022.xml", "createobject-2026.xml"}) {
        const auto record = read<CreateObjectOperationData>(readData(file));
        const QList<CK_ATTRIBUTE>& attributes = record->getOperationData()->getAttributes();
        QCOMPARE(attributes.size(), 5);
        const QList<CK_ATTRIBUTE_TYPE> types{0, 1, 3, 258, 272};
        const QList<QByteArray> values{ulongBytes(1), QByteArray(1, '\1'), QStringLiteral("Certifikát podpisu").toUtf8(),
                                       QByteArray("\x0A\x0B"), QByteArray("20240229")};
        for (int i = 0; i < attributes.size(); ++i) {
            QCOMPARE(attributes[i].type, types[i]);
            QCOMPARE(valueOf(attributes[i]), values[i]);
        }
    }
}

void TestRequests::readsOnlyWhatWasValidated_data()
{
    QTest::addColumn<QString>("operation");
    QTest::addColumn<QString>("xml");
    QTest::addColumn<QString>("refusal");
    const QString invalid = QStringLiteral("Unsuccessful XML validation!");
    const auto beforeRoot = [](const char* file, const QString& text) {
        return edited(file, "<ScrivaOperation ", text + "<ScrivaOperation ");
    };
    const auto inGetSlots = [](const QString& text) { return edited("getslots-2022.xml", "<GetSlots/>", text); };
    const auto attributes = [](int count) {
        QString text;
        for (int i = 0; i < count; ++i)
            text += QStringLiteral(" a%1=\"\"").arg(i);
        return text;
    };

    QTest::newRow("DOCTYPE with internal subset, after a comment")
        << "GetSlots" << beforeRoot("getslots-2022.xml", "<!-- c --><!DOCTYPE ScrivaOperation [<!ENTITY e \"x\">]>")
        << invalid;
    QTest::newRow("DOCTYPE with external subset")
        << "GetSlots" << beforeRoot("getslots-2026.xml", "<!DOCTYPE ScrivaOperation SYSTEM \"file:///dev/null\">")
        << invalid;
    // The reader gives up on an entity of more than 4096 characters that libxml2 accepts in a
    // namespace declaration: the template would be cut short after its first two attributes.
    QTest::newRow("DOCTYPE whose entity stops the reader")
        << "CreateObject"
        << edited("createobject-2022.xml", "<ScrivaOperation (.*)<StringAttribute>",
                  "<!DOCTYPE ScrivaOperation [<!ENTITY big \"" + QString(5000, 'x')
                      + "\">]><ScrivaOperation \\1<StringAttribute xmlns:p=\"&big;\">")
        << invalid;
    QTest::newRow("DOCTYPE written in another encoding")
        << "GetSlots"
        << edited("getslots-2022.xml", "<\\?xml[^>]*>\\s*<ScrivaOperation ",
                  "<?xml version=\"1.0\" encoding=\"UTF-7\"?>+ADw-!DOCTYPE ScrivaOperation+AD4-<ScrivaOperation ")
        << invalid;
    QTest::newRow("XML 1.1 declaration the reader does not know")
        << "GetSlots" << edited("getslots-2026.xml", "version=\"1.0\"", "version=\"1.1\"") << invalid;
    QTest::newRow("undeclared prefix inside GetSlots") << "GetSlots" << inGetSlots("<GetSlots><p:a/></GetSlots>") << invalid;
    // Eight characters for the reader, sixteen for a validator that believed the declaration.
    QTest::newRow("encoding declaration other than the text's")
        << "GetSlots"
        << edited("getslots-2022.xml", "encoding=\"UTF-8\"(.*)" + requestNonce,
                  "encoding=\"ISO-8859-1\"\\1" + QString(8, QChar(0x17D)))
        << invalid;
    QTest::newRow("50,000 attributes on GetSlots") << "GetSlots" << inGetSlots("<GetSlots" + attributes(50000) + "/>") << invalid;
    QTest::newRow("attributes behind a quoted >")
        << "GetSlots" << inGetSlots("<GetSlots a=\">\"" + attributes(100) + "/>") << invalid;
    QTest::newRow("lookalikes in comment, CDATA, PI and quotes")
        << "GetSlots"
        << inGetSlots("<GetSlots a=\"x>y='1'\" b='\"'><!-- <c d=\"1\" e=\"2\"> --><![CDATA[<f g=\"1\">]]><?pi h=\"1\"?></GetSlots>")
        << "";
    QTest::newRow("50,000 references in an attribute")
        << "GetSlots" << inGetSlots("<GetSlots a=\"" + QStringLiteral("&amp;&#65;").repeated(25000) + "\"/>") << "";
    QTest::newRow("50,000 references in text")
        << "GetSlots" << edited("getslots-2022.xml", "User PIN", QStringLiteral("&lt;&#x263A;").repeated(25000)) << "";
}

// The reader must see exactly the document libxml2 validated, in time linear in its size; a
// request is read whole or refused.
void TestRequests::readsOnlyWhatWasValidated()
{
    QFETCH(QString, operation);
    QFETCH(QString, xml);
    QFETCH(QString, refusal);
    QVERIFY2(!xml.isNull(), "test edit did not apply");
    WarningLog log;
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(parseRefusal(operation, xml), refusal);
    // Only a guard against a hang; the benchmark keeps the real figures.
    QVERIFY2(timer.elapsed() < 5000, qPrintable(QString::number(timer.elapsed()) + " ms"));
}

void TestRequests::refusesWhatTheSchemaLetsThrough_data()
{
    QTest::addColumn<QString>("operation");
    QTest::addColumn<QString>("xml");
    QTest::addColumn<QString>("refusal");
    QTest::addColumn<QStringList>("warnings");
    const QString operationData = QStringLiteral("Unable to parse operation specific data!");
    const QString noSerial = QStringLiteral("Token serial number is null or empty!");

    QTest::newRow("GetSlots request holding GetCertificates")
        << "GetSlots" << readData("getcertificates-2022.xml") << "Unexpected element!" << QStringList();
    QTest::newRow("GenerateCsr request holding CreateObject")
        << "GenerateCsr" << readData("createobject-2026.xml") << "Unexpected element!" << QStringList();
    for (const char* operation : {"GetCertificates", "CreateObject", "GenerateCsr"}) {
        const QString file = QString::fromLatin1(operation).toLower() + "-2026.xml";
        QTest::addRow("%s token by label only", operation)
            << operation << edited(file, ">0123456789ABCDEF<", "><") << operationData << QStringList{noSerial};
    }
    QTest::newRow("attribute bool 1")
        << "CreateObject" << edited("createobject-2022.xml", "<Value>true</Value>", "<Value>1</Value>") << operationData
        << QStringList{"Attribute value is invalid", "Unable to create CK_ATTRIBUTE from BoolAttribute",
                       "Unable to parse a CK_ATTRIBUTE!"};
    QTest::newRow("key attribute bool 0")
        << "GenerateCsr" << edited("generatecsr-2026.xml", "<Value>false</Value>", "<Value>0</Value>") << operationData
        << QStringList{"Attribute value is invalid"};
    QTest::newRow("empty string value")
        << "CreateObject" << edited("createobject-2026.xml", "Certifikát podpisu", "") << operationData
        << QStringList{"AttributeValue is null or empty!"};
    QTest::newRow("no CsrAttributes")
        << "GenerateCsr" << edited("generatecsr-2022.xml", "<CsrAttributes>.*</CsrAttributes>", "") << operationData
        << QStringList{"EnrollmentCspProvider is null or empty!"};
    QTest::newRow("answer document as a request")
        << "GetSlots" << readData("getslots-response-2026.xml") << operationData << QStringList{"Unexpected element!"};
    QTest::newRow("answer of another operation")
        << "GetCertificates" << readData("getslots-response-2022.xml") << "Unexpected element!" << QStringList();
}

void TestRequests::refusesWhatTheSchemaLetsThrough()
{
    QFETCH(QString, operation);
    QFETCH(QString, xml);
    QFETCH(QString, refusal);
    QFETCH(QStringList, warnings);
    QVERIFY(!xml.isNull());
    WarningLog log;
    QCOMPARE(parseRefusal(operation, xml), refusal);
    QVERIFY2(!log.contains("Input XML is not valid!"), "the schema should have let this through");
    for (const QString& warning : warnings)
        QVERIFY2(log.contains(warning), qPrintable(warning + " missing from:\n" + log.warnings().join('\n')));
}

void TestRequests::readingRoutinesRefuse_data()
{
    QTest::addColumn<QString>("fragment");
    QTest::addColumn<QString>("warning");
    const QString library = QStringLiteral(
        "<Pkcs11Library><Locations><Location><Path>a.so</Path><Architecture>x64</Architecture></Location></Locations>"
        "<Pin1Name>P1</Pin1Name><Pin2Name>P2</Pin2Name><ShowPinForm>true</ShowPinForm>"
        "<AllowManualSelection>true</AllowManualSelection></Pkcs11Library>");
    QTest::newRow("architecture outside the three") << "<Location><Path>a</Path><Architecture>X64</Architecture></Location>"
                                                    << "Library Architecture was not parsed!";
    QTest::newRow("location without path") << "<Location><Architecture>x86</Architecture></Location>"
                                           << "Location path is null or empty!";
    QTest::newRow("library without first PIN") << QString(library).replace(">P1<", "><") << "Pin1Name is null or empty!";
    QTest::newRow("library without location") << QString(library).remove(QRegularExpression("<Location>.*</Location>"))
                                              << "No library location parsed!";
    QTest::newRow("library without manual selection")
        << QString(library).remove("<AllowManualSelection>true</AllowManualSelection>") << "AllowManualSelection was not parsed!";
    QTest::newRow("attribute before any template")
        << QString(generateCsrFragment()).replace("<GenerateKeyPairMechanism>",
                                                  "<StringAttribute><Attribute>3</Attribute><Value>x</Value></StringAttribute>"
                                                  "<GenerateKeyPairMechanism>")
        << "Key type was not specified for this CK_ATTRIBUTE!";
    QTest::newRow("empty public template") << QString(generateCsrFragment()).remove(QRegularExpression(
                                                  "<PublicKeyAttributes>.*</PublicKeyAttributes>"))
                                           << "No private key attribute was parsed!";
    QTest::newRow("no subject") << generateCsrFragment("CsrSubject") << "CsrSubject is null or empty!";
    QTest::newRow("no signing mechanism") << generateCsrFragment("CsrSigningMechanism") << "CsrSigningMechanism was not parsed!";
    QTest::newRow("unknown attribute kind") << "<FloatAttribute><Attribute>1</Attribute><Value>1.5</Value></FloatAttribute>"
                                            << "Parent element name has an invalid value. Unable to determine the CK_ATTRIBUTE type!";
    QTest::newRow("unsigned long overflow")
        << "<UnsignedLongAttribute><Attribute>1</Attribute><Value>18446744073709551616</Value></UnsignedLongAttribute>"
        << "Unable to create CK_ATTRIBUTE from UnsignedLongAttribute";
    QTest::newRow("date that is none") << "<DateTimeAttribute><Attribute>1</Attribute><Value>yesterday</Value></DateTimeAttribute>"
                                       << "Unable to create CK_ATTRIBUTE from DateTimeAttribute";
}

// Each fragment goes straight to the reading routine of its root element, as if validation had
// been bypassed.
void TestRequests::readingRoutinesRefuse()
{
    QFETCH(QString, fragment);
    QFETCH(QString, warning);
    QXmlStreamReader reader(fragment);
    QVERIFY(reader.readNextStartElement());
    const QString root = reader.name().toString();
    Pkcs11OperationDataParser parser;
    WarningLog log;
    bool result = true;
    if (root == "Location") {
        Location location;
        result = parser.parseLocation(&reader, &location);
    } else if (root == "Pkcs11Library") {
        Pkcs11LibraryData* library = nullptr;
        result = parser.parseLibraryData(&reader, &library);
        QCOMPARE(library, nullptr);
    } else if (root == "GenerateCsr") {
        GenerateCsrOperationData* data = nullptr;
        result = parser.parseOperationData(&reader, &data);
        QCOMPARE(data, nullptr);
    } else {
        CK_ATTRIBUTE attribute{};
        result = parser.parseAttribute(&reader, &attribute, root);
        QCOMPARE(attribute.pValue, nullptr);
    }
    QVERIFY(!result);
    QVERIFY2(log.contains(warning), qPrintable(log.warnings().join('\n')));
}

void TestRequests::readingRoutinesStopAtTheirEndTag()
{
    QXmlStreamReader reader(QStringLiteral(
        "<Root><Location><Path>a.so</Path><Architecture>both</Architecture></Location>"
        "<StringAttribute><Attribute>3</Attribute><Value>x</Value></StringAttribute><Next/></Root>"));
    Pkcs11OperationDataParser parser;
    QVERIFY(reader.readNextStartElement() && reader.readNextStartElement());
    Location location;
    QVERIFY(parser.parseLocation(&reader, &location));
    QCOMPARE(location.getPath(), "a.so");
    QVERIFY(reader.isEndElement() && reader.name() == QLatin1String("Location"));
    QVERIFY(reader.readNextStartElement());
    CK_ATTRIBUTE attribute{};
    QVERIFY(parser.parseAttribute(&reader, &attribute, QStringLiteral("StringAttribute")));
    std::free(attribute.pValue);
    QVERIFY(reader.readNextStartElement());
    QCOMPARE(reader.name(), QLatin1String("Next"));
}

void TestRequests::externalEntitiesAreNeverLoaded()
{
    QTemporaryFile secret;
    QVERIFY(secret.open());
    secret.write("SECRET-CONTENT-0123456789");
    secret.close();
    QString xml = readData("getslots-2022.xml");
    xml.replace("<ScrivaOperation ", "<!DOCTYPE ScrivaOperation [<!ENTITY x SYSTEM \"file://" + secret.fileName()
                                         + "\">]><ScrivaOperation ");
    xml.replace(requestNonce, "&x;" + requestNonce);
    WarningLog log;
    std::unique_ptr<ScrivaPkcs11OperationData<GetSlotsOperationData>> record;
    refusal([&] { record = read<GetSlotsOperationData>(xml); });
    QVERIFY(!record);
    QVERIFY(!log.warnings().join('\n').contains("SECRET"));
}

void TestRequests::encodesAttributeValues_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("bool TRUE") << "bool" << "TRUE" << QByteArray(1, '\1');
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

void TestRequests::recordsRefuseWithTheirOwnTexts()
{
    const QList<Location> locations{Location("a.so", Location::Architecture::x64)};
    const auto library = [&](const QList<Location>& l, const QString& pin1, const QString& pin2) {
        return [=] { Pkcs11LibraryData(l, pin1, pin2, true, true, {}); };
    };
    QCOMPARE(refusal(library({}, "1", "2")), "No PKCS#11 library location provided!");
    QCOMPARE(refusal(library(locations, "", "2")), "Pin2Name is null or empty!");
    QCOMPARE(refusal(library(locations, "1", "")), "Pin2Name is null or empty!");

    QCOMPARE(refusal([] { GetCertificatesOperationData("", "label"); }), "Token serial number is null or empty!");

    // A refused record still frees the buffers it was handed (the sanitizer build checks).
    QCOMPARE(refusal([] { CreateObjectOperationData("01", "", {}); }), "No CK_ATTRIBUTE provided!");
    QCOMPARE(refusal([] { CreateObjectOperationData("", "", someAttributes()); }), "TokenSerialNumber is null or empty!");

    const auto csr = [](bool pub, bool priv, const QString& serial, const QString& subject, const QString& provider) {
        return [=] {
            GenerateCsrOperationData(serial, "", 0, 1, 592, CsrType::PKCS10, subject, provider,
                                     pub ? someAttributes() : CkAttributeList(), priv ? someAttributes() : CkAttributeList(),
                                     false);
        };
    };
    for (const auto& action : {csr(false, true, "01", "30", "p"), csr(true, false, "01", "30", "p"),
                               csr(true, true, "", "30", "p"), csr(true, true, "01", "", "p"),
                               csr(true, true, "01", "30", "")})
        QCOMPARE(refusal(action), "No CK_ATTRIBUTE provided!");
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

void TestRequests::parseOpensOnlyAnEnvelopeFromATrustedSigner()
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
    QVERIFY(!parseRefusal("GetSlots", readData("getslots-2026.xml"), true).isEmpty());
    // An untrusted signer is refused before the document is even validated.
    WarningLog log;
    const QString untrusted = DevPki::signedArgument(readData("getslots-2022.xml").toUtf8(), "signer-unknown-root");
    QCOMPARE(parseRefusal("GetSlots", untrusted, true), "CommunicationMismatchUnstrustedServer");
    QVERIFY(!log.contains("Validation of input XML started"));
}

QTEST_GUILESS_MAIN(TestRequests)
#include "tst_requests.moc"
