#include "enginetesthelpers.h"

#include "ownedresource.h"
#include "pkcs11/XmlParser/pkcs11operationdataparser.h"
#include "pkcs11/XmlParser/scrivanamespaces.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/pkcs11manager.h"

#include <QProcess>
#include <QRegularExpression>

#include <openssl/pem.h>
#include <openssl/x509.h>

using namespace EngineTest;

namespace {

const QString nonce = QStringLiteral("engine-test-nonce-0001");

// The library part and token identification of a request in one version.
struct RequestFrame
{
    bool version2026 = true;
    QString modulePath;
    bool showPinForm = true;
    QString vendorExtensions;
    QString serialNumber;
    QString label;

    QString xmlNamespace() const
    {
        return version2026 ? ScrivaNamespaces::version20260204() : ScrivaNamespaces::version20221229();
    }

    // The whole request; `body` follows the token identification inside the operation's element.
    template<typename T>
    std::unique_ptr<ScrivaPkcs11OperationData<T>> read(const QString& operation, const QString& body = {}) const
    {
        QString xml = QStringLiteral("<ScrivaOperation xmlns=\"%1\"><Nonce>%2</Nonce><Pkcs11Operation><Pkcs11Library>"
                                     "<Locations><Location><Path>%3</Path><Architecture>x64</Architecture></Location>"
                                     "</Locations><Pin1Name>User PIN</Pin1Name><Pin2Name>Signature PIN</Pin2Name>"
                                     "<ShowPinForm>%4</ShowPinForm><AllowManualSelection>false</AllowManualSelection>")
                          .arg(xmlNamespace(), nonce, modulePath, QLatin1String(showPinForm ? "true" : "false"));
        if (version2026)
            xml += "<VendorExtensions>" + vendorExtensions + "</VendorExtensions>";
        xml += "</Pkcs11Library><" + operation + ">";
        if (operation != QLatin1String("GetSlots"))
            xml += version2026 ? "<TokenIdentification><SerialNumber>" + serialNumber + "</SerialNumber><Label>" + label
                                     + "</Label></TokenIdentification>"
                               : "<TokenSerialNumber>" + serialNumber + "</TokenSerialNumber>";
        xml += body + "</" + operation + "></Pkcs11Operation></ScrivaOperation>";
        return std::unique_ptr<ScrivaPkcs11OperationData<T>>(ScrivaPkcs11InputXmlParser<T>::parseXml(xml));
    }
};

// One element of an attribute list: "Bool", "UnsignedLong", "String" or "ByteArray" (hex value).
QString attribute(const char* kind, CK_ATTRIBUTE_TYPE type, const QString& value)
{
    return QStringLiteral("<%1Attribute><Attribute>%2</Attribute><Value>%3</Value></%1Attribute>")
        .arg(QLatin1String(kind))
        .arg(type)
        .arg(value);
}

// Texts of the answer's elements with this name, in document order; an empty element gives "".
// The writer puts no blanks between elements, so text-only elements are matched directly.
QStringList values(const QString& xml, const QString& name)
{
    QStringList found;
    const QRegularExpression element(QStringLiteral("<%1(?:/>|>([^<]*)</%1>)").arg(name));
    for (auto matches = element.globalMatch(xml); matches.hasNext();)
        found.append(matches.next().captured(1));
    return found;
}

// The part of the answer that each "Slot" element takes.
QStringList slotParts(const QString& xml)
{
    return xml.split(QStringLiteral("<Slot>")).mid(1);
}

bool validAnswer(const QString& xml, const QString& xmlNamespace)
{
    return Pkcs11OperationDataParser().validate(xml, xmlNamespace);
}

const QString subjectHex = QStringLiteral("301E311C301A06035504030C135363726976612054657374205375626A656374");

QString pemBody(QString pem)
{
    return pem.remove(QRegularExpression(QStringLiteral("-----[A-Z ]+-----|\\n")));
}

} // namespace

// The four operations: module choice, token search, login as the request asks, the certificate
// request signed on the token, and answer documents that the schema accepts.
class TestPkcs11Manager : public QObject
{
    Q_OBJECT

    TraceSwitch traceSwitch;
    QTemporaryDir work;
    ScriptedUser user;
    std::unique_ptr<SoftHsmToken> store;
    Pkcs11Manager manager;
    const QString userPin = QStringLiteral("user-pin-7");

