#include "ui/mainwindow.h"

#include "network/networkpropertieswidget.h"
#include "nodes/tcpnode.h"
#include "nodes/tcpnodepropertieswidget.h"
#include "sockethelpers.h"
#include "windowhelpers.h"

#include <QActionGroup>
#include <QLineEdit>
#include <QScrollBar>
#include <QTimer>

using namespace WindowHelpers;

namespace {

/// Returns the text, the keys and whether there is a picture: "&New Simulation|Ctrl+N|icon".
QString describe(const QAction* action)
{
    if (action->isSeparator())
        return QStringLiteral("-");
    QString text = action->text();
    if (!action->shortcut().isEmpty())
        text += QLatin1Char('|') + action->shortcut().toString(QKeySequence::PortableText);
    return action->icon().isNull() ? text : text + QStringLiteral("|icon");
}

QStringList describe(const QList<QAction*>& actions)
{
    QStringList texts;
    for (const QAction* action : actions)
        texts.append(describe(action));
    return texts;
}

bool isWhollyShown(const QScrollArea* editor)
{
    return editor->widget()->minimumSizeHint().width() <= editor->viewport()->width()
        && editor->widget()->width() <= editor->viewport()->width();
}

}  // namespace

/// Tests the window's menus, bars and docks, drawing by mouse, and the programs' buttons.
class TestMainWindow : public QObject, private ShownWindow
{
    Q_OBJECT

public slots:
    void pressQuit() { QTest::keyClick(_window.get(), Qt::Key_Q, Qt::ControlModifier); }
    void giveUp() { QCoreApplication::exit(1); }

private slots:
    void initTestCase() { _useDialogsOfQt(); }
    void init() { _show(); }
    void cleanup() { _close(); }
    void cleanupTestCase() { NetworkSimulation::deleteNetworkSimulation(); }

    // Layout
    void theMenusHoldTheirEntries_data()
    {
        QTest::addColumn<QString>("menu");
        QTest::addColumn<QStringList>("entries");

        QTest::newRow("File") << "&File"
                              << QStringList({"&New Simulation|Ctrl+N", "&Open Simulation...|Ctrl+O",
                                              "&Save Simulation as...|Ctrl+S", "-",
                                              "Export captured frames for Wireshark...", "-",
                                              "&Quit|Ctrl+Q"});
        QTest::newRow("Edit") << "&Edit" << QStringList({"Delete|Del"});
        QTest::newRow("Drawing") << "&Drawing"
                                 << QStringList({"Selection|Esc|icon", "-", "Insert Node(s)|Ctrl+1|icon",
                                                 "Draw Connection(s)|Ctrl+2|icon"});
        QTest::newRow("Debug") << "&Debug"
                               << QStringList({"Run/Continue|icon", "Pause|icon", "Step|icon", "Reset|icon",
                                               "Quit|icon", "-"});
    }

    void theMenusHoldTheirEntries()
    {
        QFETCH(QString, menu);
        QFETCH(QStringList, entries);
        QVERIFY(_menu(menu));
        QCOMPARE(describe(_menu(menu)->actions()), entries);
    }

    void theMenuBarHasFourMenus()
    {
        QCOMPARE(describe(_window->menuBar()->actions()),
                 QStringList({"&File", "&Edit", "&Drawing", "&Debug"}));
    }

    void theDrawingActionsExcludeEachOther()
    {
        const QAction* selection = _action("&Drawing", "Selection");
        const QActionGroup* group = selection->actionGroup();
        QVERIFY(group);
        QVERIFY(group->isExclusive());
        QCOMPARE(group->parent(), _window.get());
        QCOMPARE(group->actions(),
                 QList<QAction*>({_action("&Drawing", "Selection"), _action("&Drawing", "Insert Node(s)"),
                                  _action("&Drawing", "Draw Connection(s)")}));
        QCOMPARE(group->checkedAction(), selection);
        QCOMPARE(network()->editorMode(), Network::Selection);
    }

