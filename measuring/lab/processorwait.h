#pragma once

#include <QFile>

/// How long the main thread has had to wait so far while other programs had its processor core, in ns.
inline qint64 processorWait()
{
    QFile file(QStringLiteral("/proc/self/schedstat"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').value(1).toLongLong();
}
