#pragma once

#include <QtGlobal>

/// A timer of the kernel that fires once, at a time of the monotonic clock. Qt's timers are up to a
/// millisecond late, which is as long as the shortest delay of a link.
class KernelTimer
{
public:
    KernelTimer();
    ~KernelTimer();
    Q_DISABLE_COPY_MOVE(KernelTimer)

    static constexpr qint64 millisecond = 1000000;  // ns

    static qint64 now();  // ns of the monotonic clock

    bool isValid() const { return _descriptor >= 0; }  // false: the process had no descriptor left
    int descriptor() const { return _descriptor; }

    void start(qint64 nanoseconds) const;
    void takeExpiration() const;

private:
    int _descriptor;
};
