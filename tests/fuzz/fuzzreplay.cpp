// Without libFuzzer a fuzz target is this program: it feeds every file of the given corpus
// folders (or single files) to the target once, so the test suite keeps the corpora passing.
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));

int main(int argc, char* argv[])
{
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    QStringList files;
    for (int i = 1; i < argc; ++i) {
        const QString path = QString::fromLocal8Bit(argv[i]);
        for (QDirIterator it(path, QDir::Files, QDirIterator::Subdirectories); it.hasNext();)
            files << it.next();
        if (QFileInfo(path).isFile())
            files << path;
    }
    files.sort();
    if (files.isEmpty()) {
        std::fprintf(stderr, "usage: %s <corpus folder or file>... (found no inputs)\n", argv[0]);
        return 2;
    }
    for (const QString& path : files) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            std::fprintf(stderr, "cannot read %s\n", qPrintable(path));
            return 1;
        }
        const QByteArray data = file.readAll();
        std::fprintf(stderr, "replaying %s (%lld bytes)\n", qPrintable(path), static_cast<long long>(data.size()));
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.constData()), static_cast<size_t>(data.size()));
    }
    std::fprintf(stderr, "replayed %lld inputs\n", static_cast<long long>(files.size()));
    return 0;
}
