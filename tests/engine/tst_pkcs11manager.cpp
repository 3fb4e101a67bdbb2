#include "enginedocuments.h"
#include "enginetesthelpers.h"

#include "ownedresource.h"
#include "pkcs11/pkcs11manager.h"
#include "pkcs11library.h"
#include "pkcs11sessionguard.h"

#include <QProcess>

#include <algorithm>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

using namespace EngineTest;

namespace {

const QString subjectHex = QStringLiteral("301E311C301A06035504030C135363726976612054657374205375626A656374");

QString pemBody(QString pem)
{
    return pem.remove(QRegularExpression(QStringLiteral("-----[A-Z ]+-----|\\n")));
}

} // namespace

// The four operations end to end: module choice, token search, login as the request asks, the
// certificate request signed on the token, and answer documents that the schema accepts.
class TestPkcs11Manager : public QObject
{
    Q_OBJECT

    TraceSwitch traceSwitch;
    QTemporaryDir work;
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

    bool openssl(const QStringList& arguments, QString* output = nullptr)
    {
        QProcess process;
        process.setWorkingDirectory(work.path());
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start("openssl", arguments);
        const bool ok = process.waitForFinished(60000) && process.exitCode() == 0;
        if (output)
            *output = QString::fromLocal8Bit(process.readAll());
        return ok;
    }

