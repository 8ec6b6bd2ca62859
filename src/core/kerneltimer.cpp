#include "core/kerneltimer.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <chrono>

namespace {

constexpr qint64 nanosecondsPerSecond = 1000000000;

}  // namespace

KernelTimer::KernelTimer()
    : _descriptor(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC))
{
}

KernelTimer::~KernelTimer()
{
    if (isValid())
        close(_descriptor);
}

qint64 KernelTimer::now()
{
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void KernelTimer::start(qint64 nanoseconds) const
{
    itimerspec times{};
    times.it_value.tv_sec = nanoseconds / nanosecondsPerSecond;
    times.it_value.tv_nsec = nanoseconds % nanosecondsPerSecond;
    timerfd_settime(_descriptor, TFD_TIMER_ABSTIME, &times, nullptr);
}

void KernelTimer::takeExpiration() const
{
    quint64 expirations = 0;
    const ssize_t ignored = read(_descriptor, &expirations, sizeof expirations);
    Q_UNUSED(ignored)
}
