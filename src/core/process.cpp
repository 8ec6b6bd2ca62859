#include "core/process.h"

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

/// Opens closed streams on the null device. Else the next socket or file would get such a number, and
/// with it the lines that are meant for people.
void openClosedStreams()
{
    int number = 0;
    do {
        number = open("/dev/null", O_RDWR);
    } while (number >= STDIN_FILENO && number <= STDERR_FILENO);
    if (number > STDERR_FILENO)
        close(number);
}

}  // namespace

void prepareProcess()
{
    openClosedStreams();
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}
