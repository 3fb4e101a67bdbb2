#pragma once

#include "softhsmtoken.h"
#include "testrequests.h"

#include <QJsonObject>
#include <QProcess>

// The built host run as the browser runs it (framed JSON on stdin and stdout), with its own temporary
// HOME (so the opt-in log can be switched on) and SoftHSM token store. Requests are those of
// tests/data/requests aimed at the store's token, signed by the development PKI, with a fresh nonce.
class HostProcess
{
public:
    static constexpr const char* userPin = "Pq7xW2zK"; // distinct enough to be looked for in memory
    // The module path the sample requests name; replacing it sends a request elsewhere.
    static constexpr const char* sampleModule = "/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so";
    static QMap<QString, QString> onTestModule() { return {{sampleModule, SoftHsmToken::testModulePath()}}; }

    // tpm2-pkcs11 reports this serial number for every token; only the label tells them apart.
    static constexpr const char* tpmSerialNumber = "0000000000000000";
    static constexpr const char* tpmModulePath = "/usr/lib/x86_64-linux-gnu/pkcs11/libtpm2_pkcs11.so";

    HostProcess();
    ~HostProcess();

    static QString executable();
    // The operation a request file's name names ("getslots-2022" is GetSlots); other names unchanged.
    static QString operation(const QString& name);
    static QString method(const QString& name) { return "ScrivaPkcs11.1.0.0.qt.QES." + operation(name); }
    static QByteArray frame(const QByteArray& payload);
    static QString error(const QJsonObject& answer) { return answer.value("error").toString(); }
    static QString result(const QJsonObject& answer) { return answer.value("result").toString(); }
    // The texts of every element with this local name in the answer document, in document order.
    static QStringList texts(const QString& xml, const QString& element);

    // Creates the log file, so the host writes its log (call before start).
    void enableLog();
    QString logPath() const { return homeDir.path() + "/.local/share/Corvant/Scriva/Logs/ScrivaPkcs11Log.txt"; }
    QStringList logLines() const;
    bool logContains(const QString& text) const { return logLines().join(QLatin1Char('\n')).contains(text); }
    QProcessEnvironment& environment() { return env; }
    // Writes a configuration for the forwarding test module and names it in the host's environment.
    bool configureTestModule(const QByteArray& keyValues);
    // Runs the host under another program, such as a profiler (call before start).
    void setLauncher(const QString& program, const QStringList& arguments = {}) { launcher = QStringList{program} + arguments; }

    bool start(const QStringList& arguments = {});
    // Makes the token (unless given the serial number of one made elsewhere), starts the host and
    // creates the instance; false with lastError().
    bool startWithToken(const QStringList& arguments = {}, const QString& serialNumber = {});
    // The same on a tpm2-pkcs11 token behind the test module, made by scripts/tpm-token.sh in the
    // host's HOME (software TPM, private D-Bus bus, token store); its processes end with the host.
    bool startWithTpmToken();
    QString serialNumber() const { return serial; }
    QString lastError() const { return failure; }
    // The object CreateObject requests store (ObjectAttributes content); a private data object unless set.
    void setObjectAttributes(const QString& xml) { objectAttributes = xml; }
    // The signed request tests/data/requests/<name>.xml with a fresh nonce; `replacements` may
    // override the usual ones.
    QString argument(const QString& name, const QMap<QString, QString>& replacements = {})
    {
        return signedRequest(name, result(call("GetNonce")), replacements);
    }
    // The same with a given nonce and signer, and no request sent.
    QString signedRequest(const QString& name, const QString& nonce, const QMap<QString, QString>& replacements = {},
                          const QString& signer = TestRequests::defaultSigner) const;

    // A method by its short name or a request file's name, with or without an argument.
    void send(const QString& name, const QString& argument = QString());
    void sendRaw(const QByteArray& bytes);
    void closeInput() { process.closeWriteChannel(); }
    // The next answer, or an empty object when none arrives within the timeout.
    QJsonObject readAnswer(int timeoutMs = 10000);
    QJsonObject call(const QString& name, const QString& argument) { return send(name, argument), readAnswer(60000); }
    // A request file's name sends that signed request; a method's name sends the method alone.
    QJsonObject call(const QString& name, const QMap<QString, QString>& replacements = {})
    {
        return call(name, operation(name) == name ? QString() : argument(name, replacements));
    }
    // Terminate answered without error (a stray answer is left pending), and the host ended normally.
    bool terminate() { return error(call("Terminate")).isEmpty() && endedNormally(20000); }
    bool waitForExit(int timeoutMs = 10000);
    // Ended within the timeout with exit code 0, nothing written that was not taken as an answer.
    bool endedNormally(int timeoutMs = 10000);
    int exitCode() const { return process.exitCode(); }
    // Everything the host wrote to stdout that has not been taken as an answer yet.
    QByteArray pendingOutput();
    QProcess& qprocess() { return process; }

private:
    QTemporaryDir homeDir;
    QString tpmDir;
    SoftHsmToken store;
    QProcessEnvironment env;
    QProcess process;
    QStringList launcher;
    QByteArray buffer;
    QString serial;
    QString failure;
    // A private data object: the token stores it, and only for a logged-in user.
    QString objectAttributes = "<UnsignedLongAttribute><Attribute>0</Attribute><Value>0</Value></UnsignedLongAttribute>"
                               "<BoolAttribute><Attribute>1</Attribute><Value>true</Value></BoolAttribute>"
                               "<BoolAttribute><Attribute>2</Attribute><Value>true</Value></BoolAttribute>";
};
