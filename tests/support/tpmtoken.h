#pragma once

#include <QTemporaryDir>

// A tpm2-pkcs11 token on a software TPM for one test, made in a temporary directory by
// scripts/tpm-token.sh: swtpm on its own ports of 127.0.0.1, a private D-Bus session bus with
// tpm2-abrmd on it, and the token store. Once made, the token is named in this process's environment,
// so the host and the tools started from here find it. The script stops what it started when a step
// fails; the token stops the processes by their recorded pids when it goes.
class TpmToken
{
public:
    // tpm2-pkcs11 reports this serial number for every token; only the label tells them apart.
    static constexpr const char* serialNumber = "0000000000000000";
    static constexpr const char* modulePath = "/usr/lib/x86_64-linux-gnu/pkcs11/libtpm2_pkcs11.so";

    ~TpmToken() { run({QStringLiteral("stop"), dir.path()}); }

    // False with lastError() (what the tools said) when a step failed.
    bool start(const QString& label, const QString& userPin, const QString& soPin);
    QString lastError() const { return error; }

private:
    bool run(const QStringList& arguments);

    QTemporaryDir dir;
    QString error;
};
