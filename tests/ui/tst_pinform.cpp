#include "pkcs11/ui/mainwindowpkcs11.h"
#include "ui/pinform.h"
#include "ui/pinformlauncher.h"
#include "ui/titlebar.h"

#include <QApplication>
#include <QCheckBox>
#include <QFuture>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <QTranslator>
#include <QtConcurrent>

#include <cstring>
#include <functional>
#include <optional>

namespace {

Pkcs11SlotInfo slotInfo(const QByteArray& description = "Reader 1")
{
    CK_SLOT_INFO info{};
    std::memset(info.slotDescription, ' ', sizeof info.slotDescription);
    std::memcpy(info.slotDescription, description.constData(), size_t(description.size()));
    return Pkcs11SlotInfo(3, info);
}

Pkcs11TokenInfo tokenInfo(CK_FLAGS flags = 0, const QByteArray& label = "My token")
{
    CK_TOKEN_INFO info{};
    std::memset(info.label, ' ', sizeof info.label);
    std::memcpy(info.label, label.constData(), size_t(label.size()));
    info.flags = flags;
    return Pkcs11TokenInfo(3, info);
}

// The host's catalogue for the language, installed while it lives.
struct Catalogue
{
    QTranslator translator;
    explicit Catalogue(const QString& language)
    {
        QVERIFY(translator.load(QCoreApplication::applicationDirPath() + "/../share/translations/Scriva_" + language));
        QCoreApplication::installTranslator(&translator);
    }
};

// Answers the form that is open now, as a user would: type, then press a button. `field` receives
// a string that shares the field's buffer, so the caller can see what was left in it.
void answerForm(const QString& pin, const char* button, std::optional<bool> save = std::nullopt,
                QString* fieldText = nullptr)
{
    PinForm* form = PinForm::openForm();
    QVERIFY(form);
    QTRY_VERIFY(form->isVisible());
    auto* field = form->findChild<QLineEdit*>(QStringLiteral("lePin"));
    QCOMPARE(field->echoMode(), QLineEdit::Password);
    QTest::keyClicks(field, pin);
    if (fieldText)
        *fieldText = field->text();
    if (save)
        form->findChild<QCheckBox*>(QStringLiteral("chbSavePIN"))->setChecked(*save);
    QTest::mouseClick(form->findChild<QPushButton*>(button), Qt::LeftButton);
}

// The form runs its own modal loop, so the answer comes from a timer that fires inside it.
void answerWhenOpen(QObject* context, std::function<void(PinForm*)> answer)
{
    auto* timer = new QTimer(context);
    QObject::connect(timer, &QTimer::timeout, context, [timer, answer] {
        PinForm* form = PinForm::openForm();
        if (!form || !form->isVisible())
            return;
        timer->stop();
        timer->deleteLater();
        answer(form);
    });
    timer->start(20);
}

QString text(const SecretPin& pin)
{
    return QString::fromUtf8(reinterpret_cast<const char*>(pin.utf8()), qsizetype(pin.size()));
}

} // namespace

// The PIN form and its launcher: the real dialog, typed into, from the GUI thread and from a worker.
class TestPinForm : public QObject
{
    Q_OBJECT

private slots:
    void requestOnTheGuiThreadShowsTheFormDirectly()
    {
        MainWindowPkcs11 window;
        PinFormLauncher launcher;
        QSignalSpy launched(&launcher, &PinFormLauncher::launchPinFormSignal);
        QTimer::singleShot(0, this, [&] {
            PinForm* form = PinForm::openForm();
            QVERIFY(form);
            QCOMPARE(form->parentWidget(), &window);
            QCOMPARE(form->findChild<QLabel*>(QStringLiteral("tokenValue"))->text(), QStringLiteral("My token"));
            QCOMPARE(form->findChild<QLabel*>(QStringLiteral("slotValue"))->text(), QStringLiteral("Reader 1"));
            QVERIFY(form->findChild<QCheckBox*>(QStringLiteral("chbSavePIN"))->isHidden());
            answerForm(QStringLiteral("1234"), "btnOk");
        });
        QCOMPARE(text(launcher.requestPin(slotInfo(), tokenInfo(), QStringLiteral("user PIN"))), QStringLiteral("1234"));
        QCOMPARE(launched.count(), 0);
        QVERIFY(!PinForm::openForm());
    }

