#include "Protocol1/nativemessaging1.h"
#include "appexception.h"
#include "ownedresource.h"
#include "pkcs11/scrivapkcs11.h"
#include "pkcs11/ui/mainwindowpkcs11.h"
#include "ui/titlebar.h"
#include "x509certificate2ultra.h"

#include <QApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace {

X509Certificate2Ultra makeCertificate(const QString& commonName)
{
    Owned<EVP_PKEY, EVP_PKEY_free> key(EVP_RSA_gen(2048));
    Owned<X509, X509_free> cert(X509_new());
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
    X509_set_pubkey(cert.get(), key.get());
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(commonName.toUtf8().constData()), -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);
    X509_sign(cert.get(), key.get(), EVP_sha256());
    return X509Certificate2Ultra(cert.get());
}

QString errorOf(ScrivaPkcs11& instance, QString properties)
{
    try {
        instance.setProperty(properties);
    } catch (const AppException& e) {
        return e.getMessage();
    }
    return QString();
}

} // namespace

// The operation instance, its window and the protocol object, in-process on the offscreen platform.
class TestInstance : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Q_INIT_RESOURCE(scriva); }

    // Properties given to one instance in turn, each with the error it is answered with.
    void properties_data()
    {
        QTest::addColumn<QStringList>("properties");
        QTest::addColumn<QStringList>("errors");
        const QString invalid = "JSON node MinimalWindowDisplayTime has invalid value";
        const auto time = [](const char* value) { return QString("{\"MinimalWindowDisplayTime\": %1}").arg(value); };
        QTest::newRow("display time bounds")
            << QStringList{time("600001"), time("-1"), time("1.5"), time("\"100\""), time("null"), time("600000")}
            << QStringList{invalid + ": 600001", invalid + ": -1", invalid + ": 1.5", invalid,
                           "JSON node MinimalWindowDisplayTime is missing", ""};
        const QString different = invalid + ": new is different than previous \n>> NEW >>\n%1\n>> PREVIOUS>>\n0\n";
        // A refused request changes nothing, not even its valid parts.
        QTest::newRow("set once") << QStringList{time("0"), time("0"), time("300"), "{\"Language\": \"cs\", "
                                                 "\"MinimalWindowDisplayTime\": 7}", "{\"Colour\": \"blue\"}"}
                                  << QStringList{"", "", different.arg(300), different.arg(7), ""};
        QTest::newRow("not an object") << QStringList{"{MinimalWindowDisplayTime", "[1]"}
            << QStringList{"Unable to parse properties as JSON structure", "Unable to convert properties to JSON object"};
        QTest::newRow("language") << QStringList{"{\"Language\": 5}", "{\"Language\": \"xx\"}",
                                                 "{\"Language\": \"../../bin/x\"}"}
                                  << QStringList{"JSON node Language has invalid value", "UnsupportedLanguage",
                                                 "UnsupportedLanguage"};
        const QString base64 = QString::fromLatin1(makeCertificate("server").toDer().toBase64());
        const QString certificate = "{\"ResponseSigningCertificate\": %1}";
        const QString unreadable = "JSON node ResponseSigningCertificate has invalid value: Unable to read << ";
        QTest::newRow("signing certificate")
            << QStringList{certificate.arg("{\"Certificate\": 5, \"Crl\": \"AA==\"}"),
                           certificate.arg("{\"Certificate\": \"" + base64 + "\"}"),
                           certificate.arg("{\"Certificate\": \"bm90IGEgY2VydA==\", \"Crl\": \"AA==\"}"),
                           certificate.arg("[1]"),
                           certificate.arg("{\"Certificate\": \"" + base64 + "\", \"OcspResponse\": \"AQID\", \"Crl\": \"BAU=\"}"),
                           certificate.arg("{\"Certificate\": \"" + base64 + "\", \"Crl\": \"BAU=\"}")}
            << QStringList{unreadable + "JSON node Certificate is missing or has invalid value",
                           unreadable + "JSON nodes CRL and OCSP Response are missing or have invalid value",
                           unreadable + "JSON node Certificate has invalid value",
                           "JSON node ResponseSigningCertificate has invalid value", "",
                           "^JSON node ResponseSigningCertificate has invalid value: new is different than previous"};
    }

    void properties()
    {
        QFETCH(QStringList, properties);
        QFETCH(QStringList, errors);
        ScrivaPkcs11 instance;
        for (int i = 0; i < properties.size(); ++i) {
            const QString error = errorOf(instance, properties.at(i));
            QVERIFY2(errors.at(i).startsWith('^') ? error.startsWith(errors.at(i).mid(1)) : error == errors.at(i),
                     qPrintable(properties.at(i) + " => " + error));
        }
        QCOMPARE(instance.window()->descriptionText(), "Please wait...");
        instance.window()->show();
        QCOMPARE(errorOf(instance, "{}"), "Properties cannot be modified while application window is visible");
    }

    void windowIsTitledWithTheSignerAndMovedByItsTitleBar()
    {
        MainWindowPkcs11 window;
        window.updateWindowTitle(makeCertificate("signing.example.org"));
        QVERIFY(window.titleText().startsWith("AppName") && window.titleText().endsWith("signing.example.org"));
        window.updateWindowTitle(X509Certificate2Ultra());
        QCOMPARE(window.titleText(), "AppName");
        window.show();
        const QPoint before = window.pos();
        emit window.titleBar()->moveVectorEvent(QVector2D(15, -4));
        QCOMPARE(window.pos(), before + QPoint(15, -4));
    }

    void languageSwitchRetranslatesTheWindow()
    {
        ScrivaPkcs11 instance;
        instance.window()->setDescription("GetSlotsDescription");
        QCOMPARE(errorOf(instance, "{\"Language\": \"cs\"}"), QString());
        QTRY_COMPARE(instance.window()->descriptionText(), "Hledám vaše tokeny...");
        QCOMPARE(errorOf(instance, "{\"Language\": \"en\"}"), QString());
        QTRY_COMPARE(instance.window()->descriptionText(), "Looking for your tokens...");
        QCOMPARE(instance.window()->titleText(), "Corvant Scriva");
    }

    void bringToFrontActivatesOnlyAShownWindow()
    {
        ScrivaPkcs11 instance;
        instance.bringToFront();
        QVERIFY(!instance.window()->isVisible());
        instance.window()->show();
        instance.bringToFront();
        QTRY_VERIFY(instance.window()->isActiveWindow());
    }

    // DisposeInstance leaves the protocol open and the instance refuses; Terminate closes the protocol.
    void terminationIsReportedOnceAndRefusesEverythingAfter()
    {
        NativeMessaging1 protocol("1.0.0", "qt");
        QSignalSpy sent(&protocol, &NativeMessagingAdapter::sendMessage);
        const auto request = [&](const QString& name, const QString& key = "error") {
            QJsonObject message{{"method", "ScrivaPkcs11.1.0.0.qt.QES." + name}, {"args", QJsonArray{"x"}}};
            protocol.processMessage(message);
            return sent.takeLast().first().value<QJsonDocument>().object().value(key).toString();
        };
        QCOMPARE(request("GetNonce"), "ScrivaInstanceDoesNotExist");
        request("CreateInstance");
        QSignalSpy ready(protocol.instance(), &ScrivaPkcs11::readyToTerminate);
        request("DisposeInstance");
        QCOMPARE(ready.count(), 1);
        for (const char* name : {"GetNonce", "GetSlots", "SetProperty", "BringToFront"})
            QCOMPARE(request(name), "The ScrivaPkcs11 is terminating!");
        QCOMPARE(request("GetVersion", "result"), "2.6.1 (qt)");
        request("Terminate");
        QVERIFY(protocol.isTerminating());
        for (const char* name : {"GetVersion", "CreateInstance", "Bogus"})
            QCOMPARE(request(name), "The ScrivaPkcs11 is terminating!");
    }
};

QTEST_MAIN(TestInstance)
#include "tst_instance.moc"
