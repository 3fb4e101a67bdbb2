#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>

// A private SoftHSM token store for one test: a temporary directory with its own softhsm2.conf,
// named in SOFTHSM2_CONF for this process while the object lives (create it before SoftHSM is
// loaded or initialised) and offered to child processes through environment(). Tokens are made
// and filled with softhsm2-util and pkcs11-tool. SoftHSM chooses serial numbers and slot ids
// itself; serialNumber() and slotId() read them back by label.
class SoftHsmToken
{
public:
    SoftHsmToken();
    ~SoftHsmToken();
    SoftHsmToken(const SoftHsmToken&) = delete;
    SoftHsmToken& operator=(const SoftHsmToken&) = delete;

    bool isValid() const { return valid; }
    // What the last failing step reported (the tool's output).
    QString lastError() const { return error; }
    QString directory() const { return dir.path(); }
    QString configPath() const;
    // The system environment with SOFTHSM2_CONF pointing at this store.
    QProcessEnvironment environment() const;

    // Initialises the first free token; false (with lastError) on failure.
    bool initToken(const QString& label, const QString& soPin, const QString& userPin);
    // The token's serial number (16 hexadecimal digits) or an empty string when no token has the label.
    QString serialNumber(const QString& label) const;
    // The slot id of the token, or -1 when no token has the label.
    long slotId(const QString& label) const;

    // Stores a DER certificate as a token object (CKO_CERTIFICATE, X.509) with the hex id and label.
    bool importCertificate(const QString& label, const QString& userPin, const QByteArray& der, const QString& idHex,
                           const QString& objectLabel);
    // Imports a key pair from an unencrypted PKCS#8 PEM file.
    bool importKeyPair(const QString& label, const QString& userPin, const QString& pkcs8Path, const QString& idHex,
                       const QString& objectLabel);
    // Generates an RSA key pair of the given size on the token.
    bool generateRsaKeyPair(const QString& label, const QString& userPin, const QString& idHex,
                            const QString& objectLabel, int bits = 2048);

    // SoftHSM's module (SCRIVA_SOFTHSM_MODULE overrides the Debian location).
    static QString softHsmModulePath();
    // The forwarding test module built from tests/p11module (SCRIVA_TEST_P11_MODULE overrides).
    static QString testModulePath();

private:
    bool run(const QString& program, const QStringList& arguments);
    QString showSlots() const;

    QTemporaryDir dir;
    QByteArray previousConfig;
    bool hadPreviousConfig = false;
    bool valid = false;
    QString error;
};
