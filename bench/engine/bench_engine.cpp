// Times the token operations through Pkcs11Manager against SoftHSM: GetSlots over 10 tokens and
// GetCertificates over 50 certificates, with the PKCS#11 trace off (no host log file) and on (the
// file exists), plus the cost of the trace switch itself on a single cheap call. Then GetSlots on
// one token through the host's pipes beside its floor, getslots_floor: the same module calls with
// the module opened, initialised, finalised and closed each time, as the host does; like the host
// it maps the module once. The first GetSlots of a host maps the module, the second should not. The two
// take turns in rounds, so a busy machine slows both alike.
// Usage: bench_engine [host rounds, default 10] [host: only GetSlots through the host]
// SCRIVA_BENCH_LAUNCHER runs the host under a tool ("valgrind --tool=callgrind"), or names another
// build of the host to run instead (the built host's path is then its ignored argument).

#include "loghandler.h"
#include "ownedresource.h"
#include "pkcs11/XmlParser/scrivanamespaces.h"
#include "pkcs11/XmlParser/scrivapkcs11inputxmlparser.h"
#include "pkcs11/pkcs11manager.h"
#include "pkcs11logger.h"
#include "../common/pipepeer.h"
#include "softhsmtoken.h"
#include "testrequests.h"
#include "hostprocess.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLibrary>
#include <QPair>
#include <QProcess>
#include <QTemporaryDir>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int tokenCount = 10;
constexpr int certificateCount = 50;
constexpr int runs = 9;
const QString userPin = QStringLiteral("bench-pin-1");

[[noreturn]] void fail(const QString& what)
{
    std::fprintf(stderr, "bench_engine: %s\n", qPrintable(what));
    std::exit(1);
}

// Module calls and other lines in the log of one traced run.
QPair<int, int> logCounts()
{
    QFile file(LogHandler::hostLogPath());
    if (!file.open(QIODevice::ReadOnly))
        return {0, 0};
    const QList<QByteArray> lines = file.readAll().split('\n');
    int calls = 0;
    int others = 0;
    for (const QByteArray& line : lines) {
        if (line.contains(" - PKCS#11 - Going to call "))
            ++calls;
        else if (!line.isEmpty() && !line.contains(" - PKCS#11 - "))
            ++others;
    }
    return {calls, others};
}

double medianMs(std::function<void()> run, const std::function<void()>& before = {})
{
    QList<qint64> times;
    for (int i = 0; i < runs; ++i) {
        if (before)
            before();
        QElapsedTimer timer;
        timer.start();
        run();
        times.append(timer.nsecsElapsed());
    }
    std::sort(times.begin(), times.end());
    return double(times.at(runs / 2)) / 1e6;
}

// One self-signed certificate (DER) to store many times over.
QByteArray makeCertificate()
{
    Owned<EVP_PKEY, EVP_PKEY_free> key(EVP_EC_gen("P-256"));
    Owned<X509, X509_free> certificate(X509_new());
    if (!key || !certificate)
        fail(QStringLiteral("cannot make a certificate"));
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 86400);
    X509_NAME* name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("Bench"), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    X509_set_pubkey(certificate.get(), key.get());
    if (!X509_sign(certificate.get(), key.get(), EVP_sha256()))
        fail(QStringLiteral("cannot sign the certificate"));
    QByteArray der(i2d_X509(certificate.get(), nullptr), '\0');
    auto* out = reinterpret_cast<unsigned char*>(der.data());
    i2d_X509(certificate.get(), &out);
    return der;
}

