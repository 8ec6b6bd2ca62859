#include "nodes/tcpnode.h"

#include "tcphelpers.h"

#include <QApplication>
#include <QContextMenuEvent>
#include <QGraphicsSceneContextMenuEvent>
#include <QGraphicsView>
#include <QMenu>
#include <QTimer>
#include <QtTest>

#include <functional>

using namespace TestHelpers;

namespace {

/// Answers the debug menu while the node shows it.
class MenuUser : public QObject
{
    Q_OBJECT

public:
    using Answer = std::function<void(QMenu*)>;

    explicit MenuUser(const Answer& answer)
        : _answer(answer)
    {
        connect(&_timer, SIGNAL(timeout()), this, SLOT(lookForMenu()));
        _timer.start(1);
    }

    bool hasAnswered() const { return _hasAnswered; }

private slots:
    void lookForMenu()
    {
        auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget());
        if (!menu)
            return;
        _timer.stop();
        _hasAnswered = true;
        _answer(menu);
    }

private:
    Answer _answer;
    QTimer _timer;
    bool _hasAnswered = false;
};

void dismiss(QMenu* menu)
{
    QTest::keyClick(menu, Qt::Key_Escape);
}

MenuUser::Answer choose(const QString& text)
{
    return [text](QMenu* menu) {
        const QList<QAction*> entries = menu->actions();
        for (QAction* entry : entries) {
            if (entry->text() == text) {
                menu->setActiveAction(entry);
                QTest::keyClick(menu, Qt::Key_Return);
                return;
            }
        }
        dismiss(menu);
    };
}

/// Asks for the context menu at \a node; returns when somebody has answered it.
void requestContextMenu(const Node* node)
{
    QGraphicsSceneContextMenuEvent event(QEvent::GraphicsSceneContextMenu);
    event.setScenePos(node->scenePos());
    event.setScreenPos(QPoint(100, 100));
    QApplication::sendEvent(network(), &event);
}

}  // namespace

