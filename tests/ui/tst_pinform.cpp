#include "pkcs11/ui/mainwindowpkcs11.h"
#include "ui/pinform.h"
#include "ui/pinformlauncher.h"
#include "ui/titlebar.h"

#include <QCheckBox>
#include <QFuture>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <QtConcurrent>

#include <cstring>
#include <functional>
#include <optional>

namespace {

Pkcs11SlotInfo slotInfo()
{
    CK_SLOT_INFO info{};
    std::memset(info.slotDescription, ' ', sizeof info.slotDescription);
    std::memcpy(info.slotDescription, "Reader 1", 8);
    return Pkcs11SlotInfo(3, info);
}

Pkcs11TokenInfo tokenInfo()
{
    CK_TOKEN_INFO info{};
    std::memset(info.label, ' ', sizeof info.label);
    std::memcpy(info.label, "My token", 8);
    return Pkcs11TokenInfo(3, info);
}

// Answers the form that is open now, as a user would: type, then press a button.
void answerForm(const QString& pin, const char* button, std::optional<bool> save = std::nullopt)
{
    PinForm* form = PinForm::openForm();
    QVERIFY(form);
    QTRY_VERIFY(form->isVisible());
    auto* field = form->findChild<QLineEdit*>(QStringLiteral("lePin"));
    QCOMPARE(field->echoMode(), QLineEdit::Password);
    QTest::keyClicks(field, pin);
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

} // namespace

// The PIN form and its launcher: the real dialog, typed into, from the GUI thread and from a worker.
class TestPinForm : public QObject
{
    Q_OBJECT

private slots:
    void requestOnTheGuiThreadShowsTheFormDirectly()
    {
        MainWindowPkcs11 window;
        PinFormLauncher launcher(slotInfo(), tokenInfo(), QStringLiteral("user PIN"));
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
        QCOMPARE(launcher.requestPin(), QStringLiteral("1234"));
        QCOMPARE(launched.count(), 0);
        QVERIFY(!PinForm::openForm());
    }

    void workerWaitsForTheAnswer_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QByteArray>("button");
        QTest::addColumn<QString>("expected");
        QTest::newRow("ok") << "s3cr3t-PIN" << QByteArray("btnOk") << "s3cr3t-PIN";
        QTest::newRow("cancel") << "typed but cancelled" << QByteArray("btnCancel") << "";
        QTest::newRow("ok with nothing typed") << "" << QByteArray("btnOk") << "";
    }

    void workerWaitsForTheAnswer()
    {
        QFETCH(QString, typed);
        QFETCH(QByteArray, button);
        QFETCH(QString, expected);
        PinFormLauncher launcher(slotInfo(), tokenInfo(), QStringLiteral("user PIN"));
        QFuture<QString> pin;
        bool finishedEarly = true;
        answerWhenOpen(this, [&](PinForm*) {
            finishedEarly = pin.isFinished();
            answerForm(typed, button.constData());
        });
        pin = QtConcurrent::run([&] { return launcher.requestPin(); });
        QTRY_VERIFY(pin.isFinished());
        QVERIFY(!finishedEarly);
        QCOMPARE(pin.result(), expected);
    }

    void contextFormCarriesTheSaveBoxBothWays()
    {
        PinFormLauncher launcher(slotInfo(), tokenInfo(), QStringLiteral("signature PIN"), true);
        bool shownChecked = false;
        answerWhenOpen(this, [&](PinForm* form) {
            auto* save = form->findChild<QCheckBox*>(QStringLiteral("chbSavePIN"));
            shownChecked = !save->isHidden() && save->isChecked();
            answerForm(QStringLiteral("9999"), "btnOk", false);
        });
        QFuture<QString> pin = QtConcurrent::run([&] { return launcher.requestContextPin(); });
        QTRY_VERIFY(pin.isFinished());
        QVERIFY(shownChecked);
        QCOMPARE(pin.result(), QStringLiteral("9999"));
        QVERIFY(!launcher.savePin());
    }

    void secondRequestWhileAFormIsOpenFailsInItsWorker()
    {
        PinFormLauncher first(slotInfo(), tokenInfo(), QStringLiteral("user PIN"));
        PinFormLauncher second(slotInfo(), tokenInfo(), QStringLiteral("user PIN"));
        QFuture<QString> secondPin;
        QString secondError;
        answerWhenOpen(this, [&](PinForm* form) {
            secondPin = QtConcurrent::run([&] {
                try {
                    second.requestPin();
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
        QFuture<QString> firstPin = QtConcurrent::run([&] { return first.requestPin(); });
        QTRY_VERIFY(firstPin.isFinished());
        QCOMPARE(secondError, QStringLiteral("PinForm is already opened!"));
        QCOMPARE(firstPin.result(), QString());
    }
};

QTEST_MAIN(TestPinForm)
#include "tst_pinform.moc"
