#include "enginetesthelpers.h"

#include "pkcs11/XmlParser/pkcs11operationdataparser.h"
#include "pkcs11/XmlParser/scrivanamespaces.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/pkcs11manager.h"
#include "testrequests.h"

#include <QDirIterator>
#include <QProcess>
#include <QSslCertificate>

using namespace EngineTest;

namespace {

const QString nonce = QStringLiteral("engine-test-nonce-0001");
// What the sample requests in tests/data/requests name, replaced for each test.
const QString samplePath = QStringLiteral("/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so");
const QString sampleLabel = QStringLiteral("<Label>Scriva token</Label>");
const QString sampleExtensions = QStringLiteral("<VendorExtensions>{\"reader\":\"any\"}</VendorExtensions>");

// One attribute of a request: "Bool", "UnsignedLong", "String" or "ByteArray" (hex value).
QString attribute(const char* kind, CK_ATTRIBUTE_TYPE type, const QString& value)
{
    return QString("<%1Attribute><Attribute>%2</Attribute><Value>%3</Value></%1Attribute>").arg(kind).arg(type).arg(value);
}

// Replaces the sample request's object attributes.
QMap<QString, QString> objectAttributes(const QString& attributes)
{
    return {{QStringLiteral("<ObjectAttributes>"), "<ObjectAttributes>" + attributes + "<!--"},
            {QStringLiteral("</ObjectAttributes>"), "--></ObjectAttributes>"}};
}

// A public X.509 certificate object on the token with this DER value.
QMap<QString, QString> certificateObject(const QByteArray& der)
{
    return objectAttributes(attribute("UnsignedLong", CKA_CLASS, "1") + attribute("UnsignedLong", CKA_CERTIFICATE_TYPE, "0")
                            + attribute("Bool", CKA_TOKEN, "true") + attribute("Bool", CKA_PRIVATE, "false")
                            + attribute("ByteArray", CKA_SUBJECT, "3000") + attribute("ByteArray", CKA_VALUE, der.toHex()));
}

// The answer with its slots and certificates sorted: the module lists them in its own order.
QString sorted(QString xml)
{
    for (const QString name : {"Slot", "Certificate"}) {
        const QRegularExpression element(QStringLiteral("<%1>.*?</%1>").arg(name), QRegularExpression::DotMatchesEverythingOption);
        QStringList found;
        for (auto matches = element.globalMatch(xml); matches.hasNext();)
            found.append(matches.next().captured());
        found.sort();
        const qsizetype start = xml.indexOf(element);
        xml.remove(element);
        xml = start < 0 ? xml : xml.insert(start, found.join(QString()));
    }
    return xml;
}

} // namespace

// The four operations, from module choice to answer documents that the schema accepts. The cases of
// the tests with data rows are in tests/data/engine-cases.txt.
class TestPkcs11Manager : public QObject
{
    Q_OBJECT

    TraceSwitch traceSwitch;
    QTemporaryDir work;
    ScriptedUser user;
    std::unique_ptr<SoftHsmToken> store;
    Pkcs11Manager manager;
    const QString userPin = QStringLiteral("user-pin-7");

    // Runs the sample request `name` (e.g. "getslots-2026"), altered, on "Alpha" through the test module.
    template<typename T>
    Outcome run(QPair<QString, QString> (Pkcs11Manager::*operation)(const QString&, ScrivaPkcs11OperationData<T>*, const QString&),
                const QString& name, const QMap<QString, QString>& replacements = {})
    {
        QMap<QString, QString> all{{samplePath, SoftHsmToken::testModulePath()},
                                   {"0123456789ABCDEF", store->serialNumber("Alpha")},
                                   {sampleLabel, "<Label>Alpha</Label>"},
                                   {sampleExtensions, "<VendorExtensions></VendorExtensions>"}};
        all.insert(replacements);
        const QString path = all.value(samplePath);
        const QString xmlNamespace = name.endsWith("2026") ? ScrivaNamespaces::version20260204() : ScrivaNamespaces::version20221229();
        std::shared_ptr<ScrivaPkcs11OperationData<T>> request(ScrivaPkcs11InputXmlParser<T>::parseXml(TestRequests::xml(name, nonce, all)));
        Outcome outcome = attempt([=] { return (manager.*operation)(path, request.get(), xmlNamespace).second; });
        if (outcome.error.isEmpty() && !Pkcs11OperationDataParser().validate(outcome.document, xmlNamespace))
            outcome.error = "answer refused by the schema: " + outcome.document;
        return outcome;
    }

