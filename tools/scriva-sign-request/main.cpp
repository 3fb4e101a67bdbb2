// scriva-sign-request: turns a request document into the signed operation argument of the host.
#include "requestsigner.h"

#include <QFile>
#include <QList>
#include <QPair>
#include <QString>

#include <cstdio>
#include <cstring>

namespace {
const char usage[] = R"(Usage: scriva-sign-request [options] <request.xml> <signer-key.pem> <signer-cert.pem>

Prints the operation argument for the ScrivaPkcs11 host: the base64 text (one line) of a CMS
SignedData that encapsulates the request document byte for byte, signed by the given signer,
with the signer's certificate included.

Options:
  -o, --output <file>            write to <file> instead of standard output
      --der                      write the DER CMS instead of its base64 text
      --detached                 leave the document out of the CMS (the host refuses this)
      --add-signer <key> <cert>  add a further signer (the host refuses this); repeatable
  -h, --help                     show this text

The same argument can be made with the openssl command-line tool:
  openssl cms -sign -binary -nodetach -outform DER -in request.xml -signer cert.pem -inkey key.pem | base64 -w0
)";

int usageError(const char* text)
{
    std::fprintf(stderr, "scriva-sign-request: %s\n\n%s", text, usage);
    return 2;
}
} // namespace

int main(int argc, char* argv[])
{
    QStringList positional;
    QList<QPair<QString, QString>> extraSigners;
    QString outputFile;
    bool der = false;
    bool detached = false;

    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (!std::strcmp(arg, "-h") || !std::strcmp(arg, "--help")) {
            std::fputs(usage, stdout);
            return 0;
        } else if (!std::strcmp(arg, "-o") || !std::strcmp(arg, "--output")) {
            if (++i >= argc)
                return usageError("--output needs a file name");
            outputFile = QString::fromLocal8Bit(argv[i]);
        } else if (!std::strcmp(arg, "--der")) {
            der = true;
        } else if (!std::strcmp(arg, "--detached")) {
            detached = true;
        } else if (!std::strcmp(arg, "--add-signer")) {
            if (i + 2 >= argc)
                return usageError("--add-signer needs a key file and a certificate file");
            extraSigners.append({QString::fromLocal8Bit(argv[i + 1]), QString::fromLocal8Bit(argv[i + 2])});
            i += 2;
        } else if (arg[0] == '-' && arg[1] != '\0') {
            return usageError("unknown option");
        } else {
            positional << QString::fromLocal8Bit(arg);
        }
    }
    if (positional.size() != 3)
        return usageError("expected <request.xml> <signer-key.pem> <signer-cert.pem>");

    QFile request(positional.at(0));
    if (!request.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "scriva-sign-request: cannot read %s\n", qPrintable(positional.at(0)));
        return 1;
    }
    const QByteArray content = request.readAll();

    RequestSigner signer;
    signer.setDetached(detached);
    bool loaded = signer.addSigner(positional.at(1), positional.at(2));
    for (const auto& extra : extraSigners)
        loaded = loaded && signer.addSigner(extra.first, extra.second);
    const QByteArray cms = loaded ? signer.sign(content) : QByteArray();
    if (cms.isEmpty()) {
        std::fprintf(stderr, "scriva-sign-request: %s\n", qPrintable(signer.errorString()));
        return 1;
    }
    const QByteArray output = der ? cms : cms.toBase64() + '\n';

    if (outputFile.isEmpty()) {
        if (std::fwrite(output.constData(), 1, output.size(), stdout) != std::size_t(output.size()))
            return 1;
        return std::fflush(stdout) == 0 ? 0 : 1;
    }
    QFile file(outputFile);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(output) != output.size()) {
        std::fprintf(stderr, "scriva-sign-request: cannot write %s\n", qPrintable(outputFile));
        return 1;
    }
    return 0;
}