    RequestFrame frameFor(const QString& label, bool version2026 = true, const QString& module = {})
    {
        for (const QString& token : {QStringLiteral("Alpha"), QStringLiteral("Beta")})
            if (store->serialNumber(token).isEmpty() && !store->initToken(token, "so-pin-7", userPin))
                qFatal("%s", qPrintable(store->lastError()));
        return {version2026, module.isEmpty() ? SoftHsmToken::testModulePath() : module, true, {},
                store->serialNumber(label), version2026 ? label : QString()};
    }

    // Runs the operation of record type T on a worker with the request's body.
    template<typename T, typename Operation>
    Outcome run(const RequestFrame& frame, Operation operation, const QString& name, const QString& body = {})
    {
        std::shared_ptr<ScrivaPkcs11OperationData<T>> request = frame.read<T>(name, body);
        return runOnWorker(
            [=] { return (manager.*operation)(frame.modulePath, request.get(), frame.xmlNamespace()).second; });
    }

    Outcome getCertificates(const RequestFrame& frame)
    {
        return run<GetCertificatesOperationData>(frame, &Pkcs11Manager::getCertificates, "GetCertificates");
    }

    Outcome createObject(const RequestFrame& frame, const QString& attributes)
    {
        return run<CreateObjectOperationData>(frame, &Pkcs11Manager::createObject, "CreateObject",
                                              "<ObjectAttributes>" + attributes + "</ObjectAttributes>");
    }

    QString openssl(const QStringList& arguments)
    {
        QProcess process;
        process.setWorkingDirectory(work.path());
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start("openssl", arguments);
        const bool ok = process.waitForFinished(60000) && process.exitCode() == 0;
        return ok ? QString::fromLocal8Bit(process.readAll()) : "failed: " + process.readAll();
    }

