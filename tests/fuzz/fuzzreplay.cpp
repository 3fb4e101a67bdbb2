// Without libFuzzer a fuzz target is this program: it feeds every file under the given folder to
// the target once, so the test suite keeps the seed corpora passing.
#include <QDirIterator>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char* argv[])
{
    const QString folder = QString::fromLocal8Bit(argc > 1 ? argv[1] : "");
    int count = 0;
    for (QDirIterator it(folder, QDir::Files, QDirIterator::Subdirectories); it.hasNext(); ++count) {
        QFile file(it.next());
        if (!file.open(QIODevice::ReadOnly))
            return 1;
        const QByteArray bytes = file.readAll();
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.constData()), size_t(bytes.size()));
    }
    return count ? 0 : 2; // no inputs: a wrong folder
}
