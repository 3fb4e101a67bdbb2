#include "pkcs11/ui/mainwindowpkcs11.h"
#include "testrequests.h"
#include "ui/pinform.h"
#include "ui/pinformlauncher.h"
#include "ui/titlebar.h"

#include <QAbstractAnimation>
#include <QAccessible>
#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <QToolButton>
#include <QTranslator>
#include <QtConcurrent>

#include <cstring>
#include <functional>
#include <memory>

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
struct Catalogue : QTranslator
{
    explicit Catalogue(const QString& language)
    {
        QVERIFY(load(QCoreApplication::applicationDirPath() + "/../share/translations/Scriva_" + language));
        QCoreApplication::installTranslator(this);
    }
};

// The animations' clock, moved on by the test alone.
struct ManualClock : QAnimationDriver
{
    qint64 now = 0;
    qint64 elapsed() const override { return now; }
    void step(int ms) { now += ms, advance(); }
};

// What the user sees, pixel for pixel, against tests/data/ui/<name>.png (SCRIVA_WRITE_IMAGES writes them).
void compareLook(QWidget* widget, const QString& name)
{
    const QImage seen = widget->grab().toImage().convertToFormat(QImage::Format_ARGB32);
    const QString path = QStringLiteral(SCRIVA_TEST_DATA_DIR "/ui/%1.png").arg(name);
    if (qEnvironmentVariableIsSet("SCRIVA_WRITE_IMAGES"))
        QVERIFY(seen.save(path));
    if (seen != QImage(path).convertToFormat(QImage::Format_ARGB32)) {
        seen.save(QDir::temp().filePath(name + ".png"));
        QFAIL(qPrintable("differs from " + path + ", seen: " + QDir::temp().filePath(name + ".png")));
    }
}

// A screen reader hears each button, field, dialog and animation named in words, no container as a frame or filler.
void checkReadable(QWidget* window)
{
    QList<QWidget*> widgets = window->findChildren<QWidget*>();
    for (QWidget* widget : widgets << window) {
        const QAccessibleInterface* node = QAccessible::queryAccessibleInterface(widget);
        const bool named = node->text(QAccessible::Name).contains(QRegularExpression("\\p{L}"));
        const bool needsName = QList{QAccessible::PushButton, QAccessible::EditableText, QAccessible::Dialog, QAccessible::Animation}.contains(node->role());
        QVERIFY2(widget->window() != window || (!QList{QAccessible::Border, QAccessible::Client}.contains(node->role()) && (named || !needsName)),
                 qPrintable(widget->objectName()));
    }
}

// Types, ticks the save box and presses the button (none: the title bar's close); `fieldText` shares the field's buffer.
void answerForm(PinForm* form, const QString& pin, const char* button, QString* fieldText = nullptr)
{
    auto* field = form->findChild<QLineEdit*>(QStringLiteral("lePin"));
    // Typing never moves the characters to a new buffer that would leave the old one behind.
    const QChar* buffer = field->text().constData();
    QTest::keyClicks(field, pin);
    QCOMPARE(field->text().constData(), buffer);
    if (fieldText)
        *fieldText = field->text();
    form->findChild<QCheckBox*>()->toggle();
    QTest::mouseClick(*button ? form->findChild<QAbstractButton*>(button) : form->findChild<TitleBar*>()->findChild<QAbstractButton*>(),
                      Qt::LeftButton);
}

// The dialogs run their own modal loop: a timer answers from inside it (`answer` gets null for the message).
void answerWhenOpen(QObject* context, std::function<void(PinForm*)> answer)
{
    auto* timer = new QTimer(context);
    QObject::connect(timer, &QTimer::timeout, context, [timer, answer] {
        QWidget* open = QApplication::activeModalWidget();
        if (!open || !open->isVisible())
            return;
        timer->stop();
        timer->deleteLater();
        answer(qobject_cast<PinForm*>(open));
    });
    timer->start(20);
}

// The PIN the launcher gives as the engine asks for it; with `savePin`, as the context PIN.
QString askPin(PinFormLauncher& launcher, bool* savePin = nullptr)
{
    const SecretPin pin = savePin ? launcher.requestContextPin(slotInfo(), tokenInfo(), QStringLiteral("PIN"), savePin)
                                  : launcher.requestPin(slotInfo(), tokenInfo(), QStringLiteral("PIN"));
    return QString::fromUtf8(reinterpret_cast<const char*>(pin.utf8()), qsizetype(pin.size()));
}

} // namespace

