#include "devpki.h"
#include "hostprocess.h"
#include "softhsmtoken.h"
#include "testrequests.h"

#include <QTest>

// Token operations reach the token only with a request signed by a trusted server and carrying
// the current nonce; everything else is answered with a precise error while the host stays up.
class TestSignedRequests : public QObject
{
    Q_OBJECT

    SoftHsmToken tokens;
    HostProcess host;
    QString nonce;

    static QString error(const QJsonObject& answer) { return answer.value(QStringLiteral("error")).toString(); }

private slots:
    void initTestCase()
    {
        if (!DevPki::isAvailable())
            QSKIP("this build trusts real anchors; requests cannot be signed here");
        QVERIFY2(tokens.initToken(QStringLiteral("Scriva token"), QStringLiteral("12345678"), QStringLiteral("1234")),
                 qPrintable(tokens.lastError()));
        host.environment().insert(QStringLiteral("SOFTHSM2_CONF"), tokens.configPath());
        host.enableLog();
        QVERIFY(host.start());
        QCOMPARE(host.call(QStringLiteral("CreateInstance")).value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
    }

    void init() { nonce = host.call(QStringLiteral("GetNonce")).value(QStringLiteral("result")).toString(); }

    void refusals_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("argument");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<bool>("prefixOnly");
        const QString someNonce = QStringLiteral("00000000-0000-0000-0000-000000000000");

        QTest::newRow("older nonce") << "GetSlots" << TestRequests::signedArgument("getslots-2026", someNonce)
                                     << "CommunicationMismatchNonce" << false;
        QTest::newRow("not base64 CMS") << "GetCertificates" << "this is not a signed request"
                                        << "Unable to parse CMS: " << true;
        QTest::newRow("unknown root") << "GetSlots"
                                      << TestRequests::signedXml(TestRequests::xml("getslots-2022", someNonce), "signer-unknown-root")
                                      << "CommunicationMismatchUnstrustedServer" << false;
        QTest::newRow("signer without the policy")
            << "GetSlots" << TestRequests::signedXml(TestRequests::xml("getslots-2022", someNonce), "signer-no-policy")
            << "CommunicationMismatchUnstrustedServer" << false;
        QTest::newRow("other operation's branch")
            << "GetSlots" << TestRequests::signedArgument("getcertificates-2022", someNonce) << "Unexpected element!" << false;
        QTest::newRow("invalid document")
            << "CreateObject"
            << TestRequests::signedArgument("createobject-2022", someNonce, {{"<Architecture>x64", "<Architecture>X64"}})
            << "Unsuccessful XML validation!" << false;
    }

    void refusals()
    {
        QFETCH(QString, method);
        QFETCH(QString, argument);
        QFETCH(QString, expected);
        QFETCH(bool, prefixOnly);
        const QString answer = error(host.call(method, argument));
        if (prefixOnly)
            QVERIFY2(answer.startsWith(expected), qPrintable(answer));
        else
            QCOMPARE(answer, expected);
        // The host stays up and keeps answering.
        QCOMPARE(host.call(QStringLiteral("GetVersion")).value(QStringLiteral("result")).toString(),
                 QStringLiteral("2.6.1 (qt)"));
    }

    void trustedRequestWithTheCurrentNonceReachesTheToken_data()
    {
        QTest::addColumn<QString>("version");
        QTest::newRow("2022-12-29") << "2022";
        QTest::newRow("2026-02-04") << "2026";
    }

    void trustedRequestWithTheCurrentNonceReachesTheToken()
    {
        QFETCH(QString, version);
        const QMap<QString, QString> noVendorExtensions{{QStringLiteral("{\"reader\":\"any\"}"), QString()}};
        const QJsonObject listing = host.call(QStringLiteral("GetSlots"),
                                            TestRequests::signedArgument("getslots-" + version, nonce, noVendorExtensions));
        QCOMPARE(listing.value(QStringLiteral("error")), QJsonValue(QJsonValue::Null));
        const QString document = listing.value(QStringLiteral("result")).toString();
        QVERIFY(document.contains(QStringLiteral("<Nonce>") + nonce + QStringLiteral("</Nonce>")));
        QVERIFY(document.contains(QStringLiteral("<Label>Scriva token</Label>")));

        // The sample request names a token that is not there: the engine looked for it.
        nonce = host.call(QStringLiteral("GetNonce")).value(QStringLiteral("result")).toString();
        QCOMPARE(error(host.call(QStringLiteral("GenerateCsr"),
                                 TestRequests::signedArgument("generatecsr-" + version, nonce, noVendorExtensions))),
                 QStringLiteral("SpecifiedTokenNotFound"));
    }
};

QTEST_GUILESS_MAIN(TestSignedRequests)
#include "tst_signedrequests.moc"
