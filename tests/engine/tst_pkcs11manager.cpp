#include "enginedocuments.h"
#include "enginetesthelpers.h"

#include "ownedresource.h"
#include "pkcs11/pkcs11manager.h"
#include "pkcs11library.h"
#include "pkcs11sessionguard.h"

#include <QFile>
#include <QProcess>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

using namespace EngineTest;
using User = ScriptedUser;

namespace {

const QString subjectHex = QStringLiteral("301E311C301A06035504030C135363726976612054657374205375626A656374");
constexpr CK_ATTRIBUTE_TYPE kovDataOidAttribute = 0x80000007UL;

QByteArray bignum(const BIGNUM* number)
{
    QByteArray bytes(BN_num_bytes(number), '\0');
    BN_bn2bin(number, reinterpret_cast<unsigned char*>(bytes.data()));
    return bytes;
}

} // namespace

// The four operations end to end: module choice, token search, login as the request asks, the
// certificate request signed on the token, the answer documents and their schema.
class TestPkcs11Manager : public QObject
{
    Q_OBJECT

    TraceSwitch traceSwitch;
    QTemporaryDir work;
    std::unique_ptr<SoftHsmToken> store;
    Pkcs11Manager manager;
    const QString userPin = QStringLiteral("user-pin-7");

    void configure(const QStringList& config)
    {
        QVERIFY(Pkcs11TestHelpers::writeModuleConfig(work.filePath(QStringLiteral("module.conf")), config));
    }

    void addToken(const QString& label)
    {
        QVERIFY2(store->initToken(label, QStringLiteral("so-pin-7"), userPin), qPrintable(store->lastError()));
    }

    RequestFrame frameFor(const QString& label, bool version2026 = true, const QString& module = {})
    {
        RequestFrame frame;
        frame.version2026 = version2026;
        frame.modulePath = module.isEmpty() ? SoftHsmToken::testModulePath() : module;
        frame.serialNumber = store->serialNumber(label);
        frame.label = version2026 ? label : QString();
        return frame;
    }

    Outcome getSlots(const RequestFrame& frame)
    {
        auto request = frame.read<GetSlotsOperationData>(QStringLiteral("GetSlots"));
        return runOnWorker([&] { return manager.getSlots(frame.modulePath, request.get(), frame.xmlNamespace()).second; });
    }

    Outcome getCertificates(const RequestFrame& frame)
    {
        auto request = frame.read<GetCertificatesOperationData>(QStringLiteral("GetCertificates"));
        return runOnWorker(
            [&] { return manager.getCertificates(frame.modulePath, request.get(), frame.xmlNamespace()).second; });
    }

    Outcome createObject(const RequestFrame& frame, const QString& attributes)
    {
        auto request = frame.read<CreateObjectOperationData>(
            QStringLiteral("CreateObject"), QStringLiteral("<ObjectAttributes>%1</ObjectAttributes>").arg(attributes));
        return runOnWorker(
            [&] { return manager.createObject(frame.modulePath, request.get(), frame.xmlNamespace()).second; });
    }

    Outcome generateCsr(const RequestFrame& frame, bool kovData)
    {
        const QString body =
            QStringLiteral("<GenerateKeyPairMechanism>0</GenerateKeyPairMechanism><PublicKeyAttributes>")
            + boolAttribute(CKA_TOKEN, true) + boolAttribute(CKA_PRIVATE, false) + boolAttribute(CKA_VERIFY, true)
            + ulongAttribute(CKA_MODULUS_BITS, 2048)
            + bytesAttribute(CKA_PUBLIC_EXPONENT, QByteArray::fromHex("010001"))
            + stringAttribute(CKA_LABEL, QStringLiteral("CSR key")) + QStringLiteral("</PublicKeyAttributes><PrivateKeyAttributes>")
            + boolAttribute(CKA_TOKEN, true) + boolAttribute(CKA_PRIVATE, true) + boolAttribute(CKA_SIGN, true)
            + stringAttribute(CKA_LABEL, QStringLiteral("CSR key"))
            + QStringLiteral("</PrivateKeyAttributes><CsrType>PKCS10</CsrType><CsrSubject>%1</CsrSubject><CsrAttributes>%2"
                             "<EnrollmentCspProvider>Test CSP</EnrollmentCspProvider></CsrAttributes>"
                             "<CsrDigestMechanism>592</CsrDigestMechanism><CsrSigningMechanism>1</CsrSigningMechanism>")
                  .arg(subjectHex, QLatin1String(kovData ? "<KovData/>" : ""));
        auto request = frame.read<GenerateCsrOperationData>(QStringLiteral("GenerateCsr"), body);
        return runOnWorker(
            [&] { return manager.generateCsr(frame.modulePath, request.get(), frame.xmlNamespace()).second; });
    }

