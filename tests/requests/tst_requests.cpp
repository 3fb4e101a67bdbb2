#include "requesttesthelpers.h"

#include "devpki.h"
#include "pkcs11/XmlParser/ckattributelist.h"
#include "pkcs11/XmlParser/ckattributeparser.h"
#include "pkcs11/XmlParser/pkcs11operationdataparser.h"
#include "pkcs11/XmlParser/scrivanamespaces.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/createobjectoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/generatecsroperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getslotsoperationdata.h"
#include "x509certificate2ultra.h"

#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QXmlStreamReader>
#include <QtTest>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

namespace {

const QString invalid = QStringLiteral("Unsuccessful XML validation!");
const QString operationRefused = QStringLiteral("Unable to parse operation specific data!");

QString attributes(const QList<CK_ATTRIBUTE>& list)
{
    QStringList items;
    for (const CK_ATTRIBUTE& attribute : list)
        items << QString::number(attribute.type) + QLatin1Char('=') + QString::fromLatin1(valueOf(attribute).toHex());
    return items.join(QLatin1Char(','));
}

QString describe(const GetCertificatesOperationData& d) { return d.getTokenSerialNumber() + '/' + d.getTokenLabel(); }
QString describe(const CreateObjectOperationData& d)
{
    return d.getTokenSerialNumber() + '/' + d.getTokenLabel() + ' ' + attributes(d.getAttributes());
}
QString describe(const GenerateCsrOperationData& d)
{
    return QStringList{d.getTokenSerialNumber() + '/' + d.getTokenLabel(), QString::number(d.getGenerateKeyPairMechanism()),
                       QString::number(d.getCsrSigningMechanism()), QString::number(d.getCsrDigestMechanism()),
                       d.getCsrSubject().left(8), d.getEnrollmentCspProvider().left(9), QString::number(d.getKovData()),
                       attributes(d.getPublicKeyAttributes()), attributes(d.getPrivateKeyAttributes())}
        .join(QLatin1Char(' '));
}

// What the operation's parser makes of `xml`: the record's description, or the refusal.
template<typename T>
QString outcome(const QString& xml)
{
    try {
        const std::unique_ptr<ScrivaPkcs11OperationData<T>> record(ScrivaPkcs11InputXmlParser<T>::parseXml(xml));
        if constexpr (!std::is_same_v<T, GetSlotsOperationData>) {
            return describe(*record->getOperationData());
        } else { // the library, for the one operation without data of its own
            const Pkcs11LibraryData& library = *record->getLibraryData();
            QStringList text{record->getNonce().left(4), record->getXmlNamespace().right(4)};
            for (const Location& location : library.getLocations())
                text << location.getPath().section('/', -1) + ':' + QString::number(int(location.getArchitecture()));
            return (text << library.getPin1Name() << library.getPin2Name() << QString::number(library.getShowPinForm())
                         << QString::number(library.getAllowManualSelection()) << library.getVendorExtensions())
                .join(' ');
        }
    } catch (const AppException& exception) {
        return exception.getMessage();
    }
}

QString outcome(const QString& operation, const QString& xml)
{
    if (operation == QLatin1String("GetSlots"))
        return outcome<GetSlotsOperationData>(xml);
    if (operation == QLatin1String("GetCertificates"))
        return outcome<GetCertificatesOperationData>(xml);
    if (operation == QLatin1String("CreateObject"))
        return outcome<CreateObjectOperationData>(xml);
    return outcome<GenerateCsrOperationData>(xml);
}

QString attributeList(int count)
{
    QString text;
    for (int i = 0; i < count; ++i)
        text += QStringLiteral(" a%1=\"\"").arg(i);
    return text;
}

// A GenerateCsr group for its reading routine, with one element left out.
QString generateCsrWithout(const QString& element)
{
    const QString xml = edited("generatecsr-2022.xml");
    QString group = xml.mid(xml.indexOf("<GenerateCsr>")).section("</Pkcs11Operation>", 0, 0);
    return group.remove(QRegularExpression(QStringLiteral("<%1>.*</%1>").arg(element),
                                           QRegularExpression::DotMatchesEverythingOption | QRegularExpression::InvertedGreedinessOption));
}

CkAttributeList someAttributes()
{
    CkAttributeList list;
    for (const char* value : {"\1", "label"})
        list.append({3, strdup(value), CK_ULONG(qstrlen(value))});
    return list;
}

} // namespace