    QString openssl(const QStringList& arguments, const QByteArray& input = {})
    {
        QProcess process;
        process.setWorkingDirectory(work.path());
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start("openssl", arguments);
        process.write(input);
        process.closeWriteChannel();
        const bool ok = process.waitForFinished(60000) && process.exitCode() == 0;
        return ok ? QString::fromLocal8Bit(process.readAll()) : "failed: " + process.readAll();
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
        for (const char* token : {"Alpha", "Beta"})
            QVERIFY2(store->initToken(token, "so-pin-7", userPin), qPrintable(store->lastError()));
    }

    void cleanup() { store.reset(); }

    void choosesTheFirstExistingLocationOfThisArchitecture_data() { rowsFrom(); }

    void choosesTheFirstExistingLocationOfThisArchitecture()
    {
        QFETCH(QStringList, locations);
        QFETCH(QString, chosen);
        for (const char* name : {"a.so", "b.so"})
            QVERIFY(QFile(work.filePath(name)).open(QIODevice::WriteOnly));
        QList<Location> list;
        const QStringList architectures({"both", "x86", "x64"});
        for (const QString& location : locations)
            list.append(Location(work.filePath(location.section(':', 0, 0)),
                                 Location::Architecture(architectures.indexOf(location.section(':', 1)))));
        Pkcs11LibraryData data(list, "1", "2", true, false, {});
        QCOMPARE(Pkcs11Manager::findUsablePkcs11Library(data), chosen.isEmpty() ? QString() : work.filePath(chosen));
    }

    void operationsAnswerAsTheModuleAllowsAndEndCleanly_data() { rowsFrom(); }