    void theToolBarsReuseTheMenuActions()
    {
        QToolBar* tools = _toolBar("Tools");
        QCOMPARE(_window->toolBarArea(tools), Qt::LeftToolBarArea);
        QCOMPARE(tools->iconSize(), QSize(32, 32));
        QCOMPARE(tools->actions(), _action("&Drawing", "Selection")->actionGroup()->actions());

        QToolBar* debug = _toolBar("Debug");
        QCOMPARE(_window->toolBarArea(debug), Qt::LeftToolBarArea);
        QCOMPARE(debug->iconSize(), _window->iconSize());
        QVERIFY(debug->actions().first()->isSeparator());
        QCOMPARE(debug->actions().mid(1), _menu("&Debug")->actions().mid(0, 5));
        QCOMPARE(_window->findChildren<QToolBar*>().size(), 2);
    }

    void theDocksCannotBeClosedMovedOrFloated()
    {
        auto* editor = _window->findChild<PropertyEditor*>();
        QCOMPARE(editor->windowTitle(), QStringLiteral("Property Editor"));
        QCOMPARE(editor->features(), QDockWidget::NoDockWidgetFeatures);
        QCOMPARE(_window->dockWidgetArea(editor), Qt::RightDockWidgetArea);

        auto* capture = qobject_cast<QDockWidget*>(_window->findChild<CaptureTableView*>()->parentWidget());
        QVERIFY(capture);
        QCOMPARE(capture->windowTitle(), QStringLiteral("Frame Capture"));
        QCOMPARE(capture->features(), QDockWidget::NoDockWidgetFeatures);
        QCOMPARE(_window->dockWidgetArea(capture), Qt::BottomDockWidgetArea);
        QCOMPARE(_window->findChildren<QDockWidget*>().size(), 2);
    }

    void thePropertyEditorRunsDownTheWholeRightEdge()
    {
        const QRect editor = _window->findChild<PropertyEditor*>()->geometry();
        const QRect capture = _window->findChild<CaptureTableView*>()->parentWidget()->geometry();
        QCOMPARE(_window->corner(Qt::BottomRightCorner), Qt::RightDockWidgetArea);
        QVERIFY(editor.bottom() >= capture.bottom());
        QVERIFY(capture.right() < editor.left());
    }

    void theViewShowsTheNetwork()
    {
        QCOMPARE(_view()->scene(), network());
        QVERIFY(_view()->renderHints().testFlag(QPainter::Antialiasing));
        QCOMPARE(_view()->minimumSize(), QSize(500, 400));
        QCOMPARE(_view()->sceneRect(), QRectF(0, 0, 500, 400));
    }

    void theWindowHasAnIconAndNoTitleOfItsOwn()
    {
        QVERIFY(!_window->windowIcon().isNull());
        QCOMPARE(_window->windowTitle(), QString());
    }

    void allImagesAreEmbedded_data()
    {
        QTest::addColumn<QString>("image");
        for (const char* name : {"Icon", "Pointer", "Node", "Connection", "DebugRunCont", "DebugPause",
                                 "DebugStep", "DebugReset", "DebugQuit", "DebugIdentify", "Broadcast",
                                 "CrcOk", "CrcBad", "Delivered", "NotDelivered", "ToogleCaptureView"})
            QTest::newRow(name) << QStringLiteral(":%1.png").arg(QLatin1String(name));
    }

    void allImagesAreEmbedded()
    {
        QFETCH(QString, image);
        QVERIFY(!QImage(image, "PNG").isNull());
    }

    void noFormIsCutOffAtTheFirstSize()
    {
        QVERIFY(isWhollyShown(_editor()));
        _placeNodes();
        _shortcut(Qt::Key_2);
        _drag(leftPlace, rightPlace);
        _shortcut(Qt::Key_Escape, Qt::NoModifier);
        _click(leftPlace);
        QCoreApplication::processEvents();
        QVERIFY(_shows<TcpNodePropertiesWidget>());
        QVERIFY(isWhollyShown(_editor()));
        _click((leftPlace + rightPlace) / 2);
        QCoreApplication::processEvents();
        QVERIFY(itemsOf<Connection>().first()->isSelected());
        QVERIFY(isWhollyShown(_editor()));
    }

    void theWindowKeepsItsFirstSizeWhenAFormIsShown()
    {
        const QSize before = _window->size();
        const QSize viewBefore = _view()->size();
        _placeNodes();
        _click(leftPlace);
        QTest::qWait(20);
        QCOMPARE(_window->size(), before);
        QCOMPARE(_view()->size(), viewBefore);
    }

