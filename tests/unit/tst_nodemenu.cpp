#include "network/network.h"

#include "network/networksimulation.h"
#include "nodes/tcpnode.h"

#include <QApplication>
#include <QGraphicsView>
#include <QMenu>
#include <QSignalSpy>
#include <QTimer>
#include <QWindow>
#include <QtTest>

#include <functional>
#include <memory>

namespace {

const QPointF nodePlace(100, 100);
const QPointF otherPlace(100, 300);
const QPointF ground(300, 350);
const QPoint underCursor(60, 10);  // in the menu that has opened there; an entry

}  // namespace

/// The context menu of a node, opened with the mouse as on a desktop: the press brings the menu event, and
/// the menu takes the release. What the user does next goes where the mouse is.
class TestNodeMenu : public QObject
{
    Q_OBJECT

private:
    static Network& network() { return *NetworkSimulation::instance()->network(); }
    QWindow* window() const { return _view->windowHandle(); }

    static TcpNode* addNode(const QPointF& position)
    {
        auto* node = new TcpNode(QByteArray(), nullptr);
        network().addItem(node);
        node->setPos(position);
        return node;
    }

    QPoint point(const QPointF& position) const { return _view->mapFromScene(position); }

    void click(const QPointF& position)
    {
        QTest::mouseMove(window(), point(position));
        QTest::mouseClick(window(), Qt::LeftButton, {}, point(position));
    }

    /// Moves the mouse with a button down.
    void moveMouse(const QPointF& from, const QPointF& to)
    {
        for (const double way : {0.3, 0.7, 1.0}) {
            const QPoint local = point(from + (to - from) * way);
            QMouseEvent event(QEvent::MouseMove, local, _view->viewport()->mapToGlobal(local), Qt::NoButton,
                              Qt::LeftButton, Qt::NoModifier);
            QCoreApplication::sendEvent(_view->viewport(), &event);
        }
    }

    void drag(const QPointF& from, const QPointF& to)
    {
        QTest::mousePress(window(), Qt::LeftButton, {}, point(from));
        moveMouse(from, to);
        QTest::mouseRelease(window(), Qt::LeftButton, {}, point(to));
    }

    static void endings()
    {
        QTest::addColumn<QByteArray>("ending");
        for (const char* ending : {"choice", "Escape", "press on the ground", "press on the other node"})
            QTest::newRow(ending) << QByteArray(ending);
    }

    /// Calls \a answer when the menu is open.
    void answerMenu(const std::function<void(QMenu*)>& answer)
    {
        QTimer::singleShot(0, this, [this, answer] {
            if (auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget()))
                answer(menu);
            else
                answerMenu(answer);
        });
    }

    /// Opens the menu, and returns when it is closed.
    void openMenu(const std::function<void(QMenu*)>& answer)
    {
        answerMenu(answer);
        QTest::mouseMove(window(), point(nodePlace));
        QTest::mousePress(window(), Qt::RightButton, {}, point(nodePlace));
    }

    void openMenuAndEndIt(const QByteArray& ending)
    {
        const QPointF elsewhere = ending.endsWith("node") ? otherPlace : ground;
        openMenu([&](QMenu* menu) {
            QTest::mouseRelease(window(), Qt::RightButton, {}, point(nodePlace));
            if (!menu->isVisible())
                return;
            if (ending == "choice")
                QTest::mouseClick(menu, Qt::LeftButton, {}, underCursor);
            else if (ending == "Escape")
                QTest::keyClick(menu, Qt::Key_Escape);
            else
                QTest::mousePress(window(), Qt::LeftButton, {}, point(elsewhere));
        });
        QCoreApplication::processEvents();  // a press that has closed the menu goes on to what is there
        QTest::mouseRelease(window(), Qt::LeftButton, {}, point(elsewhere));
        QVERIFY(!QApplication::activePopupWidget());
    }

