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
#include <QTemporaryFile>
#include <QTest>

#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace {

X509Certificate2Ultra makeCertificate(const QString& commonName)
{
    Owned<EVP_PKEY, EVP_PKEY_free> key(EVP_RSA_gen(2048));
    Owned<X509, X509_free> cert(X509_new());
    X509_set_version(cert.get(), 2);
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

QString errorOf(ScrivaPkcs11& instance, const QString& properties)
{
    QString text = properties;
    try {
        instance.setProperty(text);
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

    void windowIsFramelessFindableAndTitledWithTheSigner()
    {
        MainWindowPkcs11 window;
        QVERIFY(window.windowFlags().testFlag(Qt::FramelessWindowHint));
        QCOMPARE(window.accessibleName(), QStringLiteral("MainWindowPkcs11"));
        QVERIFY(window.findChild<QWidget*>(QStringLiteral("gvWaitAnim")));
        QCOMPARE(window.titleText(), QStringLiteral("AppName"));

        window.updateWindowTitle(makeCertificate(QStringLiteral("signing.example.org")));
        QVERIFY(window.titleText().startsWith(QStringLiteral("AppName")));
        QVERIFY(window.titleText().endsWith(QStringLiteral("signing.example.org")));
        window.updateWindowTitle(X509Certificate2Ultra());
        QCOMPARE(window.titleText(), QStringLiteral("AppName"));

        // Dragging the title bar moves the frameless window.
        window.show();
        const QPoint before = window.pos();
        emit window.titleBar()->moveVectorEvent(QVector2D(15, -4));
        QCOMPARE(window.pos(), before + QPoint(15, -4));
    }

    void fileDialogReportsAChoiceOrOneRejection()
    {
        MainWindowPkcs11 window;
        QSignalSpy chosen(&window, &MainWindowPkcs11::userDefinedPathAcquired);
        QSignalSpy rejected(&window, &MainWindowPkcs11::userRejectedDialog);

        window.showFileDialog();
        QTRY_VERIFY(window.fileDialog()->isVisible());
        QCOMPARE(window.fileDialog()->windowTitle(), QStringLiteral("Pkcs11FileDialogText"));
        window.fileDialog()->reject();
        QCOMPARE(rejected.count(), 1);
        QCOMPARE(chosen.count(), 0);

        QTemporaryFile module;
        QVERIFY(module.open());
        window.showFileDialog();
        window.fileDialog()->selectFile(module.fileName());
        QMetaObject::invokeMethod(window.fileDialog(), "accept");
        QCOMPARE(chosen.count(), 1);
        QCOMPARE(chosen.first().first().toString(), module.fileName());
        QCOMPARE(rejected.count(), 1);
    }

    void displayTimeIsCheckedAndSetOnce_data()
    {
        QTest::addColumn<QString>("properties");
        QTest::addColumn<QString>("error");
        const QString key = QStringLiteral("MinimalWindowDisplayTime");
        QTest::newRow("zero") << "{\"MinimalWindowDisplayTime\": 0}" << "";
        QTest::newRow("upper bound") << "{\"MinimalWindowDisplayTime\": 600000}" << "";
        QTest::newRow("over") << "{\"MinimalWindowDisplayTime\": 600001}" << "JSON node " + key + " has invalid value: 600001";
        QTest::newRow("negative") << "{\"MinimalWindowDisplayTime\": -1}" << "JSON node " + key + " has invalid value: -1";
        QTest::newRow("fraction") << "{\"MinimalWindowDisplayTime\": 1.5}" << "JSON node " + key + " has invalid value: 1.5";
        QTest::newRow("text") << "{\"MinimalWindowDisplayTime\": \"100\"}" << "JSON node " + key + " has invalid value";
        QTest::newRow("null") << "{\"MinimalWindowDisplayTime\": null}" << "JSON node " + key + " is missing";
        QTest::newRow("not JSON") << "{MinimalWindowDisplayTime" << "Unable to parse properties as JSON structure";
        QTest::newRow("array") << "[1]" << "Unable to convert properties to JSON object";
        QTest::newRow("unknown keys ignored") << "{\"Colour\": \"blue\"}" << "";
        QTest::newRow("language") << "{\"Language\": 5}" << "JSON node Language has invalid value";
        QTest::newRow("unknown language") << "{\"Language\": \"xx\"}" << "UnsupportedLanguage";
        QTest::newRow("path as language") << "{\"Language\": \"../../bin/x\"}" << "UnsupportedLanguage";
    }

    void displayTimeIsCheckedAndSetOnce()
    {
        QFETCH(QString, properties);
        QFETCH(QString, error);
        ScrivaPkcs11 instance;
        QCOMPARE(errorOf(instance, properties), error);
    }

    void propertiesKeepTheirFirstValueAndRefuseWhileTheWindowShows()
    {
        ScrivaPkcs11 instance;
        QCOMPARE(errorOf(instance, QStringLiteral("{\"MinimalWindowDisplayTime\": 250}")), QString());
        QCOMPARE(errorOf(instance, QStringLiteral("{\"MinimalWindowDisplayTime\": 250}")), QString());
        QCOMPARE(errorOf(instance, QStringLiteral("{\"MinimalWindowDisplayTime\": 300}")),
                 QStringLiteral("JSON node MinimalWindowDisplayTime has invalid value: new is different than previous "
                                "\n>> NEW >>\n300\n>> PREVIOUS>>\n250\n"));
        QCOMPARE(instance.minimalWindowDisplayTime().value_or(-1), 250);

        // A refused request changes nothing, also not its valid parts.
        QCOMPARE(errorOf(instance, QStringLiteral("{\"Language\": \"cs\", \"MinimalWindowDisplayTime\": 7}")),
                 QStringLiteral("JSON node MinimalWindowDisplayTime has invalid value: new is different than previous "
                                "\n>> NEW >>\n7\n>> PREVIOUS>>\n250\n"));
        QCOMPARE(instance.window()->descriptionText(), QStringLiteral("Please wait..."));

        instance.window()->show();
        QCOMPARE(errorOf(instance, QStringLiteral("{\"MinimalWindowDisplayTime\": 250}")),
                 QStringLiteral("Properties cannot be modified while application window is visible"));
    }

    void signingCertificatePropertyIsReadFromItsJson()
    {
        const X509Certificate2Ultra certificate = makeCertificate(QStringLiteral("server"));
        const QString base64 = QString::fromLatin1(certificate.toDer().toBase64());
        ScrivaPkcs11 instance;

        const QString good = QStringLiteral("{\"ResponseSigningCertificate\": {\"Certificate\": \"%1\", "
                                            "\"OcspResponse\": \"AQID\", \"Crl\": \"BAU=\"}}")
                                 .arg(base64);
        QCOMPARE(errorOf(instance, good), QString());
        QVERIFY(instance.responseSigningCertificate().has_value());
        QCOMPARE(instance.responseSigningCertificate()->getRevocationType(), ResponseSigningCertificate::RevocationType::OCSP);
        QCOMPARE(instance.responseSigningCertificate()->getRevocationData(), QByteArray("\x01\x02\x03"));

        ScrivaPkcs11 other;
        QCOMPARE(errorOf(other, QStringLiteral("{\"ResponseSigningCertificate\": {\"Certificate\": 5, \"Crl\": \"AA==\"}}")),
                 QStringLiteral("JSON node ResponseSigningCertificate has invalid value: Unable to read << "
                                "JSON node Certificate is missing or has invalid value"));
        QCOMPARE(errorOf(other, QStringLiteral("{\"ResponseSigningCertificate\": {\"Certificate\": \"%1\"}}").arg(base64)),
                 QStringLiteral("JSON node ResponseSigningCertificate has invalid value: Unable to read << "
                                "JSON nodes CRL and OCSP Response are missing or have invalid value"));
        QCOMPARE(errorOf(other, QStringLiteral("{\"ResponseSigningCertificate\": {\"Certificate\": \"bm90IGEgY2VydA==\", "
                                               "\"Crl\": \"AA==\"}}")),
                 QStringLiteral("JSON node ResponseSigningCertificate has invalid value: Unable to read << "
                                "JSON node Certificate has invalid value"));
        QCOMPARE(errorOf(other, QStringLiteral("{\"ResponseSigningCertificate\": [1]}")),
                 QStringLiteral("JSON node ResponseSigningCertificate has invalid value"));
        QVERIFY(!other.responseSigningCertificate().has_value());
    }

    void languageSwitchRetranslatesTheWindow()
    {
        ScrivaPkcs11 instance;
        instance.window()->setDescription(QStringLiteral("GetSlotsDescription"));
        QCOMPARE(errorOf(instance, QStringLiteral("{\"Language\": \"cs\"}")), QString());
        QTRY_COMPARE(instance.window()->descriptionText(), QStringLiteral("Hledám vaše tokeny..."));
        QCOMPARE(errorOf(instance, QStringLiteral("{\"Language\": \"en\"}")), QString());
        QTRY_COMPARE(instance.window()->descriptionText(), QStringLiteral("Looking for your tokens..."));
        QCOMPARE(instance.window()->titleText(), QStringLiteral("Corvant Scriva"));
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

    void terminationIsReportedOnceAndRefusesEverythingAfter()
    {
        NativeMessaging1 protocol(QStringLiteral("1.0.0"), QStringLiteral("qt"));
        QSignalSpy sent(&protocol, &NativeMessagingAdapter::sendMessage);
        auto request = [&](const QString& name, const QString& argument = QString()) {
            QJsonObject message{{QStringLiteral("method"), QStringLiteral("ScrivaPkcs11.1.0.0.qt.QES.") + name}};
            if (!argument.isEmpty())
                message.insert(QStringLiteral("args"), QJsonArray{argument});
            protocol.processMessage(message);
            return sent.takeLast().first().value<QJsonDocument>().object();
        };

        QCOMPARE(request(QStringLiteral("GetNonce")).value(QStringLiteral("error")).toString(),
                 QStringLiteral("ScrivaInstanceDoesNotExist"));
        request(QStringLiteral("CreateInstance"));
        QSignalSpy ready(protocol.instance(), &ScrivaPkcs11::readyToTerminate);

        // DisposeInstance leaves the protocol open; the instance itself refuses.
        request(QStringLiteral("DisposeInstance"));
        QCOMPARE(ready.count(), 1);
        QCOMPARE(request(QStringLiteral("GetNonce")).value(QStringLiteral("error")).toString(),
                 QStringLiteral("The ScrivaPkcs11 is terminating!"));
        QCOMPARE(request(QStringLiteral("GetSlots"), QStringLiteral("x")).value(QStringLiteral("error")).toString(),
                 QStringLiteral("The ScrivaPkcs11 is terminating!"));
        QCOMPARE(request(QStringLiteral("GetVersion")).value(QStringLiteral("result")).toString(), QStringLiteral("2.6.1 (qt)"));

        // Terminate closes the protocol for every method.
        request(QStringLiteral("Terminate"));
        QVERIFY(protocol.isTerminating());
        for (const QString name : {"GetVersion", "CreateInstance", "Bogus"})
            QCOMPARE(request(name).value(QStringLiteral("error")).toString(), QStringLiteral("The ScrivaPkcs11 is terminating!"));
    }
};

QTEST_MAIN(TestInstance)
#include "tst_instance.moc"
