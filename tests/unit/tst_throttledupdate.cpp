#include "core/throttledupdate.h"

#include "testhelpers.h"

#include <QElapsedTimer>
#include <QGraphicsScene>
#include <QSignalSpy>

#include <memory>

using namespace TestHelpers;

namespace {

constexpr int framePeriod = 16;  // ms between gathered repaints
constexpr int quietTime = 40;    // ms, more than two of them

/// Runs what the event loop would, without any timer. A repaint takes two rounds through the scene.
void sendPostedEvents()
{
    for (int round = 0; round < 3; ++round)
        QCoreApplication::sendPostedEvents();
}

/// A scene of one item, which is drawn only when it is asked for.
struct RepaintedItem {
    RepaintedItem()
        : item(scene.addRect(0, 0, 10, 10))
        , changed(&scene, SIGNAL(changed(QList<QRectF>)))
    {
        passTimeouts(quietTime);
        sendPostedEvents();
        changed.clear();
    }

    int count() const { return repaints(changed, QPointF(5, 5)); }

    QGraphicsScene scene;
    QGraphicsItem* item;
    QSignalSpy changed;
    ThrottledUpdate traffic{item};
};

}  // namespace

class TestThrottledUpdate : public QObject
{
    Q_OBJECT

private slots:
    void theFirstRequestRepaintsAtOnce()
    {
        RepaintedItem repainted;
        repainted.traffic.request();
        sendPostedEvents();  // runs no timer
        QCOMPARE(repainted.count(), 1);
        QVERIFY(passTimeouts(quietTime));
        QCOMPARE(repainted.count(), 1);
    }

    void furtherRequestsAreGathered()
    {
        RepaintedItem repainted;
        for (int i = 0; i < 1000; ++i) {
            repainted.traffic.request();
            sendPostedEvents();
        }
        QCOMPARE(repainted.count(), 1);
        QVERIFY(passTimeouts(framePeriod));
        sendPostedEvents();
        QCOMPARE(repainted.count(), 2);  // the last request is shown, too

        repainted.traffic.request();
        sendPostedEvents();
        QCOMPARE(repainted.count(), 2);  // no quiet time yet
        QVERIFY(passTimeouts(quietTime));
        QCOMPARE(repainted.count(), 3);
    }

    void aRequestAfterAQuietTimeRepaintsAtOnceAgain()
    {
        RepaintedItem repainted;
        repainted.traffic.request();
        repainted.traffic.request();
        QVERIFY(passTimeouts(quietTime));
        repainted.changed.clear();
        repainted.traffic.request();
        sendPostedEvents();
        QCOMPARE(repainted.count(), 1);
    }

    void eachItemThatAskedIsRepainted()
    {
        RepaintedItem repainted;
        QGraphicsItem* other = repainted.scene.addRect(500, 500, 10, 10);
        QVERIFY(passTimeouts(quietTime));
        repainted.changed.clear();
        ThrottledUpdate otherTraffic(other);
        repainted.traffic.request();
        otherTraffic.request();
        QVERIFY(passTimeouts(framePeriod));
        sendPostedEvents();
        QCOMPARE(repainted.count(), 1);
        QCOMPARE(repaints(repainted.changed, QPointF(505, 505)), 1);
    }

    void steadyRequestsRepaintOnceAPeriod()
    {
        RepaintedItem repainted;
        QElapsedTimer clock;
        clock.start();
        int requests = 0;
        while (clock.elapsed() < 10 * framePeriod) {
            repainted.traffic.request();
            ++requests;
            QCoreApplication::processEvents();
        }
        QVERIFY(passTimeouts(quietTime));
        const qint64 periods = clock.elapsed() / framePeriod + 1;
        QVERIFY(requests > periods);
        QVERIFY(repainted.count() >= 2);
        QVERIFY(repainted.count() <= periods + 1);
    }

    void anItemMayGoWhileItsRepaintIsPending()
    {
        RepaintedItem repainted;
        auto first = std::make_unique<ThrottledUpdate>(repainted.item);
        auto second = std::make_unique<ThrottledUpdate>(repainted.item);
        repainted.traffic.request();  // the period runs
        sendPostedEvents();
        for (const auto& traffic : {first.get(), second.get()})
            traffic->request();
        first.reset();
        repainted.changed.clear();
        QVERIFY(passTimeouts(framePeriod));
        sendPostedEvents();
        QCOMPARE(repainted.count(), 1);
        second.reset();

        second = std::make_unique<ThrottledUpdate>(repainted.item);
        QVERIFY(passTimeouts(quietTime));
        repainted.traffic.request();
        second->request();
        second.reset();
        sendPostedEvents();
        repainted.changed.clear();
        QVERIFY(passTimeouts(quietTime));
        QCOMPARE(repainted.count(), 0);
    }
};

QTEST_MAIN(TestThrottledUpdate)
#include "tst_throttledupdate.moc"