    void workerWaitsForTheAnswerAndTheFieldIsOverwritten_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QByteArray>("button");
        QTest::addColumn<QString>("expected");
        QTest::newRow("ok") << "s3cr3t-PIN" << QByteArray("btnOk") << "s3cr3t-PIN";
        QTest::newRow("cancel") << "typed but cancelled" << QByteArray("btnCancel") << "";
        QTest::newRow("ok with nothing typed") << "" << QByteArray("btnOk") << "";
    }

    void workerWaitsForTheAnswerAndTheFieldIsOverwritten()
    {
        QFETCH(QString, typed);
        QFETCH(QByteArray, button);
        QFETCH(QString, expected);
        PinFormLauncher launcher;
        QFuture<QString> pin;
        bool finishedEarly = true;
        QString field;
        answerWhenOpen(this, [&](PinForm*) {
            finishedEarly = pin.isFinished();
            answerForm(typed, button.constData(), std::nullopt, &field);
        });
        pin = QtConcurrent::run([&] { return text(launcher.requestPin(slotInfo(), tokenInfo(), QStringLiteral("PIN"))); });
        QTRY_VERIFY(pin.isFinished());
        QVERIFY(!finishedEarly);
        QCOMPARE(pin.result(), expected);
        // The typed characters were overwritten in the field's own buffer, not in a copy.
        QCOMPARE(field, QString(typed.size(), QChar(0)));
    }

    void contextFormCarriesTheSaveBoxBothWays()
    {
        PinFormLauncher launcher;
        bool shownChecked = false;
        answerWhenOpen(this, [&](PinForm* form) {
            auto* save = form->findChild<QCheckBox*>(QStringLiteral("chbSavePIN"));
            shownChecked = !save->isHidden() && save->isChecked();
            answerForm(QStringLiteral("9999"), "btnOk", false);
        });
        bool savePin = true;
        QFuture<QString> pin = QtConcurrent::run([&] {
            return text(launcher.requestContextPin(slotInfo(), tokenInfo(), QStringLiteral("signature PIN"), &savePin));
        });
        QTRY_VERIFY(pin.isFinished());
        QVERIFY(shownChecked);
        QCOMPARE(pin.result(), QStringLiteral("9999"));
        QVERIFY(!savePin);
    }

    void secondRequestWhileAFormIsOpenFailsInItsWorker()
    {
        PinFormLauncher first;
        PinFormLauncher second;
        QFuture<QString> secondPin;
        QString secondError;
        answerWhenOpen(this, [&](PinForm* form) {
            secondPin = QtConcurrent::run([&] {
                try {
                    second.requestPin(slotInfo(), tokenInfo(), QStringLiteral("user PIN"));
                } catch (const AppException& e) {
                    return e.getMessage();
                }
                return QString();
            });
            // Still inside the first form's loop: the second request is refused there.
            QTRY_VERIFY(secondPin.isFinished());
            secondError = secondPin.result();
            // The title bar's close button cancels the open form.
            emit form->findChild<TitleBar*>()->closeBtnClicked();
        });
        QFuture<QString> firstPin =
            QtConcurrent::run([&] { return text(first.requestPin(slotInfo(), tokenInfo(), QStringLiteral("user PIN"))); });
        QTRY_VERIFY(firstPin.isFinished());
        QCOMPARE(secondError, QStringLiteral("PinForm is already opened!"));
        QCOMPARE(firstPin.result(), QString());
    }

    // Closing releases a worker waiting for the form or for the wrong-PIN message at once, shows
    // nothing more until the launcher is opened again for the next operation.
    void closingReleasesTheWaitingWorker_data()
    {
        QTest::addColumn<bool>("message");
        QTest::newRow("PIN form") << false;
        QTest::newRow("wrong-PIN message") << true;
    }

    void closingReleasesTheWaitingWorker()
    {
        QFETCH(bool, message);
        PinFormLauncher launcher;
        QFuture<QString> asked = QtConcurrent::run([&] {
            if (message) {
                launcher.showPinIncorrect(QStringLiteral("AppName"), QStringLiteral("Wrong PIN"));
                return QStringLiteral("acknowledged");
            }
            return text(launcher.requestPin(slotInfo(), tokenInfo(), QStringLiteral("user PIN")));
        });
        // Closed from inside the dialog's own modal loop, as a Terminate arriving then would.
        QTimer closer;
        connect(&closer, &QTimer::timeout, this, [&] {
            QWidget* open = QApplication::activeModalWidget();
            if (open && open->isVisible())
                launcher.closeDialogs();
        });
        closer.start(20);
        QTRY_VERIFY(asked.isFinished());
        closer.stop();
        QCOMPARE(asked.result(), QString(message ? "acknowledged" : ""));
        QTRY_VERIFY(!PinForm::openForm() && !QApplication::activeModalWidget());

        QVERIFY(launcher.isClosed());
        QVERIFY(launcher.requestPin(slotInfo(), tokenInfo(), QStringLiteral("user PIN")).isEmpty());
        QVERIFY(!PinForm::openForm());
        launcher.reopen();
        QVERIFY(!launcher.isClosed());
        answerWhenOpen(this, [](PinForm*) { answerForm(QStringLiteral("4321"), "btnOk"); });
        QCOMPARE(text(launcher.requestPin(slotInfo(), tokenInfo(), QStringLiteral("user PIN"))), QStringLiteral("4321"));
    }

    // The keyboard alone answers the form: the PIN field has the focus when it opens, Enter is OK.
    void keyboardAnswersTheForm_data()
    {
        QTest::addColumn<int>("key");
        QTest::addColumn<QString>("expected");
        QTest::newRow("Enter accepts") << int(Qt::Key_Return) << "2468";
        QTest::newRow("keypad Enter accepts") << int(Qt::Key_Enter) << "2468";
        QTest::newRow("Escape cancels") << int(Qt::Key_Escape) << "";
    }

    void keyboardAnswersTheForm()
    {
        QFETCH(int, key);
        QFETCH(QString, expected);
        MainWindowPkcs11 window;
        window.show();
        bool focused = false;
        answerWhenOpen(this, [&](PinForm* form) {
            auto* field = form->findChild<QLineEdit*>(QStringLiteral("lePin"));
            focused = QTest::qWaitFor([&] { return QApplication::focusWidget() == field; });
            if (!focused)
                return form->reject();
            QTest::keyClicks(QApplication::focusWidget(), QStringLiteral("2468"));
            QTest::keyClick(QApplication::focusWidget(), Qt::Key(key));
        });
        QCOMPARE(text(PinForm::needPin(slotInfo(), tokenInfo(), QStringLiteral("user PIN"))), expected);
        QVERIFY(focused);
    }

    // The token's own count of wrong PINs is told, in the host's languages; other flags say nothing.
    void warningFollowsTheTokenFlags_data()
    {
        QTest::addColumn<qulonglong>("flags");
        QTest::addColumn<QString>("language");
        QTest::addColumn<QString>("warning");
        const QString countLow = "A wrong PIN has been entered since the last successful login.";
        const QString finalTry = "This is the last try before the PIN is blocked.";
        QTest::newRow("none") << qulonglong(0) << "en" << "";
        QTest::newRow("other PIN flags") << qulonglong(CKF_USER_PIN_TO_BE_CHANGED | CKF_SO_PIN_FINAL_TRY | CKF_SO_PIN_COUNT_LOW)
                                         << "en" << "";
        QTest::newRow("count low") << qulonglong(CKF_USER_PIN_COUNT_LOW) << "en" << countLow;
        QTest::newRow("final try") << qulonglong(CKF_USER_PIN_FINAL_TRY) << "en" << finalTry;
        QTest::newRow("count low, Czech") << qulonglong(CKF_USER_PIN_COUNT_LOW) << "cs"
                                          << "Od posledního úspěšného přihlášení byl zadán chybný PIN.";
        QTest::newRow("final try wins, Czech") << qulonglong(CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY) << "cs"
                                               << "Toto je poslední pokus před zablokováním PINu.";
    }

    void warningFollowsTheTokenFlags()
    {
        QFETCH(qulonglong, flags);
        QFETCH(QString, language);
        QFETCH(QString, warning);
        Catalogue catalogue(language);
        PinForm form(nullptr, slotInfo(), tokenInfo(CK_FLAGS(flags)), QStringLiteral("user PIN"), false);
        form.show();
        auto* label = form.findChild<QLabel*>(QStringLiteral("lblPinWarning"));
        QVERIFY(label);
        QCOMPARE(label->isVisible(), !warning.isEmpty());
        if (!warning.isEmpty())
            QCOMPARE(label->text(), warning);
    }

    // A native dialog's width at least; long names and a language switched while the form is open
    // widen or lengthen it, and nothing is cut off.
    void formShowsItsTextsWhole_data()
    {
        QTest::addColumn<QByteArray>("reader");
        QTest::addColumn<QByteArray>("token");
        QTest::addColumn<QString>("language");
        QTest::newRow("short names") << QByteArray("Reader 1") << QByteArray("My token") << "en";
        QTest::newRow("long names, Czech while open")
            << QByteArray("Alcor Micro USB Smart Card Reader with a very long vendor name 0")
            << QByteArray("Podpisový token Jana Nováka") << "cs";
    }

    void formShowsItsTextsWhole()
    {
        QFETCH(QByteArray, reader);
        QFETCH(QByteArray, token);
        QFETCH(QString, language);
        PinForm form(nullptr, slotInfo(reader), tokenInfo(CKF_USER_PIN_FINAL_TRY, token), QStringLiteral("user PIN"), true);
        form.show();
        QVERIFY(QTest::qWaitForWindowExposed(&form));
        Catalogue catalogue(language);
        if (language == QLatin1String("cs"))
            QTRY_COMPARE(form.findChild<QCheckBox*>()->text(), QStringLiteral("Pamatovat si PIN do konce operace"));
        QVERIFY(form.width() >= 360);
        for (QLabel* label : form.findChildren<QLabel*>()) {
            if (!label->isVisible())
                continue;
            const QByteArray name = label->objectName().toUtf8();
            if (label->wordWrap())
                QTRY_VERIFY2(label->height() >= label->heightForWidth(label->width()), name);
            else
                QTRY_VERIFY2(label->width() >= label->sizeHint().width(), name);
        }
        for (QWidget* widget : {static_cast<QWidget*>(form.findChild<QCheckBox*>()), static_cast<QWidget*>(form.findChild<QLineEdit*>())})
            QVERIFY(form.rect().contains(QRect(widget->mapTo(&form, QPoint()), widget->size())));
    }
};

QTEST_MAIN(TestPinForm)
#include "tst_pinform.moc"
