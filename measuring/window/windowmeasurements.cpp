#include "capture/capture.h"
#include "network/network.h"
#include "nodes/node.h"
#include "processtimes.h"
#include "remotecontrol.h"
#include "ui/mainwindow.h"

#include <QAction>
#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileDialog>
#include <QGraphicsView>
#include <QJsonArray>
#include <QKeyEvent>
#include <QLineEdit>
#include <QScrollBar>
#include <QTableView>
#include <QTimer>

#include <unistd.h>

#include <ctime>
#include <thread>

namespace {

constexpr int frameBytes = 64;
constexpr int fewRows = 1000;
constexpr int measuredFrames = 20000;
constexpr int framesPerMillisecond = 10;
constexpr int fillingStep = 100;  // frames between two passes of the event loop
constexpr int measuredPages = 100;
constexpr int deletedNodes = 20;
constexpr int dialogLookInterval = 20;  // ms
constexpr std::chrono::milliseconds pace{1};

Capture& theCapture()
{
    return RemoteControl::capture();
}

void addFrame(int number)
{
    QByteArray payload(frameBytes, '\0');
    payload.replace(0, static_cast<int>(sizeof number), reinterpret_cast<const char*>(&number),
                    static_cast<int>(sizeof number));
    const auto time = static_cast<quint64>(number);
    const auto flags = static_cast<Frame::FrameFlags>(Frame::DeliveredInTime | Frame::ForceCapture);
    Frame frame(payload, time, time, flags);
    theCapture().addFrame(frame);
}

void fillUpTo(int rows)
{
    while (theCapture().rowCount() < rows) {
        for (int i = 0; i < fillingStep && theCapture().rowCount() < rows; ++i)
            addFrame(theCapture().rowCount());
        QCoreApplication::processEvents();
    }
}

/// Returns the processor time that a frame costs, in µs, when they come at an even speed.
double costOfFrame()
{
    QElapsedTimer elapsed;
    elapsed.start();
    const std::clock_t before = std::clock();
    for (int added = 0; added < measuredFrames;) {
        for (; added < std::min<qint64>(measuredFrames, elapsed.elapsed() * framesPerMillisecond); ++added)
            addFrame(added);
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(pace);
    }
    const auto processorTime = static_cast<double>(std::clock() - before);
    return processorTime / CLOCKS_PER_SEC / measuredFrames * 1e6;
}

qint64 residentBytes()
{
    QFile file(QStringLiteral("/proc/self/statm"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').value(1).toLongLong() * sysconf(_SC_PAGESIZE);
}

/// Takes the time, less what this process has to wait while other programs have its processor core.
class Stopwatch
{
public:
    Stopwatch() { start(); }

    void start()
    {
        _waitBefore = processorWait();
        _timer.start();
    }

    double milliseconds() const
    {
        const double waited = processorWait() - _waitBefore;
        return (static_cast<double>(_timer.nsecsElapsed()) - waited) / 1e6;
    }

private:
    QElapsedTimer _timer;
    double _waitBefore = 0.0;
};

/// Returns the time until a page is seen, in ms, of each page.
QJsonArray pageTimes(QTableView* table)
{
    QJsonArray times;
    QScrollBar* bar = table->verticalScrollBar();
    for (int page = 0; page < measuredPages; ++page) {
        bar->setValue(static_cast<int>(static_cast<qint64>(bar->maximum()) * page / measuredPages));
        QCoreApplication::processEvents();
        const Stopwatch stopwatch;
        bar->triggerAction(QAbstractSlider::SliderPageStepAdd);
        table->viewport()->repaint();
        times.append(stopwatch.milliseconds());
    }
    return times;
}

QAction* action(const MainWindow& window, const QString& text)
{
    for (QAction* candidate : window.findChildren<QAction*>()) {
        if (candidate->text() == text)
            return candidate;
    }
    qFatal("the window has no action \"%s\"", qPrintable(text));
    return nullptr;
}

/// Answers the file dialog of an action as soon as it is there; returns the time from the answer on, in ms.
double timeOfFileAction(const MainWindow& window, const QString& text, const QString& fileName)
{
    Stopwatch stopwatch;
    QTimer look;
    QObject::connect(&look, &QTimer::timeout, [&] {
        auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
        if (!dialog)
            return;
        look.stop();
        dialog->findChild<QLineEdit*>()->setText(fileName);
        stopwatch.start();
        QMetaObject::invokeMethod(dialog, "accept");
    });
    look.start(dialogLookInterval);
    action(window, text)->trigger();
    return stopwatch.milliseconds();
}

double timeUntilSeen()
{
    const Stopwatch stopwatch;
    QCoreApplication::processEvents();
    return stopwatch.milliseconds();
}

/// Deletes nodes from all over the network; returns the time until the picture without the node is seen, in
/// ms, of each node.
QJsonArray deletionTimes(QWidget* view)
{
    QJsonArray times;
    const QList<Node*> nodes = itemsOf<Node>(RemoteControl::network().items());
    if (nodes.size() < deletedNodes)
        qFatal("only %d nodes to delete", nodes.size());
    for (int i = 0; i < deletedNodes; ++i) {
        nodes.at(i * nodes.size() / deletedNodes)->setSelected(true);
        timeUntilSeen();

        QKeyEvent press(QEvent::KeyPress, Qt::Key_Delete, Qt::NoModifier);
        const Stopwatch stopwatch;
        QCoreApplication::sendEvent(view, &press);
        QCoreApplication::processEvents();
        times.append(stopwatch.milliseconds());
    }
    return times;
}

/// Fills the capture with so many "frames" of 64 bytes, the view following. Answers with the cost of a frame
/// with few and with that many rows, the memory a frame takes and the times of pages.
const RemoteCommand measureCapture("measure_capture", [](const QJsonObject& arguments) -> QJsonObject {
    theCapture().clear();
    fillUpTo(fewRows);
    const qint64 bytesBefore = residentBytes();
    const double costWithFew = costOfFrame();
    fillUpTo(arguments["frames"].toInt());
    const double costWithMany = costOfFrame();
    const auto bytes = static_cast<double>(residentBytes() - bytesBefore);
    return {
        {"few_rows_us", costWithFew},
        {"many_rows_us", costWithMany},
        {"bytes_per_frame", bytes / (theCapture().rowCount() - fewRows)},
        {"page_ms", pageTimes(RemoteControl::window().findChild<QTableView*>())},
    };
});

/// Opens the simulation of a "file", saves it as the file "saved" and deletes some nodes with the Delete key.
const RemoteCommand measureFiles("measure_files", [](const QJsonObject& arguments) -> QJsonObject {
    const MainWindow& window = RemoteControl::window();
    const double loadTime
        = timeOfFileAction(window, MainWindow::tr("&Open Simulation..."), arguments["file"].toString());
    const double firstPicture = timeUntilSeen();
    const double saveTime
        = timeOfFileAction(window, MainWindow::tr("&Save Simulation as..."), arguments["saved"].toString());
    return {
        {"load_ms", loadTime},
        {"first_picture_ms", firstPicture},
        {"save_ms", saveTime},
        {"delete_ms", deletionTimes(static_cast<QGraphicsView*>(window.centralWidget()))},
    };
});

}  // namespace
