#pragma once

#include "devpki.h"
#include "hostprocess.h"
#include "softhsmtoken.h"

#include <QJsonObject>
#include <QMap>

// At the start of a test that sends requests: a build that trusts real anchors cannot sign them.
#define SKIP_WITHOUT_DEV_PKI() \
    if (!DevPki::isAvailable()) \
        QSKIP("this build trusts real anchors; requests cannot be signed here")

// The built host with a private SoftHSM token store holding one token. Requests come from
// tests/data/requests, aimed at that token (SoftHSM as the module, no vendor extension; CreateObject
// stores a private data object), signed by the development PKI, each with a fresh nonce.
class TokenHost
{
public:
    static constexpr const char* userPin = "1234";
    // The module path the sample requests name; a replacement of this key chooses another module.
    static constexpr const char* sampleModule = "/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so";
    // The replacement that sends a request to the forwarding test module.
    static QMap<QString, QString> onTestModule() { return {{sampleModule, SoftHsmToken::testModulePath()}}; }

    HostProcess& host() { return process; }
    QString serialNumber() const { return serial; }
    QString lastNonce() const { return nonce; }
    QString lastError() const { return failure; }

    // Writes a configuration for the forwarding test module and names it in the host's environment.
    bool configureTestModule(const QByteArray& keyValues);
    // Makes the token, starts the host with the arguments and creates the instance; false with lastError().
    bool start(const QStringList& arguments = {});
    // The same for a token made elsewhere, with the sample requests' label and this serial number.
    bool start(const QString& serialNumber, const QStringList& arguments = {});
    // The object CreateObject requests store (ObjectAttributes content); a private data object unless set.
    void setObjectAttributes(const QString& xml) { objectAttributes = xml; }

    // The signed request tests/data/requests/<name>.xml with a fresh nonce; `replacements` are
    // applied after the usual ones and may override them.
    QString argument(const QString& name, const QMap<QString, QString>& replacements = {});
    // Sends the operation named by the request's file name ("getslots-2022" is GetSlots).
    void send(const QString& name, const QString& argument);
    QJsonObject call(const QString& name, const QMap<QString, QString>& replacements = {})
    {
        return send(name, argument(name, replacements)), process.readAnswer(60000);
    }
    // A method without argument ("Terminate"), answered within a minute.
    QJsonObject callMethod(const QString& method);
    // Terminate answered without error (a stray answer is left pending), and the host ended normally.
    bool terminate() { return error(callMethod("Terminate")).isEmpty() && process.endedNormally(20000); }

    static QString operation(const QString& requestName);
    static QString error(const QJsonObject& answer) { return answer.value("error").toString(); }
    static QString result(const QJsonObject& answer) { return answer.value("result").toString(); }
    // The texts of every element with this local name in the answer document, in document order.
    static QStringList texts(const QString& xml, const QString& element);

private:
    SoftHsmToken store;
    HostProcess process;
    QString serial;
    QString nonce;
    QString failure;
    // A private data object: the token stores it, and only for a logged-in user.
    QString objectAttributes = "<UnsignedLongAttribute><Attribute>0</Attribute><Value>0</Value></UnsignedLongAttribute>"
                               "<BoolAttribute><Attribute>1</Attribute><Value>true</Value></BoolAttribute>"
                               "<BoolAttribute><Attribute>2</Attribute><Value>true</Value></BoolAttribute>";
};
