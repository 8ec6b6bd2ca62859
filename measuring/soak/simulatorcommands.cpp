#include "simulatorcommands.h"

#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "testaccess.h"

#include <QApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMetaMethod>
#include <QTcpSocket>
#include <QThreadPool>

#include <malloc.h>
#include <unistd.h>

#include <cstdio>

namespace {

constexpr int numberKey = 0;  // of the number in an item's own data
constexpr size_t readSize = 4096;

Network& network()
{
    return *NetworkSimulation::instance()->network();
}

Capture& theCapture()
{
    return *NetworkSimulation::instance()->capture();
}

QJsonObject done()
{
    return {};
}

QJsonObject failure(const QString& text)
{
    return {{"error", text}};
}

/// The first method of that name, of the form itself or of a form in it, is called with \a value, or without
/// one when it takes none. False when there is no such method.
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

QJsonObject nodeState(const Node& node, int number)
{
    const auto* tcpNode = dynamic_cast<const TcpNode*>(&node);
    return {
        {"number", number},
        {"name", node.name()},
        {"address", QString::fromLatin1(node.address().toHex())},
        {"attached", tcpNode && tcpNode->socket()},
        {"peer", tcpNode && tcpNode->socket() ? tcpNode->socket()->peerPort() : 0},
        {"sent", node.sendFramesCount()},
        {"received", node.receivedFramesCount()},
    };
}

void writeLine(const QJsonObject& object)
{
    fputs(QJsonDocument(object).toJson(QJsonDocument::Compact).constData(), stdout);
    fputc('\n', stdout);
    fflush(stdout);
}

}  // namespace

SimulatorCommands::SimulatorCommands()
    : _window(std::make_unique<MainWindow>())
    , _input(STDIN_FILENO, QSocketNotifier::Read)
{
    _window->show();
    _ledger.begin(&network());
    connect(&_input, SIGNAL(activated(int)), this, SLOT(_readCommands()));
}

void SimulatorCommands::_readCommands()
{
    char bytes[readSize];
    const ssize_t size = read(STDIN_FILENO, bytes, sizeof bytes);
    if (size <= 0) {
        _input.setEnabled(false);
        QApplication::quit();
        return;
    }
    _unfinishedLine.append(bytes, static_cast<int>(size));
    for (int end = _unfinishedLine.indexOf('\n'); end >= 0; end = _unfinishedLine.indexOf('\n')) {
        const QByteArray line = _unfinishedLine.left(end);
        _unfinishedLine.remove(0, end + 1);
        writeLine(_answer(line));
    }
}

SimulatorCommands::Handler SimulatorCommands::_handlerOf(const QString& name)
{
    static const QHash<QString, Handler> handlers = {
        {"new", &SimulatorCommands::_newSimulation},
        {"open", &SimulatorCommands::_open},
        {"parameters", &SimulatorCommands::_parameters},
        {"save", &SimulatorCommands::_save},
        {"export", &SimulatorCommands::_exportFrames},
        {"listen", &SimulatorCommands::_listen},
        {"identification", &SimulatorCommands::_identification},
        {"add_node", &SimulatorCommands::_addNode},
        {"link", &SimulatorCommands::_link},
        {"delete", &SimulatorCommands::_delete},
        {"select", &SimulatorCommands::_select},
        {"move", &SimulatorCommands::_move},
        {"set", &SimulatorCommands::_set},
        {"capture", &SimulatorCommands::_capture},
        {"debug", &SimulatorCommands::_debug},
        {"state", &SimulatorCommands::_state},
        {"account", &SimulatorCommands::_account},
        {"footprint", &SimulatorCommands::_footprint},
    };
    return handlers.value(name, nullptr);
}

QJsonObject SimulatorCommands::_answer(const QByteArray& line)
{
    const QJsonObject command = QJsonDocument::fromJson(line).object();
    const Handler handler = _handlerOf(command["do"].toString());
    return handler ? (this->*handler)(command) : failure("unknown command");
}

/// The user's way. Answers with the last account of the old simulation.
QJsonObject SimulatorCommands::_newSimulation(const QJsonObject& /*arguments*/)
{
    const QJsonObject account = _closeAccount();
    _window->newSimulation();
    _ledger.begin(&network());
    return {{"account", account}};
}

