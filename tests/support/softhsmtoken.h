#pragma once

#include <QProcessEnvironment>
#include <QTemporaryDir>

// A private SoftHSM token store for one test, named in SOFTHSM2_CONF for this process from then on
// (even after the store is gone, so SoftHSM never falls back to the system's tokens): create it
// before SoftHSM is initialised. Tokens and keys are made with softhsm2-util and pkcs11-tool.
class SoftHsmToken
{
public:
    SoftHsmToken();

    // What the last failing step reported (the tool's output).
    QString lastError() const { return error; }
    QString configPath() const { return dir.filePath(QStringLiteral("softhsm2.conf")); }
    // Where the store keeps its files: one per token and one per object on it.
    QString directory() const { return dir.path(); }
    // The system environment with the variable pointing at this store, for child processes.
    QProcessEnvironment environment() const;

    // Initialises the first free token; false (with lastError) on failure.
    bool initToken(const QString& label, const QString& soPin, const QString& userPin);
    // The token's serial number (16 hexadecimal digits) or an empty string when no token has the label.
    QString serialNumber(const QString& label) const { return find(label, 2); }
    // The slot id of the token, or -1 when no token has the label.
    long slotId(const QString& label) const { return find(label, 1).isEmpty() ? -1 : find(label, 1).toLong(); }
    bool generateRsaKeyPair(const QString& label, const QString& userPin, const QString& idHex, const QString& objectLabel);

    // SoftHSM's module and the forwarding test module built from tests/p11module, unless
    // SCRIVA_SOFTHSM_MODULE or SCRIVA_TEST_P11_MODULE name others.
    static QString softHsmModulePath();
    static QString testModulePath();

private:
    // Capture `group` (1 slot id, 2 serial number) of the slot holding the labelled token.
    QString find(const QString& label, int group) const;

    QTemporaryDir dir;
    QString error;
};
