#include "nodes/node.h"

#include "testhelpers.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QGraphicsView>
#include <QSignalSpy>

#include <memory>

using namespace TestHelpers;

namespace {

constexpr int flashDuration = 500;  // ms
constexpr qint64 generous = 2000;   // ms that a busy machine may be late

/// A node that remembers how it was painted last.
class PaintedNode : public Node
{
public:
    PaintedNode()
        : Node(nodeAddress(7))
    {
    }

    void paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* widget) override
    {
        paintedFlags = TestAccess::flags(*this);
        Node::paint(painter, option, widget);
    }

    int paintedFlags = -1;
};

}  // namespace

/// How a node shows traffic.
class TestNodeFlashes : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        _pair = std::make_unique<LinkedPair>();
        qsrand(1);
    }

    void cleanup() { _pair.reset(); }

    // The end of a flash

    void flashesEndAfterHalfASecond_data()
    {
        QTest::addColumn<bool>("transmit");
        QTest::newRow("transmit") << true;
        QTest::newRow("receive") << false;
    }

    void flashesEndAfterHalfASecond()
    {
        QFETCH(bool, transmit);
        const int bit = transmit ? transmittingBit : receivingBit;
        RecordingNode* node = _pair->sender;
        QElapsedTimer clock;
        clock.start();
        if (transmit)
            node->dataRequest(_pair->toNobody());
        else
            node->_dataIndication("abc");
        QCOMPARE(TestAccess::flags(*node), connectedBit | bit);
        QTRY_COMPARE_WITH_TIMEOUT(TestAccess::flags(*node), connectedBit, flashDuration + int(generous));
        QVERIFY(clock.elapsed() >= flashDuration);
    }

    void theFirstTimerClearsTheFlash_data() { flashesEndAfterHalfASecond_data(); }

    void theFirstTimerClearsTheFlash()
    {
        QFETCH(bool, transmit);
        const int bit = transmit ? transmittingBit : receivingBit;
        RecordingNode* node = _pair->sender;
        const auto traffic = [&] {
            if (transmit)
                node->dataRequest(_pair->toNobody());
            else
                node->_dataIndication("abc");
        };
        QElapsedTimer clock;
        clock.start();
        traffic();
        QVERIFY(passTimeouts(flashDuration / 2));
        const qint64 second = clock.elapsed();
        if (second >= flashDuration)
            QSKIP("the machine is too slow to tell the two flashes apart");
        traffic();
        QTRY_VERIFY(!(TestAccess::flags(*node) & bit));
        QVERIFY(clock.elapsed() >= flashDuration);

        // The second timer still runs, and clears what a third frame sets
        if (clock.elapsed() >= second + flashDuration)
            QSKIP("the machine is too slow to tell the two flashes apart");
        const qint64 third = clock.elapsed();
        traffic();
        QVERIFY(TestAccess::flags(*node) & bit);
        QTRY_VERIFY(!(TestAccess::flags(*node) & bit));
        QVERIFY(clock.elapsed() >= second + flashDuration);
        if (clock.elapsed() >= third + flashDuration)
            QSKIP("the machine is too slow to tell which timer it was");
    }

    void framesSoonAfterOneAnotherHaveTimersOfTheirOwn_data() { flashesEndAfterHalfASecond_data(); }

    /// Looks at the node 2 ms after a flash was due to end, with a timeout of its own: timeouts run in the
    /// order of their due times, however busy the machine is.
    void framesSoonAfterOneAnotherHaveTimersOfTheirOwn()
    {
        QFETCH(bool, transmit);
        RecordingNode* node = _pair->sender;
        const auto traffic = [&] {
            if (transmit)
                node->dataRequest(_pair->toNobody());
            else
                node->_dataIndication("abc");
        };
        int flagsAfterFirst = -1;
        int flagsAfterSecond = -1;
        QEventLoop loop;  // QTest's own loops look at the timers every 10 ms only
        Timeouts behindFirst([&] {
            flagsAfterFirst = TestAccess::flags(*node);
            traffic();  // begins a flash that the second frame's timer ends
        });
        Timeouts behindSecond([&] {
            flagsAfterSecond = TestAccess::flags(*node);
            loop.quit();
        });
        Timeouts second([&] {
            traffic();
            behindSecond.start(flashDuration + 2);
        });
        traffic();
        behindFirst.start(flashDuration + 2);
        second.start(6);
        loop.exec();
        QCOMPARE(flagsAfterFirst, connectedBit);
        QCOMPARE(flagsAfterSecond, connectedBit);
    }

    // Repaints

    void flashesRepaintTheNode()
    {
        _pair->sender->setPos(500, 500);
        QSignalSpy changed(network(), SIGNAL(changed(QList<QRectF>)));
        QTRY_VERIFY(changed.count() > 0);
        QVERIFY(passTimeouts(50));
        changed.clear();
        _pair->sender->_dataIndication("abc");
        QTRY_VERIFY(repaints(changed, _pair->sender->pos()) > 0);
        QVERIFY(passTimeouts(50));
        changed.clear();
        QTRY_VERIFY(repaints(changed, _pair->sender->pos()) > 0);  // the end of the flash
    }

    void flashesRepaintAViewThatComesLate()
    {
        auto* node = new PaintedNode;
        network()->addItem(node);
        node->dataRequest("abc");
        QGraphicsView view(network());
        view.show();
        QTRY_VERIFY(node->paintedFlags >= 0);
        QTRY_COMPARE(node->paintedFlags, 0);  // the end of the flash that had begun before
        node->dataRequest("abc");
        QTRY_COMPARE(node->paintedFlags, transmittingBit);
    }

    /// Listens from after the frame on: Qt would tell this listener of a repaint that it has not done yet.
    void flashesAskForNoRepaintWhileNobodyWatches()
    {
        _pair->sender->setPos(500, 500);
        QVERIFY(passTimeouts(50));
        _pair->sender->_dataIndication("abc");
        QSignalSpy changed(network(), SIGNAL(changed(QList<QRectF>)));
        QVERIFY(passTimeouts(50));
        QVERIFY(repaints(changed, _pair->sender->pos()) == 0);
    }

    // Odd nodes

    void anInactiveNodeFlashesButSendsNothing_data()
    {
        QTest::addColumn<int>("flags");
        QTest::newRow("not connected") << 0;
        QTest::newRow("connected but disabled") << (connectedBit | disabledBit);
        QTest::newRow("disabled") << disabledBit;
    }

    void anInactiveNodeFlashesButSendsNothing()
    {
        QFETCH(int, flags);
        requestConfirmations(_pair->sender, 1);
        TestAccess::flags(*_pair->sender) = flags;
        QSignalSpy statistics(_pair->sender, SIGNAL(sendStatisticsChanged(int,int)));
        _pair->sender->dataRequest(_pair->unicast());
        _pair->sender->dataRequest(_pair->broadcast());
        _pair->sender->dataRequest(_pair->toNobody());
        QCOMPARE(TestAccess::flags(*_pair->sender), flags | transmittingBit);
        QCOMPARE(statistics.count(), 0);
        QCOMPARE(_pair->sender->sendFramesCount(), qint64{0});
        QCOMPARE(_pair->sender->sendBytesCount(), qint64{0});
        QVERIFY(TestAccess::framesInFlight(*_pair->link).isEmpty());
        QVERIFY(passTimeouts(2));
        QVERIFY(_pair->sender->log.isEmpty());
        QVERIFY(_pair->receiver->log.isEmpty());
    }

    void aDeletedNodeLosesItsTimers()
    {
        requestConfirmations(_pair->sender, 5);
        _pair->sender->dataRequest(_pair->toNobody());
        _pair->sender->_dataIndication("abc");
        delete _pair->sender;
        QVERIFY(passTimeouts(flashDuration + 5));  // nothing of the node is touched
        QCOMPARE(network()->items().size(), 1);
    }

private:
    std::unique_ptr<LinkedPair> _pair;
};

QTEST_MAIN(TestNodeFlashes)
#include "tst_nodeflashes.moc"