// Fills the first token with the certificates through the module itself and returns its serial
// number. The module stays loaded: SoftHSM does not survive being unloaded and loaded again.
QString fillFirstToken(CK_FUNCTION_LIST_PTR module)
{
    if (module->C_Initialize(nullptr) != CKR_OK)
        fail(QStringLiteral("C_Initialize failed"));
    CK_SLOT_ID slotIds[tokenCount + 1];
    CK_ULONG count = tokenCount + 1;
    CK_TOKEN_INFO info{};
    if (module->C_GetSlotList(CK_TRUE, slotIds, &count) != CKR_OK
        || module->C_GetTokenInfo(slotIds[0], &info) != CKR_OK)
        fail(QStringLiteral("no token"));
    CK_SESSION_HANDLE session = 0;
    QByteArray pin = userPin.toUtf8();
    if (module->C_OpenSession(slotIds[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session) != CKR_OK
        || module->C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()), CK_ULONG(pin.size()))
               != CKR_OK)
        fail(QStringLiteral("cannot log in"));
    QByteArray der = makeCertificate();
    CK_OBJECT_CLASS certificateClass = CKO_CERTIFICATE;
    CK_CERTIFICATE_TYPE x509 = CKC_X_509;
    CK_BBOOL yes = CK_TRUE, no = CK_FALSE;
    QByteArray subject = QByteArray::fromHex("3010310E300C06035504030C0542656E6368");
    for (int i = 0; i < certificateCount; ++i) {
        unsigned char id = static_cast<unsigned char>(i);
        CK_ATTRIBUTE object[] = {{CKA_CLASS, &certificateClass, sizeof(certificateClass)},
                                 {CKA_CERTIFICATE_TYPE, &x509, sizeof(x509)},
                                 {CKA_TOKEN, &yes, sizeof(yes)},
                                 {CKA_PRIVATE, &no, sizeof(no)},
                                 {CKA_ID, &id, 1},
                                 {CKA_SUBJECT, subject.data(), CK_ULONG(subject.size())},
                                 {CKA_VALUE, der.data(), CK_ULONG(der.size())}};
        CK_OBJECT_HANDLE handle = 0;
        if (module->C_CreateObject(session, object, 7, &handle) != CKR_OK)
            fail(QStringLiteral("C_CreateObject failed"));
    }
    module->C_CloseSession(session);
    module->C_Finalize(nullptr);
    return QString::fromLatin1(reinterpret_cast<const char*>(info.serialNumber), sizeof(info.serialNumber)).trimmed();
}

CK_RV stubGetSessionInfo(CK_SESSION_HANDLE, CK_SESSION_INFO_PTR info)
{
    info->state = CKS_RW_USER_FUNCTIONS;
    return CKR_OK;
}

// The switch alone, on a module call that does nothing: calls straight to the function list
// against calls through the trace wrapper with the trace off. Returns nanoseconds per call.
double switchCostNs(double* directMs, double* tracedMs)
{
    constexpr int calls = 200000;
    CK_FUNCTION_LIST stub{};
    stub.C_GetSessionInfo = stubGetSessionInfo;
    CK_FUNCTION_LIST_PTR module = &stub;
    Pkcs11Logger logger(module);
    CK_SESSION_INFO info{};
    *directMs = medianMs([&] {
        for (int i = 0; i < calls; ++i)
            module->C_GetSessionInfo(CK_SESSION_HANDLE(i), &info);
    });
    *tracedMs = medianMs([&] {
        for (int i = 0; i < calls; ++i)
            logger.C_GetSessionInfo(CK_SESSION_HANDLE(i), &info);
    });
    return (*tracedMs - *directMs) * 1e6 / calls;
}

QString requestXml(const QString& operation, const QString& body)
{
    return QStringLiteral("<ScrivaOperation xmlns=\"%1\"><Nonce>bench-nonce-00000001</Nonce><Pkcs11Operation>"
                          "<Pkcs11Library><Locations><Location><Path>%2</Path><Architecture>x64</Architecture>"
                          "</Location></Locations><Pin1Name>PIN</Pin1Name><Pin2Name>PIN2</Pin2Name>"
                          "<ShowPinForm>false</ShowPinForm><AllowManualSelection>false</AllowManualSelection>"
                          "<VendorExtensions></VendorExtensions></Pkcs11Library><%3>%4</%3></Pkcs11Operation>"
                          "</ScrivaOperation>")
        .arg(ScrivaNamespaces::version20260204(), SoftHsmToken::softHsmModulePath(), operation, body);
}