private slots:
    void init()
    {
        NetworkSimulation::newNetworkSimulation();
        _node = addNode(nodePlace);
        _other = addNode(otherPlace);
        _view = std::make_unique<QGraphicsView>(&network());
        _view->setSceneRect(0, 0, 400, 400);
        _view->setFrameShape(QFrame::NoFrame);
        _view->resize(400, 400);
        _view->show();
        QVERIFY(QTest::qWaitForWindowExposed(_view.get()));
    }

    void cleanup()
    {
        _view.reset();
        NetworkSimulation::deleteNetworkSimulation();
    }

    void theMouseIsFreeAfterTheMenu_data() { endings(); }

    void theMouseIsFreeAfterTheMenu()
    {
        QFETCH(QByteArray, ending);
        openMenuAndEndIt(ending);
        QVERIFY(!network().mouseGrabberItem());
        QCOMPARE(_node->pos(), nodePlace);
    }

    void aClickAfterTheMenuSelectsWhatItHits_data() { endings(); }

    void aClickAfterTheMenuSelectsWhatItHits()
    {
        QFETCH(QByteArray, ending);
        openMenuAndEndIt(ending);
        click(otherPlace);
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_other});
        click(ground);
        QVERIFY(network().selectedItems().isEmpty());
    }

    void aDragAfterTheMenuMovesWhatItHits_data() { endings(); }

    void aDragAfterTheMenuMovesWhatItHits()
    {
        QFETCH(QByteArray, ending);
        openMenuAndEndIt(ending);
        drag(otherPlace, otherPlace + QPointF(80, -60));
        QCOMPARE(_node->pos(), nodePlace);
        QCOMPARE(_other->pos(), otherPlace + QPointF(80, -60));
        drag(ground, ground - QPointF(50, 50));
        QCOMPARE(_node->pos(), nodePlace);
        QCOMPARE(_other->pos(), otherPlace + QPointF(80, -60));
    }

    /// Presses before the menu has returned to the node.
    void aPressThatFollowsTheMenuAtOnceBeginsADrag()
    {
        openMenu([this](QMenu* menu) {
            QTest::mouseRelease(window(), Qt::RightButton, {}, point(nodePlace));
            QTest::keyClick(menu, Qt::Key_Escape);
            QTest::mousePress(window(), Qt::LeftButton, {}, point(otherPlace));
        });
        QCOMPARE(network().mouseGrabberItem(), _other);
        moveMouse(otherPlace, otherPlace + QPointF(40, 30));
        QTest::mouseRelease(window(), Qt::LeftButton, {}, point(otherPlace + QPointF(40, 30)));
        QCOMPARE(_other->pos(), otherPlace + QPointF(40, 30));
        QCOMPARE(_node->pos(), nodePlace);
        QVERIFY(!network().mouseGrabberItem());
    }

    /// Presses the menu key while a button holds another node.
    void aNodeHeldWhileTheMenuOpensIsLetGo()
    {
        QTest::mousePress(window(), Qt::LeftButton, {}, point(otherPlace));
        QCOMPARE(network().mouseGrabberItem(), _other);
        answerMenu([this](QMenu* menu) {
            QTest::mouseRelease(window(), Qt::LeftButton, {}, point(otherPlace));
            if (menu->isVisible())
                QTest::keyClick(menu, Qt::Key_Escape);
        });
        const QPoint place = _view->mapFromScene(nodePlace);
        QContextMenuEvent request(QContextMenuEvent::Keyboard, place, _view->viewport()->mapToGlobal(place));
        QCoreApplication::sendEvent(_view->viewport(), &request);
        QVERIFY(!network().mouseGrabberItem());
        drag(nodePlace, nodePlace + QPointF(20, 20));
        QCOMPARE(_node->pos(), nodePlace + QPointF(20, 20));
        QCOMPARE(_other->pos(), otherPlace);
    }

    void theOnlySelectedNodeStaysSelectedWithoutASignal()
    {
        _node->setSelected(true);
        QSignalSpy changes(&network(), SIGNAL(selectionChanged()));
        openMenuAndEndIt("Escape");
        QCOMPARE(changes.size(), 0);
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_node});
    }

    void aNodeAmongOthersBecomesTheOnlySelectedOne_data()
    {
        QTest::addColumn<bool>("isSelected");
        QTest::newRow("selected before") << true;
        QTest::newRow("not selected before") << false;
    }

    void aNodeAmongOthersBecomesTheOnlySelectedOne()
    {
        QFETCH(bool, isSelected);
        _node->setSelected(isSelected);
        _other->setSelected(true);
        openMenuAndEndIt("Escape");
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_node});
    }

private:
    TcpNode* _node = nullptr;   // the network's
    TcpNode* _other = nullptr;  // likewise
    std::unique_ptr<QGraphicsView> _view;
};

QTEST_MAIN(TestNodeMenu)
#include "tst_nodemenu.moc"