    void theCanvasHasNoScrollBarsHoweverSmallTheWindowIs()
    {
        _window->resize(_window->minimumSizeHint());
        QTRY_COMPARE(_view()->height(), _view()->minimumHeight());
        QCoreApplication::processEvents();
        QVERIFY(!_view()->horizontalScrollBar()->isVisible());
        QVERIFY(!_view()->verticalScrollBar()->isVisible());
    }

    // Editing
    void placingAndJoiningNodesByMouse()
    {
        _pressButton("Tools", "Insert Node(s)");
        _click(leftPlace);
        _click(rightPlace);
        const QList<TcpNode*> nodes = itemsOf<TcpNode>();
        QCOMPARE(nodes.size(), 2);
        QCOMPARE(nodes.first()->pos(), _view()->mapToScene(leftPlace));

        _pressButton("Tools", "Draw Connection(s)");
        _drag(leftPlace, rightPlace);
        QCOMPARE(itemsOf<Connection>().size(), 1);
        QVERIFY(itemsOf<Connection>().first()->isNodeInvolved(nodes.first()));

        _pressButton("Tools", "Selection");
        _drag(leftPlace, emptyPlace);
        QCOMPARE(nodes.first()->pos(), _view()->mapToScene(emptyPlace));
    }

    void aToolButtonChecksItsMenuEntry()
    {
        _pressButton("Tools", "Draw Connection(s)");
        QVERIFY(_action("&Drawing", "Draw Connection(s)")->isChecked());
        QVERIFY(!_action("&Drawing", "Selection")->isChecked());
        QCOMPARE(network()->editorMode(), Network::ConnectionDrawing);
        _pressButton("Tools", "Insert Node(s)");
        QVERIFY(_action("&Drawing", "Insert Node(s)")->isChecked());
        QCOMPARE(network()->editorMode(), Network::NodePlacement);
        _pressButton("Tools", "Selection");
        QCOMPARE(network()->editorMode(), Network::Selection);
    }

    void chosenInTheMenuTheModeChanges()
    {
        _choose("&Drawing", "Insert Node(s)");
        QCOMPARE(network()->editorMode(), Network::NodePlacement);
        _choose("&Drawing", "Draw Connection(s)");
        QCOMPARE(network()->editorMode(), Network::ConnectionDrawing);
        _choose("&Drawing", "Selection");
        QCOMPARE(network()->editorMode(), Network::Selection);
        QVERIFY(_action("&Drawing", "Selection")->isChecked());
    }

    void theDeleteShortcutDeletesTheSelection()
    {
        _placeNodes();
        _click(leftPlace);
        _shortcut(Qt::Key_Delete, Qt::NoModifier);
        QCOMPARE(itemsOf<TcpNode>().size(), 1);
        QVERIFY(_shows<NetworkPropertiesWidget>());
        _click(rightPlace);
        _choose("&Edit", "Delete");
        QCOMPARE(itemsOf<TcpNode>().size(), 0);
        _shortcut(Qt::Key_Delete, Qt::NoModifier);
        QVERIFY(_shows<NetworkPropertiesWidget>());
    }

    void deleteInATextFieldDeletesText()
    {
        _placeNodes();
        _click(leftPlace);
        TcpNode* node = itemsOf<TcpNode>().first();
        QLineEdit* name = nullptr;
        const QList<QLineEdit*> fields = _editor()->widget()->findChildren<QLineEdit*>();
        for (QLineEdit* field : fields) {
            if (!name && field->isEnabled() && field->inputMask().isEmpty())
                name = field;
        }
        QVERIFY(name);
        name->setFocus();
        name->clear();
        QTest::keyClicks(name, QStringLiteral("ab"));
        QTest::keyClick(name, Qt::Key_Home);
        QTest::keyClick(name, Qt::Key_Delete);
        QCOMPARE(name->text(), QStringLiteral("b"));
        QVERIFY(itemsOf<TcpNode>().contains(node));
    }

    void escapeChecksSelectionAndShowsTheNetwork()
    {
        _shortcut(Qt::Key_1);
        QVERIFY(!_editor()->widget());
        _shortcut(Qt::Key_Escape, Qt::NoModifier);
        QVERIFY(_action("&Drawing", "Selection")->isChecked());
        QCOMPARE(network()->editorMode(), Network::Selection);
        QVERIFY(_shows<NetworkPropertiesWidget>());
    }

