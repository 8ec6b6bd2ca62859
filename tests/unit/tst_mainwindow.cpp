#include "ui/mainwindow.h"

#include "network/networkpropertieswidget.h"
#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "nodes/tcpnodepropertieswidget.h"
#include "sockethelpers.h"
#include "testaccess.h"
#include "ui/capturetableview.h"
#include "ui/propertyeditor.h"

#include <QActionGroup>
#include <QCheckBox>
#include <QDir>
#include <QFileDialog>
#include <QGraphicsView>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QScrollArea>
#include <QScrollBar>
#include <QTableView>
#include <QTemporaryDir>
#include <QTimer>
#include <QToolBar>
#include <QToolButton>
#include <QtTest>

#include <functional>
#include <memory>

namespace {

const QPoint leftPlace(120, 150);  // in the view
const QPoint rightPlace(360, 220);
const QPoint emptyPlace(240, 340);
constexpr int dumpHeaderSize = 24;

Network* network()
{
    return NetworkSimulation::instance()->network();
}

template <typename Item> QList<Item*> itemsOf()
{
    QList<Item*> found;
    const QList<QGraphicsItem*> items = network()->items(Qt::AscendingOrder);
    for (QGraphicsItem* item : items) {
        if (auto* wanted = dynamic_cast<Item*>(item))
            found.append(wanted);
    }
    return found;
}

/// Answers the dialogs and message boxes that come up, in their order, and keeps what they showed.
class DialogUser : public QObject
{
    Q_OBJECT

public:
    using Answer = std::function<void(QDialog*)>;

    explicit DialogUser(const QList<Answer>& answers)
        : _answers(answers)
    {
        connect(&_timer, SIGNAL(timeout()), this, SLOT(lookForDialog()));
        _timer.start(1);
    }

    bool isDone() const { return _answers.isEmpty(); }

    QStringList shown;

private slots:
    void lookForDialog()
    {
        auto* dialog = qobject_cast<QDialog*>(QApplication::activeModalWidget());
        if (!dialog || !dialog->isActiveWindow() || dialog == _answered)
            return;
        if (_answers.isEmpty())
            qFatal("one more dialog than expected: %s", qPrintable(_describe(dialog)));
        _answered = dialog;
        shown.append(_describe(dialog));
        _answers.takeFirst()(dialog);
    }

private:
    static QString _describe(QDialog* dialog)
    {
        if (const auto* box = qobject_cast<QMessageBox*>(dialog))
            return box->windowTitle() + QStringLiteral(": ") + box->text();
        if (const auto* files = qobject_cast<QFileDialog*>(dialog))
            return files->windowTitle() + QStringLiteral(": ") + files->nameFilters().join(QLatin1Char('|'));
        return dialog->windowTitle();
    }

    QList<Answer> _answers;
    QPointer<QDialog> _answered;
    QTimer _timer;
};

DialogUser::Answer type(const QString& fileName)
{
    return [fileName](QDialog* dialog) {
        auto* field = dialog->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
        field->clear();
        QTest::keyClicks(field, fileName);
        QTest::keyClick(field, Qt::Key_Return);
    };
}

void press(QDialog* dialog, Qt::Key key)
{
    QTest::keyClick(dialog, key);
}

const DialogUser::Answer cancel = [](QDialog* dialog) { press(dialog, Qt::Key_Escape); };
const DialogUser::Answer acknowledge = [](QDialog* dialog) { press(dialog, Qt::Key_Return); };

/// "&New Simulation|Ctrl+N|icon": the text, the keys if there are any, and whether there is a picture.
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

QByteArray fileContents(const QString& fileName)
{
    QFile file(fileName);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool isWhollyShown(const QScrollArea* editor)
{
    return editor->widget()->minimumSizeHint().width() <= editor->viewport()->width()
        && editor->widget()->width() <= editor->viewport()->width();
}

}  // namespace

/// The whole window, worked with mouse and keys; files go to a folder of the test's own.
class TestMainWindow : public QObject
{
    Q_OBJECT

public slots:
    void pressQuit() { QTest::keyClick(_window.get(), Qt::Key_Q, Qt::ControlModifier); }
    void giveUp() { QCoreApplication::exit(1); }

private slots:
    void initTestCase()
    {
        QApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
        QApplication::setEffectEnabled(Qt::UI_AnimateMenu, false);
    }

    void init()
    {
        _folder = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/mainwindow-XXXXXX"));
        QVERIFY(_folder->isValid());
        QVERIFY(QDir::setCurrent(_folder->path()));
        NetworkSimulation::newNetworkSimulation();
        _window = std::make_unique<MainWindow>();
        _window->show();
        _window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(_window.get()));
    }

