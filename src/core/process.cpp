#include "core/process.h"

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

/// The number of a closed stream would be given to the next socket or file, and lines meant for people would
/// go there.
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