/// The window goes meanwhile: it asks for the file in a dialog of its own only.
QJsonObject SimulatorCommands::_open(const QJsonObject& arguments)
{
    const QJsonObject account = _closeAccount();
    _window.reset();
    bool isLoaded = true;
    NetworkSimulation::loadNetworkSimulation(arguments["file"].toString(), &isLoaded);
    _ledger.begin(&network());
    _window = std::make_unique<MainWindow>();
    _window->show();
    return {{"account", account}, {"loaded", isLoaded}, {"port", network().listeningPort()}};
}

QJsonObject SimulatorCommands::_parameters(const QJsonObject& arguments)
{
    TestAccess::parameters(network()).maximalTransferUnit = arguments["maximal_transfer_unit"].toInt();
    return done();
}

QJsonObject SimulatorCommands::_save(const QJsonObject& arguments)
{
    return {{"saved", NetworkSimulation::instance()->save(arguments["file"].toString())}};
}

QJsonObject SimulatorCommands::_exportFrames(const QJsonObject& arguments)
{
    return {{"exported", NetworkSimulation::instance()->exportPcapDump(arguments["file"].toString())}};
}

/// On a free port, another one at each start.
QJsonObject SimulatorCommands::_listen(const QJsonObject& arguments)
{
    network().setTcpEnabled(false);
    network().setTcpPort(0);
    const bool isDone = network().setTcpEnabled(arguments["on"].toBool());
    return isDone ? QJsonObject{{"port", network().listeningPort()}} : failure(network().tcpErrorString());
}

QJsonObject SimulatorCommands::_identification(const QJsonObject& arguments)
{
    network().setNameUsedForPnpIdentification(arguments["by_name"].toBool());
    network().setTcpPnpEnabled(arguments["plug_and_play"].toBool());
    return done();
}

QJsonObject SimulatorCommands::_addNode(const QJsonObject& arguments)
{
    auto* node = new TcpNode(QByteArray::fromHex(arguments["address"].toString().toLatin1()), nullptr);
    node->setName(arguments["name"].toString());
    network().addItem(node);
    node->setPos(arguments["x"].toDouble(), arguments["y"].toDouble());
    _ledger.watch(node);
    return {{"number", _numberOf(node)}};
}

QJsonObject SimulatorCommands::_link(const QJsonObject& arguments)
{
    auto* from = _itemAs<Node>(arguments["from"]);
    auto* to = _itemAs<Node>(arguments["to"]);
    if (!from || !to || from == to)
        return failure("no two nodes");
    _ledger.watch(from);
    _ledger.watch(to);
    auto* link = new Connection(from, to);
    network().addItem(link);
    return {{"number", _numberOf(link)}};
}

QJsonObject SimulatorCommands::_delete(const QJsonObject& arguments)
{
    NetworkItem* item = _item(arguments["item"].toInt());
    if (!item)
        return failure("no such item");
    if (auto* node = dynamic_cast<Node*>(item)) {
        for (Connection* link : node->connections())
            _ledger.vanishWith(link);
    } else if (auto* link = dynamic_cast<Connection*>(item)) {
        _ledger.vanishWith(link);
    }
    network().clearSelection();
    item->setSelected(true);  // which brings its form up
    _window->deleteItem();
    return done();
}

/// 0 selects nothing.
QJsonObject SimulatorCommands::_select(const QJsonObject& arguments)
{
    network().clearSelection();
    if (NetworkItem* item = _item(arguments["item"].toInt()))
        item->setSelected(true);
    return done();
}

QJsonObject SimulatorCommands::_move(const QJsonObject& arguments)
{
    auto* node = _itemAs<Node>(arguments["item"]);
    if (!node)
        return failure("no such node");
    node->setPos(arguments["x"].toDouble(), arguments["y"].toDouble());
    return done();
}

/// Through a slot of the item's properties form, as if the user had edited a field of it.
QJsonObject SimulatorCommands::_set(const QJsonObject& arguments)
{
    const std::unique_ptr<QWidget> form(_newFormOf(arguments["item"]));
    if (!form)
        return failure("no such item");
    const QString name = arguments["slot"].toString();
    auto* link = _itemAs<Connection>(arguments["item"]);
    if (link && name == "brokenChanged" && arguments["value"].toInt() == Qt::Checked)
        _ledger.vanishWith(link);
    if (!callSlot(form.get(), name.toLatin1(), arguments["value"].toVariant()))
        return failure("no such slot");
    return done();
}

