#include "commandline.h"
#include "options.h"
#include "wire.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

const char* const usage
    = "usage: lattivo_fidelityclient corruption|deadlines|timing --port PORT [OPTION...]\n"
      "Sends frames over the links of a simulation of makesimulation.py and says what came of them.\n"
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

bool readOption(int option, const char* value, Options& options)
{
    switch (option) {
    case 'p':
        options.port = static_cast<std::uint16_t>(std::atoi(value));
        return true;
    case 'f':
        options.frames = std::strtoull(value, nullptr, 10);
        return options.frames > 0;
    case 'z':
        options.frameBytes = std::strtoul(value, nullptr, 10);
        return options.frameBytes >= 2 * Wire::addressBytes
            && options.frameBytes + Wire::headerBytes <= Wire::maximalBytesInFlight;
    case 'n':
        options.pairs = std::atoi(value);
        return options.pairs > 0;
    case 'r':
        options.rate = std::atof(value);
        return options.rate >= 0;
    case 's':
        options.seed = static_cast<std::uint32_t>(std::strtoul(value, nullptr, 10));
        return true;
    case 'b':
        options.reliability = std::atof(value);
        return true;
    case 'd':
        options.detection = std::atof(value);
        return true;
    default:
        return false;
    }
}

bool readCommandLine(int argc, char** argv, Options& options)
{
    const option known[] = {
        {"port", required_argument, nullptr, 'p'},
        {"frames", required_argument, nullptr, 'f'},
        {"size", required_argument, nullptr, 'z'},
        {"pairs", required_argument, nullptr, 'n'},
        {"rate", required_argument, nullptr, 'r'},
        {"seed", required_argument, nullptr, 's'},
        {"reliability", required_argument, nullptr, 'b'},
        {"detection", required_argument, nullptr, 'd'},
        {nullptr, 0, nullptr, 0},
    };
    const auto read = [&](int option, const char* value) { return readOption(option, value, options); };
    if (!readOptions(argc, argv, known, read))
        return false;
    return optind + 1 == argc && options.port > 0;
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
    if (!readCommandLine(argc, argv, options) || !measure(argv[optind], options)) {
        std::fputs(usage, stderr);
        return 2;
    }
    return EXIT_SUCCESS;
}