    void operationsAnswerAsTheModuleAllowsAndEndCleanly()
    {
        QFETCH(QString, request);
        QFETCH(bool, form);
        QFETCH(QStringList, config);
        QFETCH(QString, label);
        QFETCH(QString, extensions);
        QFETCH(QString, answer);
        QFETCH(QString, claim);
        QFETCH(int, forms);
        // Certificates to find: two when the answer shows them, else any bytes (the host does not read them).
        QString certificates;
        QList<QByteArray> stored;
        for (const QString name : {"Certificate 1", "Certificate 2"}) {
            if (!answer.contains("${certificates}"))
                break;
            const QSslCertificate certificate(openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                                                       "-nodes", "-keyout", "cert.key", "-subj", "/CN=" + name}).toUtf8());
            QVERIFY(!certificate.isNull());
            certificates += "<Certificate>" + certificate.toPem() + "</Certificate>";
            stored << certificate.toDer();
        }
        if (stored.isEmpty())
            stored << QByteArray::fromHex("3000");
        for (const QByteArray& der : request.startsWith("getslots") ? QList<QByteArray>() : stored) {
            user.script({"pin:" + userPin});
            QCOMPARE(run(&Pkcs11Manager::createObject, "createobject-2022", certificateObject(der)).error, QString());
        }
        QMap<QString, QString> replacements = certificateObject(stored.first());
        if (!form) { // a private object
            replacements = objectAttributes(attribute("UnsignedLong", CKA_CLASS, "0") + attribute("Bool", CKA_TOKEN, "true")
                                            + attribute("Bool", CKA_PRIVATE, "true"));
            replacements.insert("<ShowPinForm>true", "<ShowPinForm>false");
        }
        replacements.insert({{sampleLabel, "<Label>" + label + "</Label>"},
                             {sampleExtensions, "<VendorExtensions>" + extensions + "</VendorExtensions>"}});
        QVERIFY(configureModule(work, config << "kov_data_hex=3003020101"));
        TraceSwitch::set(true);
        user.script({"pin:" + userPin});
        const auto operation = request.section('-', 0, 0);
        Outcome outcome = operation == "getslots"  ? run(&Pkcs11Manager::getSlots, request, replacements)
            : operation == "getcertificates"      ? run(&Pkcs11Manager::getCertificates, request, replacements)
            : operation == "generatecsr"          ? run(&Pkcs11Manager::generateCsr, request, replacements)
                                                  : run(&Pkcs11Manager::createObject, request, replacements);
        for (const QString token : {"Alpha", "Beta"})
            answer.replace("${" + token + "}", QString::number(store->slotId(token)))
                .replace("${" + token + " hex}", QString::number(store->slotId(token), 16))
                .replace("${" + token + " serial}", store->serialNumber(token));
        answer.replace("${module}", SoftHsmToken::testModulePath()).replace("${certificates}", certificates);
        if (answer.startsWith("slots: ")) // texts that cannot be known
            outcome.document = "slots: " + QString::number(outcome.document.count("<Slot>"));
        QCOMPARE(sorted(outcome.error + outcome.document), sorted(answer + (answer.startsWith('<') ? "\n" : "")));
        QCOMPARE(user.seen(), QStringList(forms, "form"));
        const QString log = TraceSwitch::text();
        QVERIFY2(claim.isEmpty() ? !log.contains(" answered ") : log.contains(" - W - " + claim), qPrintable(claim));
        const QStringList trace = TraceSwitch::trace();
        QCOMPARE(trace.count("C_OpenSession returned 0 (CKR_OK)"), trace.count("C_CloseSession returned 0 (CKR_OK)"));
        QCOMPARE(trace.count(" *phSession: 0"), trace.count("Going to call C_OpenSession"));
        QCOMPARE(trace.count("C_Finalize returned 0 (CKR_OK)"), 1);
    }

    void generateCsrKeepsItsKeysOnlyWhenSigned_data() { rowsFrom(); }

    void generateCsrKeepsItsKeysOnlyWhenSigned()
    {
        QFETCH(QStringList, configLines);
        QFETCH(int, digest);
        QFETCH(QString, outcome);
        QFETCH(int, forms);
        const QString config = configLines.join('\n');
        const bool onSoftHsm = config == "SoftHSM", signs = outcome.endsWith("Encryption"), kept = config.contains("C_DestroyObject");
        QVERIFY(configureModule(work, {config, "kov_data_hex=3003020101"}));
        // Both keys on the token, where a failed request would leave them.
        QMap<QString, QString> replacements{{"<CsrDigestMechanism>592", "<CsrDigestMechanism>" + QString::number(digest)},
                                            {"<PrivateKeyAttributes>", "<PrivateKeyAttributes>" + attribute("Bool", CKA_TOKEN, "true")}};
        if (onSoftHsm)
            replacements.insert({{samplePath, SoftHsmToken::softHsmModulePath()}, {"<KovData/>", ""}});
        const auto objects = [&] {
            int count = 0;
            for (QDirIterator files(store->directory(), {"*.object"}, QDir::Files, QDirIterator::Subdirectories); files.hasNext(); files.next())
                ++count;
            return count;
        };
        const int before = objects();
        QSignalSpy pinRequests(&manager, &Pkcs11Manager::pinRequestedSignal);
        TraceSwitch::set(true);
        user.script({"pin:" + userPin, outcome == "OperationCanceled" ? "cancel" : "pin:sig-pin"});
        const Outcome result = run(&Pkcs11Manager::generateCsr, onSoftHsm ? "generatecsr-2022" : "generatecsr-2026", replacements);
        QCOMPARE(result.error, signs ? QString() : outcome);
        QCOMPARE(user.seen(), QStringList(forms, "form"));
        QCOMPARE(pinRequests.count(), user.seen().size());
        const QStringList trace = TraceSwitch::trace();
        QCOMPARE(objects(), before + (signs || kept ? 2 : 0));
        QCOMPARE(trace.count(kept ? "C_DestroyObject returned 48 (CKR_DEVICE_ERROR)" : "C_DestroyObject returned 0 (CKR_OK)"), signs ? 0 : 2);
        QVERIFY(trace.lastIndexOf("Going to call C_DestroyObject") < trace.lastIndexOf("Going to call C_CloseSession"));
        const QString log = TraceSwitch::text();
        QCOMPARE(log.count(" - W - The new key could not be destroyed"), kept ? 2 : 0);
        QVERIFY(!log.contains(userPin) && !log.contains("sig-pin"));
        if (!signs)
            return;
        // The new key's modulus is read before its exponent.
        QStringList keyReads = trace.mid(trace.indexOf(QRegularExpression("C_GenerateKeyPair returned .*")))
                                   .filter(QRegularExpression("^   Attribute: \\d+ \\(CKA_(MODULUS|PUBLIC_EXPONENT)\\)$"));
        keyReads.removeDuplicates();
        QCOMPARE(keyReads, QStringList({"   Attribute: 288 (CKA_MODULUS)", "   Attribute: 290 (CKA_PUBLIC_EXPONENT)"}));
        // Verified with the key it carries: the token's new one.
        const QString text = openssl({"req", "-verify", "-noout", "-text", "-nameopt", "RFC2253"},
                                     QRegularExpression("<CSR>([^<]*)</CSR>").match(result.document).captured(1).toLatin1());
        QVERIFY2(text.contains("verify OK") && text.contains("Signature Algorithm: " + outcome)
                     && text.contains("Subject: CN=Scriva Test Subject") && text.contains("1.2.203.7064.1.1.12.20180406:") == !onSoftHsm,
                 qPrintable(text));
    }

};

QTEST_MAIN(TestPkcs11Manager)
#include "tst_pkcs11manager.moc"
