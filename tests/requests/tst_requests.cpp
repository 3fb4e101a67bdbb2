#include "appexception.h"
#include "pkcs11/XmlParser/pkcs11operationdataparser.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/createobjectoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/generatecsroperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getslotsoperationdata.h"
#include "terminatingflag.h"
#include "testrequests.h"

#include <QtTest>

#include <cstdlib>
#include <memory>
#include <type_traits>

namespace {

const QString invalid = QStringLiteral("Unsuccessful XML validation!");

QStringList warnings; // logged since the test row began, instead of printed

// `text` with the matches of the pattern `from` replaced by `to`: null when `from` matches nothing.
QString edited(QString text, const QString& from = {}, const QString& to = {})
{
    const QRegularExpression pattern(from, QRegularExpression::DotMatchesEverythingOption);
    return from.isEmpty() ? text : text.contains(pattern) ? text.replace(pattern, to) : QString();
}

QString sample(const QString& name) { return QString::fromUtf8(TestRequests::xml(name, "0f8fad5b-d9cb-469f-a165-70867728950e")); }

// The rows of tests/data/<file>: "== <name>" starts one, each of its lines is "<key> <text>".
QList<std::pair<QString, QMap<QString, QStringList>>> rows(const QString& file)
{
    QFile data(QStringLiteral(SCRIVA_TEST_DATA_DIR "/") + file);
    if (!data.open(QIODevice::ReadOnly | QIODevice::Text))
        qFatal("missing %s", qPrintable(data.fileName()));
    QList<std::pair<QString, QMap<QString, QStringList>>> rows;
    for (const QString& line : QString::fromUtf8(data.readAll()).split('\n', Qt::SkipEmptyParts)) {
        if (line.startsWith("== "))
            rows.append({line.mid(3), {}});
        else if (!line.startsWith('#'))
            rows.last().second[line.section(' ', 0, 0)] << line.section(' ', 1);
    }
    return rows;
}

QString attributes(const QList<CK_ATTRIBUTE>& list)
{
    QStringList items;
    for (const CK_ATTRIBUTE& a : list)
        items << QString::number(a.type) + '=' + QByteArray(static_cast<const char*>(a.pValue), qsizetype(a.ulValueLen)).toHex();
    return items.join(QLatin1Char(','));
}

template<typename T>
QString token(const T& d) { return d.getTokenSerialNumber() + '/' + d.getTokenLabel(); }
QString describe(const GetCertificatesOperationData& d) { return token(d); }
QString describe(const CreateObjectOperationData& d) { return token(d) + ' ' + attributes(d.getAttributes()); }
QString describe(const GenerateCsrOperationData& d)
{
    return QStringList{token(d), QString::number(d.getGenerateKeyPairMechanism()),
                       QString::number(d.getCsrSigningMechanism()), QString::number(d.getCsrDigestMechanism()),
                       d.getCsrSubject().left(8), d.getEnrollmentCspProvider().left(9), QString::number(d.getKovData()),
                       attributes(d.getPublicKeyAttributes()), attributes(d.getPrivateKeyAttributes())}
        .join(QLatin1Char(' '));
}

// What the operation's parser makes of `xml`: the refusal, or the description of a copy of the record
// made before it is freed (a copy sharing its buffers reads freed memory, which the sanitizer build sees).
template<typename T>
QString outcome(const QString& xml)
{
    try {
        std::unique_ptr<ScrivaPkcs11OperationData<T>> original(ScrivaPkcs11InputXmlParser<T>::parseXml(xml));
        const ScrivaPkcs11OperationData<T> record(original.get());
        original.reset();
        if constexpr (!std::is_same_v<T, GetSlotsOperationData>)
            return describe(*record.getOperationData());
        const Pkcs11LibraryData& library = *record.getLibraryData(); // for the operation without data of its own
        QStringList text{record.getNonce().left(4), record.getXmlNamespace().right(4)};
        for (const Location& location : library.getLocations())
            text << location.getPath().section('/', -1) + ':' + QString::number(int(location.getArchitecture()));
        return (text << library.getPin1Name() << library.getPin2Name() << QString::number(library.getShowPinForm())
                     << QString::number(library.getAllowManualSelection()) << library.getVendorExtensions())
            .join(' ')
            .trimmed();
    } catch (const AppException& exception) {
        return exception.getMessage();
    }
}

QString outcome(const QString& operation, const QString& xml)
{
    return operation == "getslots"          ? outcome<GetSlotsOperationData>(xml)
           : operation == "getcertificates" ? outcome<GetCertificatesOperationData>(xml)
           : operation == "createobject"    ? outcome<CreateObjectOperationData>(xml)
                                            : outcome<GenerateCsrOperationData>(xml);
}

// The reading routine of the element the reader stands on, as if validation had been bypassed:
// "accepted" (with an attribute's value) when it succeeds and leaves the reader on its own end
// tag, else the warnings (and any value a refusal kept). Whatever it made is freed.
QString readElement(QXmlStreamReader* reader)
{
    const Pkcs11OperationDataParser parser;
    const QString root = reader->name().toString();
    const auto read = [&](auto* output) {
        const bool accepted = parser.parseOperationData(reader, &output);
        delete output;
        return accepted;
    };
    Location location;
    CK_ATTRIBUTE attribute{};
    Pkcs11LibraryData* library = nullptr;
    const bool accepted = root == "Location"          ? parser.parseLocation(reader, &location)
                          : root == "Pkcs11Library"   ? parser.parseLibraryData(reader, &library)
                          : root == "GenerateCsr"     ? read(static_cast<GenerateCsrOperationData*>(nullptr))
                          : root == "CreateObject"    ? read(static_cast<CreateObjectOperationData*>(nullptr))
                          : root == "GetCertificates" ? read(static_cast<GetCertificatesOperationData*>(nullptr))
                          : root == "GetSlots"        ? read(static_cast<GetSlotsOperationData*>(nullptr))
                                                      : parser.parseAttribute(reader, &attribute, root);
    delete library;
    const QString value = attribute.pValue ? ' ' + attributes({attribute}) : QString();
    std::free(attribute.pValue);
    const bool atItsEnd = reader->isEndElement() && reader->name() == root;
    return accepted && !atItsEnd ? QStringLiteral("read past its end") : (accepted ? "accepted" : warnings.join(" | ")) + value;
}

} // namespace

