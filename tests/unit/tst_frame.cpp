#include "network/frame.h"

#include "testhelpers.h"

#include <QDateTime>

#include <memory>

using namespace TestHelpers;

namespace {

constexpr quint64 notReceivedYet = 18446744073709551615U;
constexpr quint64 timeStampRange = 4294967296U;

bool isBetween(quint64 stamp, qint64 first, qint64 last)
{
    const quint64 sinceFirst = (stamp - static_cast<quint64>(first)) % timeStampRange;
    constexpr quint64 second = 1000;  // ms; one may end between the two readings
    return sinceFirst <= static_cast<quint64>(last - first) + second;
}

}  // namespace

/// Tests what a frame knows of itself: its validity, its addresses and its times.
class TestFrame : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        _pair = std::make_unique<LinkedPair>();
        qsrand(1);
    }

    void cleanup() { _pair.reset(); }

    void flagsHaveTheirFixedValues()
    {
        QCOMPARE(int(Frame::Invalid), 1);
        QCOMPARE(int(Frame::Broadcast), 2);
        QCOMPARE(int(Frame::CRCError), 4);
        QCOMPARE(int(Frame::DeliveredInTime), 8);
        QCOMPARE(int(Frame::DeliveredLate), 16);
        QCOMPARE(int(Frame::Delivered), 24);
        QCOMPARE(int(Frame::ForceCapture), 32);
        QCOMPARE(int(Frame::PromiscuousRx), 64);
    }

    void aStoredFrameKeepsAllThatItIsGiven()
    {
        const auto flags = static_cast<Frame::FrameFlags>(Frame::Broadcast | Frame::CRCError
                                                          | Frame::DeliveredLate | Frame::PromiscuousRx);
        Frame frame("abc", 5000000000U, 6000000000U, flags);
        QCOMPARE(frame.payload(), QByteArray("abc"));
        QCOMPARE(frame.sendTime(), quint64{5000000000U});
        QCOMPARE(frame.receiveTime(), quint64{6000000000U});
        QCOMPARE(TestAccess::flags(frame), int(flags));
        QVERIFY(!frame.sourceNode());
        QVERIFY(!frame.destinationNode());
        QVERIFY(frame.isBroadcast());
        QVERIFY(!frame.isCRCCorrect());
        QVERIFY(frame.wasDelivered(false));
        QVERIFY(!frame.wasDelivered(true));
        QVERIFY(frame.promiscuousReceive());
    }

    void copiesCarryAllSixFields()
    {
        Frame frame = _pair->carry(_pair->unicast(20), noDeadline, nullptr, true);
        frame.nowReceived();
        Frame copy(frame);
        QCOMPARE(copy.sourceNode(), static_cast<Node*>(_pair->sender));
        QCOMPARE(copy.destinationNode(), static_cast<Node*>(_pair->receiver));
        QCOMPARE(copy.sendTime(), frame.sendTime());
        QCOMPARE(copy.receiveTime(), frame.receiveTime());
        QCOMPARE(copy.payload(), frame.payload());
        QCOMPARE(TestAccess::flags(copy), TestAccess::flags(frame));
    }

    void sizeDecidesOnValidity_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<bool>("valid");
        QTest::newRow("one byte short of both addresses") << smallestFrame - 1 << false;
        QTest::newRow("just both addresses") << smallestFrame << true;
        QTest::newRow("exactly the largest") << largestFrame << true;
        QTest::newRow("one byte above the largest") << largestFrame + 1 << false;
    }

    void sizeDecidesOnValidity()
    {
        QFETCH(int, size);
        QFETCH(bool, valid);
        const Frame frame = _pair->carry(_pair->unicast(largestFrame + 1).left(size));
        QCOMPARE(frame.isValid(), valid);
        QCOMPARE(frame.wasDelivered(true), valid);
    }

    void theLargerOffsetDecidesOnTheSmallestSize_data()
    {
        QTest::addColumn<int>("destinationOffset");
        QTest::addColumn<int>("sourceOffset");
        QTest::newRow("destination behind source") << 20 << 3;
        QTest::newRow("source behind destination") << 3 << 20;
    }

    void theLargerOffsetDecidesOnTheSmallestSize()
    {
        QFETCH(int, destinationOffset);
        QFETCH(int, sourceOffset);
        TestAccess::parameters(*network()).destinationAddressOffset = destinationOffset;
        TestAccess::parameters(*network()).sourceAddressOffset = sourceOffset;
        QVERIFY(!_pair->carry(QByteArray(20 + addressSize - 1, '\0')).isValid());
        QVERIFY(_pair->carry(QByteArray(20 + addressSize, '\0')).isValid());
    }

    void aFrameOfBadSizeHasTheInvalidFlagAlone()
    {
        Frame tooShort = _pair->carry(_pair->broadcast().left(smallestFrame - 1), 0, nullptr, true);
        QCOMPARE(TestAccess::flags(tooShort), int(Frame::Invalid));
        QVERIFY(!tooShort.wasDelivered(false));
        QVERIFY(!tooShort.isBroadcast());
    }

    void aMissingPartnerMakesTheFrameInvalid_data()
    {
        QTest::addColumn<bool>("hasSource");
        QTest::addColumn<bool>("hasDestination");
        QTest::addColumn<bool>("hasConnection");
        QTest::newRow("no source") << false << true << true;
        QTest::newRow("no destination") << true << false << true;
        QTest::newRow("no connection") << true << true << false;
    }

    void aMissingPartnerMakesTheFrameInvalid()
    {
        QFETCH(bool, hasSource);
        QFETCH(bool, hasDestination);
        QFETCH(bool, hasConnection);
        int delay = untouched;
        Frame frame(_pair->unicast(), hasSource ? _pair->sender : nullptr,
                    hasDestination ? _pair->receiver : nullptr, hasConnection ? _pair->link : nullptr,
                    noDeadline, &delay, true);
        QCOMPARE(TestAccess::flags(frame), int(Frame::Invalid));
        QVERIFY(!frame.isValid());
        QCOMPARE(delay, untouched);
        QCOMPARE(frame.payload(), _pair->unicast());
        QCOMPARE(frame.receiveTime(), notReceivedYet);
    }

    void aBrokenConnectionMakesTheFrameInvalid()
    {
        TestAccess::broken(*_pair->link) = true;
        int delay = untouched;
        Frame frame = _pair->carry(_pair->broadcast(), noDeadline, &delay, true);
        QCOMPARE(TestAccess::flags(frame), int(Frame::Invalid));
        QCOMPARE(delay, untouched);
    }

    void aFrameOnceInvalidStaysInvalid()
    {
        const Frame frame = _pair->carry(_pair->unicast(largestFrame));
        QVERIFY(frame.isValid());
        TestAccess::parameters(*network()).maximalTransferUnit = largestFrame - 1;
        QVERIFY(!frame.isValid());
        TestAccess::parameters(*network()).maximalTransferUnit = largestFrame;
        QVERIFY(!frame.isValid());
        QVERIFY(!frame.wasDelivered(false));
    }

    void validityFollowsTheParametersOfTheMoment()
    {
        Frame frame = _pair->carry(_pair->broadcast(), noDeadline, nullptr, true);
        QVERIFY(frame.isValid());
        TestAccess::parameters(*network()).sourceAddressOffset = 7;
        QVERIFY(frame.isBroadcast());  // nobody has asked for its validity yet
        QVERIFY(!frame.isValid());
        QCOMPARE(TestAccess::flags(frame), int(Frame::Invalid));
    }

    void anInvalidFrameIsNotCaptured()
    {
        Frame frame = _pair->carry(QByteArray(smallestFrame - 1, '\0'), noDeadline, nullptr, true);
        frame.neverReceived();
        QCOMPARE(capturedFrames().size(), 0);
        QVERIFY(frame.receiveTime() != notReceivedYet);
    }

    void addressesAreCutFromThePayload()
    {
        TestAccess::parameters(*network()).addressLength = 3;
        TestAccess::parameters(*network()).destinationAddressOffset = 5;
        TestAccess::parameters(*network()).sourceAddressOffset = 1;
        const Frame frame("0123456789", 0, 0, Frame::Broadcast);
        QCOMPARE(frame.destinationAddress(), QByteArray("567"));
        QCOMPARE(frame.sourceAddress(), QByteArray("123"));
    }

    void anAddressThatDoesNotFitIsEmpty()
    {
        const QByteArray bytes = _pair->unicast();
        const Frame oneShort(bytes.left(smallestFrame - 1), 0, 0, Frame::Broadcast);
        QCOMPARE(oneShort.sourceAddress(), QByteArray());
        QCOMPARE(oneShort.destinationAddress(), nodeAddress(2));

        const Frame five(bytes.left(addressSize - 1), 0, 0, Frame::Broadcast);
        QCOMPARE(five.destinationAddress(), QByteArray());
        const Frame whole(bytes, 0, 0, Frame::Broadcast);
        QCOMPARE(whole.sourceAddress(), nodeAddress(1));
    }

    void addressesFollowTheParametersOfTheMoment()
    {
        const Frame frame = _pair->carry(_pair->unicast());
        TestAccess::parameters(*network()).addressLength = 2;
        TestAccess::parameters(*network()).destinationAddressOffset = 4;
        QCOMPARE(frame.destinationAddress(), QByteArray("\0\2", 2));
        QCOMPARE(frame.sourceAddress(), QByteArray("\0\0", 2));
    }

    void rawBroadcastNeedsTheWholeAddress()
    {
        QVERIFY(Frame::isBroadcast(broadcastAddress()));  // a source is not needed
        QVERIFY(!Frame::isBroadcast(broadcastAddress().left(addressSize - 1)));
        QVERIFY(!Frame::isBroadcast(QByteArray()));
        QVERIFY(!Frame::isBroadcast(nodeAddress(1) + broadcastAddress()));
    }

    void rawBroadcastLooksAtTheDestinationOffset()
    {
        TestAccess::parameters(*network()).destinationAddressOffset = 6;
        TestAccess::parameters(*network()).broadcastAddress = "BROADC";
        QVERIFY(Frame::isBroadcast("......BROADC"));
        QVERIFY(!Frame::isBroadcast("BROADC......"));
        QVERIFY(!Frame::isBroadcast("......BROAD"));
    }

    void hugeParametersDoNotOverflow_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<int>("destinationOffset");
        QTest::addColumn<int>("sourceOffset");
        QTest::newRow("length") << largestInt << 0 << 6;
        QTest::newRow("length of one frame less") << largestInt - 5 << 0 << 6;
        QTest::newRow("destination offset") << 6 << largestInt << 6;
        QTest::newRow("source offset") << 6 << 0 << largestInt;
        QTest::newRow("all") << largestInt << largestInt << largestInt;
    }

    void hugeParametersDoNotOverflow()
    {
        QFETCH(int, length);
        QFETCH(int, destinationOffset);
        QFETCH(int, sourceOffset);
        auto& parameters = TestAccess::parameters(*network());
        parameters.maximalTransferUnit = largestInt;
        parameters.addressLength = length;
        parameters.destinationAddressOffset = destinationOffset;
        parameters.sourceAddressOffset = sourceOffset;
        parameters.broadcastAddress.clear();

        const Frame frame = _pair->carry(_pair->unicast());
        QVERIFY(!frame.isValid());
        QCOMPARE(frame.sourceAddress().isEmpty() || frame.destinationAddress().isEmpty(), true);
        QCOMPARE(Frame::isBroadcast(_pair->unicast()), false);
        QCOMPARE(frame.payload(), _pair->unicast());
    }

    void negativeParametersFollowTheSameFormulas()
    {
        auto& parameters = TestAccess::parameters(*network());
        const QByteArray bytes("0123456789");

        parameters.destinationAddressOffset = -2;
        parameters.sourceAddressOffset = smallestInt;
        const Frame cut(bytes, 0, 0, Frame::Broadcast);
        QCOMPARE(cut.destinationAddress(), QByteArray("0123"));  // the part before the frame is missing
        QCOMPARE(cut.sourceAddress(), QByteArray());
        QVERIFY(cut.isValid());

        parameters.addressLength = smallestInt;
        QVERIFY(_pair->carry(QByteArray()).isValid());
        parameters.maximalTransferUnit = -1;
        QVERIFY(!_pair->carry(QByteArray()).isValid());
    }

    void sendTimeIsTheClockModulo32Bits()
    {
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        const Frame frame = _pair->carry(_pair->unicast());
        const qint64 after = QDateTime::currentMSecsSinceEpoch();
        QVERIFY(frame.sendTime() < timeStampRange);
        QVERIFY(quint64(before) >= timeStampRange);  // else nothing was cut off
        QVERIFY(isBetween(frame.sendTime(), before, after));
    }

    void receiveTimeIsUnsetUntilTheFrameLeaves()
    {
        QCOMPARE(_pair->carry(_pair->unicast()).receiveTime(), notReceivedYet);
    }

    void leavingTheLinkStampsTheFrame_data()
    {
        QTest::addColumn<bool>("received");
        QTest::newRow("received") << true;
        QTest::newRow("never received") << false;
    }

    void leavingTheLinkStampsTheFrame()
    {
        QFETCH(bool, received);
        Frame frame(_pair->unicast(), 1, notReceivedYet, Frame::ForceCapture);
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        if (received)
            frame.nowReceived();
        else
            frame.neverReceived();
        const qint64 after = QDateTime::currentMSecsSinceEpoch();

        QVERIFY(frame.receiveTime() < timeStampRange);
        QVERIFY(isBetween(frame.receiveTime(), before, after));
        QCOMPARE(frame.sendTime(), quint64{1});
        QCOMPARE(TestAccess::flags(frame), int(Frame::ForceCapture));
        QCOMPARE(capturedFrames().size(), 1);
        QCOMPARE(capturedFrames().first().receiveTime(), frame.receiveTime());
    }

    void onlyForcedFramesAreCaptured_data()
    {
        QTest::addColumn<bool>("forced");
        QTest::newRow("forced") << true;
        QTest::newRow("not forced") << false;
    }

    void onlyForcedFramesAreCaptured()
    {
        QFETCH(bool, forced);
        Frame frame = _pair->carry(_pair->unicast(), noDeadline, nullptr, forced);
        QCOMPARE(bool(TestAccess::flags(frame) & Frame::ForceCapture), forced);
        frame.nowReceived();
        QCOMPARE(capturedFrames().size(), forced ? 1 : 0);
    }

    void nothingIsCapturedWhileTheCaptureIsOff()
    {
        capture()->setEnabled(false);
        Frame frame = _pair->carry(_pair->unicast(), noDeadline, nullptr, true);
        frame.nowReceived();
        QCOMPARE(capturedFrames().size(), 0);
        QVERIFY(frame.receiveTime() != notReceivedYet);
    }

    void aCapturedFrameNeverChangesAgain()
    {
        Frame frame = _pair->carry(_pair->unicast(), noDeadline, nullptr, true);
        frame.nowReceived();
        TestAccess::flags(frame) = Frame::Invalid;
        QVERIFY(capturedFrames().first().wasDelivered(true));
        QVERIFY(capturedFrames().first().isValid());
    }

private:
    std::unique_ptr<LinkedPair> _pair;
};

QTEST_MAIN(TestFrame)
#include "tst_frame.moc"
