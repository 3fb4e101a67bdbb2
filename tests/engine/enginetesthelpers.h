#pragma once

// What the engine's test programs share: a user who answers PIN forms and message boxes, engine
// calls run on a worker thread as the host runs them, the trace switch, and the test module.

#include "../pkcs11/pkcs11testhelpers.h"
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

namespace EngineTest {

// A user in front of the screen. Each step answers the next PIN form ("pin:<PIN>", with ":save"
// to tick the save box, or "cancel") or message box ("ok"); the answers come from a timer that
// fires inside the modal loops. `shown` notes "form", "context form" (with the save box),
// "box: <title>: <text>", and "unexpected ..." for whatever the script did not foresee.
class ScriptedUser : public QObject
{
public:
    explicit ScriptedUser(QStringList steps) : steps(std::move(steps))
    {
        connect(&timer, &QTimer::timeout, this, &ScriptedUser::poll);
        timer.start(20);
    }

    QStringList shown;

private:
    void poll()
    {
        if (PinForm* form = PinForm::openForm(); form && form->isVisible()) {
            auto* save = form->findChild<QCheckBox*>(QStringLiteral("chbSavePIN"));
            const bool expected = !steps.isEmpty() && steps.first() != QLatin1String("ok");
            const QStringList step = (expected ? steps.takeFirst() : QStringLiteral("cancel")).split(QLatin1Char(':'));
            shown.append(QLatin1String(expected ? "" : "unexpected ") + (save->isHidden() ? "form" : "context form"));
            if (step.first() == QLatin1String("pin")) {
                QTest::keyClicks(form->findChild<QLineEdit*>(QStringLiteral("lePin")), step.value(1));
                save->setChecked(step.value(2) == QLatin1String("save"));
            }
            const QString button = step.first() == QLatin1String("pin") ? "btnOk" : "btnCancel";
            QTest::mouseClick(form->findChild<QPushButton*>(button), Qt::LeftButton);
        }
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            auto* box = qobject_cast<QMessageBox*>(widget);
            if (!box || !box->isVisible())
                continue;
            const bool expected = !steps.isEmpty() && steps.first() == QLatin1String("ok");
            if (expected)
                steps.removeFirst();
            shown.append(QLatin1String(expected ? "box: " : "unexpected box: ") + box->windowTitle() + ": "
                         + box->text());
            QTest::mouseClick(box->button(QMessageBox::Ok), Qt::LeftButton);
        }
    }

    QStringList steps;
    QTimer timer;
};

// What an engine call on a worker thread ended with: the exception's message (empty on success),
// a Pkcs11Exception's return value, and what the call returned.
struct Outcome
{
    QString error;
    CK_RV rv = CKR_OK;
    QString document;
};

// Runs the call on a pool thread, as the host's instance does, while this GUI thread serves the
// PIN forms and message boxes it asks for.
inline Outcome runOnWorker(std::function<QString()> call)
{
    QFutureWatcher<Outcome> watcher;
    QSignalSpy finished(&watcher, &QFutureWatcher<Outcome>::finished);
    watcher.setFuture(QtConcurrent::run([call] {
        try {
            return Outcome{{}, CKR_OK, call()};
        } catch (const Pkcs11Exception& e) {
            return Outcome{e.getMessage(), e.getRv(), {}};
        } catch (const AppException& e) {
            return Outcome{e.getMessage(), CKR_OK, {}};
        }
    }));
    if (!watcher.isFinished() && !finished.wait(120000))
        qFatal("The engine call did not finish");
    return watcher.result();
}

// The host log, and with it the PKCS#11 trace, in a private data directory: on while the file exists.
class TraceSwitch
{
public:
    // From initTestCase: the test framework installs its own message handler before that.
    void install()
    {
        qputenv("XDG_DATA_HOME", home.path().toUtf8());
        LogHandler::init(QString::fromLatin1(LogHandler::hostLogFileName));
        QDir().mkpath(LogHandler::logDirectory());
    }
    ~TraceSwitch() { LogHandler::shutdown(); }

    // Starts an empty log, or removes it.
    static void set(bool on)
    {
        QFile::remove(LogHandler::hostLogPath());
        QFile file(LogHandler::hostLogPath());
        if (on)
            file.open(QIODevice::WriteOnly);
        LogHandler::refreshHostLogCheck();
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

// Keeps both modules loaded for the whole process (SoftHSM does not survive being unloaded and
// loaded again, and every engine operation unloads its module) and points the test module at
// its configuration file in `dir`.
inline bool prepareModules(const QTemporaryDir& dir)
{
    static QLibrary softHsm(SoftHsmToken::softHsmModulePath());
    static QLibrary testModule(SoftHsmToken::testModulePath());
    qputenv("SCRIVA_TEST_P11_CONFIG", dir.filePath(QStringLiteral("module.conf")).toUtf8());
    return softHsm.load() && testModule.load();
}

inline bool configureModule(const QTemporaryDir& dir, const QStringList& config)
{
    return Pkcs11TestHelpers::writeModuleConfig(dir.filePath(QStringLiteral("module.conf")), config);
}

} // namespace EngineTest
