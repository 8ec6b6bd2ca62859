#include "connections/connection.h"

#include "testhelpers.h"

#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QPointer>
#include <QSignalSpy>

#include <algorithm>
#include <memory>

using namespace TestHelpers;

namespace {

constexpr qint64 generous = 2000;  // ms that a busy machine may be late
constexpr int farAway = 100000;    // ms, longer than any test runs

QList<QByteArray> numberedFrames(int count)
{
    QList<QByteArray> frames;
    for (int i = 0; i < count; ++i)
        frames.append(frameBytes(nodeAddress(2), nodeAddress(1)) + QByteArray::number(i));
    return frames;
}

/// Returns the delay of a frame that is sent now, and draws as many numbers as the frame does.
int replayDelay(int base, int deviation, int size)
{
    const int delay = base - (deviation / 2 - qrand() % deviation);
    for (int bit = 0; bit < 8 * size; ++bit)
        qrand();
    return delay;
}

}  // namespace

/// Tests how a link carries frames: what arrives, when, and who learns of it.
class TestConnectionFrames : public QObject
{
    Q_OBJECT

private slots:
    /// Switches off the "*" of each corrupted bit, which would fill pages.
    void initTestCase() { QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false")); }

    void init()
    {
        _pair = std::make_unique<LinkedPair>();
        qsrand(1);
    }

    void cleanup() { _pair.reset(); }

    void deliveryWaitsForTheNextPass()
    {
        QVERIFY(_pair->link->carryFrame(_pair->unicast(), -1, true, _pair->sender));
        QCOMPARE(TestAccess::framesInFlight(*_pair->link).size(), 1);
        QVERIFY(_pair->receiver->indications.isEmpty());
        QVERIFY(capturedFrames().isEmpty());
        QTRY_COMPARE(_pair->receiver->indications, QList<QByteArray>{_pair->unicast()});
        QVERIFY(TestAccess::framesInFlight(*_pair->link).isEmpty());
    }

    void framesTravelInBothDirections()
    {
        const QByteArray answer = frameBytes(nodeAddress(1), nodeAddress(2));
        QVERIFY(_pair->link->carryFrame(_pair->unicast(), -1, true, _pair->sender));
        QVERIFY(_pair->link->carryFrame(answer, -1, true, _pair->receiver));
        QTRY_COMPARE(_pair->sender->indications, QList<QByteArray>{answer});
        QCOMPARE(_pair->receiver->indications, QList<QByteArray>{_pair->unicast()});
    }

    void aRefusedFrameLeavesNoTrace_data()
    {
        QTest::addColumn<bool>("broken");
        QTest::addColumn<int>("size");
        QTest::newRow("broken link") << true << smallestFrame;
        QTest::newRow("one byte too short") << false << smallestFrame - 1;
        QTest::newRow("one byte too long") << false << largestFrame + 1;
    }

    void aRefusedFrameLeavesNoTrace()
    {
        QFETCH(bool, broken);
        QFETCH(int, size);
        TestAccess::broken(*_pair->link) = broken;
        requestConfirmations(_pair->sender);
        QSignalSpy left(network(), SIGNAL(frameLeftLink()));
        const QByteArray bytes = frameBytes(broadcastAddress(), nodeAddress(1), largestFrame + 1).left(size);
        QVERIFY(!_pair->link->carryFrame(bytes, 100, true, _pair->sender));
        QVERIFY(TestAccess::framesInFlight(*_pair->link).isEmpty());
        QVERIFY(passTimeouts());
        QVERIFY(capturedFrames().isEmpty());
        QVERIFY(_pair->sender->log.isEmpty());
        QVERIFY(_pair->receiver->log.isEmpty());
        QCOMPARE(left.count(), 0);
    }

    void aFrameForNobodyTravelsAndIsCapturedAsLost()
    {
        requestConfirmations(_pair->sender);
        QVERIFY(!_pair->link->carryFrame(_pair->toNobody(), 100, true, _pair->sender));
        QCOMPARE(TestAccess::framesInFlight(*_pair->link).size(), 1);
        QTRY_COMPARE(capturedFrames().size(), 1);
        QVERIFY(!capturedFrames().first().wasDelivered(false));
        QCOMPARE(capturedFrames().first().payload(), _pair->toNobody());
        QVERIFY(_pair->receiver->log.isEmpty());
        QVERIFY(_pair->sender->log.isEmpty());  // the link tells the sender nothing
        QVERIFY(TestAccess::framesInFlight(*_pair->link).isEmpty());
    }

    void aDetectedErrorTravelsAndIsCapturedAsLost()
    {
        TestAccess::reliability(*_pair->link) = 0.5;
        TestAccess::errorDetection(*_pair->link) = 1.0;
        QVERIFY(!_pair->link->carryFrame(_pair->unicast(), -1, true, _pair->sender));
        QTRY_COMPARE(capturedFrames().size(), 1);
        QVERIFY(!capturedFrames().first().isCRCCorrect());
        QVERIFY(!capturedFrames().first().wasDelivered(false));
        QCOMPARE(capturedFrames().first().payload(), _pair->unicast());
        QVERIFY(_pair->receiver->log.isEmpty());
    }

    void anUndetectedErrorIsDeliveredAndConfirmed()
    {
        TestAccess::reliability(*_pair->link) = 0.5;
        TestAccess::errorDetection(*_pair->link) = 0.0;
        requestConfirmations(_pair->sender);
        QVERIFY(_pair->link->carryFrame(_pair->unicast(), -1, true, _pair->sender));
        QTRY_COMPARE(_pair->sender->confirmations, QList<bool>{true});
        QCOMPARE(_pair->receiver->indications.size(), 1);
        QVERIFY(_pair->receiver->indications.first() != _pair->unicast());
        QCOMPARE(capturedFrames().first().payload(), _pair->receiver->indications.first());
        QVERIFY(!capturedFrames().first().isCRCCorrect());
    }

    void aUnicastFrameIsConfirmedAfterItsIndicationAndCapture()
    {
        requestConfirmations(_pair->sender);
        int capturedAtIndication = -1;
        int capturedAtConfirmation = -1;
        _pair->receiver->onIndication = [&] { capturedAtIndication = capturedFrames().size(); };
        _pair->sender->onConfirmation = [&] {
            capturedAtConfirmation = capturedFrames().size();
            QCOMPARE(_pair->receiver->indications.size(), 1);
        };
        QVERIFY(_pair->link->carryFrame(_pair->unicast(), 100, true, _pair->sender));
        QVERIFY(_pair->sender->confirmations.isEmpty());
        QTRY_COMPARE(_pair->sender->confirmations, QList<bool>{true});
        QCOMPARE(capturedAtIndication, 0);
        QCOMPARE(capturedAtConfirmation, 1);
    }

    void aLateFrameIsDeliveredButNeitherConfirmedNorLost()
    {
        constexpr int deadline = 5;
        TestAccess::delay(*_pair->link) = deadline + 1;
        requestConfirmations(_pair->sender, deadline);
        _pair->sender->dataRequest(_pair->unicast());
        QTRY_COMPARE(_pair->receiver->indications.size(), 1);
        QVERIFY(passTimeouts(2 * deadline));
        QVERIFY(_pair->sender->log.isEmpty());
        QVERIFY(capturedFrames().first().wasDelivered(false));
        QVERIFY(!capturedFrames().first().wasDelivered(true));
        QVERIFY(_pair->link->carryFrame(_pair->unicast(), deadline, true, _pair->sender));
    }

    void aFrameWithinTheDeadlineIsConfirmed()
    {
        constexpr int deadline = 5;
        TestAccess::delay(*_pair->link) = deadline;
        requestConfirmations(_pair->sender, deadline);
        _pair->sender->dataRequest(_pair->unicast());
        QTRY_COMPARE(_pair->sender->confirmations, QList<bool>{true});
        QVERIFY(passTimeouts(2 * deadline));
        QCOMPARE(_pair->sender->confirmations.size(), 1);
    }

    void aPromiscuouslyTakenFrameIsNotConfirmed()
    {
        requestConfirmations(_pair->sender);
        TestAccess::promiscuousMode(*_pair->receiver) = Qt::Checked;
        QVERIFY(_pair->link->carryFrame(_pair->toNobody(), -1, true, _pair->sender));
        QTRY_COMPARE(_pair->receiver->indications, QList<QByteArray>{_pair->toNobody()});
        QVERIFY(passTimeouts());
        QVERIFY(_pair->sender->log.isEmpty());
    }

    void aBroadcastIsConfirmedAtOnceByTheLastLinkOnly()
    {
        requestConfirmations(_pair->sender);
        QVERIFY(_pair->link->carryFrame(_pair->broadcast(), 100, false, _pair->sender));
        QVERIFY(_pair->sender->log.isEmpty());
        QVERIFY(passTimeouts());
        QVERIFY(_pair->sender->log.isEmpty());

        bool wasQueued = true;
        _pair->sender->onConfirmation
            = [&] { wasQueued = !TestAccess::framesInFlight(*_pair->link).isEmpty(); };
        QVERIFY(_pair->link->carryFrame(_pair->broadcast(), 100, true, _pair->sender));
        QCOMPARE(_pair->sender->confirmations, QList<bool>{true});
        QVERIFY(!wasQueued);
        QTRY_COMPARE(_pair->receiver->indications.size(), 2);
        QCOMPARE(_pair->sender->confirmations.size(), 1);
    }

    void aBroadcastIsNotConfirmedAgainByANodeOfThatAddress()
    {
        requestConfirmations(_pair->sender);
        _pair->receiver->setAddress(broadcastAddress());
        _pair->sender->dataRequest(_pair->broadcast());
        QTRY_COMPARE(_pair->receiver->indications.size(), 1);
        QVERIFY(!capturedFrames().first().promiscuousReceive());
        QCOMPARE(_pair->sender->confirmations, QList<bool>{true});
    }

    void aBroadcastOverABrokenLastLinkIsNotConfirmed()
    {
        RecordingNode* third = addNode(3);
        Connection* last = addLink(_pair->sender, third);
        requestConfirmations(_pair->sender, 5);
        _pair->sender->dataRequest(_pair->broadcast());
        QCOMPARE(_pair->sender->confirmations, QList<bool>{true});
        QTRY_COMPARE(third->indications.size(), 1);

        TestAccess::broken(*last) = true;
        _pair->sender->dataRequest(_pair->broadcast());
        QTRY_COMPARE(_pair->receiver->indications.size(), 2);
        QVERIFY(passTimeouts(10));
        QCOMPARE(_pair->sender->confirmations, QList<bool>{true});
        QCOMPARE(third->indications.size(), 1);
    }

    void aBrokenLastLinkLeavesNoCapture()
    {
        Connection* last = addLink(_pair->sender, addNode(3));
        TestAccess::broken(*last) = true;
        _pair->sender->dataRequest(_pair->unicast());
        QTRY_COMPARE(_pair->receiver->indications.size(), 1);
        QVERIFY(passTimeouts());
        QCOMPARE(capturedFrames().size(), 0);
    }

    void eachSendIsCapturedOnceOnTheLastLink()
    {
        RecordingNode* third = addNode(3);
        RecordingNode* fourth = addNode(4);
        addLink(third, _pair->sender);
        addLink(_pair->sender, fourth);
        _pair->sender->dataRequest(_pair->unicast());
        QTRY_COMPARE(_pair->receiver->indications.size(), 1);
        QVERIFY(passTimeouts());
        QCOMPARE(capturedFrames().size(), 1);
        QCOMPARE(capturedFrames().first().destinationNode(), static_cast<Node*>(fourth));
        QVERIFY(!capturedFrames().first().wasDelivered(false));  // the fourth node has another address
    }

    void aLostFrameIsCapturedWithItsTime()
    {
        constexpr int delay = 30;
        TestAccess::delay(*_pair->link) = delay;
        _pair->link->carryFrame(_pair->toNobody(), -1, true, _pair->sender);
        QTRY_COMPARE(capturedFrames().size(), 1);
        const Frame& lost = capturedFrames().first();
        const auto inFlight = static_cast<quint32>(lost.receiveTime() - lost.sendTime());
        QVERIFY(inFlight >= delay - 1);  // both times are cut to the millisecond
        QVERIFY(inFlight < delay + generous);
    }

    void everyFrameThatLeavesIsAnnounced()
    {
        QSignalSpy left(network(), SIGNAL(frameLeftLink()));
        _pair->link->carryFrame(_pair->toNobody(), -1, false, _pair->sender);
        _pair->link->carryFrame(_pair->unicast(), -1, false, _pair->sender);
        QCOMPARE(left.count(), 0);
        QTRY_COMPARE(left.count(), 2);
    }

    void framesArriveInSendingOrderAtTheTimersTimes()
    {
        constexpr int base = 100;
        constexpr int deviation = 50;
        constexpr int pause = 10;
        TestAccess::delay(*_pair->link) = base;
        TestAccess::deviation(*_pair->link) = deviation;
        const QList<QByteArray> frames = numberedFrames(2);
        QList<qint64> arrivals;
        QElapsedTimer clock;
        _pair->receiver->onIndication = [&] { arrivals.append(clock.elapsed()); };

        qsrand(2);
        const int firstDelay = replayDelay(base, deviation, frames.at(0).size());
        const int secondDelay = replayDelay(base, deviation, frames.at(1).size());
        QVERIFY(firstDelay > secondDelay + pause);  // the second timer fires first
        qsrand(2);
        clock.start();
        _pair->link->carryFrame(frames.at(0), -1, true, _pair->sender);
        QVERIFY(passTimeouts(pause));
        const qint64 sentSecond = clock.elapsed();
        _pair->link->carryFrame(frames.at(1), -1, true, _pair->sender);

        QTRY_COMPARE(arrivals.size(), 2);
        QCOMPARE(_pair->receiver->indications, frames);
        QVERIFY(arrivals.at(0) >= std::min<qint64>(firstDelay, sentSecond + secondDelay));
        QVERIFY(arrivals.at(1) >= std::max<qint64>(firstDelay, sentSecond + secondDelay));
        QVERIFY(arrivals.at(1) < firstDelay + secondDelay + generous);
    }

    void whicheverTimerFiresTheOldestFrameLeaves()
    {
        const QList<QByteArray> frames = numberedFrames(2);
        TestAccess::delay(*_pair->link) = farAway;
        _pair->link->carryFrame(frames.at(0), -1, true, _pair->sender);
        TestAccess::delay(*_pair->link) = 5;
        _pair->link->carryFrame(frames.at(1), -1, true, _pair->sender);
        QVERIFY(passTimeouts(5));
        QCOMPARE(_pair->receiver->indications, frames.mid(0, 1));
        QCOMPARE(TestAccess::framesInFlight(*_pair->link).size(), 1);
    }

    void noFrameIsEverEarly()
    {
        QElapsedTimer clock;
        for (const int delay : {1, 2, 7, 20}) {
            TestAccess::delay(*_pair->link) = delay;
            _pair->receiver->indications.clear();
            qint64 elapsed = 0;
            _pair->receiver->onIndication = [&] { elapsed = clock.nsecsElapsed(); };
            clock.start();
            _pair->link->carryFrame(_pair->unicast(), -1, true, _pair->sender);
            QTRY_COMPARE(_pair->receiver->indications.size(), 1);
            QVERIFY(elapsed >= delay * qint64{1000000});
            QVERIFY(elapsed < (delay + generous) * 1000000);
        }
    }

    void deliveryWithoutFramesDoesNothing()
    {
        QSignalSpy left(network(), SIGNAL(frameLeftLink()));
        QVERIFY(QMetaObject::invokeMethod(_pair->link, "deliverFrame"));
        QCOMPARE(left.count(), 0);
        QVERIFY(_pair->receiver->log.isEmpty());
    }

    void discardedFramesReachNobody()
    {
        constexpr int delay = 20;
        TestAccess::delay(*_pair->link) = delay;
        requestConfirmations(_pair->sender, delay);
        for (int i = 0; i < 3; ++i)
            _pair->sender->dataRequest(_pair->unicast());
        QCOMPARE(TestAccess::framesInFlight(*_pair->link).size(), 3);
        TestAccess::broken(*_pair->link) = true;
        TestAccess::discardFramesInFlight(*_pair->link);
        QVERIFY(TestAccess::framesInFlight(*_pair->link).isEmpty());

        QVERIFY(passTimeouts(3 * delay));
        QVERIFY(_pair->receiver->log.isEmpty());
        QVERIFY(_pair->sender->log.isEmpty());
        QVERIFY(capturedFrames().isEmpty());
    }

    void timersOfDiscardedFramesTakeLaterOnes()
    {
        const QList<QByteArray> frames = numberedFrames(3);
        TestAccess::delay(*_pair->link) = 20;
        for (int i = 0; i < 2; ++i)
            _pair->link->carryFrame(_pair->unicast(), -1, true, _pair->sender);
        TestAccess::discardFramesInFlight(*_pair->link);

        TestAccess::delay(*_pair->link) = farAway;
        for (const QByteArray& frame : frames)
            _pair->link->carryFrame(frame, -1, true, _pair->sender);
        QVERIFY(passTimeouts(20));
        QCOMPARE(_pair->receiver->indications, frames.mid(0, 2));  // far earlier than their own delay
        QCOMPARE(TestAccess::framesInFlight(*_pair->link).size(), 1);
    }

    void hundredThousandFramesArriveInOrder()
    {
        constexpr int frameCount = 100000;
        TestAccess::delay(*_pair->link) = 200;
        TestAccess::deviation(*_pair->link) = 400;
        capture()->setEnabled(false);
        const QList<QByteArray> frames = numberedFrames(frameCount);
        for (const QByteArray& frame : frames)
            _pair->sender->dataRequest(frame);
        QCOMPARE(TestAccess::framesInFlight(*_pair->link).size(), frameCount);
        QTRY_COMPARE_WITH_TIMEOUT(_pair->receiver->indications.size(), frameCount, 60000);
        QVERIFY(_pair->receiver->indications == frames);
        QCOMPARE(_pair->receiver->receivedFramesCount(), qint64{frameCount});
    }

    void aDeletedLinkTakesItsFramesAlong()
    {
        TestAccess::delay(*_pair->link) = 10;
        requestConfirmations(_pair->sender, 5000);
        _pair->sender->dataRequest(_pair->unicast());
        delete _pair->link;
        QVERIFY(passTimeouts(10));
        QVERIFY(_pair->receiver->log.isEmpty());
        QVERIFY(_pair->sender->log.isEmpty());
        QVERIFY(capturedFrames().isEmpty());
    }

    void aDeletedReceiverTakesItsFramesAlong()
    {
        TestAccess::delay(*_pair->link) = 10;
        const QPointer<Connection> link = _pair->link;
        requestConfirmations(_pair->sender, 5000);
        _pair->sender->dataRequest(_pair->unicast());
        delete _pair->receiver;
        QVERIFY(!link);
        QCOMPARE(_pair->sender->connectionCount(), 0);
        QVERIFY(passTimeouts(10));
        QVERIFY(_pair->sender->log.isEmpty());
        QVERIFY(capturedFrames().isEmpty());
    }

    void aDeletedSenderTakesItsFramesAlong()
    {
        TestAccess::delay(*_pair->link) = 10;
        const QPointer<Connection> link = _pair->link;
        _pair->sender->dataRequest(_pair->unicast());
        delete _pair->sender;
        QVERIFY(!link);
        QCOMPARE(_pair->receiver->connectionCount(), 0);
        QVERIFY(passTimeouts(10));
        QVERIFY(_pair->receiver->log.isEmpty());
    }

    void aReceiverMayDeleteTheLink()
    {
        const QPointer<Connection> link = _pair->link;
        requestConfirmations(_pair->sender, 5000);
        _pair->receiver->onIndication = [this] { delete _pair->link; };
        _pair->sender->dataRequest(_pair->unicast());
        _pair->sender->dataRequest(_pair->unicast());
        QTRY_VERIFY(!link);
        QVERIFY(passTimeouts());
        QCOMPARE(_pair->receiver->indications.size(), 1);
        QCOMPARE(_pair->sender->confirmations, QList<bool>{true});
    }

    void aSenderMayDeleteItselfWhenConfirmed()
    {
        const QPointer<Connection> link = _pair->link;
        requestConfirmations(_pair->sender, 5000);
        RecordingNode* sender = _pair->sender;
        sender->onConfirmation = [sender] { QTimer::singleShot(0, sender, SLOT(deleteLater())); };
        sender->dataRequest(_pair->unicast());
        TestAccess::delay(*_pair->link) = 20;
        sender->dataRequest(_pair->unicast());
        QTRY_VERIFY(!link);
        QVERIFY(passTimeouts(20));
        QCOMPARE(_pair->receiver->indications.size(), 1);
    }

    void aSimulationMayEndWithFramesInFlight()
    {
        TestAccess::delay(*_pair->link) = 10;
        const QPointer<Connection> link = _pair->link;
        requestConfirmations(_pair->sender, 5);
        _pair->sender->dataRequest(_pair->unicast());
        _pair->sender->dataRequest(_pair->toNobody());
        NetworkSimulation::newNetworkSimulation();
        QVERIFY(!link);
        QVERIFY(passTimeouts(10));
        QVERIFY(capturedFrames().isEmpty());
    }

private:
    std::unique_ptr<LinkedPair> _pair;
};

QTEST_MAIN(TestConnectionFrames)
#include "tst_connectionframes.moc"
