#pragma once

#include <QFileDialog>
#include <QMainWindow>
#include <QRect>
#include <QVector2D>

class TitleBar;
class CircleAnimation;
class X509Certificate2Ultra;

namespace Ui {
class MainWindowPkcs11;
}

// The host's only main window: frameless with its own title bar, a wait animation with the
// description of the running operation, and the dialog for choosing a PKCS#11 module file.
class MainWindowPkcs11 : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindowPkcs11(QWidget* parent = nullptr);
    ~MainWindowPkcs11() override;

    void updateWindowTitle(const X509Certificate2Ultra& certificate);
    // Shows the translation of an operation's description key ("GetSlotsDescription", ...).
    void setDescription(const QString& descriptionKey);
    void showFileDialog();
    void setPlainStyleSheet();
    void setShadedStyleSheet();

    QString titleText() const;
    QString descriptionText() const;
    QFileDialog* fileDialog() const { return pkcs11FileDialog; }
    TitleBar* titleBar() const { return titleBarWidget; }
    CircleAnimation* waitAnimation() const { return animation; }

public slots:
    void dragTitleBar(QVector2D vector);

signals:
    void userDefinedPathAcquired(QString path);
    void userRejectedDialog();

protected:
    void changeEvent(QEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void setUpTitleBar();
    // The title, and what a screen reader says of the window and its wait animation.
    void applyTexts();
    void applyGeometry();

    Ui::MainWindowPkcs11* ui;
    QFileDialog* pkcs11FileDialog;
    CircleAnimation* animation = nullptr;
    TitleBar* titleBarWidget = nullptr;
    QRect normalGeometry;
    QString commonName;
    QString descriptionKey;
};
