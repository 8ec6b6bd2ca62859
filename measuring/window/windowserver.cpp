#include "network/network.h"
#include "nodes/node.h"
#include "paintwatch.h"
#include "remotecontrol.h"
#include "ui/mainwindow.h"

#include <QGraphicsView>
#include <QJsonArray>
#include <QScreen>
#include <QWindow>

#include <cstdlib>

namespace {

PaintWatch& application()
{
    return *static_cast<PaintWatch*>(QCoreApplication::instance());
}

const Node* nodeOfName(const QString& name)
{
    const QList<Node*> nodes = itemsOf<Node>(RemoteControl::network().items());
    for (const Node* node : nodes) {
        if (node->name() == name)
            return node;
    }
    return nullptr;
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
    const Node* node = nodeOfName(arguments["node"].toString());
    if (!node)
        return RemoteControl::failure("no such node");
    application().watch(static_cast<QGraphicsView*>(RemoteControl::window().centralWidget()), node);
    return {{"x", application().place().x()}, {"y", application().place().y()}};
});

const RemoteCommand tellPictures("pictures", [](const QJsonObject& /*arguments*/) -> QJsonObject {
    QJsonArray pictures;
    for (const PaintWatch::Picture& picture : application().pictures()) {
        const QJsonArray row
            = {static_cast<double>(picture.time), static_cast<double>(picture.wait), picture.place.x()};
        pictures.append(row);
    }
    return {{"pictures", pictures}};
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