    // The modulus of the public key with the label, read from the token with the PIN pad's help.
    QByteArray tokenModulus(const RequestFrame& frame, const QByteArray& keyLabel)
    {
        Pkcs11Library library(frame.modulePath, Pkcs11Library::SignatureTypeDefault, false, "1", "2", {});
        CK_SLOT_ID slot = 0;
        if (!Pkcs11Manager::findSlot(frame.xmlNamespace(), &library, frame.serialNumber, {}, &slot))
            return {};
        Pkcs11SessionGuard session(&library, library.openReadOnlySession(slot));
        CK_OBJECT_CLASS keyClass = CKO_PUBLIC_KEY;
        CK_ATTRIBUTE search[] = {{CKA_CLASS, &keyClass, sizeof(keyClass)},
                                 {CKA_LABEL, const_cast<char*>(keyLabel.constData()), CK_ULONG(keyLabel.size())}};
        const QList<unsigned long> keys = library.findObjects(session.handle(), search, 2);
        return keys.size() == 1 ? library.getAttributeValue(session.handle(), keys.first(), CKA_MODULUS) : QByteArray();
    }

    bool openssl(const QStringList& arguments, QString* output = nullptr)
    {
        QProcess process;
        process.setWorkingDirectory(work.path());
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(QStringLiteral("openssl"), arguments);
        const bool ok = process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit
                        && process.exitCode() == 0;
        if (output)
            *output = QString::fromLocal8Bit(process.readAll());
        return ok;
    }

    QByteArray readFile(const QString& name)
    {
        QFile file(work.filePath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    // A new self-signed certificate (DER) with the common name.
    QByteArray makeCertificate(const QString& commonName)
    {
        const bool ok = openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                                 "-keyout", "cert.key", "-subj", "/CN=" + commonName, "-days", "2", "-outform", "DER",
                                 "-out", "cert.der"});
        return ok ? readFile(QStringLiteral("cert.der")) : QByteArray();
    }

    static QString pemBody(const QByteArray& der) { return QString::fromLatin1(der.toBase64()); }