    void cleanup()
    {
        _window.reset();
        QDir::setCurrent(QDir::tempPath());
        _folder.reset();
    }

    void cleanupTestCase() { NetworkSimulation::deleteNetworkSimulation(); }

    // Make-up
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

    // New
    void newDiscardsTheSimulationWithoutAQuestion()
    {
        DialogUser nobody({});
        _placeNodes();
        _shortcut(Qt::Key_N);
        QCOMPARE(network()->items().size(), 0);
        QCOMPARE(_view()->scene(), network());
        QTest::qWait(20);
        QCOMPARE(nobody.shown, QStringList());
    }

    void newWithASelectedItemShowsTheNewNetwork()
    {
        _placeNodes();
        _click(leftPlace);
        _choose("&File", "&New Simulation");
        QVERIFY(_shows<NetworkPropertiesWidget>());
        QCOMPARE(_view()->scene(), network());
        QCOMPARE(network()->items().size(), 0);
    }

    void newInTheMiddleOfAnEditShowsTheNewNetwork()
    {
        _placeNodes();
        _click(leftPlace);
        auto* field = _editor()->widget()->findChild<QLineEdit*>();
        field->setFocus();
        QTest::keyClicks(field, QStringLiteral("x"));
        QTest::keyClick(field, Qt::Key_N, Qt::ControlModifier);
        QVERIFY(_shows<NetworkPropertiesWidget>());
        QCOMPARE(network()->items().size(), 0);
    }

    void newInTheMiddleOfADragShowsTheNewNetwork()
    {
        _placeNodes();
        QTest::mousePress(_view()->viewport(), Qt::LeftButton, Qt::NoModifier, leftPlace);
        _moveTo(emptyPlace);
        _shortcut(Qt::Key_N);
        _moveTo(rightPlace);
        QTest::mouseRelease(_view()->viewport(), Qt::LeftButton, Qt::NoModifier, rightPlace);
        QCOMPARE(network()->items().size(), 0);
        QVERIFY(_shows<NetworkPropertiesWidget>());
    }

    void newAttachesTheNewCapture()
    {
        NetworkSimulation::instance()->capture()->setEnabled(true);
        _shortcut(Qt::Key_N);
        QCOMPARE(_table()->model(), NetworkSimulation::instance()->capture());
        QVERIFY(!NetworkSimulation::instance()->capture()->isEnabled());
        const int end = _table()->horizontalHeader()->sectionViewportPosition(Capture::DataColumn)
            + _table()->columnWidth(Capture::DataColumn);
        QVERIFY(end >= _table()->viewport()->width());
    }

    void newLeavesTheDrawingActionChecked()
    {
        _shortcut(Qt::Key_1);
        _shortcut(Qt::Key_N);
        QVERIFY(_action("&Drawing", "Insert Node(s)")->isChecked());
        QCOMPARE(network()->editorMode(), Network::Selection);
        QVERIFY(_shows<NetworkPropertiesWidget>());
    }

    void theNewNetworksSelectionIsShown()
    {
        _shortcut(Qt::Key_N);
        _placeNodes();
        _click(rightPlace);
        QVERIFY(_shows<TcpNodePropertiesWidget>());
    }

    // Files
    void aNameWithoutADotGetsTheExtension()
    {
        DialogUser user({type(_path("net"))});
        _shortcut(Qt::Key_S);
        QVERIFY(user.isDone());
        QCOMPARE(user.shown, QStringList({"Save Network: Lattivo File (*.ltvo)"}));
        QCOMPARE(QDir().entryList(QDir::Files), QStringList({"net.ltvo"}));
        QVERIFY(fileContents("net.ltvo").startsWith(hex("C191277D")));
    }

    void aNameWithADotIsUsedUnchanged()
    {
        DialogUser user({type(_path("net.bak"))});
        _choose("&File", "&Save Simulation as...");
        QVERIFY(user.isDone());
        QCOMPARE(QDir().entryList(QDir::Files), QStringList({"net.bak"}));
        QVERIFY(fileContents("net.bak").endsWith(hex("C191277D")));
    }

    void aFolderWithADotCountsAsADot()
    {
        QVERIFY(QDir().mkdir("a.b"));
        DialogUser user({type(_path("a.b/net"))});
        _shortcut(Qt::Key_S);
        QVERIFY(user.isDone());
        QCOMPARE(QDir("a.b").entryList(QDir::Files), QStringList({"net"}));
    }

