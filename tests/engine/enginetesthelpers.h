#pragma once

// What the engine's test programs share: a user who answers PIN requests and wrong-PIN messages, engine
// calls run on a worker thread as the host runs them, the trace switch, and the test module.

#include "../pkcs11/pkcs11testhelpers.h"
#include "loghandler.h"
#include "pkcs11exception.h"
#include "pinprompt.h"
#include "softhsmtoken.h"

#include <QDir>
#include <QFutureWatcher>
#include <QMutex>
#include <QSignalSpy>
#include <QTest>
#include <QtConcurrent>

#include <functional>

namespace EngineTest {

// A user in front of the screen, as the engine sees one: through its PIN prompt. Each step answers
// the next PIN request ("pin:<PIN>", with ":save" to tick the save box, or "cancel") or wrong-PIN
// message ("ok"). `shown` notes "form", "context form" (with the save box), "box: <title>:
// <text>", and "unexpected ..." for whatever the script did not foresee (a form is then cancelled).
// The user of the moment is the last one made; the engine is given `prompt()`, which asks them.
class ScriptedUser : public PinPrompt
{
public:
    explicit ScriptedUser(QStringList steps) : steps(std::move(steps)) { current() = this; }
    ~ScriptedUser() override { current() = nullptr; }

    static PinPrompt* prompt()
    {
        static Forwarder forwarder;
        return &forwarder;
    }

    SecretPin requestPin(const Pkcs11SlotInfo&, const Pkcs11TokenInfo&, const QString&) override
    {
        return answer(false, nullptr);
    }
    SecretPin requestContextPin(const Pkcs11SlotInfo&, const Pkcs11TokenInfo&, const QString&, bool* save) override
    {
        return answer(true, save);
    }
    void showPinIncorrect(const QString& title, const QString& text) override
    {
        QMutexLocker locker(&mutex);
        const bool expected = !steps.isEmpty() && steps.first() == QLatin1String("ok");
        if (expected)
            steps.removeFirst();
        shown.append(QLatin1String(expected ? "box: " : "unexpected box: ") + title + ": " + text);
    }
    void closeDialogs() override {}
    bool isClosed() const override { return false; }

    QStringList shown;

private:
    // Hands every request to the user of the moment; without one a form counts as cancelled.
    struct Forwarder : PinPrompt
    {
        SecretPin requestPin(const Pkcs11SlotInfo& s, const Pkcs11TokenInfo& t, const QString& n) override
        {
            return current() ? current()->requestPin(s, t, n) : SecretPin();
        }
        SecretPin requestContextPin(const Pkcs11SlotInfo& s, const Pkcs11TokenInfo& t, const QString& n,
                                    bool* save) override
        {
            return current() ? current()->requestContextPin(s, t, n, save) : SecretPin();
        }
        void showPinIncorrect(const QString& title, const QString& text) override
        {
            if (current())
                current()->showPinIncorrect(title, text);
        }
        void closeDialogs() override {}
        bool isClosed() const override { return false; }
    };

    static ScriptedUser*& current()
    {
        static ScriptedUser* user = nullptr;
        return user;
    }

    SecretPin answer(bool context, bool* save)
    {
        QMutexLocker locker(&mutex);
        const bool expected = !steps.isEmpty() && steps.first() != QLatin1String("ok");
        const QStringList step = (expected ? steps.takeFirst() : QStringLiteral("cancel")).split(QLatin1Char(':'));
        shown.append(QLatin1String(expected ? "" : "unexpected ") + (context ? "context form" : "form"));
        if (step.first() != QLatin1String("pin"))
            return SecretPin();
        if (save)
            *save = step.value(2) == QLatin1String("save");
        return SecretPin::fromText(step.value(1));
    }

    QStringList steps;
    QMutex mutex;
};

// What an engine call on a worker thread ended with: the exception's message (empty on success),
// a Pkcs11Exception's return value, and what the call returned.
struct Outcome
{
    QString error;
    CK_RV rv = CKR_OK;
    QString document;
};

// Runs the call on a pool thread, as the host's instance does.
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
