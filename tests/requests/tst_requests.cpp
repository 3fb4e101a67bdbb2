#include "appexception.h"
#include "pkcs11/XmlParser/pkcs11operationdataparser.h"
#include "pkcs11/XmlParser/scrivanamespaces.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/createobjectoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/generatecsroperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getslotsoperationdata.h"
#include "terminatingflag.h"
#include "testrequests.h"
#include "x509certificate2ultra.h"

#include <QtTest>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

namespace {

const QString requestNonce = QStringLiteral("0f8fad5b-d9cb-469f-a165-70867728950e");
const QString invalid = QStringLiteral("Unsuccessful XML validation!");
const QString operationRefused = QStringLiteral("Unable to parse operation specific data!");

QStringList warnings; // logged since the test row began, instead of printed

// "accepted", or the warnings of the refusal; starts a fresh log for the next call.
QString warned(bool accepted)
{
    const QString outcome = accepted ? QStringLiteral("accepted") : warnings.join(QLatin1String(" | "));
    warnings.clear();
    return outcome;
}

// A test document, with one edit when `from` is given; `from` is a pattern that must match, else
// the result is null.
QString edited(const QString& name, const QString& from = {}, const QString& to = {})
{
    QString xml = QString::fromUtf8(TestRequests::xml(name, requestNonce));
    const QRegularExpression pattern(from, QRegularExpression::DotMatchesEverythingOption);
    return from.isEmpty() ? xml : xml.contains(pattern) ? xml.replace(pattern, to) : QString();
}

const auto thrown = TestRequests::refusal;

QString attributes(const QList<CK_ATTRIBUTE>& list)
{
    QStringList items;
    for (const CK_ATTRIBUTE& a : list)
        items << QString::number(a.type) + '=' + QByteArray(static_cast<const char*>(a.pValue), qsizetype(a.ulValueLen)).toHex();
    return items.join(QLatin1Char(','));
}

template<typename T>
QString token(const T& d) { return d.getTokenSerialNumber() + '/' + d.getTokenLabel(); }
QString describe(const GetCertificatesOperationData& d) { return token(d); }
QString describe(const CreateObjectOperationData& d) { return token(d) + ' ' + attributes(d.getAttributes()); }
QString describe(const GenerateCsrOperationData& d)
{
    return QStringList{token(d), QString::number(d.getGenerateKeyPairMechanism()),
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
        if constexpr (!std::is_same_v<T, GetSlotsOperationData>)
            return describe(*record->getOperationData());
        const Pkcs11LibraryData& library = *record->getLibraryData(); // for the operation without data of its own
        QStringList text{record->getNonce().left(4), record->getXmlNamespace().right(4)};
        for (const Location& location : library.getLocations())
            text << location.getPath().section('/', -1) + ':' + QString::number(int(location.getArchitecture()));
        return (text << library.getPin1Name() << library.getPin2Name() << QString::number(library.getShowPinForm())
                     << QString::number(library.getAllowManualSelection()) << library.getVendorExtensions())
            .join(' ');
    } catch (const AppException& exception) {
        return exception.getMessage();
    }
}

QString outcome(const QString& operation, const QString& xml)
{
    return operation == "getslots"          ? outcome<GetSlotsOperationData>(xml)
           : operation == "getcertificates" ? outcome<GetCertificatesOperationData>(xml)
           : operation == "createobject"    ? outcome<CreateObjectOperationData>(xml)
                                            : outcome<GenerateCsrOperationData>(xml);
}

// The reading routine of the element the reader stands on, as if validation had been bypassed:
// "accepted" (with an attribute's value) when it succeeds and leaves the reader on its own end
// tag, else the warnings (and any value a refusal kept). Whatever it made is freed.
QString readElement(QXmlStreamReader* reader)
{
    const Pkcs11OperationDataParser parser;
    const QString root = reader->name().toString();
    const auto read = [&](auto* output) {
        const bool accepted = parser.parseOperationData(reader, &output);
        delete output;
        return accepted;
    };
    Location location;
    CK_ATTRIBUTE attribute{};
    Pkcs11LibraryData* library = nullptr;
    const bool accepted = root == "Location"          ? parser.parseLocation(reader, &location)
                          : root == "Pkcs11Library"   ? parser.parseLibraryData(reader, &library)
                          : root == "GenerateCsr"     ? read(static_cast<GenerateCsrOperationData*>(nullptr))
                          : root == "CreateObject"    ? read(static_cast<CreateObjectOperationData*>(nullptr))
                          : root == "GetCertificates" ? read(static_cast<GetCertificatesOperationData*>(nullptr))
                          : root == "GetSlots"        ? read(static_cast<GetSlotsOperationData*>(nullptr))
                                                      : parser.parseAttribute(reader, &attribute, root);
    delete library;
    const QString value = attribute.pValue ? ' ' + attributes({attribute}) : QString();
    std::free(attribute.pValue);
    const bool atItsEnd = reader->isEndElement() && reader->name() == root;
    return accepted && !atItsEnd ? QStringLiteral("read past its end") : warned(accepted) + value;
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
class tst_Requests : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(scriva);
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& message) {
            if (type == QtWarningMsg) // info and debug lines are dropped with the rest
                warnings << message;
        });
    }

    void init() { warnings.clear(); }

    void readsRequests_data()
    {
        QTest::addColumn<QString>("operation");
        QTest::addColumn<QString>("xml");
        QTest::addColumn<QString>("expected"); // the record's description or the refusal
        QTest::addColumn<QString>("warning");  // a line the log must hold
        // `file` is a test document, read as a request of its own operation unless "operation:" precedes it.
        const auto row = [](const char* name, const QString& file, const QString& from, const QString& to,
                            const QString& expected, const QString& warning = {}) {
            QTest::newRow(name) << file.section('-', 0, 0).section(':', 0, 0) << edited(file.section(':', -1), from, to)
                                << expected << (warning.isEmpty() && expected == invalid ? "Input XML is not valid!" : warning);
        };
        const auto attributeList = [](int count) {
            QString text;
            for (int i = 0; i < count; ++i)
                text += QStringLiteral(" a%1=\"\"").arg(i);
            return text;
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
        row("2026 label of 32", "getcertificates-2026", "Scriva token", QString(32, 'L'), serial + '/' + QString(32, 'L'));
        row("2026 label of 33", "getcertificates-2026", "Scriva token", QString(33, 'L'), invalid);
        row("date with zone offset", "createobject-2022", "59Z", "59+01:00", invalid);
        row("odd hex digits", "createobject-2022", "0A0b", "0A0", invalid);
        row("KovData with content", "generatecsr-2026", "<KovData/>", "<KovData><Any>x</Any></KovData>", token + csr);
        row("no KovData", "generatecsr-2026", "<KovData/>", "", token + QString(csr).replace(" Microsoft 1 ", " Microsoft 0 "));
        row("answer as a request", "getslots-response-2026", {}, {}, operationRefused, "Unexpected element!");
        row("answer of another operation", "getcertificates:getslots-response-2022", {}, {}, "Unexpected element!");
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

        // Valid for the schema, refused by the reader.
        row("GetSlots request holding GetCertificates", "getslots:getcertificates-2022", {}, {}, "Unexpected element!");
        row("GenerateCsr request holding CreateObject", "generatecsr:createobject-2026", {}, {}, "Unexpected element!");
        row("empty PIN name", "getslots-2026", ">User PIN<", "><", "Unable to parse Pkcs11Library data!", "Pin1Name is null or empty!");
        row("empty serial", "getcertificates-2026", ">0123456789ABCDEF<", "><", operationRefused, "Token serial number is null or empty!");
        row("key attribute bool 0", "generatecsr-2026", "<Value>false<", "<Value>0<", operationRefused,
            "Unable to parse a CK_ATTRIBUTE!");

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
        // Eight characters for the reader, sixteen for a validator that believed the declaration.
        row("encoding other than the text's", "getslots-2022", "UTF-8(.*)" + requestNonce,
            "ISO-8859-1\\1" + QString(8, QChar(0x17D)), invalid);
        row("64 attributes in all", "getslots-2022", "<GetSlots", "<GetSlots" + attributeList(63), library22);
        row("65 attributes in all", "getslots-2022", "<GetSlots", "<GetSlots" + attributeList(64), invalid, tooMany);
        row("50,000 attributes", "getslots-2022", "<GetSlots", "<GetSlots" + attributeList(50000), invalid, tooMany);
        row("attributes behind a quoted >", "getslots-2022", "<GetSlots", "<GetSlots a=\">\"" + attributeList(64), invalid, tooMany);
        row("lookalikes in comment, CDATA, PI and quotes", "getslots-2022", "<GetSlots/>",
            "<GetSlots a=\"" + QString(66, '=') + "x>y='1'\" b='\"'><!-- <c d=\"1\"> " + QString(65, '=') + " --><![CDATA[<f g=\"1\">]]><?pi h=\"1\"?></GetSlots>", library22);
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
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(outcome(operation, xml), expected);
        QVERIFY2(timer.elapsed() < 5000, "a hang; the benchmark keeps the real figures");
        QVERIFY2(warning.isEmpty() || warnings.contains(warning), qPrintable(warnings.join('\n')));
    }

    void readingRoutines_data()
    {
        QTest::addColumn<QString>("fragment");
        QTest::addColumn<QString>("expected"); // "accepted" or the warnings
        const QString library = QStringLiteral(
            "<Pkcs11Library><Locations><Location><Path>a.so</Path><Architecture>x86</Architecture></Location></Locations>"
            "<Pin1Name>P1</Pin1Name><Pin2Name>P2</Pin2Name><ShowPinForm>true</ShowPinForm>"
            "<AllowManualSelection>true</AllowManualSelection></Pkcs11Library>");
        const QString csr = edited("generatecsr-2022").section("<GenerateCsr>", 1).section("</Pkcs11Operation>", 0, 0);
        // `element` left out of `xml`.
        const auto without = [](QString xml, const QString& element) {
            return xml.remove(QRegularExpression(QStringLiteral("<%1>.*</%1>").arg(element),
                                                 QRegularExpression::DotMatchesEverythingOption
                                                     | QRegularExpression::InvertedGreedinessOption));
        };
        const QString object = "<CreateObject><TokenSerialNumber>1</TokenSerialNumber><ObjectAttributes>"
                               "<StringAttribute><Attribute>3</Attribute><Value>x</Value></StringAttribute></ObjectAttributes>"
                               "</CreateObject>";
        for (const QString& fragment : {library, "<GenerateCsr>" + csr, object, QStringLiteral("<GetSlots/>"),
                                        QStringLiteral("<GetCertificates><TokenIdentification><SerialNumber>1</SerialNumber>"
                                                       "<Label>x</Label></TokenIdentification></GetCertificates>"),
                                        QStringLiteral("<Location><Path>a</Path><Architecture>both</Architecture></Location>")})
            QTest::addRow("whole %s", qPrintable(fragment.section('>', 0, 0).mid(1))) << fragment << "accepted";

        const QList<QPair<QString, QString>> libraryRows{
            {"Pin1Name", "Pin1Name is null or empty!"}, {"Pin2Name", "Pin2Name is null or empty!"},
            {"Location", "No library location parsed!"}, {"AllowManualSelection", "AllowManualSelection was not parsed!"},
            {"ShowPinForm", "ShowPinFormParsed was not parsed!"}};
        for (const auto& [element, warning] : libraryRows)
            QTest::addRow("library without %s", qPrintable(element)) << without(library, element) << warning;
        const QList<QPair<QString, QString>> csrRows{
            {"PublicKeyAttributes", "No private key attribute was parsed!"},
            {"PrivateKeyAttributes", "No private key attribute was parsed!"},
            {"TokenSerialNumber", "Token serial number is null or empty!"}, {"CsrSubject", "CsrSubject is null or empty!"},
            {"EnrollmentCspProvider", "EnrollmentCspProvider is null or empty!"}, {"CsrType", "CsrType was not parsed!"},
            {"GenerateKeyPairMechanism", "GenerateKeyPairMechanism was not parsed!"},
            {"CsrDigestMechanism", "CsrDigestMechanism was not parsed!"},
            {"CsrSigningMechanism", "CsrSigningMechanism was not parsed!"}};
        for (const auto& [element, warning] : csrRows)
            QTest::addRow("request without %s", qPrintable(element)) << without("<GenerateCsr>" + csr, element) << warning;
        const auto row = [](const char* name, const QString& fragment, const QString& expected) {
            QTest::newRow(name) << fragment << expected;
        };
        row("library with bad location", QString(library).replace(">x86<", ">X86<"),
            "Library Architecture was not parsed! | Unable to parse library Location!");
        row("location without path", "<Location><Architecture>x64</Architecture></Location>", "Location path is null or empty!");
        row("attribute before any template", "<GenerateCsr><BoolAttribute><Attribute>3</Attribute><Value>true</Value></BoolAttribute>" + csr,
            "Key type was not specified for this CK_ATTRIBUTE!");
        row("object without attributes", "<CreateObject><TokenSerialNumber>1</TokenSerialNumber></CreateObject>",
            "No object attribute was parsed!");
        row("object without serial", without(object, "TokenSerialNumber"), "Token serial number is null or empty!");
        row("unknown attribute kind", "<FloatAttribute><Attribute>1</Attribute><Value>1.5</Value></FloatAttribute>",
            "Parent element name has an invalid value. Unable to determine the CK_ATTRIBUTE type!");
        row("attribute without type", "<StringAttribute><Value>x</Value></StringAttribute>", "Attribute type was not parsed!");
        row("attribute without value", "<StringAttribute><Attribute>1</Attribute></StringAttribute>", "AttributeValue is null or empty!");
        // Elements where they have no meaning; SerialNumber and Label mean something only inside their group.
        for (const QString& fragment : {QString(library).replace("<Locations>", "<Extra/><Locations>"),
                                        QStringLiteral("<Location><Port/></Location>"), "<GenerateCsr><Extra/>" + csr,
                                        QStringLiteral("<GetSlots><Any/></GetSlots>"),
                                        QStringLiteral("<GetCertificates><SerialNumber>1</SerialNumber></GetCertificates>"),
                                        QStringLiteral("<GetCertificates><TokenIdentification><SerialNumber>1</SerialNumber>"
                                                       "</TokenIdentification><Label>x</Label></GetCertificates>"),
                                        QStringLiteral("<CreateObject><Extra/></CreateObject>"),
                                        QStringLiteral("<StringAttribute><Name/></StringAttribute>")})
            QTest::addRow("unexpected %s", qPrintable(fragment.left(50))) << fragment << "Unexpected element!";
        // Attribute values: the type and the value's bytes in hex, or the refusal.
        const auto value = [](const char* name, const char* kind, const QString& text, const QString& expected) {
            QTest::newRow(name) << QStringLiteral("<%1Attribute><Attribute>7</Attribute><Value>%2</Value></%1Attribute>").arg(kind, text)
                                << (expected.contains(' ') ? expected + " | Unable to create CK_ATTRIBUTE from " + kind + "Attribute"
                                                           : "accepted 7=" + expected);
        };
        value("bool TRUE", "Bool", "TRUE", "01");
        value("bool False", "Bool", "False", "00");
        value("bool 1", "Bool", "1", "Attribute value is invalid");
        value("string in UTF-8", "String", "Žluť", "c5bd6c75c5a5");
        value("hex either case, strays skipped", "ByteArray", "0A zz 0b", "0a0b");
        value("largest unsigned long", "UnsignedLong", "18446744073709551615", "ffffffffffffffff");
        for (const char* text : {"18446744073709551616", "-1", "0x10", "x"})
            value(text, "UnsignedLong", text, "Unable to convert parsed value to ULong!");
        value("leap day in UTC", "DateTime", "2024-02-29T23:59:59Z", QByteArray("20240229").toHex());
        value("date in its stated zone", "DateTime", "2024-03-01T00:30:00+01:00", QByteArray("20240301").toHex());
        value("no such day", "DateTime", "2023-02-29T00:00:00Z", "Unable to parse the dateTime!");
    }

    // Each fragment goes straight to the reading routine of its root element.
    void readingRoutines()
    {
        QFETCH(QString, fragment);
        QFETCH(QString, expected);
        QXmlStreamReader reader(fragment);
        QVERIFY(reader.readNextStartElement());
        QCOMPARE(readElement(&reader), expected);
    }

    // Validation refuses what it has nothing to check with.
    void validationNeedsADocumentAndAKnownNamespace()
    {
        const Pkcs11OperationDataParser parser;
        QCOMPARE(warned(parser.validate({}, ScrivaNamespaces::version20260204())), "XML is null or empty!");
        QCOMPARE(warned(parser.validate("<GetSlots/>", {})), "XML namespace is null or empty!");
        QCOMPARE(warned(parser.validate("<GetSlots/>", "urn:other")), "Unable to find XSD schema for provided XML namespace!");
    }

    void recordsRefuseAndCopiesOwnTheirBuffers()
    {
        const QList<Location> locations{Location("a.so", Location::Architecture::x64)};
        QCOMPARE(thrown([] { Pkcs11LibraryData({}, "1", "2", true, true, {}); }), "No PKCS#11 library location provided!");
        QCOMPARE(thrown([&] { Pkcs11LibraryData(locations, "", "2", true, true, {}); }), "Pin2Name is null or empty!");
        QCOMPARE(thrown([&] { Pkcs11LibraryData(locations, "1", "", true, true, {}); }), "Pin2Name is null or empty!");
        QCOMPARE(thrown([] { GetCertificatesOperationData("", "label"); }), "Token serial number is null or empty!");
        // A refused record still frees the buffers it was handed (the sanitizer build checks).
        QCOMPARE(thrown([] { CreateObjectOperationData("01", "", {}); }), "No CK_ATTRIBUTE provided!");
        QCOMPARE(thrown([] { CreateObjectOperationData("", "", someAttributes()); }), "TokenSerialNumber is null or empty!");
        for (int fault = 0; fault < 5; ++fault) // each of the five inputs left empty in turn
            QCOMPARE(thrown([=] { GenerateCsrOperationData(fault == 2 ? "" : "01", "", 0, 1, 592, CsrType::PKCS10, fault == 3 ? "" : "30",
                                                           fault == 4 ? "" : "p", fault == 0 ? CkAttributeList() : someAttributes(),
                                                           fault == 1 ? CkAttributeList() : someAttributes(), false); }),
                     "No CK_ATTRIBUTE provided!");

        auto original = std::make_unique<ScrivaPkcs11OperationData<GenerateCsrOperationData>>(
            new Pkcs11LibraryData(locations, "1", "2", true, false, "ext"),
            new GenerateCsrOperationData("01", "label", 3, 1, 592, CsrType::PKCS10, "30", "p", someAttributes(), someAttributes(), true),
            ScrivaNamespaces::version20221229(), requestNonce);
        ScrivaPkcs11OperationData<GenerateCsrOperationData> copy(original.get());
        original.reset(); // the copies must not depend on anything the originals freed
        QCOMPARE(describe(*copy.getOperationData()), "01/label 3 1 592 30 p 1 3=01,3=6c6162656c 3=01,3=6c6162656c");
        QCOMPARE(copy.getLibraryData()->getVendorExtensions() + copy.getNonce(), "ext" + requestNonce);
        auto object = std::make_unique<CreateObjectOperationData>("01", "label", someAttributes());
        const CreateObjectOperationData objectCopy(object.get());
        object.reset();
        QCOMPARE(describe(objectCopy), "01/label 3=01,3=6c6162656c");
        const GetCertificatesOperationData certificates("01", "label");
        QCOMPARE(describe(GetCertificatesOperationData(&certificates)), "01/label");
        const Location location(&locations.first());
        QCOMPARE(location.getPath() + QString::number(int(location.getArchitecture())), "a.so2");
    }

    // A host that is quitting stops checking a request between its stages.
    void quittingHostStopsReading()
    {
        TerminatingFlag::set();
        const QString result = outcome("getslots", edited("getslots-2022"));
        TerminatingFlag::reset();
        QCOMPARE(result, "Scriva is terminating");
    }

    void parseOpensOnlyAnEnvelopeFromATrustedSigner()
    {
        if (!TestRequests::canSign())
            QSKIP("this build trusts real anchors");
        X509Certificate2Ultra signer;
        const std::unique_ptr<ScrivaPkcs11OperationData<GetCertificatesOperationData>> record(
            ScrivaPkcs11InputXmlParser<GetCertificatesOperationData>::parse(TestRequests::signedXml(edited("getcertificates-2026").toUtf8()), &signer));
        QCOMPARE(describe(*record->getOperationData()), "0123456789ABCDEF/Scriva token");
        QVERIFY(!signer.isNull());
        // An untrusted signer is refused before the document is even validated.
        const QString bogus = edited("getslots-2022", "<GetSlots/>", "<Bogus/>");
        QCOMPARE(thrown([&] { delete ScrivaPkcs11InputXmlParser<GetSlotsOperationData>::parse(TestRequests::signedXml(bogus.toUtf8(), "signer-unknown-root")); }),
                 "CommunicationMismatchUnstrustedServer");
    }
};

QTEST_GUILESS_MAIN(tst_Requests)
#include "tst_requests.moc"