    void aSimulationThatCannotBeSavedIsReported()
    {
        _placeNodes();
        DialogUser user({type(_path("missing/net")), acknowledge});
        _shortcut(Qt::Key_S);
        QVERIFY(user.isDone());
        QCOMPARE(user.shown.last(), QStringLiteral("Save Network: Could not save the network!"));
        QCOMPARE(itemsOf<TcpNode>().size(), 2);
        QCOMPARE(QDir().entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
    }

    void openBringsBackWhatWasSaved()
    {
        _placeNodes();
        _shortcut(Qt::Key_2);
        _drag(leftPlace, rightPlace);
        DialogUser user({type(_path("net")), type(_path("net.ltvo"))});
        _shortcut(Qt::Key_S);
        _shortcut(Qt::Key_N);
        _shortcut(Qt::Key_O);
        QVERIFY(user.isDone());
        QCOMPARE(user.shown.last(), QStringLiteral("Load Network: Lattivo Files (*.kvt *.ltvo)"));
        QCOMPARE(itemsOf<TcpNode>().size(), 2);
        QCOMPARE(itemsOf<Connection>().size(), 1);
        QCOMPARE(_view()->scene(), network());
        QCOMPARE(_table()->model(), NetworkSimulation::instance()->capture());
        _shortcut(Qt::Key_Escape, Qt::NoModifier);
        _click(leftPlace);
        QVERIFY(_shows<TcpNodePropertiesWidget>());
    }

    void openWithASelectedItemShowsTheNetwork()
    {
        _placeNodes();
        DialogUser user({type(_path("net")), type(_path("net.ltvo"))});
        _shortcut(Qt::Key_S);
        _click(leftPlace);
        _choose("&File", "&Open Simulation...");
        QVERIFY(user.isDone());
        QVERIFY(_shows<NetworkPropertiesWidget>());
        QVERIFY(network()->selectedItems().isEmpty());
        QCOMPARE(itemsOf<TcpNode>().size(), 2);
    }

    void openShowsTheFlagsOfTheCapture()
    {
        NetworkSimulation::instance()->capture()->setEnabled(true);
        NetworkSimulation::instance()->capture()->setViewFollows(true);
        DialogUser user({type(_path("net")), type(_path("net.ltvo"))});
        _shortcut(Qt::Key_S);
        _shortcut(Qt::Key_N);
        _shortcut(Qt::Key_O);
        int checked = 0;
        const QList<QCheckBox*> boxes = _window->findChild<CaptureTableView*>()->findChildren<QCheckBox*>();
        for (const QCheckBox* box : boxes)
            checked += box->isChecked();
        QCOMPARE(checked, 2);
        QVERIFY(NetworkSimulation::instance()->capture()->isEnabled());
        QVERIFY(NetworkSimulation::instance()->capture()->doesViewFollows());
    }

    void aDamagedFileOpensAsAnEmptySimulationWithoutAMessage()
    {
        QFile file(QStringLiteral("bad.ltvo"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("this is no simulation");
        file.close();
        _placeNodes();
        DialogUser user({type(_path("bad.ltvo"))});
        _shortcut(Qt::Key_O);
        QTest::qWait(20);
        QVERIFY(user.isDone());
        QCOMPARE(user.shown.size(), 1);
        QCOMPARE(network()->items().size(), 0);
        QCOMPARE(_view()->scene(), network());
        QVERIFY(_shows<NetworkPropertiesWidget>());
    }

    void exportingWritesTheDumpUnderTheNameTyped()
    {
        DialogUser user({type(_path("dump"))});
        _choose("&File", "Export captured frames for Wireshark...");
        QVERIFY(user.isDone());
        QCOMPARE(user.shown, QStringList({"Export frame dump: pcap dump (*.pcapdump)"}));
        QCOMPARE(QDir().entryList(QDir::Files), QStringList({"dump"}));
        QCOMPARE(fileContents("dump").size(), dumpHeaderSize);
        QVERIFY(fileContents("dump").startsWith(hex("A1B2C3D4")));
    }

    void aDumpThatCannotBeWrittenIsReported()
    {
        DialogUser user({type(_path("missing/dump")), acknowledge});
        _choose("&File", "Export captured frames for Wireshark...");
        QVERIFY(user.isDone());
        QCOMPARE(user.shown.last(), QStringLiteral("Export frame dump: Could not export the frame dump!"));
    }

    void cancellingAFileDialogChangesNothing_data()
    {
        QTest::addColumn<QString>("entry");
        for (const char* entry :
             {"&Open Simulation...", "&Save Simulation as...", "Export captured frames for Wireshark..."})
            QTest::newRow(entry) << entry;
    }

    void cancellingAFileDialogChangesNothing()
    {
        QFETCH(QString, entry);
        _placeNodes();
        _click(leftPlace);
        const NetworkSimulation* before = NetworkSimulation::instance();
        const QWidget* form = _editor()->widget();
        DialogUser user({cancel});
        _choose("&File", entry);
        QVERIFY(user.isDone());
        QCOMPARE(user.shown.size(), 1);
        QCOMPARE(NetworkSimulation::instance(), before);
        QCOMPARE(_editor()->widget(), form);
        QCOMPARE(itemsOf<TcpNode>().size(), 2);
        QCOMPARE(QDir().entryList(QDir::Files), QStringList());
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

private:
    QGraphicsView* _view() const { return qobject_cast<QGraphicsView*>(_window->centralWidget()); }
    QScrollArea* _editor() const { return _window->findChild<PropertyEditor*>()->findChild<QScrollArea*>(); }
    QTableView* _table() const { return _window->findChild<CaptureTableView*>()->findChild<QTableView*>(); }
    template <typename Form> bool _shows() const { return qobject_cast<Form*>(_editor()->widget()); }

    /// Whole, because a file dialog starts where the one before it was left.
    QString _path(const QString& fileName) const { return _folder->filePath(fileName); }

    QMenu* _menu(const QString& title) const
    {
        const QList<QAction*> menus = _window->menuBar()->actions();
        for (QAction* menu : menus) {
            if (menu->text() == title)
                return menu->menu();
        }
        return nullptr;
    }

    QAction* _action(const QString& menu, const QString& text) const
    {
        const QList<QAction*> actions = _menu(menu)->actions();
        for (QAction* action : actions) {
            if (action->text() == text)
                return action;
        }
        return nullptr;
    }

    QToolBar* _toolBar(const QString& title) const
    {
        const QList<QToolBar*> bars = _window->findChildren<QToolBar*>();
        for (QToolBar* bar : bars) {
            if (bar->windowTitle() == title)
                return bar;
        }
        return nullptr;
    }

    void _pressButton(const QString& toolBar, const QString& text) const
    {
        const QList<QAction*> actions = _toolBar(toolBar)->actions();
        for (QAction* action : actions) {
            if (action->text() == text)
                QTest::mouseClick(_toolBar(toolBar)->widgetForAction(action), Qt::LeftButton);
        }
    }

    void _choose(const QString& menu, const QString& text) const
    {
        QMenuBar* bar = _window->menuBar();
        QTest::mouseClick(bar, Qt::LeftButton, Qt::NoModifier,
                          bar->actionGeometry(_menu(menu)->menuAction()).center());
        QTest::mouseClick(_menu(menu), Qt::LeftButton, Qt::NoModifier,
                          _menu(menu)->actionGeometry(_action(menu, text)).center());
    }

    void _shortcut(Qt::Key key, Qt::KeyboardModifiers modifiers = Qt::ControlModifier) const
    {
        _window->activateWindow();  // a dialog may just have been closed, and there may be no window manager
        if (!QTest::qWaitForWindowActive(_window.get()))
            qFatal("the window does not get the keyboard");
        QTest::keyClick(_window.get(), key, modifiers);
    }

    void _click(const QPoint& place) const
    {
        QTest::mouseClick(_view()->viewport(), Qt::LeftButton, Qt::NoModifier, place);
    }

    /// With the left button held: QTest moves the mouse without a button.
    void _moveTo(const QPoint& place) const
    {
        QMouseEvent move(QEvent::MouseMove, place, _view()->viewport()->mapToGlobal(place), Qt::NoButton,
                         Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(_view()->viewport(), &move);
    }

    void _drag(const QPoint& from, const QPoint& to) const
    {
        QTest::mousePress(_view()->viewport(), Qt::LeftButton, Qt::NoModifier, from);
        _moveTo(to);
        QTest::mouseRelease(_view()->viewport(), Qt::LeftButton, Qt::NoModifier, to);
    }

    /// Two nodes; the window is in the selection mode afterwards.
    void _placeNodes() const
    {
        _shortcut(Qt::Key_1);
        _click(leftPlace);
        _click(rightPlace);
        _shortcut(Qt::Key_Escape, Qt::NoModifier);
    }

    std::unique_ptr<QTemporaryDir> _folder;
    std::unique_ptr<MainWindow> _window;
};

QTEST_MAIN(TestMainWindow)
#include "tst_mainwindow.moc"
