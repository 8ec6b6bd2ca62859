#include "network/networksimulation.h"
#include "simulatorcommands.h"

#include <QApplication>
#include <QLoggingCategory>

#include <csignal>
#include <cstdlib>

/// The program with its window, but no display, edited by commands: see SimulatorCommands. The only argument
/// is the seed of qrand(). It ends in order, so that whatever is still held shows as a leak.
int main(int argc, char* argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_NO_GLIB", "1");  // as the program does
    std::signal(SIGPIPE, SIG_IGN);
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));  // a "*" for each corrupted bit

    QApplication application(argc, argv);
    qsrand(argc > 1 ? static_cast<uint>(std::strtoul(argv[1], nullptr, 10)) : 1);
    int result = 0;
    {
        const SimulatorCommands commands;
        result = QApplication::exec();
    }
    NetworkSimulation::deleteNetworkSimulation();
    return result;
}