    QByteArray file(const QString& name, const QByteArray& write = {})
    {
        QFile file(work.filePath(name));
        if (!write.isEmpty())
            return file.open(QIODevice::WriteOnly) && file.write(write) == write.size() ? write : QByteArray();
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private slots:
    void initTestCase()
    {
        manager.setPinPrompt(&user);
        Q_INIT_RESOURCE(scriva);
        QVERIFY(prepareModules(work));
        traceSwitch.install();
    }

    void init()
    {
        TraceSwitch::set(false);
        QVERIFY(configureModule(work, {}));
        store = std::make_unique<SoftHsmToken>();
    }

    void cleanup() { store.reset(); }

    void choosesTheFirstExistingLocationOfThisArchitecture_data()
    {
        QTest::addColumn<QStringList>("locations"); // "file:architecture"; "missing" does not exist
        QTest::addColumn<QString>("chosen");
        QTest::newRow("missing, then x86") << QStringList({"missing:x64", "a.so:x86"}) << "";
        QTest::newRow("missing, then both") << QStringList({"missing:x64", "a.so:both"}) << "a.so";
        QTest::newRow("x86, then x64") << QStringList({"a.so:x86", "b.so:x64"}) << "b.so";
        QTest::newRow("x64 first") << QStringList({"a.so:x64", "b.so:both"}) << "a.so";
    }

    void choosesTheFirstExistingLocationOfThisArchitecture()
    {
        QFETCH(QStringList, locations);
        QFETCH(QString, chosen);
        file("a.so", "a");
        file("b.so", "b");
        QList<Location> list;
        const QStringList architectures({"both", "x86", "x64"});
        for (const QString& location : locations)
            list.append(Location(work.filePath(location.section(':', 0, 0)),
                                 Location::Architecture(architectures.indexOf(location.section(':', 1)))));
        Pkcs11LibraryData data(list, "1", "2", true, false, {});
        QCOMPARE(Pkcs11Manager::findUsablePkcs11Library(data), chosen.isEmpty() ? QString() : work.filePath(chosen));
    }

    void getSlotsAnswersEveryTokenInTheRequestVersion_data()
    {
        QTest::addColumn<bool>("version2026");
        QTest::newRow("2022-12-29") << false;
        QTest::newRow("2026-02-04") << true;
    }

    void getSlotsAnswersEveryTokenInTheRequestVersion()
    {
        QFETCH(bool, version2026);
        RequestFrame frame = frameFor("Alpha", version2026);
        QVERIFY(configureModule(work, {"token_info_fail_label=Beta", "token_info_fail_rv=0x30"}));
        const Outcome outcome = run<GetSlotsOperationData>(frame, &Pkcs11Manager::getSlots, "GetSlots");
        QCOMPARE(outcome.error, QString());
        const QString& answer = outcome.document;
        QVERIFY(validAnswer(answer, frame.xmlNamespace()));
        // The schema holds each version to its own slot shape.
        QString otherShape = answer;
        otherShape.replace(QRegularExpression("<TokenPlatform>[^<]*</TokenPlatform>|(</Slot>)"),
                           version2026 ? "\\1" : "<TokenPlatform/></Slot>");
        QVERIFY(!validAnswer(otherShape, frame.xmlNamespace()));
        QCOMPARE(values(answer, "Nonce"), QStringList(nonce));
        QCOMPARE(values(answer, "Pkcs11LibraryPath"), QStringList(frame.modulePath));

        // Both tokens and SoftHSM's empty token in its free slot; the one that fails is listed too.
        const QStringList parts = slotParts(answer);
        QCOMPARE(parts.size(), 3);
        QCOMPARE(values(answer, "TokenPlatform").size(), version2026 ? 3 : 0);
        QCOMPARE(values(answer, "SlotInfoRv"), QStringList({"0", "0", "0"}));
        const QString alpha = parts.filter("<Label>Alpha</Label>").value(0);
        QCOMPARE(values(alpha, "SlotId"), QStringList(QString::number(store->slotId("Alpha"))));
        QCOMPARE(values(alpha, "SerialNumber"), QStringList(frame.serialNumber));
        QCOMPARE(values(alpha, "Model"), QStringList("SoftHSM v2"));
        QCOMPARE(values(alpha, "Manufacturer"), QStringList({"SoftHSM project", "SoftHSM project"})); // slot, token
        QCOMPARE(values(alpha, "HasProtectedAuthPath"), QStringList("false"));
        QVERIFY(!values(alpha, "Description").value(0).endsWith(' '));
        QCOMPARE(values(alpha, "TokenPlatform"), version2026 ? QStringList("") : QStringList());
        const QString beta = parts.filter("<TokenInfoRv>48</TokenInfoRv>").value(0);
        QCOMPARE(values(beta, "SlotId"), QStringList(QString::number(store->slotId("Beta"))));
        QCOMPARE(values(beta, "TokenInfo"), QStringList(""));

        // Only those two reads may fail: a platform that cannot be read (SoftHSM's empty token
        // cannot be opened) fails the list.
        if (version2026) {
            frame.vendorExtensions = "Monet+ ProID+Q";
            QVERIFY(configureModule(work, {"token_platform=Q3"}));
            QCOMPARE(run<GetSlotsOperationData>(frame, &Pkcs11Manager::getSlots, "GetSlots").error,
                     "PKCS#11 method C_OpenSession returned error CKR_TOKEN_NOT_RECOGNIZED (0x000000e1)");
        }
    }

    // Certificates stored with CreateObject are found again, in both versions.
    void getCertificatesFindsTheTokenBySerialAndLabel()
    {
        QByteArray certificates[2];
        for (int i = 0; i < 2; ++i) {
            QVERIFY(!openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
                              "cert.key", "-subj", "/CN=Certificate " + QString::number(i), "-outform", "DER", "-out",
                              "cert.der"}).startsWith("failed"));
            certificates[i] = file("cert.der");
            user.script({"pin:" + userPin});
            const Outcome stored = createObject(
                frameFor("Alpha"), attribute("UnsignedLong", CKA_CLASS, "1") + attribute("UnsignedLong", CKA_CERTIFICATE_TYPE, "0")
                                       + attribute("Bool", CKA_TOKEN, "true") + attribute("Bool", CKA_PRIVATE, "false")
                                       + attribute("ByteArray", CKA_SUBJECT, subjectHex)
                                       + attribute("ByteArray", CKA_VALUE, certificates[i].toHex()));
            QCOMPARE(stored.error, QString());
            QVERIFY(validAnswer(stored.document, ScrivaNamespaces::version20260204()));
        }
        QVERIFY(configureModule(work, {"token_platform=Q3"}));
        for (const bool version2026 : {false, true}) {
            RequestFrame frame = frameFor("Alpha", version2026);
            frame.vendorExtensions = "Monet+ ProID+Q";
            const Outcome outcome = getCertificates(frame);
            QCOMPARE(outcome.error, QString());
            QVERIFY(validAnswer(outcome.document, frame.xmlNamespace()));
            QStringList found = values(outcome.document, "Certificate");
            QCOMPARE(found.filter("-----BEGIN CERTIFICATE-----\n").size(), 2);
            std::transform(found.begin(), found.end(), found.begin(), pemBody);
            QCOMPARE(QSet<QString>(found.begin(), found.end()),
                     QSet<QString>({certificates[0].toBase64(), certificates[1].toBase64()}));
            QCOMPARE(values(outcome.document, "Label"), QStringList("Alpha"));
            QCOMPARE(values(outcome.document, "TokenPlatform"), version2026 ? QStringList("Q3") : QStringList());
        }

