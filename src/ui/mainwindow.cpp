#include "ui/mainwindow.h"

#include "network/networkitem.h"
#include "network/networksimulation.h"
#include "nodes/debugactions.h"
#include "ui/capturetableview.h"
#include "ui/propertyeditor.h"

#include <QActionGroup>
#include <QApplication>
#include <QDockWidget>
#include <QFileDialog>
#include <QGraphicsView>
#include <QMenuBar>
#include <QMessageBox>
#include <QScreen>
#include <QToolBar>

#include <algorithm>

namespace {

constexpr QSize smallestView(500, 400);
constexpr QSize toolSize(32, 32);
constexpr QSize roomForFrame(16, 48);  // more than window managers draw, once the window shows

Network* network()
{
    return NetworkSimulation::instance()->network();
}

QKeySequence shortcut(const char* keys)
{
    return QKeySequence(QString::fromLatin1(keys), QKeySequence::PortableText);
}

QIcon icon(const char* resource)
{
    return QIcon(QString::fromLatin1(resource));
}

}  // namespace

MainWindow::MainWindow()
{
    setCorner(Qt::BottomRightCorner, Qt::RightDockWidgetArea);
    setWindowIcon(icon(":Icon.png"));
    _addMenus();

    _propertyEditor = new PropertyEditor(this);
    _propertyEditor->setFeatures(QDockWidget::NoDockWidgetFeatures);
    addDockWidget(Qt::RightDockWidgetArea, _propertyEditor);

    _addNetworkView();
    _attachNetwork();
    _addCaptureDock();
    resize(_firstSize());
}

/// Returns a size no larger than the screen, but never so narrow that it cuts off the property forms.
QSize MainWindow::_firstSize() const
{
    const int cutOff = _propertyEditor->sizeHint().width() - _propertyEditor->minimumWidth();
    const QSize smallest = minimumSizeHint() + QSize(std::max(0, cutOff), 0);
    return sizeHint().boundedTo(screen()->availableSize() - roomForFrame).expandedTo(smallest);
}

void MainWindow::_addMenus()
{
    _addFileMenu();
    _addEditMenu();
    const QList<QAction*> drawingActions = _addDrawingMenu();
    const QList<QAction*> debugActions = _addDebugMenu();

    auto* tools = new QToolBar(tr("Tools"), this);
    tools->setIconSize(toolSize);
    tools->addActions(drawingActions);
    addToolBar(Qt::LeftToolBarArea, tools);

    auto* debug = new QToolBar(tr("Debug"), this);
    debug->addSeparator();
    debug->addActions(debugActions);
    addToolBar(Qt::LeftToolBarArea, debug);
}

void MainWindow::_addFileMenu()
{
    QMenu* menu = menuBar()->addMenu(tr("&File"));
    menu->addAction(tr("&New Simulation"), this, SLOT(newSimulation()), shortcut("Ctrl+n"));
    menu->addAction(tr("&Open Simulation..."), this, SLOT(loadSimulation()), shortcut("Ctrl+o"));
    menu->addAction(tr("&Save Simulation as..."), this, SLOT(saveSimulationAs()), shortcut("Ctrl+s"));
    menu->addSeparator();
    menu->addAction(tr("Export captured frames for Wireshark..."), this, SLOT(exportFrames()));
    menu->addSeparator();
    menu->addAction(tr("&Quit"), qApp, SLOT(quit()), shortcut("Ctrl+q"));
}

void MainWindow::_addEditMenu()
{
    QMenu* menu = menuBar()->addMenu(tr("&Edit"));
    menu->addAction(tr("Delete"), this, SLOT(deleteItem()), shortcut("DEL"));
}

QList<QAction*> MainWindow::_addDrawingMenu()
{
    QMenu* menu = menuBar()->addMenu(tr("&Drawing"));
    QAction* selection = menu->addAction(icon(":Pointer.png"), tr("Selection"), this,
                                         SLOT(switchToSelectionEditMode()), shortcut("ESC"));
    menu->addSeparator();
    QAction* nodes = menu->addAction(icon(":Node.png"), tr("Insert Node(s)"), this,
                                     SLOT(switchToNodeInsertionEditMode()), shortcut("Ctrl+1"));
    QAction* connections = menu->addAction(icon(":Connection.png"), tr("Draw Connection(s)"), this,
                                           SLOT(switchToConnectionDrawingEditMode()), shortcut("Ctrl+2"));

    auto* group = new QActionGroup(this);
    for (QAction* action : {selection, nodes, connections}) {
        action->setCheckable(true);
        action->setActionGroup(group);
    }
    selection->setChecked(true);
    return group->actions();
}

QList<QAction*> MainWindow::_addDebugMenu()
{
    QMenu* menu = menuBar()->addMenu(tr("&Debug"));
    const auto add = [=](TcpNode::DebugCommand command, const char* chosen) {
        connect(addDebugAction(menu, command), SIGNAL(triggered()), this, chosen);
    };
    add(TcpNode::RunContDC, SLOT(debugRunCont()));
    add(TcpNode::PauseDC, SLOT(debugPause()));
    add(TcpNode::StepDC, SLOT(debugStep()));
    add(TcpNode::ResetDC, SLOT(debugReset()));
    add(TcpNode::QuitDC, SLOT(debugQuit()));
    const QList<QAction*> actions = menu->actions();
    menu->addSeparator();
    return actions;
}

