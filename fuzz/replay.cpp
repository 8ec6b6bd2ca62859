#include "fuzztarget.h"

#include <QDirIterator>
#include <QFile>
#include <QStringList>

#include <cstdio>

namespace {

/// \a path itself, or the files of the folder; none for a folder that is not there.
QStringList filesOf(const QString& path)
{
    if (QFileInfo(path).isFile())
        return {path};
    QStringList files;
    QDirIterator folder(path, QDir::Files);
    while (folder.hasNext())
        files.append(folder.next());
    files.sort();
    return files;
}

/// Named before it runs: the last name in the output is that of the input that ended the program.
bool replay(const QString& path)
{
    std::printf("%s\n", qPrintable(path));
    std::fflush(stdout);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray bytes = file.readAll();
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.constData()),
                           static_cast<size_t>(bytes.size()));
    return true;
}

}  // namespace

/// Runs a fuzz target once for each file, and each file of each folder, that is named as an argument. Fails
/// when there is none.
int main(int argc, char** argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    QStringList files;
    for (int i = 1; i < argc; ++i)
        files += filesOf(QString::fromLocal8Bit(argv[i]));
    for (const QString& file : qAsConst(files)) {
        if (!replay(file))
            return 1;
    }
    std::printf("%d inputs\n", files.size());
    return files.isEmpty() ? 1 : 0;
}