        // In the 2026-02-04 version the label must match as well; the module is finalised all the same.
        TraceSwitch::set(true);
        RequestFrame mismatch = frameFor("Alpha");
        mismatch.label = "Beta";
        QCOMPARE(getCertificates(mismatch).error, "SpecifiedTokenNotFound");
        QCOMPARE(TraceSwitch::trace().count("Going to call C_Finalize"), 1);
    }

    void generatedCsrIsSignedByTheNewTokenKey_data()
    {
        QTest::addColumn<bool>("version2026");
        QTest::addColumn<bool>("testModule");
        QTest::addColumn<CK_MECHANISM_TYPE>("digest");
        QTest::addColumn<QString>("algorithm");
        QTest::newRow("2022-12-29 on SoftHSM, SHA-1") << false << false << CKM_SHA_1 << "sha1WithRSAEncryption";
        QTest::newRow("2022-12-29 on SoftHSM, SHA-384") << false << false << CKM_SHA384 << "sha384WithRSAEncryption";
        QTest::newRow("2026-02-04, KovData and a signature PIN, SHA-256")
            << true << true << CKM_SHA256 << "sha256WithRSAEncryption";
        QTest::newRow("2026-02-04, KovData and a signature PIN, SHA-512")
            << true << true << CKM_SHA512 << "sha512WithRSAEncryption";
    }

    void generatedCsrIsSignedByTheNewTokenKey()
    {
        QFETCH(bool, version2026);
        QFETCH(bool, testModule);
        QFETCH(CK_MECHANISM_TYPE, digest);
        QFETCH(QString, algorithm);
        QVERIFY(configureModule(work, {"kov_data_hex=3003020101", "always_authenticate=1", "context_pin=sig-pin"}));
        const RequestFrame frame =
            frameFor("Alpha", version2026, testModule ? QString() : SoftHsmToken::softHsmModulePath());
        const QString label = attribute("String", CKA_LABEL, "CSR key");
        const QString body = "<GenerateKeyPairMechanism>0</GenerateKeyPairMechanism><PublicKeyAttributes>"
                             + attribute("Bool", CKA_TOKEN, "true") + attribute("Bool", CKA_PRIVATE, "false")
                             + attribute("UnsignedLong", CKA_MODULUS_BITS, "2048")
                             + attribute("ByteArray", CKA_PUBLIC_EXPONENT, "010001") + label
                             + "</PublicKeyAttributes><PrivateKeyAttributes>" + attribute("Bool", CKA_TOKEN, "true")
                             + attribute("Bool", CKA_SIGN, "true") + label
                             + "</PrivateKeyAttributes><CsrType>PKCS10</CsrType><CsrSubject>" + subjectHex
                             + "</CsrSubject><CsrAttributes>" + (testModule ? "<KovData/>" : "")
                             + "<EnrollmentCspProvider>Test CSP</EnrollmentCspProvider></CsrAttributes>"
                             + "<CsrDigestMechanism>" + QString::number(digest) + "</CsrDigestMechanism>"
                             + "<CsrSigningMechanism>1</CsrSigningMechanism>";
        QSignalSpy pinRequests(&manager, &Pkcs11Manager::pinRequestedSignal);
        TraceSwitch::set(true);
        user.script(QStringList({"pin:" + userPin, "pin:sig-pin"}).mid(0, testModule ? 2 : 1));
        const Outcome outcome = run<GenerateCsrOperationData>(frame, &Pkcs11Manager::generateCsr, "GenerateCsr", body);
        QCOMPARE(outcome.error, QString());
        QCOMPARE(user.seen(), testModule ? QStringList({"form", "form"}) : QStringList("form"));
        QCOMPARE(pinRequests.count(), user.seen().size());
        // The new key's modulus is read before its exponent.
        const QStringList trace = TraceSwitch::trace();
        QStringList keyReads = trace.mid(trace.indexOf(QRegularExpression("C_GenerateKeyPair returned .*")))
                                   .filter(QRegularExpression("^   Attribute: \\d+ \\(CKA_(MODULUS|PUBLIC_EXPONENT)\\)$"));
        keyReads.removeDuplicates();
        QCOMPARE(keyReads, QStringList({"   Attribute: 288 (CKA_MODULUS)", "   Attribute: 290 (CKA_PUBLIC_EXPONENT)"}));
        QVERIFY(validAnswer(outcome.document, frame.xmlNamespace()));

        // Signed on the token by the key it carries (so the key is the token's new one), with the
        // requested digest and subject.
        const QByteArray csrPem = file("request.pem", values(outcome.document, "CSR").value(0).toLatin1());
        const QString text = openssl({"req", "-in", "request.pem", "-verify", "-noout", "-text", "-nameopt", "RFC2253"});
        QVERIFY2(text.contains("verify OK") && text.contains("Signature Algorithm: " + algorithm)
                     && text.contains("Subject: CN=Scriva Test Subject"),
                 qPrintable(text));
        // The KovData the token holds for the new key.
        Owned<BIO, BIO_free> bio(BIO_new_mem_buf(csrPem.constData(), int(csrPem.size())));
        Owned<X509_REQ, X509_REQ_free> csr(PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr));
        QVERIFY(csr);
        const int kovData = X509_REQ_get_attr_by_OBJ(
            csr.get(), Owned<ASN1_OBJECT, ASN1_OBJECT_free>(OBJ_txt2obj("1.2.203.7064.1.1.12.20180406", 1)).get(), -1);
        QCOMPARE(kovData >= 0, testModule);
        if (testModule) {
            ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(X509_REQ_get_attr(csr.get(), kovData), 0);
            QByteArray der(i2d_ASN1_TYPE(value, nullptr), '\0');
            auto* end = reinterpret_cast<unsigned char*>(der.data());
            i2d_ASN1_TYPE(value, &end);
            QCOMPARE(der.toHex(), "3003020101");
        }
    }

    // Cancelling the form is the wrapper's concern; here only who asks for the PIN.
    void showPinFormDecidesWhoAsksForThePin_data()
    {
        QTest::addColumn<bool>("showPinForm");
        QTest::addColumn<QStringList>("config");
        QTest::addColumn<QString>("answer");
        QTest::addColumn<QString>("error");
        QTest::newRow("no form, no PIN pad: no login")
            << false << QStringList() << ""
            << "PKCS#11 method C_CreateObject returned error CKR_USER_NOT_LOGGED_IN (0x00000101)";
        QTest::newRow("no form, PIN pad") << false << QStringList("pin_pad_pin=" + userPin) << "" << "";
        QTest::newRow("form, but the PIN pad asks") << true << QStringList("pin_pad_pin=" + userPin) << "" << "";
        QTest::newRow("form") << true << QStringList() << "pin:" + userPin << "";
    }

    void showPinFormDecidesWhoAsksForThePin()
    {
        QFETCH(bool, showPinForm);
        QFETCH(QStringList, config);
        QFETCH(QString, answer);
        QFETCH(QString, error);
        QVERIFY(configureModule(work, config));
        RequestFrame frame = frameFor("Alpha");
        frame.showPinForm = showPinForm;
        TraceSwitch::set(true);
        user.script(answer.isEmpty() ? QStringList() : QStringList(answer));
        const Outcome outcome = createObject(frame, attribute("UnsignedLong", CKA_CLASS, "0")
                                                        + attribute("Bool", CKA_TOKEN, "true")
                                                        + attribute("Bool", CKA_PRIVATE, "true"));
        QCOMPARE(outcome.error, error);
        QCOMPARE(user.seen(), answer.isEmpty() ? QStringList() : QStringList("form"));

        // Sessions closed and the module finalised whichever way it ended; the PIN never logged.
        const QStringList trace = TraceSwitch::trace();
        QCOMPARE(trace.count("Going to call C_OpenSession"), trace.count("Going to call C_CloseSession"));
        QCOMPARE(trace.count("C_Finalize returned 0 (CKR_OK)"), 1);
        QVERIFY(!TraceSwitch::text().contains(userPin));
    }
};

QTEST_MAIN(TestPkcs11Manager)
#include "tst_pkcs11manager.moc"
