// A signed GetCertificates request from its base64 argument to the checked record (CMS,
// signer chain, policy, schema validation, reading): p50 of 1,000 parses, and the process's
// resident memory after 1,000 and 10,000 parses. Then hostile shapes beside a plain request of the
// same size (time to record or refusal), and the parse of a signed request of about 16 MiB.
// Usage: bench_requests [parses instead of 1,000 and 10,000, e.g. for a run under callgrind]
#include "appexception.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/createobjectoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getcertificatesoperationdata.h"
#include "pkcs11/XmlParser/OperationData/OperationSpecific/getslotsoperationdata.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "testrequests.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

long residentKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    status.open(QIODevice::ReadOnly);
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLong();
    return -1;
}

void parseOnce(const QString& argument)
{
    const std::unique_ptr<ScrivaPkcs11OperationData<GetCertificatesOperationData>> record(
        ScrivaPkcs11InputXmlParser<GetCertificatesOperationData>::parse(argument));
    if (!record)
        std::abort();
}

// Milliseconds from the signed argument to a record or a refusal; says which it was.
template<typename T>
double timeParse(const QString& argument, QString* outcome)
{
    QElapsedTimer timer;
    timer.start();
    try {
        delete ScrivaPkcs11InputXmlParser<T>::parse(argument);
        *outcome = QStringLiteral("record");
    } catch (const AppException& exception) {
        *outcome = exception.getMessage();
    }
    return double(timer.nsecsElapsed()) / 1e6;
}

// The sample GetSlots request with `operation` as its operation element.
QString getSlots(const QString& operation)
{
    return QString::fromUtf8(TestRequests::xml(QStringLiteral("getslots-2022"), QStringLiteral("0f8fad5b-d9cb-469f-a165-70867728950e"),
                                               {{QStringLiteral("<GetSlots/>"), operation}}));
}

void compareWithPlain(const char* what, const QString& operation)
{
    const QString hostile = getSlots(operation);
    const QString plain = getSlots(QStringLiteral("<GetSlots>%1</GetSlots>")
                                       .arg(QString(operation.size() - 21, QLatin1Char('x'))));
    QString hostileOutcome;
    QString plainOutcome;
    const double hostileMs = timeParse<GetSlotsOperationData>(TestRequests::signedXml(hostile.toUtf8()), &hostileOutcome);
    const double plainMs = timeParse<GetSlotsOperationData>(TestRequests::signedXml(plain.toUtf8()), &plainOutcome);
    std::printf("%s (%lld bytes): %.1f ms to %s; plain request of %lld bytes: %.1f ms to %s (target < 1000 ms)\n", what,
                static_cast<long long>(hostile.size()), hostileMs, qPrintable(hostileOutcome),
                static_cast<long long>(plain.size()), plainMs, qPrintable(plainOutcome));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    Q_INIT_RESOURCE(scriva);
    // The parse logs each step; a benchmark measures the work, not the console.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    if (!TestRequests::canSign()) {
        std::printf("this build trusts real anchors; no request can be signed here\n");
        return 0;
    }
    const int parses = argc > 1 ? std::max(1, QByteArray(argv[1]).toInt()) : 0;
    const QString argument =
        TestRequests::signedArgument(QStringLiteral("getcertificates-2026"), QStringLiteral("0f8fad5b-d9cb-469f-a165-70867728950e"));

    parseOnce(argument); // first use builds the compiled schemas
    const long before = residentKiB();
    std::vector<double> micros;
    QElapsedTimer timer;
    for (int i = 0; i < (parses ? parses : 1000); ++i) {
        timer.start();
        parseOnce(argument);
        micros.push_back(double(timer.nsecsElapsed()) / 1000.0);
    }
    const long after1000 = residentKiB();
    for (int i = 0; i < (parses ? 0 : 9000); ++i)
        parseOnce(argument);
    const long after10000 = residentKiB();

    std::sort(micros.begin(), micros.end());
    std::printf("signed GetCertificates request to record: p50 %.0f us, p99 %.0f us (target p50 < 1000 us)\n",
                micros[micros.size() / 2], micros[micros.size() * 99 / 100]);
    if (parses)
        return 0;
    std::printf("resident memory: %ld KiB before, %ld KiB after 1,000, %ld KiB after 10,000 parses (target: no growth)\n",
                before, after1000, after10000);

    QString attributes;
    for (int i = 0; i < 50000; ++i)
        attributes += QStringLiteral(" a%1=\"\"").arg(i);
    compareWithPlain("GetSlots with 50,000 XML attributes", "<GetSlots" + attributes + "/>");
    compareWithPlain("GetSlots with 50,000 entity references in an attribute",
                     "<GetSlots a=\"" + QStringLiteral("&amp;").repeated(50000) + "\"/>");

    // A CreateObject whose object has 50,000 attributes: every one read, kept and freed.
    const QString attribute = QStringLiteral("<BoolAttribute><Attribute>1</Attribute><Value>true</Value></BoolAttribute>");
    const QByteArray many = TestRequests::xml(QStringLiteral("createobject-2026"), QStringLiteral("0f8fad5b-d9cb-469f-a165-70867728950e"),
                                              {{QStringLiteral("<ObjectAttributes>"), "<ObjectAttributes>" + attribute.repeated(50000)}});
    QString manyOutcome;
    const double manyMs = timeParse<CreateObjectOperationData>(TestRequests::signedXml(many), &manyOutcome);
    std::printf("signed CreateObject with 50,000 more attributes (%.1f MiB XML): %.0f ms to %s (target < 1000 ms)\n",
                double(many.size()) / (1 << 20), manyMs, qPrintable(manyOutcome));

    // About 16 MiB of signed argument: a CreateObject whose byte array value is 12 MiB of hex.
    const QByteArray big = TestRequests::xml(QStringLiteral("createobject-2026"), QStringLiteral("0f8fad5b-d9cb-469f-a165-70867728950e"),
                                             {{QStringLiteral(">0A0b<"), ">" + QString(12 << 20, QLatin1Char('a')) + "<"}});
    const QString bigArgument = TestRequests::signedXml(big);
    QString outcome;
    const double bigMs = timeParse<CreateObjectOperationData>(bigArgument, &outcome);
    std::printf("signed CreateObject of %.1f MiB argument (%.1f MiB XML): %.0f ms to %s (target < 1000 ms)\n",
                double(bigArgument.size()) / (1 << 20), double(big.size()) / (1 << 20), bigMs, qPrintable(outcome));
    return 0;
}
