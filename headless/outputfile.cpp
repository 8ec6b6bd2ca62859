#include "outputfile.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int mostUnwritten = 65536;              // bytes
constexpr mode_t everybodyReadsAndWrites = 0666;  // less what the user's umask takes away

}  // namespace

OutputFile::OutputFile(const QString& name)
    : _name(name)
{
}

OutputFile::~OutputFile()
{
    if (_descriptor != -1)
        ::close(_descriptor);
}

bool OutputFile::open(OpenMode mode)
{
    const QByteArray path = QFile::encodeName(_name);
    _descriptor = ::open(path.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, everybodyReadsAndWrites);
    return _check(_descriptor != -1) && QIODevice::open(mode);
}

/// Some disks tell only when a file is closed that they are full.
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

/// Once something has failed, what is left is dropped.
void OutputFile::_writeOut()
{
    int written = 0;
    while (_error.isNull() && written < _unwritten.size()) {
        const auto size = static_cast<size_t>(_unwritten.size() - written);
        const ssize_t step = ::write(_descriptor, _unwritten.constData() + written, size);
        if (_check(step != -1 || errno == EINTR))
            written += qMax(0, static_cast<int>(step));
    }
    _unwritten.clear();
}

bool OutputFile::_check(bool isOk)
{
    if (!isOk && _error.isNull())
        _error = qt_error_string(errno);
    return isOk;
}
