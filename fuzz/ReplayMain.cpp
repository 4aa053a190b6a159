// Feeds every file under the given folders to the fuzz entry point, once each, in name order.
// A crash fails the test; the name of the file being fed is printed first so it can be found.
#include "FuzzSupport.h"

#include <QDirIterator>
#include <QFile>
#include <QStringList>
#include <cstdio>

int main(int argc, char **argv)
{
    FuzzSupport::init();
    QStringList files;
    for (int i = 1; i < argc; ++i) {
        QDirIterator it(QString::fromLocal8Bit(argv[i]), QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) files.append(it.next());
    }
    files.sort();
    for (const QString &path : std::as_const(files)) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            std::fprintf(stderr, "unreadable: %s\n", qPrintable(path));
            return 1;
        }
        const QByteArray bytes = file.readAll();
        std::printf("%s\n", qPrintable(path));
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.constData()), size_t(bytes.size()));
    }
    std::printf("%lld inputs\n", static_cast<long long>(files.size()));
    return 0;
}
