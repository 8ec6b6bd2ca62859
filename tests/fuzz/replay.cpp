#include "fuzztarget.h"

#include <QDirIterator>
#include <QFile>
#include <QStringList>

#include <cstdio>
#include <cstring>

namespace {

/// Returns \a path itself, or the files of the folder whose names match; none for a folder that is not there.
QStringList filesOf(const QString& path, const QString& namePattern)
{
    if (QFileInfo(path).isFile())
        return {path};
    QStringList files;
    QDirIterator folder(path, {namePattern}, QDir::Files);
    while (folder.hasNext())
        files.append(folder.next());
    files.sort();
    return files;
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
        if (!goal->isReached())
            std::printf("No seed reaches this: %s\n", goal->what());
        areAll = areAll && goal->isReached();
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
    QStringList files;
    for (int i = isForSeeds ? 2 : 1; i < argc; ++i)
        files += filesOf(QString::fromLocal8Bit(argv[i]), namePattern);
    for (const QString& file : qAsConst(files)) {
        if (!replay(file))
            return 1;
    }
    std::printf("%d inputs\n", files.size());
    if (isForSeeds && !areGoalsReached())
        return 1;
    return files.isEmpty() ? 1 : 0;
}