    QByteArray file(const QString& name, const QByteArray& write = {})
    {
        QFile file(work.filePath(name));
        if (!write.isEmpty())
            return file.open(QIODevice::WriteOnly) && file.write(write) == write.size() ? write : QByteArray();
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    // The modulus of the token's public key with the label.
    QByteArray tokenModulus(const RequestFrame& frame, QByteArray keyLabel)
    {
        Pkcs11Library library(frame.modulePath, Pkcs11Library::SignatureTypeDefault, false, "1", "2", {});
        CK_SLOT_ID slot = 0;
        if (!Pkcs11Manager::findSlot(frame.xmlNamespace(), &library, frame.serialNumber, {}, &slot))
            return {};
        Pkcs11SessionGuard session(&library, library.openReadOnlySession(slot));
        CK_OBJECT_CLASS keyClass = CKO_PUBLIC_KEY;
        CK_ATTRIBUTE search[] = {{CKA_CLASS, &keyClass, sizeof(keyClass)},
                                 {CKA_LABEL, keyLabel.data(), CK_ULONG(keyLabel.size())}};
        const QList<unsigned long> keys = library.findObjects(session.handle(), search, 2);
        return keys.size() == 1 ? library.getAttributeValue(session.handle(), keys.first(), CKA_MODULUS) : QByteArray();
    }

private slots:
    void initTestCase()
    {
        manager.setPinPrompt(ScriptedUser::prompt());
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

    void getCertificatesFindsTheTokenBySerialAndLabel()
    {
        frameFor("Alpha");
        QByteArray certificates[2];
        for (int i = 0; i < 2; ++i) {
            QVERIFY(openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                             "-keyout", "cert.key", "-subj", "/CN=Certificate " + QString::number(i), "-outform",
                             "DER", "-out", "cert.der"}));
            certificates[i] = file("cert.der");
            QVERIFY(store->importCertificate("Alpha", userPin, certificates[i], "0" + QString::number(i), "Cert"));
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

    void generatedCsrIsSignedByTheNewTokenKeyAndItsCertificateIsStored_data()
    {
        QTest::addColumn<bool>("version2026");
        QTest::addColumn<bool>("testModule");
        QTest::addColumn<CK_MECHANISM_TYPE>("digest");
        QTest::addColumn<int>("signatureNid");
        QTest::newRow("2022-12-29 on SoftHSM, SHA-1") << false << false << CKM_SHA_1 << NID_sha1WithRSAEncryption;
        QTest::newRow("2022-12-29 on SoftHSM, SHA-384") << false << false << CKM_SHA384 << NID_sha384WithRSAEncryption;
        QTest::newRow("2026-02-04, KovData and a signature PIN, SHA-256")
            << true << true << CKM_SHA256 << NID_sha256WithRSAEncryption;
        QTest::newRow("2026-02-04, KovData and a signature PIN, SHA-512")
            << true << true << CKM_SHA512 << NID_sha512WithRSAEncryption;
    }

    void generatedCsrIsSignedByTheNewTokenKeyAndItsCertificateIsStored()
    {
        QFETCH(bool, version2026);
        QFETCH(bool, testModule);
        QFETCH(CK_MECHANISM_TYPE, digest);
        QFETCH(int, signatureNid);
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
        const QStringList pins({"pin:" + userPin, "pin:sig-pin"});
        auto user = std::make_unique<ScriptedUser>(pins.mid(0, testModule ? 2 : 1));
        const Outcome outcome = run<GenerateCsrOperationData>(frame, &Pkcs11Manager::generateCsr, "GenerateCsr", body);
        QCOMPARE(outcome.error, QString());
        QCOMPARE(user->shown, testModule ? QStringList({"form", "form"}) : QStringList("form"));
        QCOMPARE(pinRequests.count(), user->shown.size());
        user.reset();
        // The new key's modulus is read before its exponent.
        const QStringList trace = TraceSwitch::trace();
        const QStringList keyReads = trace.mid(trace.indexOf(QRegularExpression("C_GenerateKeyPair returned .*")))
                                         .filter(QRegularExpression("^   Attribute: \\d+ \\(CKA_(MODULUS|PUBLIC_EXPONENT)\\)$"));
        QStringList keyOrder = keyReads;
        keyOrder.removeDuplicates();
        QCOMPARE(keyOrder, QStringList({"   Attribute: 288 (CKA_MODULUS)", "   Attribute: 290 (CKA_PUBLIC_EXPONENT)"}));
        QVERIFY(validAnswer(outcome.document, frame.xmlNamespace()));
        const QByteArray csrPem = file("request.pem", values(outcome.document, "CSR").value(0).toLatin1());
        QString verified;
        QVERIFY2(openssl({"req", "-in", "request.pem", "-verify", "-noout"}, &verified)
                     && verified.contains("verify OK"),
                 qPrintable(verified));

        // The requested digest and subject, the token's new key, and the KovData the token holds for it.
        Owned<BIO, BIO_free> bio(BIO_new_mem_buf(csrPem.constData(), int(csrPem.size())));
        Owned<X509_REQ, X509_REQ_free> csr(PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr));
        QVERIFY(csr);
        QCOMPARE(X509_REQ_get_signature_nid(csr.get()), signatureNid);
        QByteArray subject(i2d_X509_NAME(X509_REQ_get_subject_name(csr.get()), nullptr), '\0');
        auto* out = reinterpret_cast<unsigned char*>(subject.data());
        i2d_X509_NAME(X509_REQ_get_subject_name(csr.get()), &out);
        QCOMPARE(subject.toHex().toUpper(), subjectHex.toLatin1());
        BIGNUM* modulus = nullptr;
        QVERIFY(EVP_PKEY_get_bn_param(X509_REQ_get0_pubkey(csr.get()), OSSL_PKEY_PARAM_RSA_N, &modulus));
        QByteArray csrModulus(BN_num_bytes(modulus), '\0');
        BN_bn2bin(modulus, reinterpret_cast<unsigned char*>(csrModulus.data()));
        BN_free(modulus);
        QCOMPARE(csrModulus, tokenModulus(frame, "CSR key"));
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

        // A certificate issued for the request is stored on the token and found there.
        QVERIFY(openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
                         "ca.key", "-subj", "/CN=Engine Test CA", "-out", "ca.pem"}));
        QVERIFY(openssl({"x509", "-req", "-in", "request.pem", "-CA", "ca.pem", "-CAkey", "ca.key", "-set_serial", "7",
                         "-outform", "DER", "-out", "issued.der"}));
        const QByteArray issued = file("issued.der");
        ScriptedUser storer({"pin:" + userPin});
        const Outcome stored = createObject(
            frame, attribute("UnsignedLong", CKA_CLASS, "1") + attribute("UnsignedLong", CKA_CERTIFICATE_TYPE, "0")
                       + attribute("Bool", CKA_TOKEN, "true") + attribute("Bool", CKA_PRIVATE, "false")
                       + attribute("ByteArray", CKA_SUBJECT, subjectHex)
                       + attribute("ByteArray", CKA_VALUE, issued.toHex()));
        QCOMPARE(stored.error, QString());
        QCOMPARE(storer.shown, QStringList("form"));
        QVERIFY(validAnswer(stored.document, frame.xmlNamespace()));
        const QStringList found = values(getCertificates(frame).document, "Certificate");
        QCOMPARE(found.size(), 1);
        QCOMPARE(pemBody(found.first()), QString::fromLatin1(issued.toBase64()));
    }

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
        QTest::newRow("form cancelled") << true << QStringList() << "cancel" << "OperationCanceled";
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
        ScriptedUser user(answer.isEmpty() ? QStringList() : QStringList(answer));
        const Outcome outcome = createObject(frame, attribute("UnsignedLong", CKA_CLASS, "0")
                                                        + attribute("Bool", CKA_TOKEN, "true")
                                                        + attribute("Bool", CKA_PRIVATE, "true"));
        QCOMPARE(outcome.error, error);
        QCOMPARE(user.shown, answer.isEmpty() ? QStringList() : QStringList("form"));

        // Sessions closed and the module finalised whichever way it ended; the PIN never logged.
        const QStringList trace = TraceSwitch::trace();
        QCOMPARE(trace.count("Going to call C_OpenSession"), trace.count("Going to call C_CloseSession"));
        QCOMPARE(trace.count("C_Finalize returned 0 (CKR_OK)"), 1);
        QVERIFY(!TraceSwitch::text().contains(userPin));
    }
};

QTEST_MAIN(TestPkcs11Manager)
#include "tst_pkcs11manager.moc"
