#include "core/process.h"
#include "exitcode.h"
#include "network/networksimulation.h"
#include "options.h"
#include "runner.h"

#include <QApplication>
#include <QLoggingCategory>

#include <cstdio>

namespace {

// Silences what Qt says of folders that only a desktop session has
const QString silentStart = QStringLiteral("default.warning=false");
const QLatin1String withoutDebugOutput("default.debug=false");

QStringList argumentList(int argc, char* argv[])
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    return arguments;
}

ExitCode answer(const CommandLine& commandLine)
{
    if (!commandLine.isError) {
        fputs(qPrintable(commandLine.text), stdout);
        return ExitCode::Success;
    }
    fprintf(stderr, "lattivo-headless: %s\n", qPrintable(commandLine.text));
    return ExitCode::WrongOption;
}

}  // namespace

int main(int argc, char* argv[])
{
    prepareProcess();                         // a closed standard output must not cost dump and report
    qputenv("QT_QPA_PLATFORM", "offscreen");  // the scene needs an application, but nobody looks at it
    qputenv("QT_NO_GLIB", "1");               // a frame costs less in Qt's own event loop than in GLib's

    QLoggingCategory::setFilterRules(silentStart);
    int qtArgc = 1;  // this program does not take Qt's own options
    QApplication application(qtArgc, argv);
    const CommandLine commandLine = parseCommandLine(argumentList(argc, argv));
    if (!commandLine.options)
        return static_cast<int>(answer(commandLine));
    QLoggingCategory::setFilterRules(commandLine.options->debugOutput ? QString()
                                                                      : QString(withoutDebugOutput));

    const ExitCode exitCode = Runner(*commandLine.options).run();
    NetworkSimulation::deleteNetworkSimulation();
    return static_cast<int>(exitCode);
}
