#include "pinform.h"

#include "appexception.h"
#include "ui/accessibleroles.h"
#include "ui/titlebar.h"
#include "ui_pinform.h"

#include <QAccessible>
#include <QApplication>
#include <QDialogButtonBox>
#include <QEvent>
#include <QPointer>
#include <QStyle>
#include <QTimer>

#include <atomic>

namespace {

// Touched only on the GUI thread; atomic so another thread may safely ask whether a form is open.
std::atomic<PinForm*> currentForm{nullptr};

QWidget* hostWindow()
{
    for (QWidget* widget : QApplication::allWidgets())
        if (widget->accessibleName() == QLatin1String("MainWindowPkcs11"))
            return widget;
    return QApplication::activeWindow();
}

} // namespace

PinForm::PinForm(QWidget* parent, const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo,
                 const QString& text, bool showSavePin)
    : QDialog(parent, Qt::Dialog | Qt::FramelessWindowHint), ui(new Ui::PinForm)
{
    AccessibleRoles::install();
    ui->setupUi(this);
    titleBar = new TitleBar(ui->titleBarWidgetPos);
    ui->titleBarLayout->addWidget(titleBar);
    // The title bar's close button rejects the form like Cancel.
    connect(titleBar, &TitleBar::closeBtnClicked, this, &QDialog::reject);
    connect(titleBar, &TitleBar::moveVectorEvent, this, [this](QVector2D vector) { move(pos() + vector.toPoint()); });
    // The warning box is announced as an alert, its icon and text together.
    AccessibleRoles::set(ui->warningWidget, QAccessible::AlertMessage);
    connect(ui->btnOk, &QPushButton::clicked, this, &QDialog::accept);
    connect(ui->btnCancel, &QPushButton::clicked, this, &QDialog::reject);
    connect(this, &PinForm::afterShow, this, &PinForm::fixedSize);
    ui->frame->setStyleSheet(QStringLiteral("#frame { border: 1px solid black; }"));
    // What the user checks before typing stands out: the request, the token and its reader.
    for (QLabel* label : {ui->lblPinTitle, ui->tokenValue, ui->slotValue}) {
        QFont font = label->font();
        font.setBold(true);
        label->setFont(font);
    }
    const int iconSize = style()->pixelMetric(QStyle::PM_SmallIconSize, nullptr, this);
    ui->lblPinWarningIcon->setPixmap(style()->standardIcon(QStyle::SP_MessageBoxWarning, nullptr, this).pixmap(iconSize));
    ui->chbSavePIN->setVisible(showSavePin);
    arrangeButtons();
    setInfo(slotInfo, tokenInfo, text);
    ui->lePin->setFocus();
    // The field starts with room for any PIN, so typing never moves the characters to a new
    // buffer and leaves the old one behind; the one buffer is overwritten when the form ends.
    QString room;
    room.reserve(maxPinLength);
    ui->lePin->setMaxLength(maxPinLength);
    ui->lePin->setText(room);
}

PinForm::~PinForm()
{
    wipeField();
    delete ui;
}

PinForm* PinForm::openForm()
{
    return currentForm.load();
}

void PinForm::setInfo(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo, const QString& text)
{
    qInfo().noquote() << "Setting up slot and token info";
    informationText = text;
    tokenFlags = tokenInfo.getInfo().flags;
    ui->tokenValue->setText(tokenInfo.getLabel());
    ui->slotValue->setText(slotInfo.getDescription());
    ui->lePin->setEchoMode(QLineEdit::Password);
    applyTexts();
    const bool finalTry = tokenFlags & CKF_USER_PIN_FINAL_TRY;
    ui->warningWidget->setVisible(warns());
    // Amber for earlier wrong PINs, red for the last try.
    const QString box = QStringLiteral("#warningWidget { background: %1; border: 1px solid %2; border-radius: 3px; }");
    ui->warningWidget->setStyleSheet(finalTry ? box.arg(QLatin1String("#fde7e9"), QLatin1String("#c42b1c"))
                                              : box.arg(QLatin1String("#fff4ce"), QLatin1String("#c19c00")));
    if (!ui->warningWidget->isHidden())
        qInfo().noquote() << (finalTry ? "The token warns: last PIN try" : "The token warns: a wrong PIN was entered");
}

void PinForm::on_btnOk_clicked()
{
    qInfo().noquote() << "Button ok clicked";
    pin = SecretPin::fromText(ui->lePin->text());
    wipeField();
}

