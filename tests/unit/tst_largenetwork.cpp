#include "network/network.h"

#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "testaccess.h"

#include <QDoubleSpinBox>
#include <QElapsedTimer>
#include <QGraphicsView>
#include <QMouseEvent>
#include <QtTest>

#include <algorithm>
#include <memory>
#include <random>

namespace {

constexpr int manyLinks = 10000;
constexpr int patience = 300;  // ms; an index of the scene would take many seconds
const QSize viewSize(800, 600);

}  // namespace

/// Tests how long the user waits in a network with thousands of nodes and links, on a view that is shown.
class TestLargeNetwork : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        NetworkSimulation::newNetworkSimulation();
        _places.seed(1);
        _view = std::make_unique<QGraphicsView>(&network());
        _view->setSceneRect(QRectF(QPointF(), viewSize));
        _view->resize(viewSize);
        _view->show();
        QVERIFY(QTest::qWaitForWindowExposed(_view.get()));
    }

    void cleanup()
    {
        _view.reset();
        NetworkSimulation::deleteNetworkSimulation();
    }

    void aHubFollowsTheMouseAtOnce()
    {
        const QPointF start(400, 300);
        Node* hub = addNodes(1).first();
        for (Node* node : addNodes(manyLinks))
            network().addItem(new Connection(hub, node));
        hub->setPos(start);
        hub->setZValue(hub->zValue() + 1);  // the mouse must not press another node
        QCoreApplication::processEvents();

        mouse(QEvent::MouseButtonPress, start);
        for (int step = 1; step <= 3; ++step) {
            const QPointF place = start + QPointF(10, 5) * step;
            QElapsedTimer timer;
            timer.start();
            mouse(QEvent::MouseMove, place);
            QVERIFY2(timer.elapsed() < patience, qPrintable(QString::number(timer.elapsed())));
            QCOMPARE(hub->pos(), place);
            QCoreApplication::processEvents();
        }
        mouse(QEvent::MouseButtonRelease, start + QPointF(30, 15));
    }

    void aStepOfTheDefaultStrokeWidthTakesNoTime()
    {
        const QList<Node*> nodes = addNodes(manyLinks);
        for (int i = 0; i < manyLinks; ++i)
            network().addItem(new Connection(nodes.at(i), nodes.at(i * 7919 % manyLinks)));
        QCoreApplication::processEvents();

        const std::unique_ptr<QWidget> form(network().defaultConnection()->propertiesWidget());
        QDoubleSpinBox* width = form->findChildren<QDoubleSpinBox*>().last();  // behind the reliabilities
        for (const double wide : {3.0, 9.0, 10.0}) {
            QElapsedTimer timer;
            timer.start();
            width->setValue(wide);
            QVERIFY2(timer.elapsed() < patience, qPrintable(QString::number(timer.elapsed())));
            QCOMPARE(TestAccess::strokeWidth(*network().defaultConnection()), wide);
            QCoreApplication::processEvents();
        }
    }

    void itemsStandInStackingOrder_data()
    {
        QTest::addColumn<int>("order");
        QTest::newRow("descending") << int(Qt::DescendingOrder);
        QTest::newRow("ascending") << int(Qt::AscendingOrder);
    }

    /// Nodes stay above links, and later ones above earlier ones, after removing, moving and asking.
    void itemsStandInStackingOrder()
    {
        QFETCH(int, order);
        QList<Node*> nodes;
        QList<Connection*> links;
        for (int i = 0; i < 50; ++i) {
            nodes += addNodes(1);
            links.append(new Connection(nodes.first(), nodes.last()));
            network().addItem(links.last());
        }
        nodes.first()->setPos(-5000, 70000);
        QCoreApplication::processEvents();
        for (const int gone : {40, 20, 10, 1})
            delete nodes.takeAt(gone);
        for (const int gone : {40, 20, 10, 1})
            links.removeAt(gone);
        delete links.takeAt(30);
        nodes += addNodes(1);

        QList<QGraphicsItem*> expected;
        for (Connection* link : qAsConst(links))
            expected.append(link);
        for (Node* node : qAsConst(nodes))
            expected.append(node);
        if (order == Qt::DescendingOrder)
            std::reverse(expected.begin(), expected.end());
        QCOMPARE(network().items(static_cast<Qt::SortOrder>(order)), expected);
        if (order == Qt::DescendingOrder)
            QCOMPARE(network().items(), expected);
    }

private:
    static Network& network() { return *NetworkSimulation::instance()->network(); }

    QList<Node*> addNodes(int count)
    {
        std::uniform_real_distribution<double> x(0, viewSize.width());
        std::uniform_real_distribution<double> y(0, viewSize.height());
        QList<Node*> nodes;
        for (int i = 0; i < count; ++i) {
            nodes.append(new TcpNode(QByteArray(), nullptr));
            network().addItem(nodes.last());
            nodes.last()->setPos(x(_places), y(_places));
        }
        return nodes;
    }

    void mouse(QEvent::Type type, const QPointF& position)
    {
        const QPoint local = _view->mapFromScene(position);
        QMouseEvent event(type, local, _view->viewport()->mapToGlobal(local),
                          type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton,
                          type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(_view->viewport(), &event);
    }

    std::mt19937 _places;
    std::unique_ptr<QGraphicsView> _view;
};

QTEST_MAIN(TestLargeNetwork)
#include "tst_largenetwork.moc"
