// Takes the documentation pictures of the host's windows: run by scripts/screenshots.sh on a
// private X server with a window manager, or on a private headless sway (Qt's wayland platform), so
// they show what a user sees at the screen's scale.
//
//   uiscreenshots <output folder>
//
// For each language: the host window during an operation, the PIN form, the PIN form on the
// token's last try, and the message after a wrong PIN. The dialogs are the real ones, opened the
// way the host opens them, and photographed from the screen inside their own modal loops.

#include "pkcs11/ui/mainwindowpkcs11.h"
#include "ui/pinform.h"
#include "ui/pinformlauncher.h"
#include "x509certificate2ultra.h"

#include <QApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLineEdit>
#include <QProcess>
#include <QScreen>
#include <QSslCertificate>
#include <QTest>
#include <QTimer>
#include <QTranslator>

#include <cstdio>
#include <cstring>
#include <functional>

namespace {

QString outputFolder;
bool failed = false;

// The place of this process's focused window on the sway desktop, in the desktop's coordinates.
QRect focusedOnSway(const QJsonObject& node)
{
    const QJsonObject r = node.value(QStringLiteral("rect")).toObject();
    if (node.value(QStringLiteral("focused")).toBool() && node.value(QStringLiteral("pid")).toInteger() == QCoreApplication::applicationPid())
        return QRect(r.value(QStringLiteral("x")).toInt(), r.value(QStringLiteral("y")).toInt(), r.value(QStringLiteral("width")).toInt(),
                     r.value(QStringLiteral("height")).toInt());
    QRect found;
    for (const QString& children : {QStringLiteral("nodes"), QStringLiteral("floating_nodes")})
        for (const QJsonValue child : node.value(children).toArray())
            found = found.isValid() ? found : focusedOnSway(child.toObject());
    return found;
}

// A Wayland client cannot read the screen: sway tells where the window is, grim photographs that
// part of the output at the output's scale.
bool shootOnSway(const QString& path)
{
    QProcess swaymsg;
    swaymsg.start(QStringLiteral("swaymsg"), {QStringLiteral("-r"), QStringLiteral("-t"), QStringLiteral("get_tree")});
    swaymsg.waitForFinished();
    const QRect place = focusedOnSway(QJsonDocument::fromJson(swaymsg.readAllStandardOutput()).object());
    const QString geometry = QStringLiteral("%1,%2 %3x%4").arg(place.x()).arg(place.y()).arg(place.width()).arg(place.height());
    if (!place.isValid() || QProcess::execute(QStringLiteral("grim"), {QStringLiteral("-g"), geometry, path}) != 0)
        return false;
    std::printf("%s (%s on the desktop)\n", qPrintable(path), qPrintable(geometry));
    return true;
}

// Photographs the window with whatever the window manager draws around it.
void shoot(QWidget* window, const QString& name)
{
    // The window manager places and decorates the window a moment after it is mapped.
    if (!(window->windowFlags() & Qt::FramelessWindowHint))
        (void)QTest::qWaitFor([window] { return window->frameGeometry().height() > window->height(); }, 3000);
    QTest::qWait(300);
    if (QGuiApplication::platformName() == QLatin1String("wayland")) {
        if (!shootOnSway(outputFolder + QLatin1Char('/') + name + QStringLiteral(".png"))) {
            std::fprintf(stderr, "could not photograph %s on sway\n", qPrintable(name));
            failed = true;
        }
        return;
    }
    QRect frame = window->frameGeometry();
    // A frameless window has no frame, and one the window manager has not reported yet is empty.
    if (!frame.contains(window->geometry()))
        frame = window->geometry();
    const QPixmap picture = window->screen()->grabWindow(0, frame.x(), frame.y(), frame.width(), frame.height());
    const QString path = outputFolder + QLatin1Char('/') + name + QStringLiteral(".png");
    if (picture.isNull() || !picture.save(path)) {
        std::fprintf(stderr, "could not save %s\n", qPrintable(path));
        failed = true;
        return;
    }
    std::printf("%s (%dx%d)\n", qPrintable(path), frame.width(), frame.height());
}

// Runs `inside` on the modal dialog once it is on the screen, from within its own loop.
void whenModalShown(std::function<void(QWidget*)> inside)
{
    auto* timer = new QTimer(qApp);
    QObject::connect(timer, &QTimer::timeout, qApp, [timer, inside] {
        QWidget* dialog = QApplication::activeModalWidget();
        if (!dialog || !dialog->isVisible())
            return;
        timer->stop();
        timer->deleteLater();
        inside(dialog);
    });
    timer->start(50);
}

Pkcs11SlotInfo reader()
{
    CK_SLOT_INFO info{};
    std::memset(info.slotDescription, ' ', sizeof info.slotDescription);
    const char text[] = "Alcor Micro AU9540 00 00";
    std::memcpy(info.slotDescription, text, std::strlen(text));
    return Pkcs11SlotInfo(1, info);
}

Pkcs11TokenInfo token(CK_FLAGS flags)
{
    CK_TOKEN_INFO info{};
    std::memset(info.label, ' ', sizeof info.label);
    const char text[] = "Jana Nov\xc3\xa1kov\xc3\xa1";
    std::memcpy(info.label, text, std::strlen(text));
    info.flags = flags;
    return Pkcs11TokenInfo(1, info);
}

void pinForm(CK_FLAGS flags, const QString& pinName, const QString& name)
{
    whenModalShown([name](QWidget* form) {
        QTest::keyClicks(form->findChild<QLineEdit*>(QStringLiteral("lePin")), QStringLiteral("1234"));
        shoot(form, name);
        static_cast<PinForm*>(form)->reject();
    });
    PinForm::needPin(reader(), token(flags), pinName);
}

} // namespace

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: uiscreenshots <output folder>\n");
        return 2;
    }
    outputFolder = QString::fromLocal8Bit(argv[1]);

    MainWindowPkcs11 window;
    const QSslCertificate signer = QSslCertificate::fromPath(QStringLiteral(SCRIVA_DEV_PKI_DIR "/server-chain2.pem")).value(0);
    window.updateWindowTitle(X509Certificate2Ultra(signer));
    window.setDescription(QStringLiteral("GetCertificatesDescription"));
    window.show();
    if (!QTest::qWaitForWindowExposed(&window))
        return 1;

    // The name of the PIN comes from the web application, in the page's language.
    const QList<QPair<QString, QString>> languages = {{QStringLiteral("en"), QStringLiteral("User PIN")},
                                                      {QStringLiteral("cs"), QStringLiteral("uživatelský PIN")}};
    for (const auto& [language, pinName] : languages) {
        QTranslator catalogue;
        if (!catalogue.load(QCoreApplication::applicationDirPath() + QStringLiteral("/../share/translations/Scriva_") + language))
            return 1;
        QCoreApplication::installTranslator(&catalogue);
        QCoreApplication::processEvents();

        shoot(&window, QStringLiteral("host-window-") + language);
        pinForm(0, pinName, QStringLiteral("pin-form-") + language);
        pinForm(CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY, pinName, QStringLiteral("pin-form-final-try-") + language);

        whenModalShown([language](QWidget* box) {
            shoot(box, QStringLiteral("wrong-pin-") + language);
            box->close();
        });
        PinFormLauncher launcher;
        launcher.showPinIncorrect(QCoreApplication::translate("Pkcs11Library", "AppName"),
                                  QCoreApplication::translate("Pkcs11Library", "PinIncorrect").arg(pinName));
    }
    return failed ? 1 : 0;
}