// The host window, the PIN form and its launcher: real widgets looked at, dragged and typed into, from a worker too.
class TestPinForm : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QApplication::setCursorFlashTime(0); }

    // A worker waits for the form over the host window; what was typed is overwritten in the field's buffer. The
    // context PIN's save box shows and returns the choice; a second request meanwhile is refused.
    void workerWaitsForTheAnswer_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QByteArray>("button");
        QTest::addColumn<bool>("context");
        QTest::newRow("ok") << "s3cr3t-PIN" << QByteArray("btnOk") << false;
        QTest::newRow("cancel") << "typed but cancelled" << QByteArray("btnCancel") << false;
        QTest::newRow("title bar's close button") << "typed but closed" << QByteArray() << false;
        QTest::newRow("ok with nothing typed") << "" << QByteArray("btnOk") << false;
        QTest::newRow("longer than a PIN can be: cut to 256") << QString(300, 'x') << QByteArray("btnOk") << false;
        QTest::newRow("context PIN, box ticked") << "9999" << QByteArray("btnOk") << true;
    }

    void workerWaitsForTheAnswer()
    {
        QFETCH(QString, typed);
        QFETCH(QByteArray, button);
        QFETCH(bool, context);
        MainWindowPkcs11 window; // the form opens over it
        window.show();
        PinFormLauncher launcher;
        QSignalSpy shown(&launcher, context ? &PinFormLauncher::launchContextPinFormSignal : &PinFormLauncher::launchPinFormSignal);
        QFuture<QString> pin;
        PinFormLauncher other;
        QString seen, field, secondError;
        answerWhenOpen(this, [&](PinForm* form) {
            auto* box = form->findChild<QCheckBox*>();
            seen = QStringList{pin.isFinished() ? "answered" : "waiting", form->parentWidget() == &window ? "over the window" : "elsewhere",
                               !box->isVisible() ? "box hidden" : box->isChecked() ? "box ticked" : "box unticked"}.join(", ");
            QFuture<QString> second = QtConcurrent::run([&] { return TestRequests::refusal([&] { askPin(other); }); });
            QTRY_VERIFY(second.isFinished());
            secondError = second.result();
            answerForm(form, typed, button.constData(), &field);
        });
        bool savePin = false;
        pin = QtConcurrent::run([&] { return askPin(launcher, context ? &savePin : nullptr); });
        QTRY_VERIFY(pin.isFinished());
        QCOMPARE(pin.result(), button == "btnOk" ? typed.left(256) : QString());
        QCOMPARE(field, QString(qMin(typed.size(), 256), QChar(0)));
        QCOMPARE(seen, QString("waiting, over the window, box ") + (context ? "unticked" : "hidden"));
        QCOMPARE(savePin, context);
        QCOMPARE(secondError, "PinForm is already opened!");
        QCOMPARE(shown.count(), 1);
    }

    // Closing releases a worker waiting for the form or the wrong-PIN message; nothing shows until reopened.
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
            return message ? (launcher.showPinIncorrect("AppName", "Wrong PIN"), QString("acknowledged")) : askPin(launcher);
        });
        // Closed from inside the dialog's modal loop, as a Terminate arriving then would.
        bool finishedEarly = true;
        answerWhenOpen(this, [&](PinForm*) { finishedEarly = asked.isFinished(), launcher.closeDialogs(); });
        QTRY_VERIFY(asked.isFinished());
        QVERIFY(!finishedEarly);
        QCOMPARE(asked.result(), QString(message ? "acknowledged" : ""));
        QTRY_VERIFY(!PinForm::openForm() && !QApplication::activeModalWidget());

        QCOMPARE(askPin(launcher), QString());
        QVERIFY(!PinForm::openForm());
        launcher.reopen();
        answerWhenOpen(this, [](PinForm* form) { answerForm(form, QStringLiteral("4321"), "btnOk"); });
        QCOMPARE(askPin(launcher), "4321");
    }

    // The form with the token's wrong-PIN warning (the last try outweighs the count); long names and a language
    // switched while open widen it. A screen reader hears the warning with the PIN field.
    void formLooks_data()
    {
        QTest::addColumn<QByteArray>("reader");
        QTest::addColumn<qulonglong>("flags");
        QTest::addColumn<QString>("switchedTo");
        QTest::addColumn<QString>("warning");
        QTest::newRow("pinform-plain") << QByteArray("Reader 1")
                                       << qulonglong(CKF_USER_PIN_TO_BE_CHANGED | CKF_SO_PIN_FINAL_TRY | CKF_SO_PIN_COUNT_LOW) << "" << "";
        QTest::newRow("pinform-count-low") << QByteArray("Reader 1") << qulonglong(CKF_USER_PIN_COUNT_LOW) << ""
                                           << "A wrong PIN has been entered since the last successful login.";
        QTest::newRow("pinform-final-try-long-czech")
            << QByteArray("Alcor Micro USB Smart Card Reader with a very long vendor name 0")
            << qulonglong(CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY) << "cs" << "Toto je poslední pokus před zablokováním PINu.";
    }

    void formLooks()
    {
        QFETCH(QByteArray, reader);
        QFETCH(qulonglong, flags);
        QFETCH(QString, switchedTo);
        QFETCH(QString, warning);
        Catalogue english("en");
        PinForm form(nullptr, slotInfo(reader), tokenInfo(CK_FLAGS(flags), switchedTo.isEmpty() ? "My token" : "Podpisový token Jana Nováka"),
                     QStringLiteral("user PIN"), flags & CKF_USER_PIN_FINAL_TRY);
        form.show();
        QVERIFY(QTest::qWaitForWindowActive(&form));
        QTest::keyClicks(form.focusWidget(), QStringLiteral("12"));
        const auto other = switchedTo.isEmpty() ? nullptr : std::make_unique<Catalogue>(switchedTo);
        auto* label = form.findChild<QLabel*>(QStringLiteral("lblPinWarning"));
        QTRY_COMPARE(label->isVisible() ? label->text() : QString(), warning);
        QTRY_COMPARE(form.size(), form.sizeHint());
        compareLook(&form, QTest::currentDataTag());
        checkReadable(&form);
        QCOMPARE(QAccessible::queryAccessibleInterface(form.findChild<QLineEdit*>())->text(QAccessible::Description), warning);
    }

    // The wait animation turns only while shown; the title bar drags with the left button, its close button hides.
    void hostWindowLooksAndMoves()
    {
        ManualClock clock;
        clock.install();
        Catalogue english("en");
        MainWindowPkcs11 window;
        window.setDescription("GetSlotsDescription");
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        compareLook(&window, "window-start");
        checkReadable(&window);
        QTRY_VERIFY(clock.isRunning());
        clock.step(6 * 1200 + 300);
        compareLook(&window, "window-quarter-turn");
        window.hide();
        QTRY_VERIFY(!clock.isRunning()); // hidden, the arc costs nothing
        window.show();
        compareLook(&window, "window-start");

        TitleBar* bar = window.titleBar();
        const QPoint start = window.pos();
        const auto drag = [&](Qt::MouseButton button, QList<QPoint> path) {
            QPoint mouse = bar->mapToGlobal(QPoint(30, 10));
            QTest::mousePress(bar, button, {}, bar->mapFromGlobal(mouse));
            for (const QPoint& step : path)
                QTest::mouseMove(bar, bar->mapFromGlobal(mouse += step));
            QTest::mouseRelease(bar, button, {}, bar->mapFromGlobal(mouse));
            QTest::mouseMove(bar, bar->mapFromGlobal(mouse + QPoint(40, 40)));
        };
        drag(Qt::LeftButton, {QPoint(15, -4), QPoint(5, 5)});
        QCOMPARE(window.pos(), start + QPoint(20, 1));
        drag(Qt::RightButton, {QPoint(15, -4)});
        QCOMPARE(window.pos(), start + QPoint(20, 1));
        window.move(start); // a frameless window may jump when laid out again; the new style puts it back
        window.setShadedStyleSheet();
        compareLook(&window, "window-shaded");
        QCOMPARE(window.pos(), start + QPoint(20, 1));

        QTest::mouseClick(bar->findChild<QToolButton*>(), Qt::LeftButton);
        QVERIFY(!window.isVisible());
    }
};

QTEST_MAIN(TestPinForm)
#include "tst_pinform.moc"
