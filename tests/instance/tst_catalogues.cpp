#include <QCoreApplication>
#include <QFile>
#include <QSet>
#include <QTest>
#include <QTranslator>
#include <QXmlStreamReader>

namespace {

struct Catalogue
{
    QSet<QString> contexts;
    QSet<QString> sources;
    int unfinished = 0;
};

Catalogue readSource(const QString& path)
{
    Catalogue catalogue;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return catalogue;
    QXmlStreamReader xml(&file);
    while (xml.readNextStartElement() || !xml.atEnd()) {
        if (!xml.isStartElement())
            continue;
        if (xml.name() == QLatin1String("name"))
            catalogue.contexts.insert(xml.readElementText());
        else if (xml.name() == QLatin1String("source"))
            catalogue.sources.insert(xml.readElementText());
        else if (xml.name() == QLatin1String("translation")
                 && xml.attributes().value(QLatin1String("type")) == QLatin1String("unfinished"))
            ++catalogue.unfinished;
    }
    return catalogue;
}

QStringList errorWords()
{
    QFile file(QStringLiteral(SCRIVA_TEST_DATA_DIR "/errorwords.txt"));
    file.open(QIODevice::ReadOnly);
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
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
        const Catalogue source = readSource(QStringLiteral(SCRIVA_SOURCE_DIR "/translations/Scriva_%1.ts").arg(language));
        QVERIFY(!source.contexts.isEmpty());
        QCOMPARE(source.unfinished, 0);

        QTranslator translator;
        QVERIFY(translator.load(QCoreApplication::applicationDirPath() + QStringLiteral("/../share/translations/Scriva_") + language));

        const QStringList words = errorWords();
        QVERIFY(words.size() > 15);
        for (const QString& word : words) {
            QVERIFY2(!source.sources.contains(word), qPrintable(word + " has a catalogue entry"));
            for (const QString& context : source.contexts)
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
