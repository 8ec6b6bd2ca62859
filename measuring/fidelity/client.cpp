#include "commandline.h"
#include "measurement.h"

#include <cstdlib>
#include <map>
#include <string>

namespace {

const std::map<std::string, void (*)(const Options&)> measurements = {
    {"corruption", &measureCorruption},
    {"deadlines", &measureDeadlines},
    {"timing", &measureTiming},
};

Options readCommandLine(int argc, char** argv)
{
    Options options;
    CommandLine line(
        "usage: lattivo_fidelityclient corruption|deadlines|timing --port PORT [OPTION...]\n"
        "Sends frames over the links of a simulation and prints one line of JSON on what came of them.\n"
        "  corruption: one pair; which bits were flipped, which frames were lost\n"
        "  deadlines: pairs and a single node; how many frames each sender was told to be in time\n"
        "  timing: one pair and a single node; when each frame was sent and when it arrived\n"
        "Exit code 1: the simulator failed the client, 2: wrong option.");
    line.addNumber("--port", options.port, 1, "of the simulator");
    line.addNumber("--frames", options.frames, 1, "of each sender (1000)");
    line.addNumber("--size", options.frameBytes, 2 * addressBytes,
                   "bytes of a frame, addresses included (12)");
    line.addNumber("--pairs", options.pairs, 1, "of nodes (1)");
    line.addNumber("--rate", options.rate, 0,
                   "frames per second (0: the next one when the last one has arrived)");
    line.addNumber("--seed", options.seed, 0, "of the simulator (1)");
    line.addNumber("--reliability", options.reliability, 0,
                   "of the link, per bit (1), to draw the same numbers again");
    line.addNumber("--detection", options.detection, 0, "of the link, per corrupted frame (1), likewise");
    const bool isMeasurement = argc > 1 && measurements.count(argv[1]) > 0;
    if (!isMeasurement)
        line.refuse();
    line.read(argc - 1, argv + 1);
    if (options.port == 0 || options.frameBytes + LATTIVO_HEADER_SIZE > burstBytes)
        line.refuse();
    return options;
}

}  // namespace

int main(int argc, char** argv)
{
    const Options options = readCommandLine(argc, argv);
    measurements.at(argv[1])(options);
    return EXIT_SUCCESS;
}