double percentile(std::vector<double> values, double p)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[std::min(values.size() - 1, size_t(p * double(values.size())))];
}

QByteArray message(const char* method, const QString& argument = QString())
{
    QJsonObject object{{QStringLiteral("method"), QStringLiteral("ScrivaPkcs11.1.0.0.qt.QES.") + QLatin1String(method)}};
    if (!argument.isNull())
        object.insert(QStringLiteral("args"), QJsonArray{argument});
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// One framed round trip through the host: microseconds, and the answer.
double roundTripUs(PipePeer& host, const QByteArray& request, QJsonObject* answer)
{
    QElapsedTimer timer;
    timer.start();
    host.send(request);
    const QByteArray payload = host.receive();
    const double us = double(timer.nsecsElapsed()) / 1e3;
    *answer = QJsonDocument::fromJson(payload).object();
    return us;
}

QString answerError(const QJsonObject& answer)
{
    return answer.value(QStringLiteral("error")).toString();
}

// GetSlots on one SoftHSM token: the floor program and the host take turns, `rounds` rounds of
// 100 operations each; p50 over all operations (the floor's: the median of its round medians).
// The host is spoken to over plain pipes, as a browser does.
void compareWithFloor(int rounds)
{
    constexpr int perRound = 100;
    const QString label = QStringLiteral("Scriva token");
    SoftHsmToken store;
    if (!store.initToken(label, QStringLiteral("12345678"), QStringLiteral("1234")))
        fail(store.lastError());
    const QString serial = store.serialNumber(label);
    QTemporaryDir home;
    QProcessEnvironment environment = store.environment();
    environment.insert(QStringLiteral("HOME"), home.path());
    environment.insert(QStringLiteral("XDG_DATA_HOME"), home.path() + QStringLiteral("/.local/share"));
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.path());
    if (!environment.contains(QStringLiteral("QT_QPA_PLATFORM")))
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    std::vector<std::string> entries;
    for (const QString& entry : environment.toStringList())
        entries.push_back(entry.toStdString());
    std::vector<std::string> launcher;
    for (const QByteArray& word : qgetenv("SCRIVA_BENCH_LAUNCHER").split(' '))
        if (!word.isEmpty())
            launcher.push_back(word.toStdString());
    PipePeer host(SCRIVA_BIN_DIR "/ScrivaPkcs11", entries, launcher);

    QJsonObject answer;
    roundTripUs(host, message("CreateInstance"), &answer);
    if (!answerError(answer).isEmpty() || answer.isEmpty())
        fail(QStringLiteral("CreateInstance failed: ") + answerError(answer));
    const QString module = SoftHsmToken::softHsmModulePath();
    const QMap<QString, QString> aimed{{QStringLiteral("0123456789ABCDEF"), serial},
                                       {QStringLiteral("{\"reader\":\"any\"}"), QString()},
                                       {QString::fromLatin1(HostProcess::sampleModule), module}};
    // Signed once for a nonce the host never gave: refused after the whole check.
    const QByteArray stale = message("GetSlots", TestRequests::signedArgument(QStringLiteral("getslots-2026"),
                                                                             QStringLiteral("0f8fad5b-d9cb-469f-a165-70867728950e"), aimed));
    const QByteArray getNonce = message("GetNonce");
    QProcess floorProgram;
    floorProgram.setProcessEnvironment(store.environment());
    std::vector<double> floorUs, nonceUs, slotsUs, refusedUs;
    int listed = 0;
    for (int round = 0; round < rounds; ++round) {
        floorProgram.start(QCoreApplication::applicationDirPath() + QStringLiteral("/getslots_floor"),
                           {module, QString::number(perRound)});
        if (!floorProgram.waitForFinished(60000) || floorProgram.exitCode() != 0)
            fail(QStringLiteral("getslots_floor failed: ") + QString::fromLocal8Bit(floorProgram.readAllStandardError()));
        const QList<QByteArray> figures = floorProgram.readAllStandardOutput().simplified().split(' ');
        if (figures.size() != 3 || figures.at(2).toInt() < 1)
            fail(QStringLiteral("getslots_floor listed no slot"));
        listed = figures.at(2).toInt();
        floorUs.push_back(figures.at(0).toDouble());

        for (int i = 0; i < perRound; ++i) {
            nonceUs.push_back(roundTripUs(host, getNonce, &answer));
            const QString nonce = answer.value(QStringLiteral("result")).toString();
            const QByteArray request =
                message("GetSlots", TestRequests::signedArgument(QStringLiteral("getslots-2026"), nonce, aimed));
            slotsUs.push_back(roundTripUs(host, request, &answer));
            if (!answerError(answer).isEmpty()
                || !answer.value(QStringLiteral("result")).toString().contains(QStringLiteral("<SerialNumber>") + serial))
                fail(QStringLiteral("GetSlots through the host failed: ") + answerError(answer));
            refusedUs.push_back(roundTripUs(host, stale, &answer));
            if (answerError(answer) != QLatin1String("CommunicationMismatchNonce"))
                fail(QStringLiteral("the stale request was not refused at the nonce: ") + answerError(answer));
        }
    }
    roundTripUs(host, message("Terminate"), &answer);

    const double floorP50 = percentile(floorUs, 0.5);
    const double slotsP50 = percentile(slotsUs, 0.5);
    const double nonce = percentile(nonceUs, 0.5);
    std::printf("GetSlots on one token (%d slots listed), %d rounds of %d, p50 (p99)\n", listed, rounds, perRound);
    std::printf("  floor: open, initialise, slots and infos, finalise, close   %8.0f us\n", floorP50);
    std::printf("  host: first signed GetSlots (maps the module), second       %8.0f us, %.0f us  %.2fx the floor\n",
                slotsUs.at(0), slotsUs.at(1), slotsUs.at(1) / floorP50);
    std::printf("  host: signed GetSlots round trip                            %8.0f us (%.0f us)  %.2fx the floor (target <= 3x)\n",
                slotsP50, percentile(slotsUs, 0.99), slotsP50 / floorP50);
    std::printf("  host: GetNonce + signed GetSlots                            %8.0f us            %.2fx the floor\n",
                nonce + slotsP50, (nonce + slotsP50) / floorP50);
    std::printf("  host: GetNonce round trip                                   %8.0f us (%.0f us)\n", nonce,
                percentile(nonceUs, 0.99));
    std::printf("  host: signed GetSlots refused at the nonce                  %8.0f us (%.0f us)  (target <= 500 us)\n",
                percentile(refusedUs, 0.5), percentile(refusedUs, 0.99));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const int hostRounds = argc > 1 ? std::max(1, QByteArray(argv[1]).toInt()) : 10;
    if (argc > 2 && QByteArray(argv[2]) == "host") {
        compareWithFloor(hostRounds);
        return 0;
    }
    Q_INIT_RESOURCE(scriva);
    QTemporaryDir home;
    qputenv("XDG_DATA_HOME", home.path().toUtf8());
    LogHandler::init(QString::fromLatin1(LogHandler::hostLogFileName));
    QDir().mkpath(LogHandler::logDirectory());

    SoftHsmToken store;
    for (int i = 0; i < tokenCount; ++i)
        if (!store.initToken(QStringLiteral("Bench %1").arg(i), QStringLiteral("so-pin-1"), userPin))
            fail(store.lastError());
    QLibrary softHsm(SoftHsmToken::softHsmModulePath());
    auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(softHsm.resolve("C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR module = nullptr;
    if (!getFunctionList || getFunctionList(&module) != CKR_OK)
        fail(QStringLiteral("cannot load SoftHSM"));
    const QString serial = fillFirstToken(module);

    std::unique_ptr<ScrivaPkcs11OperationData<GetSlotsOperationData>> slotsRequest(
        ScrivaPkcs11InputXmlParser<GetSlotsOperationData>::parseXml(requestXml("GetSlots", {})));
    std::unique_ptr<ScrivaPkcs11OperationData<GetCertificatesOperationData>> certificatesRequest(
        ScrivaPkcs11InputXmlParser<GetCertificatesOperationData>::parseXml(requestXml(
            "GetCertificates",
            "<TokenIdentification><SerialNumber>" + serial + "</SerialNumber><Label></Label></TokenIdentification>")));
    const QString path = SoftHsmToken::softHsmModulePath();
    const QString ns = ScrivaNamespaces::version20260204();
    Pkcs11Manager manager;
    int listed = 0;
    int certificates = 0;
    auto getSlots = [&] {
        listed = manager.getSlots(path, slotsRequest.get(), ns).second.count(QLatin1String("<Slot>"));
    };
    auto getCertificates = [&] {
        certificates =
            manager.getCertificates(path, certificatesRequest.get(), ns).second.count(QLatin1String("<Certificate>"));
    };

    auto traceOff = [] { QFile::remove(LogHandler::hostLogPath()); };
    // A fresh, empty log for each run, so that every run appends to a file of the same size.
    auto traceOn = [] {
        QFile file(LogHandler::hostLogPath());
        file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    };
    try {
        const double slotsOff = medianMs(getSlots, traceOff);
        const double slotsOn = medianMs(getSlots, traceOn);
        const qint64 slotsLog = QFileInfo(LogHandler::hostLogPath()).size();
        const QPair<int, int> slotsCounts = logCounts();
        const double certificatesOff = medianMs(getCertificates, traceOff);
        const double certificatesOn = medianMs(getCertificates, traceOn);
        const qint64 certificatesLog = QFileInfo(LogHandler::hostLogPath()).size();
        const QPair<int, int> certificatesCounts = logCounts();
        traceOff();
        double directMs = 0, tracedMs = 0;
        const double switchNs = switchCostNs(&directMs, &tracedMs);

        std::printf("median of %d runs, SoftHSM %s\n", runs, qPrintable(path));
        std::printf("%-38s trace off %8.2f ms   trace on %8.2f ms (%lld log bytes)\n",
                    qPrintable(QStringLiteral("GetSlots, %1 slots").arg(listed)), slotsOff, slotsOn, slotsLog);
        std::printf("%-38s trace off %8.2f ms   trace on %8.2f ms (%lld log bytes)\n",
                    qPrintable(QStringLiteral("GetCertificates, %1 certificates").arg(certificates)), certificatesOff,
                    certificatesOn, certificatesLog);
        std::printf("%-38s direct    %8.2f ms   traced, off %6.2f ms (%.0f ns per call)\n",
                    "empty call x 200000", directMs, tracedMs, switchNs);
        // With the log off every module call and every other log line still looks at the switch.
        auto share = [&](const char* name, QPair<int, int> counts, double offMs) {
            const double switchMs = (counts.first + counts.second / 2.0) * switchNs / 1e6;
            std::printf("%-38s %d module calls, %d other log lines: switch checks ~%.2f ms (%.1f%% of trace off)\n",
                        name, counts.first, counts.second, switchMs, 100.0 * switchMs / offMs);
        };
        share("GetSlots", slotsCounts, slotsOff);
        share("GetCertificates", certificatesCounts, certificatesOff);
        std::fflush(stdout);
        compareWithFloor(hostRounds);
    } catch (const AppException& e) {
        fail(e.toString(true));
    }
    return 0;
}
