#include "commandline.h"
#include "options.h"
#include "wire.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

const char* const usage
    = "usage: lattivo_fidelityclient corruption|deadlines|timing --port PORT [OPTION...]\n"
      "Sends frames over the links of a simulation that the lab has made and says what came of them.\n"
      "  corruption            one pair; which bits were flipped, which frames were lost\n"
      "  deadlines             pairs and a single node; how many frames each sender was told to be in time\n"
      "  timing                one pair and a single node; when each frame was sent and when it arrived\n"
      "  --frames N            of each sender (1000)\n"
      "  --size BYTES          of a frame, addresses included (12)\n"
      "  --pairs N             (1)\n"
      "  --rate FRAMES         a second (0: the next one when the last one has arrived)\n"
      "  --seed N              of the simulator (1)\n"
      "  --reliability SHARE   of the link, per bit (1), and\n"
      "  --detection SHARE     per corrupted frame (1): for drawing the same numbers again\n"
      "Prints one line of JSON. Exit code 1: the simulator failed the client, 2: wrong option.\n";

bool readCommandLine(int argc, char** argv, Options& options)
{
    CommandLine commandLine;
    commandLine.addNumber("--port", options.port, 1);
    commandLine.addNumber("--frames", options.frames, 1);
    commandLine.addNumber("--size", options.frameBytes, 2 * Wire::addressBytes);
    commandLine.addNumber("--pairs", options.pairs, 1);
    commandLine.addNumber("--rate", options.rate);
    commandLine.addNumber("--seed", options.seed);
    commandLine.addNumber("--reliability", options.reliability);
    commandLine.addNumber("--detection", options.detection);
    return commandLine.read(argc - 1, argv + 1) && options.port > 0
        && options.frameBytes + Wire::headerBytes <= Wire::maximalBytesInFlight;
}

bool measure(const std::string& what, const Options& options)
{
    if (what == "corruption")
        measureCorruption(options);
    else if (what == "deadlines")
        measureDeadlines(options);
    else if (what == "timing")
        measureTiming(options);
    else
        return false;
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (argc < 2 || !readCommandLine(argc, argv, options) || !measure(argv[1], options)) {
        std::fputs(usage, stderr);
        return 2;
    }
    return EXIT_SUCCESS;
}