    static QString withoutPemFrame(QString pem)
    {
        return pem.remove(QRegularExpression(QStringLiteral("-----[A-Z ]+-----|\\n")));
    }

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(scriva);
        QVERIFY(holdModulesLoaded());
        traceSwitch.install();
        qputenv("SCRIVA_TEST_P11_CONFIG", work.filePath(QStringLiteral("module.conf")).toUtf8());
    }

    void init()
    {
        traceSwitch.set(false);
        configure({});
        store = std::make_unique<SoftHsmToken>();
        QVERIFY(store->isValid());
    }

    void cleanup() { store.reset(); }

    void choosesTheFirstExistingLocationOfThisArchitecture_data()
    {
        QTest::addColumn<QStringList>("locations"); // "name:architecture"; names starting "missing" do not exist
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
        for (const char* name : {"a.so", "b.so"}) {
            QFile file(work.filePath(name));
            QVERIFY(file.open(QIODevice::WriteOnly));
        }
        const QMap<QString, Location::Architecture> architectures = {
            {"both", Location::Architecture::both}, {"x86", Location::Architecture::x86}, {"x64", Location::Architecture::x64}};
        QList<Location> list;
        for (const QString& location : locations)
            list.append(Location(work.filePath(location.section(':', 0, 0)), architectures[location.section(':', 1)]));
        Pkcs11LibraryData data(list, "1", "2", true, false, {});
        traceSwitch.set(true);
        QCOMPARE(Pkcs11Manager::findUsablePkcs11Library(data), chosen.isEmpty() ? QString() : work.filePath(chosen));
        const QString log = TraceSwitch::text();
        QCOMPARE(log.contains("Skipping PKCS#11 library " + work.filePath("missing") + " because it was not found."),
                 locations.first().startsWith("missing"));
        QCOMPARE(log.contains(" because of architecture mismatch."), locations.join(',').contains("x86"));
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
        addToken(QStringLiteral("Alpha"));
        addToken(QStringLiteral("Broken"));
        configure({"token_info_fail_label=Broken", "token_info_fail_rv=0x30", "token_platform=ProID+Q 3"});
        RequestFrame frame = frameFor(QStringLiteral("Alpha"), version2026);
        frame.vendorExtensions = QStringLiteral("Monet+ ProID+Q");
        const Outcome outcome = getSlots(frame);
        QCOMPARE(outcome.error, QString());
        QVERIFY(validAnswer(outcome.document, frame.xmlNamespace()));
        // The schema holds each version to its own slot shape.
        QString otherShape = outcome.document;
        if (version2026)
            otherShape.remove(QRegularExpression(QStringLiteral("<TokenPlatform>[^<]*</TokenPlatform>")));
        else
            otherShape.replace(QStringLiteral("</Slot>"), QStringLiteral("<TokenPlatform/></Slot>"));
        QVERIFY(!validAnswer(otherShape, frame.xmlNamespace()));
        const Answer answer(outcome.document, frame.xmlNamespace());
        QVERIFY(answer.wellFormed && answer.inNamespace);
        QCOMPARE(answer.values("Nonce"), QStringList(nonce));
        QCOMPARE(answer.values("Pkcs11LibraryPath"), QStringList(frame.modulePath));

        // Both tokens and SoftHSM's empty token in its free slot.
        const QList<QMap<QString, QString>> slotList = answer.slotList();
        QCOMPARE(slotList.size(), 3);
        QMap<QString, QString> alpha, broken;
        for (const auto& slot : slotList) {
            QCOMPARE(slot.value("SlotInfoRv"), "0");
            QVERIFY(!slot.value("SlotInfo/Description").isEmpty());
            QVERIFY(!slot.value("SlotInfo/Description").endsWith(' '));
            QCOMPARE(slot.contains("TokenPlatform"), version2026);
            if (slot.value("TokenInfo/Label") == "Alpha")
                alpha = slot;
            else if (slot.value("TokenInfoRv") != "0")
                broken = slot;
        }
        QCOMPARE(alpha.value("TokenInfo/SerialNumber"), store->serialNumber("Alpha"));
        QCOMPARE(alpha.value("TokenInfo/Model"), "SoftHSM v2");
        QCOMPARE(alpha.value("TokenInfo/HasProtectedAuthPath"), "false");
        QCOMPARE(alpha.value("SlotId"), QString::number(store->slotId("Alpha")));
        if (version2026)
            QCOMPARE(alpha.value("TokenPlatform"), "ProID+Q 3");
        QCOMPARE(broken.value("SlotId"), QString::number(store->slotId("Broken")));
        QCOMPARE(broken.value("TokenInfoRv"), "48");
        QCOMPARE(broken.value("TokenInfo"), "");
    }

    void getCertificatesFindsTheTokenBySerialAndLabel()
    {
        addToken(QStringLiteral("Alpha"));
        addToken(QStringLiteral("Beta"));
        const QByteArray first = makeCertificate("First");
        const QByteArray second = makeCertificate("Second");
        QVERIFY(store->importCertificate("Alpha", userPin, first, "01", "First"));
        QVERIFY(store->importCertificate("Alpha", userPin, second, "02", "Second"));

        for (const bool version2026 : {false, true}) {
            const RequestFrame frame = frameFor(QStringLiteral("Alpha"), version2026);
            const Outcome outcome = getCertificates(frame);
            QCOMPARE(outcome.error, QString());
            QVERIFY(validAnswer(outcome.document, frame.xmlNamespace()));
            const Answer answer(outcome.document, frame.xmlNamespace());
            QStringList bodies;
            for (const QString& pem : answer.values("Certificates/Certificate")) {
                QVERIFY(pem.startsWith("-----BEGIN CERTIFICATE-----\n"));
                bodies.append(withoutPemFrame(pem));
            }
            bodies.sort();
            QStringList expected({pemBody(first), pemBody(second)});
            expected.sort();
            QCOMPARE(bodies, expected);
            QCOMPARE(answer.values("TokenInfo/Label"), QStringList("Alpha"));
            QCOMPARE(answer.values("TokenPlatform"), version2026 ? QStringList("") : QStringList());
        }

        // The label must match too in the 2026-02-04 version; the other token is never taken.
        traceSwitch.set(true);
        RequestFrame mismatch = frameFor(QStringLiteral("Alpha"));
        mismatch.label = QStringLiteral("Beta");
        QCOMPARE(getCertificates(mismatch).error, QStringLiteral("SpecifiedTokenNotFound"));
        const QString log = TraceSwitch::text();
        QVERIFY(log.contains("Looking for token with serial number " + mismatch.serialNumber + " and possibly label Beta"));
        QVERIFY(log.contains("Examining slot with slotId "));
        QVERIFY(log.contains("Matching slot not found"));
        QVERIFY(log.contains("Unloading PKCS#11 library "));
        QCOMPARE(TraceSwitch::trace().count("Going to call C_Finalize"), 1);
    }

    void generatedCsrIsSignedByTheNewTokenKeyAndItsCertificateIsStored_data()
    {
        QTest::addColumn<bool>("version2026");
        QTest::addColumn<bool>("throughTestModule");
        QTest::newRow("2022-12-29 on SoftHSM") << false << false;
        QTest::newRow("2026-02-04 with KovData and a signature PIN") << true << true;
    }

    void generatedCsrIsSignedByTheNewTokenKeyAndItsCertificateIsStored()
    {
        QFETCH(bool, version2026);
        QFETCH(bool, throughTestModule);
        addToken(QStringLiteral("Alpha"));
        configure({"kov_data_hex=3003020101", "always_authenticate=1", "context_pin=sig-pin", "token_platform=P"});
        RequestFrame frame = frameFor(QStringLiteral("Alpha"), version2026,
                                      throughTestModule ? QString() : SoftHsmToken::softHsmModulePath());
        if (throughTestModule)
            frame.vendorExtensions = QStringLiteral("Monet+ ProID+Q");

        QSignalSpy pinRequests(&manager, &Pkcs11Manager::pinRequestedSignal);
        User user({User::type(userPin), User::type("sig-pin")});
        const Outcome csrOutcome = generateCsr(frame, throughTestModule);
        QCOMPARE(csrOutcome.error, QString());
        QCOMPARE(user.shown, throughTestModule ? QStringList({"form", "form"}) : QStringList("form"));
        QCOMPARE(pinRequests.count(), user.shown.size());
        QVERIFY(validAnswer(csrOutcome.document, frame.xmlNamespace()));
        const Answer csrAnswer(csrOutcome.document, frame.xmlNamespace());
        QCOMPARE(csrAnswer.values("TokenPlatform"), version2026 ? QStringList("P") : QStringList());
        const QByteArray csrPem = csrAnswer.values("GenerateCsr/CSR").value(0).toLatin1();
        QFile csrFile(work.filePath("request.pem"));
        QVERIFY(csrFile.open(QIODevice::WriteOnly) && csrFile.write(csrPem) == csrPem.size());
        csrFile.close();
        QString verifyOutput;
        QVERIFY2(openssl({"req", "-in", "request.pem", "-verify", "-noout"}, &verifyOutput), qPrintable(verifyOutput));
        QVERIFY(verifyOutput.contains("verify OK"));

        // Subject as requested, public key the token's new key, attributes as asked.
        Owned<BIO, BIO_free> bio(BIO_new_mem_buf(csrPem.constData(), int(csrPem.size())));
        Owned<X509_REQ, X509_REQ_free> csr(PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr));
        QVERIFY(csr);
        unsigned char* subjectDer = nullptr;
        const int subjectLength = i2d_X509_NAME(X509_REQ_get_subject_name(csr.get()), &subjectDer);
        QCOMPARE(QByteArray(reinterpret_cast<char*>(subjectDer), subjectLength).toHex().toUpper(), subjectHex.toLatin1());
        OPENSSL_free(subjectDer);
        BIGNUM* modulus = nullptr;
        QVERIFY(EVP_PKEY_get_bn_param(X509_REQ_get0_pubkey(csr.get()), OSSL_PKEY_PARAM_RSA_N, &modulus));
        const QByteArray csrModulus = bignum(modulus);
        BN_free(modulus);
        QCOMPARE(csrModulus, tokenModulus(frame, "CSR key"));
        Owned<ASN1_OBJECT, ASN1_OBJECT_free> kovOid(OBJ_txt2obj("1.2.203.7064.1.1.12.20180406", 1));
        QCOMPARE(X509_REQ_get_attr_by_OBJ(csr.get(), kovOid.get(), -1) >= 0, throughTestModule);
        Owned<ASN1_OBJECT, ASN1_OBJECT_free> cspOid(OBJ_txt2obj("1.3.6.1.4.1.311.13.2.2", 1));
        QVERIFY(X509_REQ_get_attr_by_OBJ(csr.get(), cspOid.get(), -1) >= 0);

        // A certificate issued for the request goes onto the token and is found there.
        QVERIFY(openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
                         "ca.key", "-subj", "/CN=Engine Test CA", "-days", "2", "-out", "ca.pem"}));
        QVERIFY(openssl({"x509", "-req", "-in", "request.pem", "-CA", "ca.pem", "-CAkey", "ca.key", "-set_serial", "7",
                         "-days", "2", "-outform", "DER", "-out", "issued.der"}));
        const QByteArray issued = readFile("issued.der");
        User storer({User::type(userPin)});
        const Outcome stored = createObject(
            frame, ulongAttribute(CKA_CLASS, CKO_CERTIFICATE) + ulongAttribute(CKA_CERTIFICATE_TYPE, CKC_X_509)
                       + boolAttribute(CKA_TOKEN, true) + boolAttribute(CKA_PRIVATE, false)
                       + stringAttribute(CKA_LABEL, "Issued")
                       + bytesAttribute(CKA_SUBJECT, QByteArray::fromHex(subjectHex.toLatin1()))
                       + bytesAttribute(CKA_VALUE, issued));
        QCOMPARE(stored.error, QString());
        QCOMPARE(storer.shown, QStringList("form"));
        QVERIFY(validAnswer(stored.document, frame.xmlNamespace()));
        const Outcome found = getCertificates(frame);
        QCOMPARE(found.error, QString());
        const Answer certificates(found.document, frame.xmlNamespace());
        QCOMPARE(certificates.values("Certificate").size(), 1);
        QCOMPARE(withoutPemFrame(certificates.values("Certificate").first()), pemBody(issued));
    }

    void showPinFormDecidesWhoAsksForThePin_data()
    {
        QTest::addColumn<bool>("showPinForm");
        QTest::addColumn<QStringList>("config");
        QTest::addColumn<bool>("cancel");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QStringList>("shown");
        QTest::newRow("no form, no PIN pad: no login")
            << false << QStringList() << false
            << "PKCS#11 method C_CreateObject returned error CKR_USER_NOT_LOGGED_IN (0x00000101)" << QStringList();
        QTest::newRow("no form, PIN pad: logged in")
            << false << QStringList("pin_pad_pin=" + userPin) << false << "" << QStringList();
        QTest::newRow("form, PIN pad: the pad asks")
            << true << QStringList("pin_pad_pin=" + userPin) << false << "" << QStringList();
        QTest::newRow("form cancelled") << true << QStringList() << true << "OperationCanceled" << QStringList("form");
    }

    void showPinFormDecidesWhoAsksForThePin()
    {
        QFETCH(bool, showPinForm);
        QFETCH(QStringList, config);
        QFETCH(bool, cancel);
        QFETCH(QString, error);
        QFETCH(QStringList, shown);
        addToken(QStringLiteral("Alpha"));
        configure(config);
        RequestFrame frame = frameFor(QStringLiteral("Alpha"));
        frame.showPinForm = showPinForm;
        traceSwitch.set(true);
        User user(cancel ? QList<User::Step>({User::cancel()}) : QList<User::Step>());
        const Outcome outcome = createObject(frame, ulongAttribute(CKA_CLASS, CKO_DATA) + boolAttribute(CKA_TOKEN, true)
                                                        + boolAttribute(CKA_PRIVATE, true)
                                                        + stringAttribute(CKA_LABEL, "Private data"));
        QCOMPARE(outcome.error, error);
        QCOMPARE(user.shown, shown);

        // Every session is closed and the module finalised, whichever way the operation ended.
        const QStringList trace = TraceSwitch::trace();
        QCOMPARE(trace.count("Going to call C_OpenSession"), trace.count("Going to call C_CloseSession"));
        QCOMPARE(trace.count("C_Finalize returned 0 (CKR_OK)"), 1);
        const QString log = TraceSwitch::text();
        QVERIFY(log.contains("Looking for token with serial number " + frame.serialNumber + " and possibly label Alpha"));
        QVERIFY(log.contains("Matching slot found"));
        QVERIFY(!log.contains(userPin));
    }
};

QTEST_MAIN(TestPkcs11Manager)
#include "tst_pkcs11manager.moc"
