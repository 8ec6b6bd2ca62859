#include "remotecontrol.h"

#include "capture/capture.h"
#include "network/networksimulation.h"
#include "ui/capturetableview.h"
#include "ui/mainwindow.h"

#include <QApplication>
#include <QCheckBox>
#include <QHash>
#include <QJsonDocument>
#include <QPushButton>

#include <unistd.h>

#include <cstdio>
#include <memory>

namespace {

constexpr size_t readSize = 4096;

std::unique_ptr<MainWindow> theWindow;

/// Made by the first command: nothing else says which file's variables are made first.
QHash<QString, RemoteCommand::Handler>& handlers()
{
    static QHash<QString, RemoteCommand::Handler> all;
    return all;
}

void showNewWindow()
{
    theWindow = std::make_unique<MainWindow>();
    theWindow->show();
}

/// Replaces the simulation by that of a file or, without one, by a new simulation as the user does. The
/// window goes before a file is loaded: the user would have to name the file in a dialog.
const RemoteCommand openSimulation("open", [](const QJsonObject& arguments) -> QJsonObject {
    bool isLoaded = true;
    if (arguments.contains("file")) {
        theWindow.reset();
        NetworkSimulation::loadNetworkSimulation(arguments["file"].toString(), &isLoaded);
        showNewWindow();
    } else {
        theWindow->newSimulation();
    }
    return {{"loaded", isLoaded}, {"port", RemoteControl::network().listeningPort()}};
});

/// Starts the server on a free port, another one at each start.
const RemoteCommand listenForPrograms("listen", [](const QJsonObject& /*arguments*/) -> QJsonObject {
    Network& network = RemoteControl::network();
    network.setTcpEnabled(false);
    network.setTcpPort(0);
    if (!network.setTcpEnabled(true))
        return RemoteControl::failure(network.tcpErrorString());
    return {{"port", network.listeningPort()}};
});

/// Works the check boxes and the button below the table.
const RemoteCommand switchCapture("capture", [](const QJsonObject& arguments) -> QJsonObject {
    const auto* view = theWindow->findChild<CaptureTableView*>();
    const QList<QCheckBox*> boxes = view->findChildren<QCheckBox*>();
    boxes.at(0)->setChecked(arguments["enabled"].toBool());
    boxes.at(1)->setChecked(arguments["follows"].toBool());
    if (arguments["clear"].toBool())
        view->findChild<QPushButton*>()->click();
    return {{"frames", RemoteControl::capture().rowCount()}};
});

}  // namespace

RemoteControl::RemoteControl()
    : _input(STDIN_FILENO, QSocketNotifier::Read)
{
    showNewWindow();
    connect(&_input, SIGNAL(activated(int)), this, SLOT(_readCommands()));
}

RemoteControl::~RemoteControl()
{
    theWindow.reset();
    NetworkSimulation::deleteNetworkSimulation();
}

int RemoteControl::exec()
{
    return QApplication::exec();
}

MainWindow& RemoteControl::window()
{
    return *theWindow;
}

Network& RemoteControl::network()
{
    return *NetworkSimulation::instance()->network();
}

Capture& RemoteControl::capture()
{
    return *NetworkSimulation::instance()->capture();
}

QJsonObject RemoteControl::answer(const QJsonObject& command)
{
    const RemoteCommand::Handler handler = handlers().value(command["do"].toString(), nullptr);
    return handler ? handler(command) : failure("unknown command");
}

QJsonObject RemoteControl::failure(const QString& text)
{
    return {{"error", text}};
}

void RemoteControl::_readCommands()
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
        const QJsonObject command = QJsonDocument::fromJson(_unfinishedLine.left(end)).object();
        _unfinishedLine.remove(0, end + 1);
        const QByteArray line = QJsonDocument(answer(command)).toJson(QJsonDocument::Compact) + '\n';
        fputs(line.constData(), stdout);
        fflush(stdout);
    }
}

RemoteCommand::RemoteCommand(const char* name, Handler handler)
{
    handlers().insert(name, handler);
}
