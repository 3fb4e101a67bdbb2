#include <QCoreApplication>
#include <QFile>
#include <QRegularExpression>
#include <QTest>
#include <QTranslator>

namespace {

QStringList read(const QString& path, const QString& pattern = {})
{
    QFile file(path);
    const QString text = file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    if (pattern.isEmpty())
        return text.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QStringList found;
    for (auto matches = QRegularExpression(pattern).globalMatch(text); matches.hasNext();)
        found.append(matches.next().captured(1));
    return found;
}

} // namespace

// The built catalogues translate what the host shows a person and leave every error word alone,
// so web applications can rely on the words in every language.
class TestCatalogues : public QObject
{
    Q_OBJECT

private slots:
    void catalogues_data()
    {
        QTest::addColumn<QString>("language");
        QTest::newRow("en") << "en";
        QTest::newRow("cs") << "cs";
    }

    void catalogues()
    {
        QFETCH(QString, language);
        const QString source = QStringLiteral(SCRIVA_SOURCE_DIR "/translations/Scriva_%1.ts").arg(language);
        const QStringList contexts = read(source, "<name>([^<]*)</name>");
        const QStringList sources = read(source, "<source>([^<]*)</source>");
        QVERIFY(!contexts.isEmpty());
        QVERIFY(read(source, "(type=\"unfinished\")").isEmpty());
        QTranslator translator;
        QVERIFY(translator.load(QCoreApplication::applicationDirPath() + "/../share/translations/Scriva_" + language));

        const QStringList words = read(SCRIVA_TEST_DATA_DIR "/errorwords.txt");
        QVERIFY(words.size() > 15);
        for (const QString& word : words) {
            QVERIFY2(!sources.contains(word), qPrintable(word + " has a catalogue entry"));
            for (const QString& context : contexts)
                QVERIFY2(translator.translate(context.toUtf8().constData(), word.toUtf8().constData()).isEmpty(),
                         qPrintable(word + " is translated in " + context));
        }
        for (const char* key : {"AppName", "Pkcs11FileDialogText", "GetSlotsDescription", "GetCertificatesDescription",
                                "GenerateCsrDescription", "CreateObjectDescription"}) {
            const QString text = translator.translate("MainWindowPkcs11", key);
            QVERIFY2(!text.isEmpty() && text != QLatin1String(key), key);
        }
    }
};

QTEST_GUILESS_MAIN(TestCatalogues)
#include "tst_catalogues.moc"
