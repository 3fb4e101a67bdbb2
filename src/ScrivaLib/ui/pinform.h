#pragma once

#include "pkcs11slotinfo.h"
#include "pkcs11tokeninfo.h"
#include "secretpin.h"

#include <QDialog>
#include <QString>

class TitleBar;

namespace Ui {
class PinForm;
}

// The modal dialog in which the user types a token PIN. At most one is open in the process.
class PinForm : public QDialog
{
    Q_OBJECT

public:
    PinForm(QWidget* parent, const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo, const QString& text,
            bool showSavePin);
    ~PinForm() override;

    // Show the form modally on the GUI thread; an empty result means the user cancelled.
    static SecretPin needPin(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo, const QString& text);
    static SecretPin needContextPin(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo,
                                  const QString& text, bool* savePin);
    // The form that is open now, or null.
    static PinForm* openForm();

    void setInfo(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo, const QString& text);

signals:
    void afterShow();

public slots:
    void on_btnOk_clicked();
    void on_btnCancel_clicked();
    void fixedSize();

protected:
    void showEvent(QShowEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    static SecretPin run(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo, const QString& text,
                       bool* savePin);
    void wipeField();
    // Puts the translated texts in place; again when the language changes while the form is open.
    void applyTexts();
    void arrangeButtons();
    // The token has counted a wrong PIN, or allows only one more try.
    bool warns() const { return tokenFlags & (CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_COUNT_LOW); }

    static constexpr int maxPinLength = 256;

    Ui::PinForm* ui;
    TitleBar* titleBar;
    SecretPin pin;
    QString informationText;
    CK_FLAGS tokenFlags = 0;
};