/// Adds the view. Its size before the window lays it out fixes the part of the network that it shows.
void MainWindow::_addNetworkView()
{
    auto* view = new QGraphicsView(this);
    view->setRenderHint(QPainter::Antialiasing);
    view->setMinimumSize(smallestView);
    view->setFrameShape(QFrame::NoFrame);  // a frame would take its room from the smallest size
    view->setSceneRect(0, 0, view->width(), view->height());
    setCentralWidget(view);
}

void MainWindow::_addCaptureDock()
{
    auto* dock = new QDockWidget(tr("Frame Capture"), this);
    dock->setFeatures(QDockWidget::NoDockWidgetFeatures);
    _captureView = new CaptureTableView(this);
    dock->setWidget(_captureView);
    addDockWidget(Qt::BottomDockWidgetArea, dock);
    _captureView->setCaptureModel(NetworkSimulation::instance()->capture());
}

void MainWindow::switchToSelectionEditMode()
{
    networkItemSelectionChanged();
    network()->setEditorMode(Network::Selection);
}

void MainWindow::switchToNodeInsertionEditMode()
{
    _switchToDrawing(Network::NodePlacement);
}

void MainWindow::switchToConnectionDrawingEditMode()
{
    _switchToDrawing(Network::ConnectionDrawing);
}

/// Switches the mode first: that clears the selection, which brings up the network's form.
void MainWindow::_switchToDrawing(Network::EditMode mode)
{
    network()->setEditorMode(mode);
    _propertyEditor->editNothing();
}

void MainWindow::deleteItem()
{
    network()->deleteSelectedNetworkItem();
}

void MainWindow::networkItemSelectionChanged()
{
    if (network()->selectedItems().isEmpty())
        _propertyEditor->editNetwork();
    else
        _propertyEditor->editNetworkItem(network()->selectedNetworkItem());
}

/// Makes a new simulation and does not ask about unsaved changes: nothing records them.
void MainWindow::newSimulation()
{
    _detachSimulation();
    NetworkSimulation::newNetworkSimulation();
    _attachSimulation();
}

void MainWindow::saveSimulationAs()
{
    QString fileName
        = QFileDialog::getSaveFileName(this, tr("Save Network"), QString(), tr("Lattivo File (*.ltvo)"));
    if (fileName.isEmpty())
        return;
    if (!fileName.contains(QLatin1Char('.')))  // anywhere, on purpose, also in the name of a folder
        fileName += QStringLiteral(".ltvo");
    if (!NetworkSimulation::instance()->save(fileName))
        QMessageBox::critical(this, tr("Save Network"), tr("Could not save the network!"), QMessageBox::Ok);
}

/// Loads a simulation. A file that it cannot read leaves a new, empty one, without a message.
void MainWindow::loadSimulation()
{
    const QString fileName = QFileDialog::getOpenFileName(this, tr("Load Network"), QString(),
                                                          tr("Lattivo Files (*.kvt *.ltvo)"));
    if (fileName.isEmpty())
        return;
    _detachSimulation();
    NetworkSimulation::loadNetworkSimulation(fileName, nullptr);
    _attachSimulation();
}

void MainWindow::exportFrames()
{
    const QString fileName = QFileDialog::getSaveFileName(this, tr("Export frame dump"), QString(),
                                                          tr("pcap dump (*.pcapdump)"));
    if (fileName.isEmpty())
        return;
    if (!NetworkSimulation::instance()->exportPcapDump(fileName)) {
        QMessageBox::critical(this, tr("Export frame dump"), tr("Could not export the frame dump!"),
                              QMessageBox::Ok);
    }
}

void MainWindow::debugRunCont()
{
    TcpNode::sendDebugCommandToSelectedOrAll(TcpNode::RunContDC);
}

void MainWindow::debugPause()
{
    TcpNode::sendDebugCommandToSelectedOrAll(TcpNode::PauseDC);
}

void MainWindow::debugStep()
{
    TcpNode::sendDebugCommandToSelectedOrAll(TcpNode::StepDC);
}

void MainWindow::debugReset()
{
    TcpNode::sendDebugCommandToSelectedOrAll(TcpNode::ResetDC);
}

void MainWindow::debugQuit()
{
    TcpNode::sendDebugCommandToSelectedOrAll(TcpNode::QuitDC);
}

/// Lets go of the old simulation: nothing may point into it while it dies, nor may its last signals call
/// here.
void MainWindow::_detachSimulation()
{
    disconnect(network(), nullptr, this, nullptr);
    _networkView()->setScene(nullptr);
    _propertyEditor->editNothing();
    _captureView->setCaptureModel(nullptr);
}

void MainWindow::_attachSimulation()
{
    _attachNetwork();
    _propertyEditor->editNetwork();
    _captureView->setCaptureModel(NetworkSimulation::instance()->capture());
}

void MainWindow::_attachNetwork()
{
    connect(network(), SIGNAL(selectionChanged()), this, SLOT(networkItemSelectionChanged()));
    _networkView()->setScene(network());
}

QGraphicsView* MainWindow::_networkView() const
{
    return static_cast<QGraphicsView*>(centralWidget());
}
