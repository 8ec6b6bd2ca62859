#include "outputfile.h"

#include <QFileInfo>

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int mostUnwritten = 65536;              // bytes
constexpr mode_t everybodyReadsAndWrites = 0666;  // less what the user's umask takes away

bool isSame(const struct stat& file1, const struct stat& file2)
{
    return file1.st_dev == file2.st_dev && file1.st_ino == file2.st_ino;
}

}  // namespace

bool isSameFile(int descriptor1, int descriptor2)
{
    struct stat file1 = {};
    struct stat file2 = {};
    return ::fstat(descriptor1, &file1) == 0 && ::fstat(descriptor2, &file2) == 0 && S_ISREG(file1.st_mode)
        && isSame(file1, file2);
}

OutputFile::OutputFile(const QString& name)
    : _name(name)
{
}

OutputFile::~OutputFile()
{
    if (_descriptor == -1)
        return;
    if (_isNew && !_isWritten)
        _removeIfEmpty();
    ::close(_descriptor);
}

bool OutputFile::open(OpenMode mode)
{
    const QByteArray path = QFile::encodeName(_name);
    _isNew = !QFileInfo::exists(_name);
    _descriptor = ::open(path.constData(), O_WRONLY | O_CREAT | O_CLOEXEC, everybodyReadsAndWrites);
    return _check(_descriptor != -1) && QIODevice::open(mode);
}

/// Writes what is left and closes the file. Some disks tell only then that they are full.
bool OutputFile::finish()
{
    _writeOut();
    _check(::close(std::exchange(_descriptor, -1)) == 0);
    close();
    return _error.isNull();
}

qint64 OutputFile::readData(char* /*data*/, qint64 /*size*/)
{
    return -1;
}

qint64 OutputFile::writeData(const char* data, qint64 size)
{
    _unwritten.append(data, static_cast<int>(size));
    if (_unwritten.size() >= mostUnwritten)
        _writeOut();
    return _error.isNull() ? size : -1;
}

/// Cuts the older contents. Pipes and devices have none.
void OutputFile::_cut()
{
    struct stat own = {};
    if (::fstat(_descriptor, &own) == 0 && S_ISREG(own.st_mode))
        _check(::ftruncate(_descriptor, 0) == 0);
    _isWritten = true;
}

/// Gives the kernel what is unwritten. Once a call has failed, drops the rest.
void OutputFile::_writeOut()
{
    if (!_isWritten)
        _cut();
    int written = 0;
    while (_error.isNull() && written < _unwritten.size()) {
        const auto size = static_cast<size_t>(_unwritten.size() - written);
        const ssize_t step = ::write(_descriptor, _unwritten.constData() + written, size);
        if (_check(step != -1 || errno == EINTR))
            written += qMax(0, static_cast<int>(step));
    }
    _unwritten.clear();
}

/// Removes the file, unless somebody has written to it or put another one in its place. Of a symbolic link,
/// it removes what the link points to.
void OutputFile::_removeIfEmpty() const
{
    const QByteArray path = QFile::encodeName(QFileInfo(_name).canonicalFilePath());
    struct stat own = {};
    struct stat present = {};
    if (::fstat(_descriptor, &own) != 0 || ::stat(path.constData(), &present) != 0)
        return;
    if (own.st_size == 0 && isSame(own, present))
        ::unlink(path.constData());
}

bool OutputFile::_check(bool isOk)
{
    if (!isOk && _error.isNull())
        _error = qt_error_string(errno);
    return isOk;
}
