#include "nodes/node.h"

#include "testhelpers.h"

#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QPointer>

#include <memory>

using namespace TestHelpers;

namespace {

constexpr qint64 generous = 2000;  // ms that a busy machine may be late
constexpr int farAway = 100000;    // ms, longer than any test runs

}  // namespace

/// Tests what a node tells its program about the frames that it has sent.
class TestNodeConfirmations : public QObject
{
    Q_OBJECT

private slots:
    /// Silences the "*" of each corrupted bit, which would fill pages.
    void initTestCase() { QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false")); }

    void init()
    {
        _pair = std::make_unique<LinkedPair>();
        qsrand(1);
    }

    void cleanup() { _pair.reset(); }

    // Without a link that carries the frame

    void aLoneNodesBroadcastIsConfirmedAtOnce()
    {
        delete _pair->link;
        requestConfirmations(_pair->sender, 1);
        _pair->sender->dataRequest(_pair->broadcast());
        QCOMPARE(_pair->sender->confirmations, QList<bool>{true});
        QCOMPARE(_pair->sender->sendFramesCount(), qint64{1});
        QCOMPARE(_pair->sender->sendBytesCount(), qint64{smallestFrame});
        QVERIFY(passTimeouts(5));
        QCOMPARE(_pair->sender->confirmations.size(), 1);
    }

    void aLoneNodesBroadcastWithoutConfirmationIsOnlyCounted()
    {
        delete _pair->link;
        _pair->sender->dataRequest(_pair->broadcast());
        QVERIFY(passTimeouts(1));
        QVERIFY(_pair->sender->log.isEmpty());
        QCOMPARE(_pair->sender->sendFramesCount(), qint64{1});
    }

    void aLoneNodesUnicastIsReportedLost()
    {
        delete _pair->link;
        requestConfirmations(_pair->sender, 5);
        _pair->sender->dataRequest(_pair->unicast());
        QVERIFY(_pair->sender->log.isEmpty());
        QTRY_COMPARE(_pair->sender->confirmations, QList<bool>{false});
        QVERIFY(passTimeouts(10));
        QCOMPARE(_pair->sender->confirmations.size(), 1);
    }

    void aMalformedFrameIsReportedLost()
    {
        requestConfirmations(_pair->sender, 1);
        _pair->sender->dataRequest(QByteArray(smallestFrame - 1, '\xFF'));
        _pair->sender->dataRequest(QByteArray(largestFrame + 1, '\xFF'));
        QCOMPARE(_pair->sender->sendFramesCount(), qint64{2});
        QTRY_COMPARE(_pair->sender->confirmations, (QList<bool>{false, false}));
    }

    // The timeout

    void theLossComesAfterTheTimeout_data()
    {
        QTest::addColumn<int>("own");
        QTest::addColumn<int>("inherited");
        QTest::addColumn<int>("expected");
        QTest::newRow("own") << 60 << farAway << 60;
        QTest::newRow("smallest own") << 1 << farAway << 1;
        QTest::newRow("own of zero is undecided") << 0 << 50 << 50;
        QTest::newRow("own of -1 is undecided") << -1 << 40 << 40;
        QTest::newRow("any negative is undecided") << smallestInt << 30 << 30;
    }

    void theLossComesAfterTheTimeout()
    {
        QFETCH(int, own);
        QFETCH(int, inherited);
        QFETCH(int, expected);
        requestConfirmations(_pair->sender, own);
        TestAccess::acknowledgeTimeout(*network()->defaultNode()) = inherited;
        QElapsedTimer clock;
        qint64 elapsed = -1;
        _pair->sender->onConfirmation = [&] { elapsed = clock.elapsed(); };
        clock.start();
        _pair->sender->dataRequest(_pair->toNobody());
        QTRY_COMPARE(_pair->sender->confirmations, QList<bool>{false});
        QVERIFY(elapsed >= expected);
        QVERIFY(elapsed < expected + generous);
    }

    void withoutAnyTimeoutTheLossComesOnTheNextPass()
    {
        requestConfirmations(_pair->sender, 0);
        _pair->sender->dataRequest(_pair->toNobody());
        QVERIFY(_pair->sender->log.isEmpty());
        QVERIFY(passTimeouts());
        QCOMPARE(_pair->sender->confirmations, QList<bool>{false});

        TestAccess::acknowledgeTimeout(*network()->defaultNode()) = smallestInt;
        _pair->sender->dataRequest(_pair->toNobody());
        QVERIFY(passTimeouts());
        QCOMPARE(_pair->sender->confirmations.size(), 2);
    }

    // The switch

    void confirmationsAreWantedAsSet_data()
    {
        QTest::addColumn<Qt::CheckState>("own");
        QTest::addColumn<Qt::CheckState>("inherited");
        QTest::addColumn<bool>("wanted");
        QTest::newRow("own on") << Qt::Checked << Qt::Unchecked << true;
        QTest::newRow("own off") << Qt::Unchecked << Qt::Checked << false;
        QTest::newRow("inherited on") << Qt::PartiallyChecked << Qt::Checked << true;
        QTest::newRow("inherited off") << Qt::PartiallyChecked << Qt::Unchecked << false;
        QTest::newRow("undecided everywhere") << Qt::PartiallyChecked << Qt::PartiallyChecked << false;
    }

    void confirmationsAreWantedAsSet()
    {
        QFETCH(Qt::CheckState, own);
        QFETCH(Qt::CheckState, inherited);
        QFETCH(bool, wanted);
        TestAccess::framesAcknowledged(*_pair->sender) = own;
        TestAccess::framesAcknowledged(*network()->defaultNode()) = inherited;
        _pair->sender->dataRequest(_pair->unicast());
        QTRY_COMPARE(_pair->receiver->indications.size(), 1);
        QVERIFY(passTimeouts());
        _pair->sender->dataRequest(_pair->toNobody());
        QVERIFY(passTimeouts());
        const QStringList both{QStringLiteral("confirmed"), QStringLiteral("lost")};
        QCOMPARE(_pair->sender->log, wanted ? both : QStringList());

        _pair->sender->log.clear();
        _pair->sender->_dataConfirmation(true);
        _pair->sender->_dataConfirmation(false);
        QCOMPARE(_pair->sender->log, wanted ? both : QStringList());
    }

    void withoutAcknowledgementNothingIsEverConfirmed()
    {
        TestAccess::framesAcknowledged(*_pair->sender) = Qt::Unchecked;
        TestAccess::acknowledgeTimeout(*_pair->sender) = 1;
        _pair->sender->dataRequest(_pair->unicast());
        _pair->sender->dataRequest(_pair->broadcast());
        _pair->sender->dataRequest(_pair->toNobody());
        QTRY_COMPARE(_pair->receiver->indications.size(), 2);
        QVERIFY(passTimeouts(5));
        delete _pair->link;
        _pair->sender->dataRequest(_pair->broadcast());
        _pair->sender->dataRequest(_pair->unicast());
        QVERIFY(passTimeouts(5));
        QVERIFY(_pair->sender->log.isEmpty());
    }

    void aLossIsReportedAfterAcknowledgementWasSwitchedOff()
    {
        requestConfirmations(_pair->sender, 5);
        _pair->sender->dataRequest(_pair->toNobody());
        TestAccess::framesAcknowledged(*_pair->sender) = Qt::Unchecked;
        QTRY_COMPARE(_pair->sender->confirmations, QList<bool>{false});
    }

    void aConfirmationOnTheWayIsDroppedWhenSwitchedOff()
    {
        requestConfirmations(_pair->sender, 5000);
        _pair->sender->dataRequest(_pair->unicast());
        TestAccess::framesAcknowledged(*_pair->sender) = Qt::Unchecked;
        QTRY_COMPARE(_pair->receiver->indications.size(), 1);
        QVERIFY(passTimeouts());
        QVERIFY(_pair->sender->log.isEmpty());
    }

    void frameLostReportsWithoutAsking()
    {
        RecordingNode node;
        QVERIFY(QMetaObject::invokeMethod(&node, "frameLost"));
        QCOMPARE(node.confirmations, QList<bool>{false});
    }

    void theTimeoutIsTheLinksDeadlineOnlyWhenConfirmationsAreWanted()
    {
        TestAccess::delay(*_pair->link) = 5;
        TestAccess::acknowledgeTimeout(*_pair->sender) = 4;
        const auto isInTime = [this] {
            _pair->sender->dataRequest(_pair->unicast());
            return TestAccess::framesInFlight(*_pair->link).last().wasDelivered(true);
        };
        QVERIFY(isInTime());
        TestAccess::framesAcknowledged(*_pair->sender) = Qt::Checked;
        QVERIFY(!isInTime());
        TestAccess::acknowledgeTimeout(*_pair->sender) = 5;
        QVERIFY(isInTime());
        TestAccess::acknowledgeTimeout(*_pair->sender) = 0;  // the default node's: no time at all
        QVERIFY(!isInTime());
    }

    // Several outcomes

    void oneDeliveringLinkIsEnough_data()
    {
        QTest::addColumn<bool>("delivererIsLast");
        QTest::newRow("first") << false;
        QTest::newRow("last") << true;
    }

    void oneDeliveringLinkIsEnough()
    {
        QFETCH(bool, delivererIsLast);
        addLink(_pair->sender, addNode(3));
        requestConfirmations(_pair->sender, 5);
        _pair->sender->dataRequest(frameBytes(nodeAddress(delivererIsLast ? 3 : 2), nodeAddress(1)));
        QTRY_COMPARE(_pair->sender->confirmations, QList<bool>{true});
        QVERIFY(passTimeouts(10));
        QCOMPARE(_pair->sender->confirmations.size(), 1);
    }

    void aFrameThatNoLinkDeliversIsLost()
    {
        Connection* second = addLink(_pair->sender, addNode(3));
        TestAccess::broken(*second) = true;
        _pair->receiver->setActive(false, true);
        requestConfirmations(_pair->sender, 5);
        _pair->sender->dataRequest(_pair->unicast());
        QTRY_COMPARE(_pair->sender->confirmations, QList<bool>{false});
    }

    /// Sees two outcomes of one frame, on purpose: the link confirms a broadcast without asking whether it
    /// arrives.
    void anUndeliveredBroadcastIsConfirmedAndLost()
    {
        TestAccess::reliability(*_pair->link) = 0.0;
        TestAccess::errorDetection(*_pair->link) = 1.0;
        requestConfirmations(_pair->sender, 5);
        _pair->sender->dataRequest(_pair->broadcast());
        QCOMPARE(_pair->sender->confirmations, QList<bool>{true});
        QTRY_COMPARE(_pair->sender->confirmations, (QList<bool>{true, false}));
        QVERIFY(_pair->receiver->log.isEmpty());
    }

    // Care

    void aNodeMayDeleteItselfWhenAFrameIsLost()
    {
        const QPointer<RecordingNode> sender = _pair->sender;
        requestConfirmations(sender, 5);
        sender->onConfirmation = [&sender] { delete sender.data(); };
        sender->dataRequest(_pair->toNobody());
        sender->dataRequest(_pair->toNobody());
        QTRY_VERIFY(!sender);
        QVERIFY(passTimeouts(10));
        QVERIFY(_pair->receiver->log.isEmpty());
    }

    void manyPendingLossesAllArrive()
    {
        constexpr int frameCount = 50000;
        capture()->setEnabled(false);
        requestConfirmations(_pair->sender, 300);
        for (int i = 0; i < frameCount; ++i)
            _pair->sender->dataRequest(_pair->toNobody());
        QTRY_COMPARE_WITH_TIMEOUT(_pair->sender->confirmations.size(), frameCount, 60000);
        QVERIFY(!_pair->sender->confirmations.contains(true));
        QCOMPARE(_pair->sender->sendFramesCount(), qint64{frameCount});
    }

private:
    std::unique_ptr<LinkedPair> _pair;
};

QTEST_MAIN(TestNodeConfirmations)
#include "tst_nodeconfirmations.moc"
