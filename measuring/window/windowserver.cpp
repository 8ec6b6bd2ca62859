#include "network/networksimulation.h"
#include "nodes/node.h"
#include "paintwatch.h"
#include "terminationsignals.h"
#include "ui/mainwindow.h"
#include "windowmeasurements.h"

#include <QCommandLineParser>
#include <QGraphicsView>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QScreen>
#include <QWindow>

#include <cstdio>

namespace {

const char description[]
    = "Shows the window of the program for the benchmark, with the TCP server on a free port, and ends in "
      "order on SIGTERM.\nOr takes the figures that only the process itself can take, and prints them as "
      "JSON.";

struct Options {
    QString simulationFile;
    uint seed = 1;
    bool captures = false;
    bool follows = false;
    bool fillsScreen = false;
    QString watchedNode;  // empty: none
    int capturedFrames = 0;
    QString savedFile;  // of the measurement of files; empty: none
};

Options readCommandLine()
{
    const QCommandLineOption seed("seed", "seeds qrand()", "N", "1");
    const QCommandLineOption capture("capture", "the capture is on");
    const QCommandLineOption follow("follow", "the view follows the frames");
    const QCommandLineOption fillScreen("fill-screen", "the window is as large as the screen");
    const QCommandLineOption watch(
        "watch", "prints where the node is, and at the end when it was painted where", "NAME");
    const QCommandLineOption measureCapture("measure-capture", "a capture of so many frames", "FRAMES", "0");
    const QCommandLineOption measureFiles("measure-files", "opening, saving to another file, deleting",
                                          "FILE");
    QCommandLineParser parser;
    parser.setApplicationDescription(description);
    parser.addHelpOption();
    parser.addPositionalArgument("file", "the simulation");
    parser.addOptions({seed, capture, follow, fillScreen, watch, measureCapture, measureFiles});
    parser.process(*QCoreApplication::instance());

    Options options;
    options.simulationFile = parser.positionalArguments().value(0);
    options.seed = parser.value(seed).toUInt();
    options.captures = parser.isSet(capture);
    options.follows = parser.isSet(follow);
    options.fillsScreen = parser.isSet(fillScreen);
    options.watchedNode = parser.value(watch);
    options.capturedFrames = parser.value(measureCapture).toInt();
    options.savedFile = parser.value(measureFiles);
    return options;
}

/// The file of a measurement is opened later, by hand.
bool prepareSimulation(const Options& options)
{
    bool isLoaded = true;
    if (!options.savedFile.isEmpty() || options.simulationFile.isEmpty())
        NetworkSimulation::newNetworkSimulation();
    else
        NetworkSimulation::loadNetworkSimulation(options.simulationFile, &isLoaded);
    Capture* capture = NetworkSimulation::instance()->capture();
    capture->setEnabled(options.captures || options.capturedFrames > 0);
    capture->setViewFollows(options.follows || options.capturedFrames > 0);
    return isLoaded;
}

void show(MainWindow& window, bool fillsScreen)
{
    window.show();
    if (fillsScreen)
        window.setGeometry(QGuiApplication::primaryScreen()->geometry());
    while (!window.windowHandle()->isExposed())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    QCoreApplication::processEvents();
}

const Node* nodeOfName(const QString& name)
{
    const QList<QGraphicsItem*> items = NetworkSimulation::instance()->network()->items();
    for (const QGraphicsItem* item : items) {
        const auto* node = dynamic_cast<const Node*>(item);
        if (node && node->name() == name)
            return node;
    }
    return nullptr;
}

bool startServer()
{
    Network* network = NetworkSimulation::instance()->network();
    network->setTcpPort(0);
    if (!network->setTcpEnabled(true))
        return false;
    printf("listening on port %d\n", network->listeningPort());
    return true;
}

void printJson(const QJsonObject& figures)
{
    fputs(QJsonDocument(figures).toJson(QJsonDocument::Compact).constData(), stdout);
    fputc('\n', stdout);
}

void printPictures(const PaintWatch& application)
{
    QJsonArray pictures;
    for (const PaintWatch::Picture& picture : application.pictures()) {
        const QJsonArray row
            = {static_cast<double>(picture.time), static_cast<double>(picture.wait), picture.place.x()};
        pictures.append(row);
    }
    printJson({{"pictures", pictures}});
}

int serve(PaintWatch& application, const MainWindow& window, const QString& watchedNode)
{
    const TerminationSignals signalsOfEnd;
    QObject::connect(&signalsOfEnd, SIGNAL(received()), &application, SLOT(quit()));
    const Node* node = nodeOfName(watchedNode);
    if (!startServer() || (!node && !watchedNode.isEmpty())) {
        fputs("lattivo_windowserver: no server or no such node\n", stderr);
        return EXIT_FAILURE;
    }
    if (node) {
        application.watch(static_cast<QGraphicsView*>(window.centralWidget()), node);
        printf("node at %d %d\n", application.place().x(), application.place().y());
    }
    fflush(stdout);
    const int result = QApplication::exec();
    if (node)
        printPictures(application);
    return result;
}

int run(PaintWatch& application, const Options& options)
{
    if (!prepareSimulation(options)) {
        fputs("lattivo_windowserver: the simulation does not load\n", stderr);
        return EXIT_FAILURE;
    }
    MainWindow window;
    show(window, options.fillsScreen);
    if (options.capturedFrames > 0)
        printJson(WindowMeasurements::capture(window, options.capturedFrames));
    else if (!options.savedFile.isEmpty())
        printJson(WindowMeasurements::files(window, options.simulationFile, options.savedFile));
    else
        return serve(application, window, options.watchedNode);
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv)
{
    qputenv("QT_NO_GLIB", "1");  // as the program does
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    PaintWatch application(argc, argv);
    const Options options = readCommandLine();
    qsrand(options.seed);
    const int result = run(application, options);
    NetworkSimulation::deleteNetworkSimulation();
    return result;
}
