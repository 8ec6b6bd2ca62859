#pragma once

#include <QtGlobal>

/// The kernel's timer behind a descriptor, since those of Qt are up to a millisecond late: as much
/// as the shortest delay of a link. Fires once, at a time of the monotonic clock.
class KernelTimer
{
public:
    KernelTimer();
    ~KernelTimer();
    Q_DISABLE_COPY_MOVE(KernelTimer)

    static constexpr qint64 millisecond = 1000000;  // ns

    static qint64 now();  // ns of the monotonic clock

    bool isValid() const { return _descriptor >= 0; }  // false: all descriptors of the process are in use
    int descriptor() const { return _descriptor; }

    void start(qint64 nanoseconds) const;
    void takeExpiration() const;

private:
    int _descriptor;
};
