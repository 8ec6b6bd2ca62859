#include "ledger.h"

#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "remotecontrol.h"
#include "testaccess.h"
#include "ui/mainwindow.h"

#include <QApplication>
#include <QJsonArray>
#include <QMetaMethod>
#include <QTcpSocket>
#include <QThreadPool>

#include <malloc.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>

namespace {

constexpr int numberKey = 0;  // of the number in an item's own data

Network& network()
{
    return RemoteControl::network();
}

Ledger& ledger()
{
    static Ledger only;
    return only;
}

/// Finds the item with the number that an argument holds; null when there is none of that kind.
template <typename Item> Item* itemOf(const QJsonValue& number)
{
    const QList<Item*> items = itemsOf<Item>(network().items());
    const auto found = std::find_if(items.begin(), items.end(), [&](const Item* item) {
        return number.toInt() > 0 && item->data(numberKey).toInt() == number.toInt();
    });
    return found == items.end() ? nullptr : *found;
}

/// Returns the number of an item, which gets one when it is first asked for.
int numberOf(NetworkItem* item)
{
    static int lastNumber = 0;
    if (!item->data(numberKey).isValid())
        item->setData(numberKey, ++lastNumber);
    return item->data(numberKey).toInt();
}

/// Adds an item to the network and answers with its number.
QJsonObject added(NetworkItem* item)
{
    network().addItem(item);
    return {{"number", numberOf(item)}};
}

/// Makes the form of the item with that number, of the network, of the default node or of the default link.
QWidget* newFormOf(const QJsonValue& item)
{
    if (item == QJsonValue("network"))
        return network().propertiesWidget();
    if (item == QJsonValue("default node"))
        return network().defaultNode()->propertiesWidget();
    if (item == QJsonValue("default connection"))
        return network().defaultConnection()->propertiesWidget();
    auto* numbered = itemOf<NetworkItem>(item);
    return numbered ? numbered->propertiesWidget() : nullptr;
}

/// Calls the first method of that name, of the form itself or of a form in it, with \a value, or without one
/// when it takes none. Returns false when there is no such method.
bool callSlot(QWidget* form, const QByteArray& name, QVariant value)
{
    const QList<QWidget*> forms = QList<QWidget*>{form} + form->findChildren<QWidget*>();
    for (QWidget* candidate : forms) {
        const QMetaObject* type = candidate->metaObject();
        for (int i = type->methodOffset(); i < type->methodCount(); ++i) {
            const QMetaMethod method = type->method(i);
            if (method.name() != name)
                continue;
            if (method.parameterCount() == 0)
                return method.invoke(candidate);
            return value.convert(method.parameterType(0))
                && method.invoke(candidate, QGenericArgument(value.typeName(), value.constData()));
        }
    }
    return false;
}

QJsonObject nodeState(Node* node)
{
    const auto* tcpNode = dynamic_cast<const TcpNode*>(node);
    return {
        {"number", numberOf(node)},
        {"name", node->name()},
        {"address", QString::fromLatin1(node->address().toHex())},
        {"attached", tcpNode && tcpNode->socket()},
        {"sent", node->sendFramesCount()},
        {"received", node->receivedFramesCount()},
    };
}

/// Opens another simulation and answers also with the last account of the old one, whose frames in flight
/// vanish.
const RemoteCommand replace("replace", [](const QJsonObject& arguments) {
    QJsonObject account = ledger().totals();
    account["vanished"] = account["vanished"].toInt() + account["in_flight"].toInt();
    account["in_flight"] = 0;
    QJsonObject open = arguments;
    open["do"] = "open";
    QJsonObject answer = RemoteControl::answer(open);
    ledger().begin(&network());
    answer["account"] = account;
    return answer;
});

const RemoteCommand save("save", [](const QJsonObject& arguments) -> QJsonObject {
    return {{"written", NetworkSimulation::instance()->save(arguments["file"].toString())}};
});

const RemoteCommand exportFrames("export", [](const QJsonObject& arguments) -> QJsonObject {
    return {{"written", NetworkSimulation::instance()->exportPcapDump(arguments["file"].toString())}};
});

const RemoteCommand setParameters("parameters", [](const QJsonObject& arguments) -> QJsonObject {
    TestAccess::parameters(network()).maximalTransferUnit = arguments["maximal_transfer_unit"].toInt();
    return {};
});

const RemoteCommand addNode("add_node", [](const QJsonObject& arguments) {
    auto* node = new TcpNode(QByteArray::fromHex(arguments["address"].toString().toLatin1()), nullptr);
    node->setName(arguments["name"].toString());
    node->setPos(arguments["x"].toDouble(), arguments["y"].toDouble());
    ledger().watch(node);
    return added(node);
});

/// The ledger does not know the nodes that Plug'n'Place has made.
const RemoteCommand addLink("link", [](const QJsonObject& arguments) {
    auto* from = itemOf<Node>(arguments["from"]);
    auto* to = itemOf<Node>(arguments["to"]);
    if (!from || !to || from == to)
        return RemoteControl::failure("no two nodes");
    ledger().watch(from);
    ledger().watch(to);
    return added(new Connection(from, to));
});

const RemoteCommand deleteItem("delete", [](const QJsonObject& arguments) -> QJsonObject {
    auto* item = itemOf<NetworkItem>(arguments["item"]);
    if (!item)
        return RemoteControl::failure("no such item");
    if (auto* node = dynamic_cast<Node*>(item)) {
        for (Connection* link : node->connections())
            ledger().vanishWith(link);
    } else if (auto* link = dynamic_cast<Connection*>(item)) {
        ledger().vanishWith(link);
    }
    network().clearSelection();
    item->setSelected(true);  // which brings its form up
    RemoteControl::window().deleteItem();
    return {};
});

/// Selects an item; nothing for the number 0.
const RemoteCommand selectItem("select", [](const QJsonObject& arguments) -> QJsonObject {
    network().clearSelection();
    if (auto* item = itemOf<NetworkItem>(arguments["item"]))
        item->setSelected(true);
    return {};
});

const RemoteCommand moveNode("move", [](const QJsonObject& arguments) -> QJsonObject {
    auto* node = itemOf<Node>(arguments["item"]);
    if (!node)
        return RemoteControl::failure("no such node");
    node->setPos(arguments["x"].toDouble(), arguments["y"].toDouble());
    return {};
});

/// Calls a slot of the item's properties form, as if the user had edited a field of it.
const RemoteCommand setField("set", [](const QJsonObject& arguments) -> QJsonObject {
    const std::unique_ptr<QWidget> form(newFormOf(arguments["item"]));
    if (!form)
        return RemoteControl::failure("no such item");
    const QString name = arguments["slot"].toString();
    auto* link = itemOf<Connection>(arguments["item"]);
    if (link && name == "brokenChanged" && arguments["value"].toInt() == Qt::Checked)
        ledger().vanishWith(link);
    if (!callSlot(form.get(), name.toLatin1(), arguments["value"].toVariant()))
        return RemoteControl::failure("no such slot");
    return {};
});

const RemoteCommand debug("debug", [](const QJsonObject& arguments) -> QJsonObject {
    TcpNode::sendDebugCommandToSelectedOrAll(
        static_cast<TcpNode::DebugCommand>(arguments["command"].toInt()));
    return {};
});

const RemoteCommand tellState("state", [](const QJsonObject& /*arguments*/) -> QJsonObject {
    QJsonArray nodes;
    QJsonArray links;
    const QList<QGraphicsItem*> items = network().items(Qt::AscendingOrder);
    for (Node* node : itemsOf<Node>(items))
        nodes.append(nodeState(node));
    for (Connection* link : itemsOf<Connection>(items)) {
        links.append(QJsonObject{
            {"number", numberOf(link)}, {"from", numberOf(link->node(0))}, {"to", numberOf(link->node(1))}});
    }
    return {{"nodes", nodes}, {"links", links}};
});

const RemoteCommand tellAccount("account",
                                [](const QJsonObject& /*arguments*/) { return ledger().totals(); });

/// Counts what a simulation that has gone may leave behind. What else it leaves shows in the memory and the
/// descriptors of the process, once Qt's idle threads for painting have ended and the free part of the heap
/// is given back.
const RemoteCommand tellFootprint("footprint", [](const QJsonObject& /*arguments*/) -> QJsonObject {
    QThreadPool::globalInstance()->waitForDone();
    malloc_trim(0);
    return {
        {"items", network().items().size()},
        {"tcp_nodes", TestAccess::allTcpNodes().size()},
        {"pending_sockets", TestAccess::server(network()).pending.size()},
        {"sockets", network().findChildren<QTcpSocket*>().size()},
        {"widgets", QApplication::allWidgets().size()},
        {"objects_of_the_window", RemoteControl::window().findChildren<QObject*>().size()},
        {"captured_frames", RemoteControl::capture().rowCount()},
        {"heap_bytes", static_cast<qint64>(mallinfo2().uordblks)},
    };
});

}  // namespace

/// Runs the program with its window, but without a display. The only argument is the seed of qrand(). It ends
/// in order, so that whatever is still held shows as a leak.
int main(int argc, char* argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_NO_GLIB", "1");                    // as the program does
    qputenv("QT_LOGGING_RULES", "*.debug=false");  // a "*" for each corrupted bit
    std::signal(SIGPIPE, SIG_IGN);

    QApplication application(argc, argv);
    qsrand(argc > 1 ? static_cast<uint>(std::strtoul(argv[1], nullptr, 10)) : 1);
    RemoteControl remoteControl;
    ledger().begin(&network());
    return remoteControl.exec();
}
