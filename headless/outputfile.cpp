#include "outputfile.h"

#include <QFile>

namespace {

/// A write that was done in part names no reason, the next one does. Past the buffer, which would try again
/// when the file is closed; should there be room by now, its byte is taken back. Nothing can be taken back
/// from a pipe.
QString partialWriteError(const QFile& file)
{
    QString error = QStringLiteral("only a part of it could be written");
    const qint64 size = file.size();
    QFile probe;
    if (file.isSequential() || !probe.open(file.handle(), QIODevice::WriteOnly | QIODevice::Unbuffered))
        return error;
    if (probe.write(" ") == 1)
        probe.resize(size);
    else
        error = probe.errorString();
    return error;
}

QString writeError(QFile& file)
{
    if (!file.flush() || file.error() != QFileDevice::NoError)
        return file.errorString();
    return partialWriteError(file);
}

}  // namespace

/// Some disks tell only when a file is closed that they are full; closing it also wipes the text of an
/// earlier error.
QString closingError(QFile& file, bool isWritten)
{
    QString error;
    if (!isWritten || !file.flush())
        error = writeError(file);
    file.close();
    if (error.isNull() && file.error() != QFileDevice::NoError)
        error = file.errorString();
    return error;
}