/// Debug commands that a user gives to programs.
class TestDebugCommands : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        qsrand(1);
        NetworkSimulation::newNetworkSimulation();
    }

    void cleanup()
    {
        NetworkSimulation::deleteNetworkSimulation();
        QVERIFY(TestAccess::allTcpNodes().isEmpty());
    }

    // Who gets a command

    void aCommandGoesToAllNodesWhenNothingIsSelected()
    {
        AttachedNode first;
        addTcpNode(QByteArray());  // has no program and is passed over
        AttachedNode second;
        TcpNode::sendDebugCommandToSelectedOrAll(TcpNode::StepDC);

        QCOMPARE(first.program.receive(6), hex("05 00000001 03"));
        QCOMPARE(second.program.receive(6), hex("05 00000001 03"));
    }

    void aCommandGoesToTheSelectedNodeOnly()
    {
        AttachedNode first;
        AttachedNode second;
        second.node->setSelected(true);
        TcpNode::sendDebugCommandToSelectedOrAll(TcpNode::PauseDC);
        first.node->sendDebugCommand(TcpNode::IdentifyDC);

        QCOMPARE(second.program.receive(6), hex("05 00000001 02"));
        QCOMPARE(first.program.receive(6), marker);
    }

    void aCommandGoesNowhereWhenAPlainNodeIsSelected()
    {
        AttachedNode attached;
        auto* plain = new Node(QByteArray());
        network()->addItem(plain);
        plain->setSelected(true);
        TcpNode::sendDebugCommandToSelectedOrAll(TcpNode::PauseDC);
        attached.node->sendDebugCommand(TcpNode::IdentifyDC);

        QCOMPARE(attached.program.receive(6), marker);
    }

    void aCommandGoesNowhereWhenAConnectionIsSelected()
    {
        AttachedNode first;
        AttachedNode second;
        auto* connection = new Connection(first.node, second.node);
        network()->addItem(connection);
        connection->setSelected(true);
        QCOMPARE(network()->selectedNetworkItem(), connection);
        TcpNode::sendDebugCommandToSelectedOrAll(TcpNode::PauseDC);
        first.node->sendDebugCommand(TcpNode::IdentifyDC);
        second.node->sendDebugCommand(TcpNode::IdentifyDC);

        QCOMPARE(first.program.receive(6), marker);
        QCOMPARE(second.program.receive(6), marker);
    }

    // The context menu

    void theContextMenuListsTheCommands()
    {
        QStringList entries;
        QStringList withoutIcon;
        const MenuUser user([&](QMenu* menu) {
            const QList<QAction*> actions = menu->actions();
            for (const QAction* action : actions) {
                entries.append(action->isSeparator() ? QStringLiteral("-") : action->text());
                if (!action->isSeparator() && action->icon().availableSizes().isEmpty())
                    withoutIcon.append(action->text());
            }
            dismiss(menu);
        });
        requestContextMenu(addTcpNode(QByteArray()));

        QVERIFY(user.hasAnswered());
        const QStringList expected = {"Identify", "-", "Run/Continue", "Pause", "Step", "Reset", "Quit"};
        QCOMPARE(entries, expected);
        QCOMPARE(withoutIcon, QStringList());
    }

    void theContextMenuOpensAtTheEventsPosition()
    {
        QPoint position;
        const MenuUser user([&](QMenu* menu) {
            position = menu->pos();
            dismiss(menu);
        });
        requestContextMenu(addTcpNode(QByteArray()));

        QCOMPARE(position, QPoint(100, 100));
    }

    void theContextMenuBelongsToTheFocusWidget()
    {
        QWidget window;
        window.setFocusPolicy(Qt::StrongFocus);
        window.show();
        window.activateWindow();
        window.setFocus();
        QTRY_COMPARE(QApplication::focusWidget(), &window);

        const QWidget* parent = nullptr;
        QPointer<QMenu> shown;
        const MenuUser user([&](QMenu* menu) {
            shown = menu;
            parent = menu->parentWidget();
            dismiss(menu);
        });
        requestContextMenu(addTcpNode(QByteArray()));
        QCOMPARE(parent, &window);
        QVERIFY(user.hasAnswered());
        QVERIFY(!shown);
    }

    void theContextMenuSelectsItsNodeAlone()
    {
        TcpNode* other = addTcpNode(QByteArray());
        other->setPos(500, 500);
        other->setSelected(true);
        TcpNode* node = addTcpNode(QByteArray());
        const MenuUser user(dismiss);
        requestContextMenu(node);

        QVERIFY(user.hasAnswered());
        QCOMPARE(network()->selectedItems(), QList<QGraphicsItem*>{node});
    }

    void aContextMenuEntrySendsItsCommand_data()
    {
        QTest::addColumn<QString>("entry");
        QTest::addColumn<QByteArray>("bytes");

        QTest::newRow("identify") << "Identify" << hex("05 00000001 06");
        QTest::newRow("run/continue") << "Run/Continue" << hex("05 00000001 01");
        QTest::newRow("pause") << "Pause" << hex("05 00000001 02");
        QTest::newRow("step") << "Step" << hex("05 00000001 03");
        QTest::newRow("reset") << "Reset" << hex("05 00000001 04");
        QTest::newRow("quit") << "Quit" << hex("05 00000001 05");
    }

    void aContextMenuEntrySendsItsCommand()
    {
        QFETCH(QString, entry);
        QFETCH(QByteArray, bytes);

        AttachedNode attached;
        const MenuUser user(choose(entry));
        requestContextMenu(attached.node);
        QVERIFY(user.hasAnswered());
        QCOMPARE(attached.program.receive(bytes.size()), bytes);
    }

    void aContextMenuEntryGoesToItsNodeOnly()
    {
        AttachedNode other;
        other.node->setPos(500, 500);
        AttachedNode attached;
        const MenuUser user(choose(QStringLiteral("Reset")));
        requestContextMenu(attached.node);
        other.node->sendDebugCommand(TcpNode::IdentifyDC);

        QCOMPARE(attached.program.receive(6), hex("05 00000001 04"));
        QCOMPARE(other.program.receive(6), marker);
    }

    void dismissingTheContextMenuSendsNothing()
    {
        AttachedNode attached;
        const MenuUser user(dismiss);
        requestContextMenu(attached.node);
        QVERIFY(user.hasAnswered());
        attached.node->sendDebugCommand(TcpNode::IdentifyDC);

        QCOMPARE(attached.program.receive(6), marker);
    }

    void theNodeMayGoWhileItsContextMenuIsOpen()
    {
        AttachedNode attached;
        const MenuUser user([&](QMenu* menu) {
            delete attached.node;
            choose(QStringLiteral("Quit"))(menu);
        });
        requestContextMenu(attached.node);

        QVERIFY(user.hasAnswered());
        QVERIFY(attached.program.receiveAll().isEmpty());
    }

    void aRightClickInAViewOpensTheContextMenu()
    {
        AttachedNode attached;
        QGraphicsView view(network());
        view.resize(300, 300);
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));

        const MenuUser user(choose(QStringLiteral("Step")));
        const QPoint position = view.mapFromScene(attached.node->scenePos());
        QContextMenuEvent event(QContextMenuEvent::Mouse, position, view.viewport()->mapToGlobal(position));
        QApplication::sendEvent(view.viewport(), &event);
        QVERIFY(user.hasAnswered());
        QCOMPARE(attached.program.receive(6), hex("05 00000001 03"));
    }
};

QTEST_MAIN(TestDebugCommands)
#include "tst_debugcommands.moc"