void PinForm::on_btnCancel_clicked()
{
    qInfo().noquote() << "Button cancel clicked";
}

void PinForm::applyTexts()
{
    // A screen reader names the form by the title the user sees.
    setWindowTitle(tr("AppName"));
    titleBar->setTitle(windowTitle());
    const QString information = tr("PinFormInformation");
    ui->lblPinTitle->setText(information.contains(QLatin1String("%1")) ? information.arg(informationText) : information);
    ui->tokenTitle->setText(tr("PinFormTokenTitle"));
    ui->slotTitle->setText(tr("PinFormSlotTitle"));
    ui->lblPinFieldTitle->setText(tr("PinFormPinTitle"));
    ui->chbSavePIN->setText(tr("SavePINText"));
    // The last try outweighs the earlier wrong ones.
    ui->lblPinWarning->setText((tokenFlags & CKF_USER_PIN_FINAL_TRY) ? tr("PinFormFinalTry") : tr("PinFormCountLow"));
    ui->lblPinWarningIcon->setAccessibleName(tr("PinFormWarningIcon"));
    // Heard with the field, where the PIN is typed, as it is seen beside it.
    ui->lePin->setAccessibleDescription(warns() ? ui->lblPinWarning->text() : QString());
}

void PinForm::arrangeButtons()
{
    // The desktop's own order: where its dialogs end with OK, so does this one.
    const int order = style()->styleHint(QStyle::SH_DialogButtonLayout, nullptr, this);
    if (order == QDialogButtonBox::MacLayout || order == QDialogButtonBox::GnomeLayout) {
        ui->bottomLayout->removeWidget(ui->btnOk);
        ui->bottomLayout->addWidget(ui->btnOk);
        setTabOrder(ui->btnCancel, ui->btnOk);
    }
}

void PinForm::fixedSize()
{
    // The user cannot resize the form, yet it follows its texts (a language switched while it is
    // open), so nothing is ever cut off.
    layout()->setSizeConstraint(QLayout::SetFixedSize);
}

void PinForm::showEvent(QShowEvent* event)
{
    QDialog::showEvent(event);
    if (warns()) {
        // Announced as the form opens (after a wrong PIN, too), before the user types into it.
        QAccessibleEvent alert(ui->warningWidget, QAccessible::Alert);
        QAccessible::updateAccessibility(&alert);
    }
    QTimer::singleShot(0, this, &PinForm::afterShow);
}

void PinForm::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        // The generated texts come back with the design-time placeholders; keep the real values.
        const QString token = ui->tokenValue->text();
        const QString slot = ui->slotValue->text();
        ui->retranslateUi(this);
        ui->tokenValue->setText(token);
        ui->slotValue->setText(slot);
        applyTexts();
    }
    QDialog::changeEvent(event);
}

void PinForm::wipeField()
{
    // Overwrites the field's own buffer through a string that shares it, then empties the field.
    QString text = ui->lePin->text();
    SecretPin::wipe(text);
    ui->lePin->clear();
}

SecretPin PinForm::run(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo, const QString& text,
                       bool* savePin)
{
    if (currentForm.load())
        throw APP_EXCEPTION(QStringLiteral("PinForm is already opened!"));
    // On the heap and watched: the host window it belongs to may be destroyed while the form is
    // open (a new instance replaces the old one), and takes the form with it.
    QPointer<PinForm> form = new PinForm(hostWindow(), slotInfo, tokenInfo, text, savePin != nullptr);
    if (savePin)
        form->ui->chbSavePIN->setChecked(*savePin);
    currentForm.store(form.data());
    form->exec();
    currentForm.store(nullptr);
    if (!form)
        return SecretPin();
    if (savePin)
        *savePin = form->ui->chbSavePIN->isChecked();
    // Cancelled, closed or refused: whatever was typed is overwritten before the form goes.
    form->wipeField();
    SecretPin pin = std::move(form->pin);
    delete form.data();
    return pin;
}

SecretPin PinForm::needPin(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo, const QString& text)
{
    return run(slotInfo, tokenInfo, text, nullptr);
}

SecretPin PinForm::needContextPin(const Pkcs11SlotInfo& slotInfo, const Pkcs11TokenInfo& tokenInfo,
                                const QString& text, bool* savePin)
{
    return run(slotInfo, tokenInfo, text, savePin);
}
