#include "fuzztarget.h"

#include <QDir>

#include <cstdio>
#include <cstring>

namespace {

/// Returns \a path itself, or the files of the folder whose names match; none for a folder that is not there.
QFileInfoList filesOf(const QFileInfo& path, const QString& namePattern)
{
    return path.isFile() ? QFileInfoList{path}
                         : QDir(path.filePath()).entryInfoList({namePattern}, QDir::Files, QDir::Name);
}

/// Names the input before it runs: the last name in the output is that of the input that ended the program.
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

/// Says which goals no input has reached.
bool areGoalsReached()
{
    bool areAll = true;
    for (const Fuzz::Goal* goal : Fuzz::goals()) {
        if (!goal->isReached)
            std::printf("No seed reaches this: %s\n", goal->what);
        areAll = areAll && goal->isReached;
    }
    return areAll;
}

}  // namespace

/// Runs a fuzz target once for each file, and each file of each folder, that is named as an argument. Fails
/// when there is none. With --seeds as the first argument, runs only the seeds of the folders, and also fails
/// when they miss one of the target's goals.
int main(int argc, char** argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    const bool isForSeeds = argc > 1 && std::strcmp(argv[1], "--seeds") == 0;
    const QString namePattern = isForSeeds ? QStringLiteral("seed-*") : QStringLiteral("*");
    QFileInfoList files;
    for (int i = isForSeeds ? 2 : 1; i < argc; ++i)
        files += filesOf(QString::fromLocal8Bit(argv[i]), namePattern);
    for (const QFileInfo& file : qAsConst(files)) {
        if (!replay(file.filePath()))
            return 1;
    }
    std::printf("%d inputs\n", files.size());
    if (isForSeeds && !areGoalsReached())
        return 1;
    return files.isEmpty() ? 1 : 0;
}
