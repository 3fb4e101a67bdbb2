#include "tst_requests.h"

#include "requesttesthelpers.h"
#include "warninglog.h"

#include "pkcs11/XmlParser/pkcs11operationdataparser.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/createobjectoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/generatecsroperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getslotsoperationdata.h"

#include <QTemporaryFile>
#include <QXmlStreamReader>
#include <QtTest>

#include <cstdlib>
#include <memory>

// Request documents: which the schemas accept, how the namespace is chosen, and what the reader
// makes of them or refuses.

namespace {

// Reads `xml` as a request of the named operation; the refusal's message, or empty.
QString parseRefusal(const QString& operation, const QString& xml)
{
    return refusal([&] {
        if (operation == QLatin1String("GetSlots"))
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
    QTest::newRow("nonce of 15, 2026") << "getslots-2026.xml" << requestNonce << "0123456789abcde" << false;
    QTest::newRow("no location") << "getslots-2022.xml" << "<Locations>.*</Locations>" << "<Locations/>" << false;
    QTest::newRow("architecture upper case") << "getslots-2026.xml" << ">x64<" << ">X64<" << false;
    QTest::newRow("library children reordered")
        << "getslots-2022.xml" << "(<Pin1Name>.*</Pin1Name>)(\\s*)(<Pin2Name>.*</Pin2Name>)" << "\\3\\2\\1" << false;
    QTest::newRow("unknown library child")
        << "getslots-2022.xml" << "</AllowManualSelection>" << "</AllowManualSelection><Extra/>" << false;
    QTest::newRow("GetSlots with any content") << "getslots-2022.xml" << "<GetSlots/>"
                                               << "<GetSlots><Anything>x</Anything></GetSlots>" << true;

    QTest::newRow("2022 empty serial") << "getcertificates-2022.xml" << ">0123456789ABCDEF<" << "><" << false;
    QTest::newRow("2022 serial of 17") << "getcertificates-2022.xml" << "ABCDEF<" << "ABCDEFG<" << false;
    QTest::newRow("2022 csr serial of 17") << "generatecsr-2022.xml" << "ABCDEF<" << "ABCDEFG<" << false;
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
    QTest::newRow("empty key template, 2026") << "generatecsr-2026.xml" << "<PrivateKeyAttributes>.*</PrivateKeyAttributes>"
                                              << "<PrivateKeyAttributes/>" << false;
    QTest::newRow("unknown attribute kind") << "createobject-2026.xml" << "BoolAttribute>" << "FloatAttribute>" << false;
    QTest::newRow("attribute children reordered") << "createobject-2022.xml" << "(<Attribute>3</Attribute>)(\\s*)(<Value>[^<]*</Value>)"
                                                  << "\\3\\2\\1" << false;
    QTest::newRow("date with fraction") << "createobject-2022.xml" << "2024-02-29T23:59:59Z" << "2024-01-01T00:00:00.5Z" << false;
    QTest::newRow("date with offset") << "createobject-2022.xml" << "2024-02-29T23:59:59Z" << "2024-01-01T00:00:00+01:00" << false;
    QTest::newRow("date without Z") << "createobject-2026.xml" << "2024-02-29T23:59:59Z" << "2024-01-01T00:00:00" << false;
    QTest::newRow("date in UTC") << "createobject-2026.xml" << "2024-02-29T23:59:59Z" << "2024-01-01T00:00:00Z" << true;
    QTest::newRow("largest unsigned long") << "createobject-2022.xml" << "<Value>1</Value>" << "<Value>18446744073709551615</Value>" << true;
    QTest::newRow("unsigned long overflow") << "createobject-2022.xml" << "<Value>1</Value>" << "<Value>18446744073709551616</Value>" << false;
    QTest::newRow("odd hex digits") << "createobject-2022.xml" << "0A0b" << "0A0" << false;
    QTest::newRow("non-hex digit") << "createobject-2026.xml" << "0A0b" << "0G" << false;
    QTest::newRow("bool 1 for an attribute") << "createobject-2022.xml" << "<Value>true</Value>" << "<Value>1</Value>" << true;
    QTest::newRow("empty string value") << "createobject-2022.xml" << "Certifikát podpisu" << "" << true;

    QTest::newRow("csr type PKCS7") << "generatecsr-2022.xml" << ">PKCS10<" << ">PKCS7<" << false;
    QTest::newRow("csr type lower case") << "generatecsr-2026.xml" << ">PKCS10<" << ">pkcs10<" << false;
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
    QTest::newRow("no text") << QString() << ns << "XML is null or empty!";
    QTest::newRow("no namespace") << request << QString() << "XML namespace is null or empty!";
    QTest::newRow("unknown namespace") << request << QString(ns).replace("2022/12/29", "2023/01/01")
                                       << "Unable to find XSD schema for provided XML namespace!";
    QTest::newRow("not well-formed") << QString(request).remove("</ScrivaOperation>") << ns << "Unable to load XML.";
    QTest::newRow("libxml2 message logged") << QString(request).replace("<GetSlots/>", "<Bogus/>") << ns
                                            << "Element '{" + ns + "}Bogus': This element is not expected. Expected is one "
                                               "of ( {" + ns + "}CreateObject, {" + ns + "}GenerateCsr, {" + ns
                                                   + "}GetCertificates, {" + ns + "}GetSlots ).";
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
    QTest::addColumn<QString>("vendorExtensions");
    QTest::newRow("2022") << "getslots-2022.xml" << "";
    QTest::newRow("2026") << "getslots-2026.xml" << "{\"reader\":\"any\"}";
}

void TestRequests::readsLibraryAndNonce()
{
    QFETCH(QString, file);
    QFETCH(QString, vendorExtensions);
    const auto record = read<GetSlotsOperationData>(readData(file));
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
    QCOMPARE(library->getShowPinForm(), true);
    QCOMPARE(library->getAllowManualSelection(), false);
    QCOMPARE(library->getVendorExtensions(), vendorExtensions);
}

void TestRequests::readsPinFormFlagsOnlyFromExactTrue_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("expected");
    QTest::newRow("true") << "true" << true;
    QTest::newRow("1") << "1" << false;
    QTest::newRow("false") << "false" << false;
    QTest::newRow("0") << "0" << false;
}

void TestRequests::readsPinFormFlagsOnlyFromExactTrue()
{
    QFETCH(QString, text);
    QFETCH(bool, expected);
    QString xml = readData("getslots-2026.xml");
    xml.replace("<ShowPinForm>true<", "<ShowPinForm>" + text + "<")
        .replace("<AllowManualSelection>false<", "<AllowManualSelection>" + text + "<");
    const auto record = read<GetSlotsOperationData>(xml);
    QCOMPARE(record->getLibraryData()->getShowPinForm(), expected);
    QCOMPARE(record->getLibraryData()->getAllowManualSelection(), expected);
}

void TestRequests::readsTokenIdentification_data()
{
    QTest::addColumn<QString>("xml");
    QTest::addColumn<QString>("label");
    QTest::newRow("2022 serial") << readData("getcertificates-2022.xml") << "";
    QTest::newRow("2026 serial and label") << readData("getcertificates-2026.xml") << "Scriva token";
    QTest::newRow("2026 serial only") << edited("getcertificates-2026.xml", ">Scriva token<", "><") << "";
}

void TestRequests::readsTokenIdentification()
{
    QFETCH(QString, xml);
    QFETCH(QString, label);
    const auto record = read<GetCertificatesOperationData>(xml);
    QCOMPARE(record->getOperationData()->getTokenSerialNumber(), "0123456789ABCDEF");
    QCOMPARE(record->getOperationData()->getTokenLabel(), label);
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

void TestRequests::readsGenerateCsrRequest_data()
{
    QTest::addColumn<QString>("xml");
    QTest::addColumn<bool>("kovData");
    QTest::newRow("2022") << readData("generatecsr-2022.xml") << true;
    QTest::newRow("2026") << readData("generatecsr-2026.xml") << true;
    QTest::newRow("2026 without KovData") << edited("generatecsr-2026.xml", "<KovData/>", "") << false;
}

void TestRequests::readsGenerateCsrRequest()
{
    QFETCH(QString, xml);
    QFETCH(bool, kovData);
    const auto record = read<GenerateCsrOperationData>(xml);
    const GenerateCsrOperationData* csr = record->getOperationData();
    QCOMPARE(csr->getTokenSerialNumber(), "0123456789ABCDEF");
    QCOMPARE(csr->getGenerateKeyPairMechanism(), CKM_RSA_PKCS_KEY_PAIR_GEN);
    QCOMPARE(csr->getCsrDigestMechanism(), CKM_SHA256);
    QCOMPARE(csr->getCsrSigningMechanism(), CKM_RSA_PKCS);
    QCOMPARE(csr->getCsrType(), CsrType::PKCS10);
    QCOMPARE(csr->getCsrSubject(), "301E311C301A06035504030C135363726976612054657374205375626A656374");
    QCOMPARE(csr->getEnrollmentCspProvider(), "Microsoft Enhanced RSA and AES Cryptographic Provider");
    QCOMPARE(csr->getKovData(), kovData);
    QCOMPARE(csr->getPublicKeyAttributes().size(), 3);
    QCOMPARE(csr->getPrivateKeyAttributes().size(), 2);
    QCOMPARE(valueOf(csr->getPublicKeyAttributes()[2]), QByteArray("\x01\x00\x01", 3));
    QCOMPARE(valueOf(csr->getPrivateKeyAttributes()[1]), "Signing key");
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
    QTest::newRow("unknown location child") << "<Location><Path>a</Path><Bits>64</Bits></Location>" << "Unexpected element!";
    QTest::newRow("library with bad location") << QString(library).replace(">x64<", ">arm<") << "Unable to parse library Location!";
    QTest::newRow("library without first PIN") << QString(library).replace(">P1<", "><") << "Pin1Name is null or empty!";
    QTest::newRow("library without second PIN") << QString(library).replace(">P2<", "><") << "Pin2Name is null or empty!";
    QTest::newRow("library without location") << QString(library).remove(QRegularExpression("<Location>.*</Location>"))
                                              << "No library location parsed!";
    QTest::newRow("library without manual selection")
        << QString(library).remove("<AllowManualSelection>true</AllowManualSelection>") << "AllowManualSelection was not parsed!";
    QTest::newRow("library without pin form") << QString(library).remove("<ShowPinForm>true</ShowPinForm>")
                                              << "ShowPinFormParsed was not parsed!";
    QTest::newRow("GetSlots with a child") << "<GetSlots><Slot/></GetSlots>" << "Unexpected element!";
    QTest::newRow("attribute before any template")
        << QString(generateCsrFragment()).replace("<GenerateKeyPairMechanism>",
                                                  "<StringAttribute><Attribute>3</Attribute><Value>x</Value></StringAttribute>"
                                                  "<GenerateKeyPairMechanism>")
        << "Key type was not specified for this CK_ATTRIBUTE!";
    QTest::newRow("empty public template") << QString(generateCsrFragment()).remove(QRegularExpression(
                                                  "<PublicKeyAttributes>.*</PublicKeyAttributes>"))
                                           << "No private key attribute was parsed!";
    QTest::newRow("no subject") << generateCsrFragment("CsrSubject") << "CsrSubject is null or empty!";
    QTest::newRow("no csr type") << generateCsrFragment("CsrType") << "CsrType was not parsed!";
    QTest::newRow("no key pair mechanism") << generateCsrFragment("GenerateKeyPairMechanism")
                                           << "GenerateKeyPairMechanism was not parsed!";
    QTest::newRow("no digest mechanism") << generateCsrFragment("CsrDigestMechanism") << "CsrDigestMechanism was not parsed!";
    QTest::newRow("no signing mechanism") << generateCsrFragment("CsrSigningMechanism") << "CsrSigningMechanism was not parsed!";
    QTest::newRow("unknown attribute kind") << "<FloatAttribute><Attribute>1</Attribute><Value>1.5</Value></FloatAttribute>"
                                            << "Parent element name has an invalid value. Unable to determine the CK_ATTRIBUTE type!";
    QTest::newRow("attribute without type") << "<StringAttribute><Value>x</Value></StringAttribute>"
                                            << "Attribute type was not parsed!";
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
    } else if (root == "GetSlots") {
        GetSlotsOperationData* data = nullptr;
        result = parser.parseOperationData(&reader, &data);
        QCOMPARE(data, nullptr);
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

QTEST_GUILESS_MAIN(TestRequests)
