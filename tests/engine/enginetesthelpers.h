#pragma once

// What the engine's test programs share: a user who answers PIN requests and wrong-PIN messages, engine
// calls run on a worker thread as the host runs them, the trace switch, the test module, and data rows.

#include "../pkcs11/pkcs11testhelpers.h"
#include "pinprompt.h"
#include "pkcs11exception.h"
#include "softhsmtoken.h"

#include <QMutex>
#include <QSignalSpy>
#include <QTest>
#include <QtConcurrent>

#include <type_traits>

namespace EngineTest {

// A user in front of the screen, as the engine sees one: through its PIN prompt. Each step of the
// script answers the next PIN request ("pin:<PIN>", with ":save" to tick the save box, or "cancel")
// or wrong-PIN message ("ok"). seen() lists "form", "context form" (with the token's warning, e.g.
// "form (final try)"), "box: <title>: <text>", and "unexpected ..." for whatever the script did not
// foresee (a form is then cancelled).
class ScriptedUser : public PinPrompt
{
public:
    void script(QStringList next) { QMutexLocker locker(&mutex); steps = std::move(next); shown.clear(); }
    QStringList seen() { QMutexLocker locker(&mutex); return shown; }
    SecretPin requestPin(const Pkcs11SlotInfo&, const Pkcs11TokenInfo& token, const QString&) override { return answer("form", &token); }
    SecretPin requestContextPin(const Pkcs11SlotInfo&, const Pkcs11TokenInfo& token, const QString&, bool* save) override { return answer("context form", &token, save); }
    void showPinIncorrect(const QString& title, const QString& text) override { answer("box: " + title + ": " + text); }
    void closeDialogs() override {}
    bool isClosed() const override { return false; }

private:
    SecretPin answer(QString what, const Pkcs11TokenInfo* token = nullptr, bool* save = nullptr)
    {
        const CK_FLAGS flags = token ? token->getInfo().flags : 0;
        what += flags & CKF_USER_PIN_FINAL_TRY ? " (final try)" : flags & CKF_USER_PIN_COUNT_LOW ? " (count low)" : "";
        QMutexLocker locker(&mutex);
        const bool expected = !steps.isEmpty() && (steps.first() == QLatin1String("ok")) == what.startsWith("box");
        const QStringList step = (expected ? steps.takeFirst() : QStringLiteral("cancel")).split(QLatin1Char(':'));
        shown.append(QLatin1String(expected ? "" : "unexpected ") + what);
        if (save)
            *save = step.value(2) == "save";
        return step.first() == "pin" ? SecretPin::fromText(step.value(1)) : SecretPin();
    }

    QStringList steps;
    QStringList shown;
    QMutex mutex;
};

// What an engine call on a worker thread ended with: the exception's message and its cause's (empty
// on success), and the text the call returned.
struct Outcome
{
    QString error, cause, document;
};

// Runs the call on a pool thread, as the host's instance does.
template<typename Call>
Outcome attempt(Call call)
{
    return QtConcurrent::run([call] {
               try {
                   if constexpr (std::is_void_v<decltype(call())>)
                       return call(), Outcome();
                   else
                       return Outcome{{}, {}, call()};
               } catch (const AppException& e) {
                   return Outcome{e.getMessage(), e.getCause() ? e.getCause()->getMessage() : QString(), {}};
               }
           }).result();
}

// Points the test module at its configuration file in `dir`. The engine keeps each module it opens
// mapped, so SoftHSM, which does not survive being unmapped and loaded again, is loaded once.
inline bool prepareModules(const QTemporaryDir& dir)
{
    qputenv("SCRIVA_TEST_P11_CONFIG", dir.filePath(QStringLiteral("module.conf")).toUtf8());
    return QFile::exists(SoftHsmToken::softHsmModulePath()) && QFile::exists(SoftHsmToken::testModulePath());
}

inline bool configureModule(const QTemporaryDir& dir, const QStringList& config)
{
    QFile file(dir.filePath(QStringLiteral("module.conf")));
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(config.join('\n').toUtf8() + '\n') > 0;
}

// The rows of the current test function from tests/data/engine-cases.txt, in the columns its first line names.
inline void rowsFrom()
{
    const char* function = QTest::currentTestFunction();
    QFile file(QStringLiteral(SCRIVA_TEST_DATA_DIR "/engine-cases.txt"));
    QVERIFY2(file.open(QIODevice::ReadOnly | QIODevice::Text), qPrintable(file.fileName()));
    const QString text = "\n" + QString::fromUtf8(file.readAll());
    static QList<QByteArray> names; // the test table keeps pointers to its column names
    const QMap<QString, int> kinds{{"[]", QMetaType::QStringList}, {"?", QMetaType::Bool}, {"#", QMetaType::Int}};
    QList<int> types;
    for (const QString& line : text.section("\n== " + QLatin1String(function) + "\n", 1).section("\n== ", 0, 0).split('\n')) {
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        QStringList values = line.trimmed().split(QRegularExpression("\\s*\\|\\s*"));
        const QString name = values.takeFirst();
        if (types.isEmpty()) {
            for (const QString& column : values) {
                const qsizetype end = column.indexOf(QRegularExpression("[][?#]"));
                types << kinds.value(end < 0 ? QString() : column.mid(end), QMetaType::QString);
                QTest::addColumnInternal(types.last(), names.emplace_back(column.left(end).toUtf8()).constData());
            }
            continue;
        }
        QTestData& row = QTest::addRow("%s", qPrintable(name));
        for (qsizetype i = 0; i < types.size(); ++i) {
            QVariant value(values.value(i));
            if (types[i] == QMetaType::QStringList) // an empty list has no items; ";;" has three empty ones
                value = values.value(i).isEmpty() ? QStringList() : values.value(i).split(QRegularExpression("\\s*;\\s*"));
            value.convert(QMetaType(types[i]));
            row.append(types[i], value.constData());
        }
    }
    QVERIFY2(!types.isEmpty(), function);
}

} // namespace EngineTest