// Request documents: what the schemas and the reader accept and make of them, and what they refuse and why.
class tst_Requests : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(scriva);
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& message) {
            if (type == QtWarningMsg) // info and debug lines are dropped with the rest
                warnings << message;
        });
    }

    void init() { warnings.clear(); }

    void readsRequests_data()
    {
        QTest::addColumn<QString>("operation");
        QTest::addColumn<QString>("xml");
        QTest::addColumn<QString>("expected"); // the record's description or the refusal
        QTest::addColumn<QStringList>("logged"); // lines the log must hold
        for (const auto& [name, row] : rows("request-documents.txt")) {
            const QString file = row.value("read").value(0);
            QTest::newRow(qPrintable(name)) << row.value("as").value(0, file.section('-', 0, 0))
                                            << edited(sample(file), row.value("edit").value(0), row.value("into").value(0).replace("\\n", "\n"))
                                            << row.value("gives").value(0) << row.value("log");
        }
        // Too long to write out: attribute counts and references, in time linear in the document's size.
        QString attributes; // a0="" a1="" ...
        for (int i = 0; i < 50000; ++i)
            attributes += QStringLiteral(" a%1=\"\"").arg(i);
        const QString library = "0f8f 2/29 libsofthsm2.so:2 opensc-pkcs11.so:0 User PIN Signature PIN 1 0";
        const QStringList tooMany("Request carries more than 64 XML attributes!");
        const auto row = [](const char* name, const QString& from, const QString& to, const QString& expected,
                            const QStringList& logged = {}) {
            QTest::newRow(name) << "getslots" << edited(sample("getslots-2022"), from, to) << expected << logged;
        };
        row("64 attributes in all", "<GetSlots", "<GetSlots" + attributes.section(' ', 0, 63), library);
        row("65 attributes in all", "<GetSlots", "<GetSlots" + attributes.section(' ', 0, 64), invalid, tooMany);
        row("50,000 attributes", "<GetSlots", "<GetSlots" + attributes, invalid, tooMany);
        row("attributes behind a quoted >", "<GetSlots", "<GetSlots a=\">\"" + attributes.section(' ', 0, 64), invalid, tooMany);
        row("50,000 references in an attribute", "<GetSlots", "<GetSlots a=\"" + QStringLiteral("&amp;&#65;").repeated(25000) + "\"", library);
        row("50,000 references in text", "User PIN", QStringLiteral("&lt;&#x263A;").repeated(25000),
            QString(library).replace("User PIN", QStringLiteral("<☺").repeated(25000)));
    }

    void readsRequests()
    {
        QFETCH(QString, operation);
        QFETCH(QString, xml);
        QFETCH(QString, expected);
        QFETCH(QStringList, logged);
        QVERIFY2(!xml.isNull(), "test edit did not apply");
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(outcome(operation, xml), expected);
        QVERIFY2(timer.elapsed() < 5000, "a hang; the benchmark keeps the real figures");
        for (const QString& line : logged)
            QVERIFY2(warnings.contains(line), qPrintable(line + " not in:\n" + warnings.join('\n')));
    }

    void readingRoutines_data()
    {
        QTest::addColumn<QString>("fragment");
        QTest::addColumn<QString>("expected"); // "accepted" or the warnings
        for (const auto& [name, row] : rows("request-fragments.txt")) {
            const QString sampleName = row.value("part").value(0).section(' ', 0, 0), element = row.value("part").value(0).section(' ', 1);
            const QString part = sampleName.isEmpty() ? row.value("fragment").value(0)
                : QStringLiteral("<%1>%2</%1>").arg(element, sample(sampleName).section("<" + element + ">", 1).section("</" + element + ">", 0, 0));
            QTest::newRow(qPrintable(name)) << edited(part, row.value("edit").value(0), row.value("into").value(0)) << row.value("gives").value(0);
        }
    }

    // Each fragment goes straight to the reading routine of its root element.
    void readingRoutines()
    {
        QFETCH(QString, fragment);
        QFETCH(QString, expected);
        QXmlStreamReader reader(fragment);
        QVERIFY(reader.readNextStartElement());
        QCOMPARE(readElement(&reader), expected);
    }

    // A host that is quitting stops checking a request between its stages.
    void quittingHostStopsReading()
    {
        TerminatingFlag::set();
        const QString result = outcome("getslots", sample("getslots-2022"));
        TerminatingFlag::reset();
        QCOMPARE(result, "Scriva is terminating");
    }
};

QTEST_GUILESS_MAIN(tst_Requests)
#include "tst_requests.moc"
