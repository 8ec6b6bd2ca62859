#include "network/network.h"
#include "nodes/node.h"
#include "processtimes.h"
#include "remotecontrol.h"
#include "ui/mainwindow.h"

#include <QApplication>
#include <QGraphicsView>
#include <QJsonArray>
#include <QPaintEvent>
#include <QScreen>
#include <QWindow>

#include <chrono>
#include <cstdlib>
#include <optional>

namespace {

/// An application that writes down when a view has painted a certain item, and where.
class PaintWatch : public QApplication
{
public:
    using QApplication::QApplication;

    /// Neither is owned.
    void watch(const QGraphicsView* view, const QGraphicsItem* item)
    {
        _view = view;
        _item = item;
    }

    /// The item's origin, in pixels of the screen.
    QPoint place() const { return _view->viewport()->mapToGlobal(_view->mapFromScene(_item->pos())); }

    /// A row for each picture: when it had been handed to the display, in ns of the clock that Python's
    /// time.monotonic_ns() reads, how long this process had waited for its core by then, and the place.
    const QJsonArray& pictures() const { return _pictures; }

    /// Notes a picture when the outermost event is done: what was painted has reached the display then.
    bool notify(QObject* receiver, QEvent* event) override
    {
        if (_isPictureOfItem(receiver, event))
            _painted = place();
        ++_depth;
        const bool isHandled = QApplication::notify(receiver, event);
        --_depth;
        if (_depth == 0 && _painted) {
            const std::chrono::nanoseconds now = std::chrono::steady_clock::now().time_since_epoch();
            _pictures.append(QJsonArray{static_cast<double>(now.count()), processorWait(), _painted->x()});
            _painted.reset();
        }
        return isHandled;
    }

private:
    bool _isPictureOfItem(const QObject* receiver, const QEvent* event) const
    {
        if (!_view || event->type() != QEvent::Paint || receiver != _view->viewport())
            return false;
        const QPoint place = _view->mapFromScene(_item->pos());
        return static_cast<const QPaintEvent*>(event)->region().contains(place);
    }

    const QGraphicsView* _view = nullptr;
    const QGraphicsItem* _item = nullptr;
    QJsonArray _pictures;
    std::optional<QPoint> _painted;  // while the painting event is handled
    int _depth = 0;                  // of events that are handled inside others
};

PaintWatch& application()
{
    return *static_cast<PaintWatch*>(QCoreApplication::instance());
}

/// Returns when the display shows the window, which may be as large as the screen.
const RemoteCommand show("show", [](const QJsonObject& arguments) -> QJsonObject {
    MainWindow& window = RemoteControl::window();
    if (arguments["fills_screen"].toBool())
        window.setGeometry(QGuiApplication::primaryScreen()->geometry());
    while (!window.windowHandle()->isExposed())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    QCoreApplication::processEvents();
    return {};
});

/// Answers with the place of a node on the screen; "pictures" tells from now on when it was painted where.
const RemoteCommand watch("watch", [](const QJsonObject& arguments) -> QJsonObject {
    for (const Node* node : itemsOf<Node>(RemoteControl::network().items())) {
        if (node->name() != arguments["node"].toString())
            continue;
        application().watch(static_cast<QGraphicsView*>(RemoteControl::window().centralWidget()), node);
        return {{"x", application().place().x()}, {"y", application().place().y()}};
    }
    return RemoteControl::failure("no such node");
});

const RemoteCommand tellPictures("pictures", [](const QJsonObject& /*arguments*/) -> QJsonObject {
    return {{"pictures", application().pictures()}};
});

}  // namespace

/// Shows the window of the program for the benchmark. The only argument is the seed of qrand().
int main(int argc, char** argv)
{
    qputenv("QT_NO_GLIB", "1");  // as the program does
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    const PaintWatch application(argc, argv);
    qsrand(argc > 1 ? static_cast<uint>(std::strtoul(argv[1], nullptr, 10)) : 1);
    return RemoteControl().exec();
}