QJsonObject SimulatorCommands::_capture(const QJsonObject& arguments)
{
    if (arguments.contains("enabled"))
        theCapture().setEnabled(arguments["enabled"].toBool());
    if (arguments.contains("follows"))
        theCapture().setViewFollows(arguments["follows"].toBool());
    if (arguments["clear"].toBool())
        theCapture().clear();
    return {{"frames", theCapture().rowCount()}};
}

QJsonObject SimulatorCommands::_debug(const QJsonObject& arguments)
{
    const auto command = static_cast<TcpNode::DebugCommand>(arguments["command"].toInt());
    TcpNode::sendDebugCommandToSelectedOrAll(command);
    return done();
}

QJsonObject SimulatorCommands::_state(const QJsonObject& /*arguments*/)
{
    QJsonArray nodes;
    QJsonArray links;
    const QList<QGraphicsItem*> items = network().items(Qt::AscendingOrder);
    for (QGraphicsItem* item : items) {
        if (auto* node = dynamic_cast<Node*>(item)) {
            nodes.append(nodeState(*node, _numberOf(node)));
        } else if (auto* link = dynamic_cast<Connection*>(item)) {
            links.append(QJsonObject{{"number", _numberOf(link)},
                                     {"from", _numberOf(link->node(0))},
                                     {"to", _numberOf(link->node(1))}});
        }
    }
    return {{"nodes", nodes}, {"links", links}};
}

QJsonObject SimulatorCommands::_account(const QJsonObject& /*arguments*/)
{
    return _ledger.totals();
}

/// What stays behind when a simulation has gone shows in these numbers, and in the process's own memory and
/// descriptors once the toolkit's idle threads for painting have ended and the free part of the heap is given
/// back.
QJsonObject SimulatorCommands::_footprint(const QJsonObject& /*arguments*/)
{
    QThreadPool::globalInstance()->waitForDone();
    malloc_trim(0);
    return {
        {"items", network().items().size()},
        {"tcp_nodes", TestAccess::allTcpNodes().size()},
        {"pending_sockets", TestAccess::server(network()).pending.size()},
        {"sockets", network().findChildren<QTcpSocket*>().size()},
        {"widgets", QApplication::allWidgets().size()},
        {"objects_of_the_window", _window->findChildren<QObject*>().size()},
        {"captured_frames", theCapture().rowCount()},
        {"heap_bytes", static_cast<qint64>(mallinfo2().uordblks)},
    };
}

NetworkItem* SimulatorCommands::_item(int number) const
{
    const QList<QGraphicsItem*> items = network().items();
    for (QGraphicsItem* item : items) {
        if (number > 0 && item->data(numberKey).toInt() == number)
            return dynamic_cast<NetworkItem*>(item);
    }
    return nullptr;
}

template <typename Item> Item* SimulatorCommands::_itemAs(const QJsonValue& number) const
{
    return dynamic_cast<Item*>(_item(number.toInt()));
}

int SimulatorCommands::_numberOf(NetworkItem* item)
{
    if (!item->data(numberKey).isValid())
        item->setData(numberKey, ++_lastNumber);
    return item->data(numberKey).toInt();
}

/// \a item is a number, "default node" or "default connection".
QWidget* SimulatorCommands::_newFormOf(const QJsonValue& item) const
{
    if (item == QJsonValue("default node"))
        return network().defaultNode()->propertiesWidget();
    if (item == QJsonValue("default connection"))
        return network().defaultConnection()->propertiesWidget();
    NetworkItem* numbered = _item(item.toInt());
    return numbered ? numbered->propertiesWidget() : nullptr;
}

/// The frames in flight vanish with the simulation.
QJsonObject SimulatorCommands::_closeAccount()
{
    QJsonObject account = _ledger.totals();
    account["vanished"] = account["vanished"].toInt() + account["in_flight"].toInt();
    account["in_flight"] = 0;
    return account;
}
