#include "tokenhost.h"

#include "testrequests.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>
#include <QXmlStreamReader>

bool TokenHost::configureTestModule(const QByteArray& keyValues)
{
    const QString path = QDir(store.directory()).filePath(QStringLiteral("scriva-test-p11.conf"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(keyValues) != keyValues.size()) {
        failure = QStringLiteral("Unable to write ") + path;
        return false;
    }
    process.environment().insert(QStringLiteral("SCRIVA_TEST_P11_CONFIG"), path);
    return true;
}

bool TokenHost::start()
{
    if (!store.isValid() || !store.initToken(QString::fromLatin1(tokenLabel), QStringLiteral("12345678"),
                                             QString::fromLatin1(userPin))) {
        failure = store.lastError();
        return false;
    }
    serial = store.serialNumber(QString::fromLatin1(tokenLabel));
    process.environment().insert(QStringLiteral("SOFTHSM2_CONF"), store.configPath());
    if (!process.start()) {
        failure = QStringLiteral("the host did not start");
        return false;
    }
    const QJsonObject answer = callMethod(QStringLiteral("CreateInstance"));
    if (answer.isEmpty() || !answer.value(QStringLiteral("error")).isNull()) {
        failure = QStringLiteral("CreateInstance failed: ") + TokenHost::error(answer);
        return false;
    }
    return true;
}

QString TokenHost::argument(const QString& name, const QMap<QString, QString>& replacements)
{
    return createObjectArgument(name, QString(), replacements);
}

QString TokenHost::createObjectArgument(const QString& name, const QString& attributes,
                                        const QMap<QString, QString>& replacements)
{
    nonce = result(callMethod(QStringLiteral("GetNonce")));
    QMap<QString, QString> all{{QStringLiteral("0123456789ABCDEF"), serial},
                               {QStringLiteral("{\"reader\":\"any\"}"), QString()},
                               {QString::fromLatin1(sampleModule), SoftHsmToken::softHsmModulePath()}};
    all.insert(replacements);
    QString xml = QString::fromUtf8(TestRequests::xml(name, nonce, all));
    if (!attributes.isNull()) {
        static const QRegularExpression objectTemplate(QStringLiteral("<ObjectAttributes>.*</ObjectAttributes>"),
                                                       QRegularExpression::DotMatchesEverythingOption);
        xml.replace(objectTemplate, QStringLiteral("<ObjectAttributes>") + attributes + QStringLiteral("</ObjectAttributes>"));
    }
    return TestRequests::signedXml(xml.toUtf8());
}

QString TokenHost::operation(const QString& requestName)
{
    static const QMap<QString, QString> operations{{QStringLiteral("getslots"), QStringLiteral("GetSlots")},
                                                   {QStringLiteral("getcertificates"), QStringLiteral("GetCertificates")},
                                                   {QStringLiteral("generatecsr"), QStringLiteral("GenerateCsr")},
                                                   {QStringLiteral("createobject"), QStringLiteral("CreateObject")}};
    return operations.value(requestName.section(QLatin1Char('-'), 0, 0));
}

void TokenHost::send(const QString& name, const QString& argument)
{
    process.send({{QStringLiteral("method"), HostProcess::method(operation(name))},
                  {QStringLiteral("args"), QJsonArray{argument}}});
}

QJsonObject TokenHost::call(const QString& name, const QMap<QString, QString>& replacements)
{
    send(name, argument(name, replacements));
    return process.readAnswer(60000);
}

QJsonObject TokenHost::callMethod(const QString& method)
{
    process.send({{QStringLiteral("method"), HostProcess::method(method)}});
    return process.readAnswer(60000);
}

QStringList TokenHost::texts(const QString& xml, const QString& element)
{
    QStringList found;
    QXmlStreamReader reader(xml);
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement() && reader.name() == element)
            found.append(reader.readElementText(QXmlStreamReader::IncludeChildElements));
    }
    return found;
}