// Request documents: what the schemas and the reader accept and make of them, what they refuse
// and why, attribute values, the records' own checks and ownership, and the signed envelope.
class TestRequests : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(scriva);
        QLoggingCategory::setFilterRules(QStringLiteral("*.info=false\n*.debug=false"));
    }

    void readsRequests_data()
    {
        QTest::addColumn<QString>("operation");
        QTest::addColumn<QString>("xml");
        QTest::addColumn<QString>("expected"); // the record's description or the refusal
        QTest::addColumn<QString>("warning");  // a line the log must hold
        // `file` is a test document, read as a request of its own operation unless "Operation:" precedes it.
        const auto row = [](const char* name, const QString& file, const QString& from, const QString& to,
                            const QString& expected, const QString& warning = {}) {
            const QString document = file.section(':', -1), operation = file.section(':', 0, -2);
            const QString own = QStringList{"GetSlots", "GetCertificates", "CreateObject", "GenerateCsr"}.filter(
                QRegularExpression("^" + document.section('-', 0, 0) + "$", QRegularExpression::CaseInsensitiveOption)).value(0);
            QTest::newRow(name) << (operation.isEmpty() ? own : operation) << edited(document + ".xml", from, to) << expected
                                << (warning.isEmpty() && expected == invalid ? QStringLiteral("Input XML is not valid!") : warning);
        };
        const QString serial = QStringLiteral("0123456789ABCDEF"), token = serial + "/Scriva token";
        const QString library22 = "0f8f 2/29 libsofthsm2.so:2 opensc-pkcs11.so:0 User PIN Signature PIN 1 0 ";
        const QString library26 = QString(library22).replace("2/29", "2/04") + "{\"reader\":\"any\"}";
        const QString object = "0=0100000000000000,1=01,3=" + QStringLiteral("Certifikát podpisu").toUtf8().toHex()
                               + ",258=0a0b,272=3230323430323239";
        const QString csr = " 0 1 592 301E311C Microsoft 1 1=01,289=0008000000000000,290=010001 2=00,3="
                            + QByteArray("Signing key").toHex();
        row("GetSlots 2022", "getslots-2022", {}, {}, library22);
        row("GetSlots 2026", "getslots-2026", {}, {}, library26);
        // The schema lets 1 through for a flag, but only the exact text "true" sets one.
        row("flag written 1", "getslots-2026", ">true<", ">1<", QString(library26).replace(" 1 0 ", " 0 0 "));
        row("GetCertificates 2022", "getcertificates-2022", {}, {}, serial + '/');
        row("GetCertificates 2026", "getcertificates-2026", {}, {}, token);
        row("CreateObject 2022", "createobject-2022", {}, {}, serial + "/ " + object);
        row("CreateObject 2026", "createobject-2026", {}, {}, token + ' ' + object);
        row("GenerateCsr 2022", "generatecsr-2022", {}, {}, serial + '/' + csr);
        row("GenerateCsr 2026", "generatecsr-2026", {}, {}, token + csr);

        // Where the schemas draw their lines.
        row("nonce of 15", "getslots-2022", requestNonce, "0123456789abcde", invalid);
        row("nonce of 16", "getslots-2022", requestNonce, "0123456789abcdef", QString(library22).replace("0f8f", "0123"));
        row("no location", "getslots-2022", "<Locations>.*</Locations>", "<Locations/>", invalid);
        row("architecture upper case", "getslots-2026", ">x64<", ">X64<", invalid);
        row("library children reordered", "getslots-2022", "(<Pin1Name>.*</Pin1Name>)(\\s*)(<Pin2Name>.*</Pin2Name>)",
            "\\3\\2\\1", invalid);
        row("2022 empty serial", "getcertificates-2022", ">0123456789ABCDEF<", "><", invalid);
        row("2022 serial of 17", "getcertificates-2022", "ABCDEF<", "ABCDEFG<", invalid);
        row("2026 serial of 17", "createobject-2026", "ABCDEF<", "ABCDEFG<", invalid);
        row("2026 label of 32", "getcertificates-2026", "Scriva token", QString(32, 'L'), serial + '/' + QString(32, 'L'));
        row("2026 label of 33", "getcertificates-2026", "Scriva token", QString(33, 'L'), invalid);
        row("2026 serial outside its group", "getcertificates-2026", "<TokenIdentification>.*</TokenIdentification>",
            "<TokenSerialNumber>1</TokenSerialNumber>", invalid);
        row("empty attribute list", "createobject-2022", "<ObjectAttributes>.*</ObjectAttributes>", "<ObjectAttributes/>",
            invalid);
        row("unknown attribute kind", "createobject-2026", "BoolAttribute>", "FloatAttribute>", invalid);
        row("attribute children reordered", "createobject-2022", "(<Attribute>3</Attribute>)(\\s*)(<Value>[^<]*</Value>)",
            "\\3\\2\\1", invalid);
        row("date with fraction", "createobject-2022", "59Z", "59.5Z", invalid);
        row("date with zone offset", "createobject-2022", "59Z", "59+01:00", invalid);
        row("date without Z", "createobject-2026", "59Z", "59", invalid);
        row("largest unsigned long", "createobject-2022", "<Value>1<", "<Value>18446744073709551615<",
            serial + "/ 0=ffffffffffffffff" + object.mid(18));
        row("unsigned long overflow", "createobject-2022", "<Value>1<", "<Value>18446744073709551616<", invalid);
        row("odd hex digits", "createobject-2022", "0A0b", "0A0", invalid);
        row("non-hex digit", "createobject-2026", "0A0b", "0G", invalid);
        row("csr type PKCS7", "generatecsr-2022", ">PKCS10<", ">PKCS7<", invalid);
        row("KovData with content", "generatecsr-2026", "<KovData/>", "<KovData><Any>x</Any></KovData>", token + csr);
        row("no KovData", "generatecsr-2026", "<KovData/>", "", token + QString(csr).replace(" Microsoft 1 ", " Microsoft 0 "));
        row("empty enrollment provider", "generatecsr-2026", ">Microsoft[^<]*<", "><", invalid);
        row("subject not hex", "generatecsr-2022", "<CsrSubject>[^<]*<", "<CsrSubject>CN=x<", invalid);
        row("2026 without VendorExtensions", "getslots-2026", "<VendorExtensions>.*</VendorExtensions>", "", invalid);
        row("2022 with VendorExtensions", "getslots-2022", "</AllowManualSelection>",
            "</AllowManualSelection><VendorExtensions/>", invalid);
        row("element outside the namespace", "getslots-2022", "<GetSlots/>", "<GetSlots xmlns=\"\"/>", invalid);
        row("answer as a request", "getslots-response-2026", {}, {}, operationRefused, "Unexpected element!");
        row("answer of another operation", "GetCertificates:getslots-response-2022", {}, {}, "Unexpected element!");
        row("2022 answer with TokenPlatform", "getslots-response-2022", "<TokenInfo/>", "<TokenInfo/><TokenPlatform/>", invalid);
        row("2026 answer without TokenPlatform", "getslots-response-2026", "<TokenPlatform>[^<]*</TokenPlatform>", "", invalid);
        row("answer with empty library path", "getslots-response-2022", "<Pkcs11LibraryPath>[^<]*<", "<Pkcs11LibraryPath><",
            invalid);
        // libxml2 quotes request text in its messages; a line break in it stays on the log line.
        const QString ns = "{" + ScrivaNamespaces::version20221229() + "}";
        row("libxml2 reason logged", "getslots-2022", "<GetSlots/>", "<Bogus/>", invalid,
            "Element '" + ns + "Bogus': This element is not expected. Expected is one of ( " + ns + "CreateObject, " + ns
                + "GenerateCsr, " + ns + "GetCertificates, " + ns + "GetSlots ).");
        row("request text stays on one line", "getslots-2022", ">x64<", ">x64\nforged<", invalid, "Element '" + ns
            + "Architecture': [facet 'enumeration'] The value 'x64\\nforged' is not an element of the set {'x86', 'x64', 'both'}.");

        // The namespace is chosen from the raw text, the older version first.
        row("root in neither namespace", "getslots-2026", "2026/02/04", "2026/02/05", "Invalid XML namespace!");
        row("namespace in other case", "getslots-2022", "corvant", "Corvant", "Invalid XML namespace!");
        row("2026 root, 2022 URI in a comment", "getslots-2026", "<Nonce>", "<!-- " + ns + " --><Nonce>", invalid);
        row("2022 root, 2026 URI in a comment", "getslots-2022", "<Nonce>",
            "<!-- " + ScrivaNamespaces::version20260204() + " --><Nonce>", library22);

        // Valid for the schema, refused by the reader.
        row("GetSlots request holding GetCertificates", "GetSlots:getcertificates-2022", {}, {}, "Unexpected element!");
        row("GenerateCsr request holding CreateObject", "GenerateCsr:createobject-2026", {}, {}, "Unexpected element!");
        for (const char* file : {"getcertificates-2026", "createobject-2026", "generatecsr-2026"})
            row(file, file, ">0123456789ABCDEF<", "><", operationRefused, "Token serial number is null or empty!");
        row("attribute bool 1", "createobject-2022", "<Value>true<", "<Value>1<", operationRefused,
            "Unable to create CK_ATTRIBUTE from BoolAttribute");
        row("key attribute bool 0", "generatecsr-2026", "<Value>false<", "<Value>0<", operationRefused,
            "Unable to parse a CK_ATTRIBUTE!");
        row("empty string value", "createobject-2026", "Certifikát podpisu", "", operationRefused,
            "AttributeValue is null or empty!");
        row("no CsrAttributes", "generatecsr-2022", "<CsrAttributes>.*</CsrAttributes>", "", operationRefused,
            "EnrollmentCspProvider is null or empty!");

        // The reader must see exactly the document libxml2 validated, in time linear in its size.
        const QString doctype = QStringLiteral("A document type declaration is not accepted in a request!");
        const QString tooMany = QStringLiteral("Request carries more than 64 XML attributes!");
        row("DOCTYPE after a comment", "getslots-2022", "<ScrivaOperation ", "<!-- c --><!DOCTYPE x><ScrivaOperation ",
            invalid, doctype);
        row("DOCTYPE with an external entity", "getslots-2026", "<ScrivaOperation ",
            "<!DOCTYPE x [<!ENTITY e SYSTEM \"file:///etc/hostname\">]><ScrivaOperation ", invalid, doctype);
        row("DOCTYPE in another encoding", "getslots-2022", "<\\?xml[^>]*>",
            "<?xml version=\"1.0\" encoding=\"UTF-7\"?>+ADw-!DOCTYPE ScrivaOperation+AD4-", invalid, "Unable to load XML.");
        row("XML 1.1 the reader does not know", "getslots-2026", "\"1.0\"", "\"1.1\"", invalid,
            "XML reader stopped: Unsupported XML version.");
        row("undeclared prefix", "getslots-2022", "<GetSlots/>", "<GetSlots><p:a/></GetSlots>", invalid,
            "XML reader stopped: Namespace prefix 'p' not declared");
        // Eight characters for the reader, sixteen for a validator that believed the declaration.
        row("encoding other than the text's", "getslots-2022", "UTF-8(.*)" + requestNonce,
            "ISO-8859-1\\1" + QString(8, QChar(0x17D)), invalid);
        row("64 attributes in all", "getslots-2022", "<GetSlots", "<GetSlots" + attributeList(63), library22);
        row("65 attributes in all", "getslots-2022", "<GetSlots", "<GetSlots" + attributeList(64), invalid, tooMany);
        row("50,000 attributes", "getslots-2022", "<GetSlots", "<GetSlots" + attributeList(50000), invalid, tooMany);
        row("attributes behind a quoted >", "getslots-2022", "<GetSlots", "<GetSlots a=\">\"" + attributeList(64), invalid,
            tooMany);
        row("lookalikes in comment, CDATA, PI and quotes", "getslots-2022", "<GetSlots/>",
            "<GetSlots a=\"x>y='1'\" b='\"'><!-- <c d=\"1\"> --><![CDATA[<f g=\"1\">]]><?pi h=\"1\"?></GetSlots>", library22);
        row("50,000 references in an attribute", "getslots-2022", "<GetSlots",
            "<GetSlots a=\"" + QStringLiteral("&amp;&#65;").repeated(25000) + "\"", library22);
        row("50,000 references in text", "getslots-2022", "User PIN", QStringLiteral("&lt;&#x263A;").repeated(25000),
            QString(library22).replace("User PIN", QStringLiteral("<☺").repeated(25000)));
    }

    void readsRequests()
    {
        QFETCH(QString, operation);
        QFETCH(QString, xml);
        QFETCH(QString, expected);
        QFETCH(QString, warning);
        QVERIFY2(!xml.isNull(), "test edit did not apply");
        WarningLog log;
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(outcome(operation, xml), expected);
        // Only a guard against a hang; the benchmark keeps the real figures.
        QVERIFY2(timer.elapsed() < 5000, qPrintable(QString::number(timer.elapsed()) + " ms"));
        QVERIFY2(warning.isEmpty() || log.contains(warning), qPrintable(log.text()));
    }

    void readingRoutinesRefuse_data()
    {
        QTest::addColumn<QString>("fragment");
        QTest::addColumn<QString>("warning");
        const QString library = QStringLiteral(
            "<Pkcs11Library><Locations><Location><Path>a.so</Path><Architecture>x86</Architecture></Location></Locations>"
            "<Pin1Name>P1</Pin1Name><Pin2Name>P2</Pin2Name><ShowPinForm>true</ShowPinForm>"
            "<AllowManualSelection>true</AllowManualSelection></Pkcs11Library>");
        const QList<QPair<QString, QString>> libraryRows{
            {"Pin1Name", "Pin1Name is null or empty!"}, {"Pin2Name", "Pin2Name is null or empty!"},
            {"Location", "No library location parsed!"}, {"AllowManualSelection", "AllowManualSelection was not parsed!"},
            {"ShowPinForm", "ShowPinFormParsed was not parsed!"}};
        for (const auto& [element, warning] : libraryRows)
            QTest::addRow("library without %s", qPrintable(element))
                << QString(library).remove(QRegularExpression(QStringLiteral("<%1>.*</%1>").arg(element))) << warning;
        QTest::newRow("library with unknown child") << QString(library).replace("<Locations>", "<Extra/><Locations>")
                                                    << "Unexpected element!";
        QTest::newRow("library with bad location") << QString(library).replace(">x86<", ">X86<")
                                                   << "Unable to parse library Location!";
        QTest::newRow("architecture outside the three") << "<Location><Path>a</Path><Architecture>X64</Architecture></Location>"
                                                        << "Library Architecture was not parsed!";
        QTest::newRow("location without path") << "<Location><Architecture>x64</Architecture></Location>"
                                               << "Location path is null or empty!";
        QTest::newRow("location with unknown child") << "<Location><Port/></Location>" << "Unexpected element!";

        const QList<QPair<QString, QString>> csrRows{
            {"PublicKeyAttributes", "No private key attribute was parsed!"},
            {"PrivateKeyAttributes", "No private key attribute was parsed!"},
            {"TokenSerialNumber", "Token serial number is null or empty!"}, {"CsrSubject", "CsrSubject is null or empty!"},
            {"CsrAttributes", "EnrollmentCspProvider is null or empty!"}, {"CsrType", "CsrType was not parsed!"},
            {"GenerateKeyPairMechanism", "GenerateKeyPairMechanism was not parsed!"},
            {"CsrDigestMechanism", "CsrDigestMechanism was not parsed!"},
            {"CsrSigningMechanism", "CsrSigningMechanism was not parsed!"}};
        for (const auto& [element, warning] : csrRows)
            QTest::addRow("csr without %s", qPrintable(element)) << generateCsrWithout(element) << warning;
        QTest::newRow("attribute before any template")
            << generateCsrWithout("x").replace("<TokenSerialNumber>", "<BoolAttribute><Attribute>3</Attribute><Value>true</Value>"
                                                                      "</BoolAttribute><TokenSerialNumber>")
            << "Key type was not specified for this CK_ATTRIBUTE!";
        QTest::newRow("csr with unknown child") << generateCsrWithout("x").replace("<CsrType>", "<Extra/><CsrType>")
                                                << "Unexpected element!";
        QTest::newRow("GetSlots with content") << "<GetSlots><Any/></GetSlots>" << "Unexpected element!";
        QTest::newRow("serial outside its group") << "<GetCertificates><SerialNumber>1</SerialNumber></GetCertificates>"
                                                  << "Unexpected element!";
        QTest::newRow("label after its group")
            << "<GetCertificates><TokenIdentification><SerialNumber>1</SerialNumber></TokenIdentification><Label>x</Label>"
               "</GetCertificates>"
            << "Unexpected element!";
        QTest::newRow("object without attributes") << "<CreateObject><TokenSerialNumber>1</TokenSerialNumber></CreateObject>"
                                                   << "No object attribute was parsed!";
        QTest::newRow("object without serial")
            << "<CreateObject><ObjectAttributes><StringAttribute><Attribute>3</Attribute><Value>x</Value></StringAttribute>"
               "</ObjectAttributes></CreateObject>"
            << "Token serial number is null or empty!";
        QTest::newRow("object with unknown child") << "<CreateObject><Extra/></CreateObject>" << "Unexpected element!";
        QTest::newRow("unknown attribute kind") << "<FloatAttribute><Attribute>1</Attribute><Value>1.5</Value></FloatAttribute>"
                                                << "Parent element name has an invalid value. Unable to determine the CK_ATTRIBUTE type!";
        QTest::newRow("attribute without type") << "<StringAttribute><Value>x</Value></StringAttribute>"
                                                << "Attribute type was not parsed!";
        QTest::newRow("attribute with unknown child") << "<StringAttribute><Name/></StringAttribute>" << "Unexpected element!";
        for (const char* kind : {"UnsignedLongAttribute", "DateTimeAttribute", "BoolAttribute"})
            QTest::addRow("%s not convertible", kind) << QStringLiteral("<%1><Attribute>1</Attribute><Value>x</Value></%1>").arg(kind)
                                                      << QStringLiteral("Unable to create CK_ATTRIBUTE from ") + kind;
    }

    // Each fragment goes straight to the reading routine of its root element, as if validation had
    // been bypassed; a refusing routine leaves its output empty.
    void readingRoutinesRefuse()
    {
        QFETCH(QString, fragment);
        QFETCH(QString, warning);
        QXmlStreamReader reader(fragment);
        QVERIFY(reader.readNextStartElement());
        const QString root = reader.name().toString();
        const Pkcs11OperationDataParser parser;
        WarningLog log;
        const auto read = [&](auto* none) { return parser.parseOperationData(&reader, &none) || none; };
        Location location;
        CK_ATTRIBUTE attribute{};
        Pkcs11LibraryData* library = nullptr;
        const bool accepted = root == "Location"          ? parser.parseLocation(&reader, &location)
                              : root == "Pkcs11Library"   ? parser.parseLibraryData(&reader, &library) || library
                              : root == "GenerateCsr"     ? read(static_cast<GenerateCsrOperationData*>(nullptr))
                              : root == "CreateObject"    ? read(static_cast<CreateObjectOperationData*>(nullptr))
                              : root == "GetCertificates" ? read(static_cast<GetCertificatesOperationData*>(nullptr))
                              : root == "GetSlots"        ? read(static_cast<GetSlotsOperationData*>(nullptr))
                                                          : parser.parseAttribute(&reader, &attribute, root) || attribute.pValue;
        QVERIFY(!accepted);
        QVERIFY2(log.contains(warning), qPrintable(log.text()));
    }

    // A routine reads only into an empty output of its own, and only from a reader.
    void readingRoutinesRefuseUnusableOutputs()
    {
        const Pkcs11OperationDataParser parser;
        QXmlStreamReader reader(QStringLiteral("<GetSlots/>"));
        const auto refuses = [&](auto* kind) {
            using T = std::remove_pointer_t<decltype(kind)>;
            const auto read = [&](QXmlStreamReader* from, T** output) {
                if constexpr (std::is_same_v<T, Pkcs11LibraryData>)
                    return parser.parseLibraryData(from, output);
                else
                    return parser.parseOperationData(from, output);
            };
            T* none = nullptr;
            T* taken = reinterpret_cast<T*>(&reader); // only found set, never used
            return !read(nullptr, &none) && !read(&reader, nullptr) && !read(&reader, &taken) && !none;
        };
        WarningLog log;
        QVERIFY(refuses(static_cast<Pkcs11LibraryData*>(nullptr)) && refuses(static_cast<GetSlotsOperationData*>(nullptr))
                && refuses(static_cast<GetCertificatesOperationData*>(nullptr))
                && refuses(static_cast<CreateObjectOperationData*>(nullptr))
                && refuses(static_cast<GenerateCsrOperationData*>(nullptr)));
        Location location;
        CK_ATTRIBUTE attribute{};
        QVERIFY(!parser.parseLocation(nullptr, &location) && !parser.parseLocation(&reader, nullptr));
        QVERIFY(!parser.parseAttribute(nullptr, &attribute, "BoolAttribute") && !parser.parseAttribute(&reader, nullptr, "BoolAttribute"));
        QVERIFY(!parser.parseAttribute(&reader, &attribute, {}) && !attribute.pValue);
        QVERIFY(log.contains("Dereferenced output pointer to pointer is not NULL!") && log.contains("Location output parameter is NULL!"));
    }

    void validationChecksItsArguments()
    {
        const Pkcs11OperationDataParser parser;
        WarningLog log;
        QVERIFY(!parser.validate({}, ScrivaNamespaces::version20221229()) && log.contains("XML is null or empty!"));
        QVERIFY(!parser.validate("<a/>", {}) && log.contains("XML namespace is null or empty!"));
        QVERIFY(!parser.validate("<a/>", "urn:x") && log.contains("Unable to find XSD schema for provided XML namespace!"));
        QVERIFY(!parser.validate("<a>", ScrivaNamespaces::version20221229()) && log.contains("Unable to load XML."));
    }

    void encodesAttributeValues_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QByteArray>("bytes"); // null when refused
        QTest::addColumn<QString>("warning");
        const QByteArray refused;
        QTest::newRow("bool TRUE") << "bool" << "TRUE" << QByteArray(1, '\1') << "";
        QTest::newRow("bool False") << "bool" << "False" << QByteArray(1, '\0') << "";
        QTest::newRow("bool 1") << "bool" << "1" << refused << "Attribute value is invalid";
        QTest::newRow("string in UTF-8") << "string" << "Žluť" << QStringLiteral("Žluť").toUtf8() << "";
        QTest::newRow("empty string") << "string" << "" << QByteArray("") << "";
        QTest::newRow("hex either case, strays skipped") << "hex" << "0A zz 0b" << QByteArray("\x0A\x0B") << "";
        QTest::newRow("unsigned long 1") << "ulong" << "1" << QByteArray("\1\0\0\0\0\0\0\0", 8) << "";
        QTest::newRow("largest unsigned long") << "ulong" << "18446744073709551615" << QByteArray(8, '\xFF') << "";
        for (const char* text : {"18446744073709551616", "-1", "0x10"})
            QTest::addRow("unsigned long %s", text) << "ulong" << text << refused << "Unable to convert parsed value to ULong!";
        QTest::newRow("leap day in UTC") << "date" << "2024-02-29T23:59:59Z" << QByteArray("20240229") << "";
        QTest::newRow("date in its stated zone") << "date" << "2024-03-01T00:30:00+01:00" << QByteArray("20240301") << "";
        QTest::newRow("no such day") << "date" << "2023-02-29T00:00:00Z" << refused << "Unable to parse the dateTime!";
    }

    void encodesAttributeValues()
    {
        QFETCH(QString, kind);
        QFETCH(QString, text);
        QFETCH(QByteArray, bytes);
        QFETCH(QString, warning);
        const CkAttributeParser parser;
        const CK_ATTRIBUTE_TYPE type = 0x80000007;
        CK_ATTRIBUTE attribute{42, nullptr, 0};
        WarningLog log;
        const bool accepted = kind == "bool"     ? parser.getAttributeBoolean(type, text, &attribute)
                              : kind == "string" ? parser.getAttributeString(type, text, &attribute)
                              : kind == "hex"    ? parser.getAttributeHexByteArray(type, text, &attribute)
                              : kind == "ulong"  ? parser.getAttributeUnsignedLong(type, text, &attribute)
                                                 : parser.getAttributeDate(type, text, &attribute);
        const QByteArray value = attribute.pValue ? valueOf(attribute) : QByteArray();
        std::free(attribute.pValue);
        QCOMPARE(accepted, !bytes.isNull());
        QCOMPARE(log.text(), warning);
        QCOMPARE(attribute.type, bytes.isNull() ? CK_ATTRIBUTE_TYPE(42) : type);
        QCOMPARE(value, bytes);
        QCOMPARE(attribute.ulValueLen, CK_ULONG(bytes.size()));
        QVERIFY(bytes.isNull() == !attribute.pValue);
        // Every kind refuses a missing output.
        QVERIFY(!parser.getAttributeString(type, text, nullptr) && !parser.getAttributeBoolean(type, text, nullptr)
                && !parser.getAttributeUnsignedLong(type, text, nullptr) && !parser.getAttributeDate(type, text, nullptr));
    }

    void recordsRefuseAndCopiesOwnTheirBuffers()
    {
        const QList<Location> locations{Location("a.so", Location::Architecture::x64)};
        QCOMPARE(refusal([] { Pkcs11LibraryData({}, "1", "2", true, true, {}); }), "No PKCS#11 library location provided!");
        QCOMPARE(refusal([&] { Pkcs11LibraryData(locations, "", "2", true, true, {}); }), "Pin2Name is null or empty!");
        QCOMPARE(refusal([&] { Pkcs11LibraryData(locations, "1", "", true, true, {}); }), "Pin2Name is null or empty!");
        QCOMPARE(refusal([] { GetCertificatesOperationData("", "label"); }), "Token serial number is null or empty!");
        // A refused record still frees the buffers it was handed (the sanitizer build checks).
        QCOMPARE(refusal([] { CreateObjectOperationData("01", "", {}); }), "No CK_ATTRIBUTE provided!");
        QCOMPARE(refusal([] { CreateObjectOperationData("", "", someAttributes()); }), "TokenSerialNumber is null or empty!");
        const auto csr = [](bool pub, bool priv, const QString& serial, const QString& subject, const QString& provider) {
            return [=] {
                GenerateCsrOperationData(serial, "", 0, 1, 592, CsrType::PKCS10, subject, provider,
                                         pub ? someAttributes() : CkAttributeList(), priv ? someAttributes() : CkAttributeList(), false);
            };
        };
        for (const auto& action : {csr(false, true, "01", "30", "p"), csr(true, false, "01", "30", "p"),
                                   csr(true, true, "", "30", "p"), csr(true, true, "01", "", "p"), csr(true, true, "01", "30", "")})
            QCOMPARE(refusal(action), "No CK_ATTRIBUTE provided!");
        QCOMPARE(refusal([] { ScrivaPkcs11OperationData<GetSlotsOperationData>(nullptr, nullptr, "ns", "n"); }),
                 "Operation specific data is NULL");

        auto original = std::make_unique<ScrivaPkcs11OperationData<GenerateCsrOperationData>>(
            new Pkcs11LibraryData(locations, "1", "2", true, false, "ext"),
            new GenerateCsrOperationData("01", "label", 3, 1, 592, CsrType::PKCS10, "30", "p", someAttributes(),
                                         someAttributes(), true),
            ScrivaNamespaces::version20221229(), requestNonce);
        ScrivaPkcs11OperationData<GenerateCsrOperationData> copy(original.get());
        QVERIFY(copy.getOperationData()->getPrivateKeyAttributes()[1].pValue
                != original->getOperationData()->getPrivateKeyAttributes()[1].pValue);
        original.reset(); // the copy must not depend on anything the original freed
        const GenerateCsrOperationData& data = *copy.getOperationData();
        QCOMPARE(describe(data), "01/label 3 1 592 30 p 1 3=01,3=6c6162656c 3=01,3=6c6162656c");
        QCOMPARE(copy.getLibraryData()->getVendorExtensions() + copy.getNonce(), "ext" + requestNonce);
        auto createObject = std::make_unique<CreateObjectOperationData>("01", "", someAttributes());
        const CreateObjectOperationData objectCopy(createObject.get());
        createObject.reset();
        QCOMPARE(describe(objectCopy), "01/ 3=01,3=6c6162656c");
    }

    void parseOpensOnlyAnEnvelopeFromATrustedSigner()
    {
        if (!DevPki::isAvailable())
            QSKIP("this build trusts real anchors");
        const QString argument = DevPki::signedArgument(edited("getcertificates-2026.xml").toUtf8());
        X509Certificate2Ultra signer;
        const std::unique_ptr<ScrivaPkcs11OperationData<GetCertificatesOperationData>> record(
            ScrivaPkcs11InputXmlParser<GetCertificatesOperationData>::parse(argument, &signer));
        QCOMPARE(record->getOperationData()->getTokenLabel(), "Scriva token");
        QVERIFY(!signer.isNull());

        const auto parse = [](const QString& text) {
            return refusal([&] { delete ScrivaPkcs11InputXmlParser<GetSlotsOperationData>::parse(text); });
        };
        // The plain XML is no argument: it must come inside a signed envelope.
        QVERIFY(!parse(edited("getslots-2026.xml")).isEmpty());
        // An untrusted signer is refused before the document is even validated.
        WarningLog log;
        QCOMPARE(parse(DevPki::signedArgument(edited("getslots-2022.xml").toUtf8(), "signer-unknown-root")),
                 "CommunicationMismatchUnstrustedServer");
        QVERIFY(!log.contains("Validation of input XML started"));
    }
};

QTEST_GUILESS_MAIN(TestRequests)
#include "tst_requests.moc"
