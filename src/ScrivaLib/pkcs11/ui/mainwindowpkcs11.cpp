#include "mainwindowpkcs11.h"

#include "ui/accessibleroles.h"
#include "ui/circleanimation.h"
#include "ui/titlebar.h"
#include "ui_mainwindowpkcs11.h"
#include "x509certificate2ultra.h"

#include <QEvent>
#include <QFile>
#include <QGraphicsScene>

MainWindowPkcs11::MainWindowPkcs11(QWidget* parent)
    : QMainWindow(parent, Qt::Window | Qt::FramelessWindowHint),
      ui(new Ui::MainWindowPkcs11),
      pkcs11FileDialog(new QFileDialog(this))
{
    qInfo().noquote() << "Constructing mainWindow";
    AccessibleRoles::install();
    ui->setupUi(this);
    setWindowIcon(QIcon(QStringLiteral(":/Themes/LightTheme/ico")));

    auto* scene = new QGraphicsScene(this);
    animation = new CircleAnimation(64);
    scene->addItem(animation);
    ui->gvWaitAnim->setScene(scene);
    AccessibleRoles::set(ui->gvWaitAnim, QAccessible::Animation);

    pkcs11FileDialog->setFileMode(QFileDialog::AnyFile);
    pkcs11FileDialog->setViewMode(QFileDialog::Detail);
    pkcs11FileDialog->setOption(QFileDialog::DontUseNativeDialog, true);

    setUpTitleBar();
    setPlainStyleSheet();
    setFixedSize(sizeHint().expandedTo(QSize(420, 160)));

    connect(pkcs11FileDialog, &QFileDialog::fileSelected, this, &MainWindowPkcs11::userDefinedPathAcquired);
    connect(pkcs11FileDialog, &QFileDialog::rejected, this, &MainWindowPkcs11::userRejectedDialog);
    setAccessibleName(QStringLiteral("MainWindowPkcs11"));
    applyTexts();
}

MainWindowPkcs11::~MainWindowPkcs11()
{
    delete ui;
}

void MainWindowPkcs11::setUpTitleBar()
{
    setAttribute(Qt::WA_TranslucentBackground);
    ui->mainWindowWidget->setAttribute(Qt::WA_TranslucentBackground, false);
    ui->mainWindowWidget->setAutoFillBackground(true);
    ui->mainWindowWidget->setMouseTracking(true);
    titleBarWidget = new TitleBar(ui->mainWindowWidget);
    ui->titleBarLayout->addWidget(titleBarWidget);
    connect(titleBarWidget, &TitleBar::moveVectorEvent, this, &MainWindowPkcs11::dragTitleBar);
    // Closing hides the window; only the protocol ends the host.
    connect(titleBarWidget, &TitleBar::closeBtnClicked, this, &QWidget::close);
}

void MainWindowPkcs11::updateWindowTitle(const X509Certificate2Ultra& certificate)
{
    qInfo().noquote() << "Updating title";
    commonName.clear();
    if (!certificate.isNull())
        commonName = certificate.subjectInfo(QSslCertificate::CommonName).join(QStringLiteral(", "));
    qInfo().noquote() << "New title: " + tr("AppName") + QStringLiteral("<=>") + commonName;
    applyTexts();
}

void MainWindowPkcs11::applyTexts()
{
    const QString title = commonName.isEmpty() ? tr("AppName") : tr("AppName") + QStringLiteral(" \u2013 ") + commonName;
    titleBarWidget->setTitle(title);
    setWindowTitle(title);
    // The accessible name stays the window's own: the PIN form finds its parent by it.
    setAccessibleDescription(tr("MainWindowDescription"));
    ui->gvWaitAnim->setAccessibleName(tr("WaitAnimationName"));
}

void MainWindowPkcs11::setDescription(const QString& key)
{
    descriptionKey = key;
    ui->lblDescription->setText(key.isEmpty() ? tr("Please wait...") : tr(key.toUtf8().constData()));
}

QString MainWindowPkcs11::titleText() const
{
    return titleBarWidget->title();
}

QString MainWindowPkcs11::descriptionText() const
{
    return ui->lblDescription->text();
}

void MainWindowPkcs11::showFileDialog()
{
    pkcs11FileDialog->setWindowTitle(tr("Pkcs11FileDialogText"));
    pkcs11FileDialog->open();
}

void MainWindowPkcs11::setPlainStyleSheet()
{
    ui->frame->setStyleSheet(QStringLiteral("#frame { border: 1px solid black; }"));
    applyGeometry();
}

void MainWindowPkcs11::setShadedStyleSheet()
{
    QFile theme(QStringLiteral(":/Themes/LightTheme/style.qss"));
    ui->frame->setStyleSheet(theme.open(QIODevice::ReadOnly) ? QString::fromUtf8(theme.readAll()) : QString());
    applyGeometry();
}

// A new style sheet lays the window out again; it stays where the user dragged it.
void MainWindowPkcs11::applyGeometry()
{
    if (normalGeometry.isValid())
        setGeometry(normalGeometry);
}

void MainWindowPkcs11::dragTitleBar(QVector2D vector)
{
    move(pos() + vector.toPoint());
    normalGeometry = geometry();
}

void MainWindowPkcs11::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        ui->retranslateUi(this);
        applyTexts();
        setDescription(descriptionKey);
    }
    QMainWindow::changeEvent(event);
}

void MainWindowPkcs11::showEvent(QShowEvent* event)
{
    animation->start();
    QMainWindow::showEvent(event);
}

void MainWindowPkcs11::hideEvent(QHideEvent* event)
{
    animation->stop();
    QMainWindow::hideEvent(event);
}