    void escapeShowsTheFirstSelectedItem()
    {
        _placeNodes();
        _shortcut(Qt::Key_2);
        itemsOf<TcpNode>().first()->setSelected(true);
        QVERIFY(_shows<TcpNodePropertiesWidget>());
        _window->findChild<PropertyEditor*>()->editNothing();
        _shortcut(Qt::Key_Escape, Qt::NoModifier);
        QVERIFY(_shows<TcpNodePropertiesWidget>());
        QVERIFY(_action("&Drawing", "Selection")->isChecked());
    }

    void selectingShowsTheItemAndClearingTheNetwork()
    {
        QVERIFY(_shows<NetworkPropertiesWidget>());
        _placeNodes();
        _click(leftPlace);
        QVERIFY(_shows<TcpNodePropertiesWidget>());
        _click(emptyPlace);
        QVERIFY(_shows<NetworkPropertiesWidget>());
    }

    void aDrawingModeEmptiesTheEditor_data()
    {
        QTest::addColumn<int>("key");
        QTest::newRow("nodes") << int(Qt::Key_1);
        QTest::newRow("connections") << int(Qt::Key_2);
    }

    void aDrawingModeEmptiesTheEditor()
    {
        QFETCH(int, key);
        _shortcut(static_cast<Qt::Key>(key));
        QVERIFY(!_editor()->widget());
    }

    void aDrawingModeEmptiesTheEditorOfASelectedItem_data() { aDrawingModeEmptiesTheEditor_data(); }

    void aDrawingModeEmptiesTheEditorOfASelectedItem()
    {
        QFETCH(int, key);
        _placeNodes();
        _click(leftPlace);
        QVERIFY(_shows<TcpNodePropertiesWidget>());
        _shortcut(static_cast<Qt::Key>(key));
        QVERIFY(!_editor()->widget());
        QCoreApplication::processEvents();
        QVERIFY(!_editor()->widget());
    }

    void theEditorStaysEmptyWhileNodesAreInserted()
    {
        _shortcut(Qt::Key_1);
        _click(leftPlace);
        _click(rightPlace);
        QVERIFY(!_editor()->widget());
        _shortcut(Qt::Key_2);
        _drag(leftPlace, rightPlace);
        QVERIFY(!_editor()->widget());
    }

    // Programs and end
    void theDebugButtonsSendTheirCommands_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("command");
        QTest::newRow("run") << "Run/Continue" << 1;
        QTest::newRow("pause") << "Pause" << 2;
        QTest::newRow("step") << "Step" << 3;
        QTest::newRow("reset") << "Reset" << 4;
        QTest::newRow("quit") << "Quit" << 5;
    }

    void theDebugButtonsSendTheirCommands()
    {
        QFETCH(QString, text);
        QFETCH(int, command);
        _placeNodes();
        SocketPair sockets;
        itemsOf<TcpNode>().last()->setSocket(sockets.nodeEnd);
        _pressButton("Debug", text);
        const QByteArray fromButton = sockets.program.receive(6);
        QCOMPARE(fromButton.size(), 6);
        QCOMPARE(fromButton.at(5), static_cast<char>(command));
        _choose("&Debug", text);
        QCOMPARE(sockets.program.receive(6), fromButton);
    }

    void aDebugCommandGoesToTheSelectedNodeOnly()
    {
        _placeNodes();
        SocketPair left;
        SocketPair right;
        itemsOf<TcpNode>().first()->setSocket(left.nodeEnd);
        itemsOf<TcpNode>().last()->setSocket(right.nodeEnd);
        _click(leftPlace);
        _pressButton("Debug", "Pause");
        _click(emptyPlace);
        _pressButton("Debug", "Step");
        QCOMPARE(left.program.receive(12).size(), 12);
        QCOMPARE(right.program.receive(6).at(5), '\3');
    }

    void quitEndsTheProgram()
    {
        QTimer::singleShot(0, this, SLOT(pressQuit()));
        QTimer::singleShot(patience, this, SLOT(giveUp()));
        QCOMPARE(QApplication::exec(), 0);
    }
};

QTEST_MAIN(TestMainWindow)
#include "tst_mainwindow.moc"
