#include "tokenhost.h"

#include "testrequests.h"

#include <QDir>
#include <QJsonArray>
#include <QRegularExpression>
#include <QXmlStreamReader>

bool TokenHost::configureTestModule(const QByteArray& keyValues)
{
    QFile file(QDir(store.directory()).filePath("scriva-test-p11.conf"));
    process.environment().insert("SCRIVA_TEST_P11_CONFIG", file.fileName());
    return file.open(QIODevice::WriteOnly) && file.write(keyValues) == keyValues.size();
}

bool TokenHost::start(const QStringList& arguments)
{
    if (!store.isValid() || !store.initToken("Scriva token", "12345678", userPin)) {
        failure = store.lastError();
        return false;
    }
    process.environment().insert("SOFTHSM2_CONF", store.configPath());
    return start(store.serialNumber("Scriva token"), arguments);
}

bool TokenHost::start(const QString& serialNumber, const QStringList& arguments)
{
    serial = serialNumber;
    const QJsonObject answer = process.start(arguments) ? callMethod("CreateInstance") : QJsonObject();
    failure = "CreateInstance failed: " + error(answer);
    return !answer.isEmpty() && answer.value("error").isNull();
}

QString TokenHost::argument(const QString& name, const QMap<QString, QString>& replacements)
{
    nonce = result(callMethod("GetNonce"));
    QMap<QString, QString> all{{"0123456789ABCDEF", serial}, {"{\"reader\":\"any\"}", ""},
                               {sampleModule, SoftHsmToken::softHsmModulePath()}};
    all.insert(replacements);
    return TestRequests::signedXml(QString::fromUtf8(TestRequests::xml(name, nonce, all))
        .replace(QRegularExpression("<ObjectAttributes>.*</ObjectAttributes>", QRegularExpression::DotMatchesEverythingOption),
                 "<ObjectAttributes>" + objectAttributes + "</ObjectAttributes>")
        .toUtf8());
}

QString TokenHost::operation(const QString& requestName)
{
    static const QMap<QString, QString> operations{{"getslots", "GetSlots"}, {"getcertificates", "GetCertificates"},
                                                   {"generatecsr", "GenerateCsr"}, {"createobject", "CreateObject"}};
    return operations.value(requestName.section('-', 0, 0));
}

void TokenHost::send(const QString& name, const QString& argument)
{
    process.send({{"method", HostProcess::method(operation(name))}, {"args", QJsonArray{argument}}});
}

QJsonObject TokenHost::callMethod(const QString& method)
{
    process.send({{"method", HostProcess::method(method)}});
    return process.readAnswer(60000);
}

QStringList TokenHost::texts(const QString& xml, const QString& element)
{
    QStringList found;
    for (QXmlStreamReader reader(xml); !reader.atEnd();)
        if (reader.readNext() == QXmlStreamReader::StartElement && reader.name() == element)
            found.append(reader.readElementText(QXmlStreamReader::IncludeChildElements));
    return found;
}
