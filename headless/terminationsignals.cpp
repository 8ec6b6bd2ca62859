#include "terminationsignals.h"

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int signalSockets[2] = {-1, -1};  // written to by the handler, read by the event loop

/// Wakes the event loop up. It does only what a signal handler may do.
extern "C" void notifyEventLoop(int /*signal*/)
{
    const char byte = 0;
    const ssize_t written = write(signalSockets[0], &byte, sizeof byte);
    static_cast<void>(written);
}

void catchSignal(int signal)
{
    struct sigaction action = {};
    action.sa_handler = notifyEventLoop;
    action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
    sigaction(signal, &action, nullptr);
}

bool isIgnored(int signal)
{
    struct sigaction action = {};
    return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

TerminationSignals::TerminationSignals(QObject* parent)
    : QObject(parent)
{
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, signalSockets) != 0)
        return;  // the signals then end the process at once
    _notifier.emplace(signalSockets[1], QSocketNotifier::Read);
    connect(&*_notifier, SIGNAL(activated(int)), this, SLOT(_drain()));
    catchSignal(SIGINT);
    catchSignal(SIGTERM);
    if (!isIgnored(SIGHUP))  // as under nohup
        catchSignal(SIGHUP);
}

void TerminationSignals::_drain()
{
    char bytes[16];
    while (read(signalSockets[1], bytes, sizeof bytes) > 0) { }
    emit received();
}
