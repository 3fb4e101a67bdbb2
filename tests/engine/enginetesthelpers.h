#pragma once

// What the engine's test programs share: a user who answers PIN forms and message boxes, running
// engine calls on a worker thread as the host does, and the trace switch.

#include "../pkcs11/pkcs11testhelpers.h"
#include "appexception.h"
#include "loghandler.h"
#include "pkcs11exception.h"
#include "softhsmtoken.h"
#include "ui/pinform.h"

#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QFutureWatcher>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <QtConcurrent>

#include <functional>
#include <optional>

namespace EngineTest {

// A user in front of the screen: answers each PIN form and message box as it appears, in the
// order scripted, from a timer that fires inside their modal loops, and notes what was shown.
class ScriptedUser : public QObject
{
public:
    struct Step
    {
        enum Kind { TypePin, Cancel, Acknowledge } kind;
        QString pin;
        std::optional<bool> save;
    };
    static Step type(const QString& pin, std::optional<bool> save = std::nullopt) { return {Step::TypePin, pin, save}; }
    static Step cancel() { return {Step::Cancel, {}, {}}; }
    static Step acknowledge() { return {Step::Acknowledge, {}, {}}; }

    explicit ScriptedUser(QList<Step> steps) : steps(std::move(steps))
    {
        connect(&timer, &QTimer::timeout, this, &ScriptedUser::poll);
        timer.start(20);
    }

    // "form" or "context form" (with the save box) per PIN form, "box: <title>: <text>" per
    // message box, and "unexpected ..." for anything shown beyond the script.
    QStringList shown;

private:
    void poll()
    {
        if (PinForm* form = PinForm::openForm(); form && form->isVisible())
            answerForm(form);
        for (QWidget* widget : QApplication::topLevelWidgets())
            if (auto* box = qobject_cast<QMessageBox*>(widget); box && box->isVisible())
                answerBox(box);
    }

    void answerForm(PinForm* form)
    {
        const bool context = !form->findChild<QCheckBox*>(QStringLiteral("chbSavePIN"))->isHidden();
        const bool expected = !steps.isEmpty() && steps.first().kind != Step::Acknowledge;
        shown.append(QString::fromLatin1(expected ? "" : "unexpected ") + (context ? "context form" : "form"));
        const Step step = expected ? steps.takeFirst() : cancel();
        if (step.kind == Step::TypePin) {
            QTest::keyClicks(form->findChild<QLineEdit*>(QStringLiteral("lePin")), step.pin);
            if (step.save)
                form->findChild<QCheckBox*>(QStringLiteral("chbSavePIN"))->setChecked(*step.save);
        }
        const char* button = step.kind == Step::TypePin ? "btnOk" : "btnCancel";
        QTest::mouseClick(form->findChild<QPushButton*>(QString::fromLatin1(button)), Qt::LeftButton);
    }

    void answerBox(QMessageBox* box)
    {
        const bool expected = !steps.isEmpty() && steps.first().kind == Step::Acknowledge;
        if (expected)
            steps.removeFirst();
        shown.append(QString::fromLatin1(expected ? "box: " : "unexpected box: ") + box->windowTitle()
                     + QStringLiteral(": ") + box->text());
        QTest::mouseClick(box->button(QMessageBox::Ok), Qt::LeftButton);
    }

    QList<Step> steps;
    QTimer timer;
};

// What an engine call on a worker thread ended with.
struct Outcome
{
    QString error;     // the exception's message, empty on success
    QString className; // the exception's class
    CK_RV rv = CKR_OK; // a Pkcs11Exception's return value
    QString document;  // what the call returned
};

// Runs the call on a pool thread, as the host's instance does, while this (GUI) thread keeps
// serving the PIN forms and message boxes it asks for.
inline Outcome runOnWorker(std::function<QString()> call, int timeoutMs = 120000)
{
    QFutureWatcher<Outcome> watcher;
    QSignalSpy finished(&watcher, &QFutureWatcher<Outcome>::finished);
    watcher.setFuture(QtConcurrent::run([call] {
        Outcome outcome;
        try {
            outcome.document = call();
        } catch (const Pkcs11Exception& e) {
            outcome = {e.getMessage(), e.className(), e.getRv(), {}};
        } catch (const AppException& e) {
            outcome = {e.getMessage(), e.className(), CKR_OK, {}};
        }
        return outcome;
    }));
    if (!watcher.isFinished() && !finished.wait(timeoutMs))
        qFatal("The engine call did not finish");
    return watcher.result();
}

// The host log (and so the PKCS#11 trace) under a private data directory; on while the file exists.
class TraceSwitch
{
public:
    // Call from initTestCase: the test framework installs its own message handler before that.
    void install()
    {
        qputenv("XDG_DATA_HOME", home.path().toUtf8());
        LogHandler::init(QString::fromLatin1(LogHandler::hostLogFileName));
        QDir().mkpath(LogHandler::logDirectory());
    }
    ~TraceSwitch() { LogHandler::shutdown(); }

    // Starts an empty log, or removes it.
    void set(bool on) const
    {
        QFile::remove(LogHandler::hostLogPath());
        if (on) {
            QFile file(LogHandler::hostLogPath());
            file.open(QIODevice::WriteOnly);
        }
    }
    static QString text()
    {
        QFile file(LogHandler::hostLogPath());
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
    static QStringList trace() { return Pkcs11TestHelpers::traceMessages(LogHandler::hostLogPath()); }

private:
    QTemporaryDir home;
};

// Keeps both modules loaded for the whole process: SoftHSM does not survive being unloaded and
// loaded again, and each engine operation unloads its module at the end.
inline bool holdModulesLoaded()
{
    static QLibrary softHsm(SoftHsmToken::softHsmModulePath());
    static QLibrary testModule(SoftHsmToken::testModulePath());
    return softHsm.load() && testModule.load();
}

} // namespace EngineTest
