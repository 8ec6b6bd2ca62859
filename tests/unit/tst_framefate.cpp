#include "network/frame.h"

#include "testhelpers.h"

#include <QLoggingCategory>

#include <cmath>
#include <limits>
#include <memory>
#include <set>

using namespace TestHelpers;

namespace {

constexpr int bitsPerByte = 8;
constexpr double infinity = std::numeric_limits<double>::infinity();

int asterisks = 0;

void countAsterisks(QtMsgType type, const QMessageLogContext& /*context*/, const QString& message)
{
    if (type == QtDebugMsg && message.contains(QLatin1Char('*')))
        ++asterisks;
}

/// Returns how many "*" the debug output gets while \a action runs.
template <typename Action> int asterisksDuring(Action action)
{
    asterisks = 0;
    const QtMessageHandler former = qInstallMessageHandler(countAsterisks);
    action();
    qInstallMessageHandler(former);
    return asterisks;
}

struct LinkValues {
    int base;
    int deviation;
    double reliability;
    double detection;
};

/// Tells what a frame must become, from the plain sequence of draws.
struct Replay {
    int delay = 0;
    QByteArray payload;
    int flippedBits = 0;
    bool isDetected = false;
    int nextDraw = 0;  // the first after the frame's
};

bool flipsBit(double reliability)
{
    return !(reliability > qrand() / 2147483647.0);
}

Replay replay(uint seed, const QByteArray& payload, const LinkValues& link)
{
    qsrand(seed);
    Replay result;
    result.delay = link.base;
    if (link.deviation > 0)
        result.delay -= link.deviation / 2 - qrand() % link.deviation;
    result.delay = qMax(result.delay, 0);

    QByteArray mask(payload.size(), '\0');
    for (int i = 0; i < payload.size(); ++i) {
        for (int j = 0; j < bitsPerByte; ++j) {
            if (!flipsBit(link.reliability))
                continue;
            mask[i] = static_cast<char>(mask.at(i) | (1 << j));
            ++result.flippedBits;
        }
    }

    result.payload = payload;
    if (result.flippedBits > 0)
        result.isDetected = link.detection > qrand() / 2147483647.0;
    for (int i = 0; i < payload.size() && !result.isDetected; ++i)
        result.payload[i] = static_cast<char>(payload.at(i) ^ mask.at(i));
    result.nextDraw = qrand();
    return result;
}

/// Returns the draw that comes after \a count draws from \a seed.
int drawAfter(uint seed, int count)
{
    qsrand(seed);
    for (int i = 0; i < count; ++i)
        qrand();
    return qrand();
}

QByteArray inverted(QByteArray bytes)
{
    for (char& byte : bytes)
        byte = static_cast<char>(~byte);
    return bytes;
}

}  // namespace

/// Tests what happens to a frame on its link: random draws decide it, in a fixed order.
class TestFrameFate : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        _pair = std::make_unique<LinkedPair>();
        qsrand(1);
    }

    void cleanup() { _pair.reset(); }

    void aStoredFrameDrawsNothing()
    {
        const int expected = drawAfter(4, 0);
        qsrand(4);
        const Frame frame(_pair->unicast(), 1, 2, Frame::DeliveredInTime);
        QCOMPARE(qrand(), expected);
        QVERIFY(frame.wasDelivered(true));
    }

    void anInvalidFrameDrawsNothing()
    {
        _setLink({100, 50, 0.5, 0.5});
        const int expected = drawAfter(6, 0);
        qsrand(6);
        QVERIFY(!_pair->carry(QByteArray(smallestFrame - 1, '\0')).isValid());
        TestAccess::broken(*_pair->link) = true;
        QVERIFY(!_pair->carry(_pair->unicast()).isValid());
        QCOMPARE(qrand(), expected);
    }

    void delaySpreadsAroundTheBase_data()
    {
        QTest::addColumn<int>("base");
        QTest::addColumn<int>("deviation");
        QTest::addColumn<int>("smallest");
        QTest::addColumn<int>("largest");
        QTest::newRow("even deviation") << 100 << 10 << 95 << 104;
        QTest::newRow("odd deviation") << 100 << 5 << 98 << 102;
        QTest::newRow("deviation of two") << 100 << 2 << 99 << 100;
    }

    void delaySpreadsAroundTheBase()
    {
        QFETCH(int, base);
        QFETCH(int, deviation);
        QFETCH(int, smallest);
        QFETCH(int, largest);
        _setLink({base, deviation, 1.0, 1.0});
        std::set<int> seen;
        for (uint seed = 1; seed <= 200; ++seed) {
            int delay = untouched;
            qsrand(seed * 7919);
            const Frame frame = _pair->carry(_pair->unicast(), noDeadline, &delay);
            QVERIFY(frame.wasDelivered(true));
            QCOMPARE(delay, replay(seed * 7919, _pair->unicast(), {base, deviation, 1.0, 1.0}).delay);
            seen.insert(delay);
        }
        QCOMPARE(*seen.begin(), smallest);
        QCOMPARE(*seen.rbegin(), largest);
        QCOMPARE(int(seen.size()), deviation);
    }

    void aDeviationOfOneDrawsButChangesNothing()
    {
        _setLink({100, 1, 1.0, 1.0});
        const int expected = drawAfter(5, 1);
        qsrand(5);
        int delay = untouched;
        QVERIFY(!_pair->carry(_pair->toNobody(), noDeadline, &delay).wasDelivered(false));
        QCOMPARE(delay, 100);
        QCOMPARE(qrand(), expected);
    }

    void aNegativeDelayIsRaisedToZero()
    {
        _setLink({1, 100, 1.0, 1.0});
        int zeroes = 0;
        for (uint seed = 1; seed <= 100; ++seed) {
            int delay = untouched;
            qsrand(seed * 7919);
            _pair->carry(_pair->unicast(), noDeadline, &delay);
            QVERIFY(delay >= 0 && delay <= 50);
            zeroes += delay == 0 ? 1 : 0;
        }
        QVERIFY(zeroes > 20);
        QVERIFY(zeroes < 80);
    }

    void withoutDeviationNoDelayIsDrawn()
    {
        _setLink({100, 0, 1.0, 1.0});
        const int expected = drawAfter(5, 0);
        qsrand(5);
        int delay = untouched;
        _pair->carry(_pair->toNobody(), noDeadline, &delay);
        QCOMPARE(delay, 100);
        QCOMPARE(qrand(), expected);
    }

    void undecidedDelaysFallBack_data()
    {
        QTest::addColumn<int>("own");
        QTest::addColumn<int>("expected");
        QTest::newRow("negative") << -1 << 70;
        QTest::newRow("zero is undecided too") << 0 << 70;
        QTest::newRow("smallest decided") << 1 << 1;
        QTest::newRow("smallest of all") << smallestInt << 70;
    }

    void undecidedDelaysFallBack()
    {
        QFETCH(int, own);
        QFETCH(int, expected);
        TestAccess::delay(*network()->defaultConnection()) = 70;
        TestAccess::delay(*_pair->link) = own;
        int delay = untouched;
        _pair->carry(_pair->unicast(), noDeadline, &delay);
        QCOMPARE(delay, expected);
    }

    void undecidedDeviationsFallBack_data()
    {
        QTest::addColumn<int>("own");
        QTest::addColumn<int>("inherited");
        QTest::addColumn<int>("effective");
        QTest::newRow("negative") << -1 << 30 << 30;
        QTest::newRow("zero is undecided too") << 0 << 30 << 30;
        QTest::newRow("own") << 50 << 30 << 50;
        QTest::newRow("both zero") << 0 << 0 << 0;
        QTest::newRow("both negative") << -1 << -5 << 0;
    }

    void undecidedDeviationsFallBack()
    {
        QFETCH(int, own);
        QFETCH(int, inherited);
        QFETCH(int, effective);
        _setLink({100, own, 1.0, 1.0});
        TestAccess::deviation(*network()->defaultConnection()) = inherited;
        const Replay expected = replay(77, _pair->unicast(), {100, effective, 1.0, 1.0});
        qsrand(77);
        int delay = untouched;
        _pair->carry(_pair->unicast(), noDeadline, &delay);
        QCOMPARE(delay, expected.delay);
        QCOMPARE(qrand(), expected.nextDraw);
    }

    void hugeDelaysAreClamped_data()
    {
        QTest::addColumn<int>("base");
        QTest::addColumn<int>("deviation");
        QTest::addColumn<int>("smallest");
        QTest::addColumn<int>("largest");
        QTest::newRow("largest base") << largestInt << 0 << largestInt << largestInt;
        QTest::newRow("largest base, some deviation") << largestInt << 10 << largestInt - 5 << largestInt;
        QTest::newRow("both largest") << largestInt << largestInt << largestInt / 2 << largestInt;
        QTest::newRow("largest deviation") << 1 << largestInt << 0 << largestInt / 2 + 1;
        QTest::newRow("negative base") << smallestInt << largestInt << 0 << 0;
    }

    void hugeDelaysAreClamped()
    {
        QFETCH(int, base);
        QFETCH(int, deviation);
        QFETCH(int, smallest);
        QFETCH(int, largest);
        Connection* defaults = network()->defaultConnection();
        TestAccess::delay(*defaults) = base;  // a negative delay counts only here
        TestAccess::deviation(*defaults) = deviation;
        bool isClamped = false;
        for (uint seed = 1; seed <= 50; ++seed) {
            int delay = untouched;
            qsrand(seed * 104729);
            _pair->carry(_pair->unicast(), noDeadline, &delay);
            QVERIFY2(delay >= smallest && delay <= largest, qPrintable(QString::number(delay)));
            isClamped = isClamped || delay == 0 || delay == largestInt;
        }
        QVERIFY(isClamped);
    }

    void anUnwantedDelayIsNotReported()
    {
        _setLink({100, 10, 1.0, 1.0});
        const int expected = drawAfter(5, 1 + bitsPerByte * smallestFrame);
        qsrand(5);
        QVERIFY(_pair->carry(_pair->unicast(), noDeadline, nullptr).wasDelivered(true));
        QCOMPARE(qrand(), expected);
    }

    void theReceiverDecidesWhatItTakes_data()
    {
        constexpr int own = 2;
        constexpr int foreign = 9;
        QTest::addColumn<bool>("active");
        QTest::addColumn<int>("destination");
        QTest::addColumn<bool>("promiscuous");
        QTest::addColumn<int>("flags");
        QTest::newRow("own address") << true << own << false << int(Frame::DeliveredInTime);
        QTest::newRow("own address, promiscuous") << true << own << true << int(Frame::DeliveredInTime);
        QTest::newRow("foreign address") << true << foreign << false << 0;
        QTest::newRow("foreign address, promiscuous")
            << true << foreign << true << int(Frame::DeliveredInTime | Frame::PromiscuousRx);
        QTest::newRow("own address, inactive") << false << own << false << 0;
        QTest::newRow("foreign address, inactive, promiscuous") << false << foreign << true << 0;
    }

    void theReceiverDecidesWhatItTakes()
    {
        QFETCH(bool, active);
        QFETCH(int, destination);
        QFETCH(bool, promiscuous);
        QFETCH(int, flags);
        _pair->receiver->setActive(active, false);
        TestAccess::promiscuousMode(*_pair->receiver) = promiscuous ? Qt::Checked : Qt::Unchecked;
        Frame frame = _pair->carry(frameBytes(nodeAddress(destination), nodeAddress(1)));
        QCOMPARE(TestAccess::flags(frame), flags);
        QVERIFY(frame.isValid());
    }

    void aFrameForNobodyDrawsItsDelayOnly()
    {
        _setLink({100, 10, 0.0, 0.0});
        const int expected = drawAfter(11, 1);
        qsrand(11);
        int delay = untouched;
        Frame frame = _pair->carry(_pair->toNobody(), noDeadline, &delay, true);
        QCOMPARE(qrand(), expected);
        QCOMPARE(delay, replay(11, _pair->toNobody(), {100, 10, 1.0, 1.0}).delay);
        QCOMPARE(TestAccess::flags(frame), int(Frame::ForceCapture));
        QCOMPARE(frame.payload(), _pair->toNobody());
    }

    void aBroadcastIsTakenByAnInactiveNode()
    {
        _pair->receiver->setActive(false, false);
        _pair->receiver->setActive(false, true);
        Frame frame = _pair->carry(_pair->broadcast());
        QCOMPARE(TestAccess::flags(frame),
                 int(Frame::Broadcast | Frame::PromiscuousRx | Frame::DeliveredInTime));
    }

    void aNodeWithTheBroadcastAddressTakesItAsItsOwn()
    {
        _pair->receiver->setAddress(broadcastAddress());
        Frame frame = _pair->carry(_pair->broadcast());
        QCOMPARE(TestAccess::flags(frame), int(Frame::Broadcast | Frame::DeliveredInTime));
    }

    void undecidedPromiscuityIsTheDefaultNodes()
    {
        QVERIFY(!_pair->carry(_pair->toNobody()).wasDelivered(false));
        TestAccess::promiscuousMode(*network()->defaultNode()) = Qt::Checked;
        QVERIFY(_pair->carry(_pair->toNobody()).promiscuousReceive());
    }

    void theDeadlineDecidesOnLateness_data()
    {
        QTest::addColumn<int>("delay");
        QTest::addColumn<int>("deadline");
        QTest::addColumn<int>("delivered");
        const int inTime = Frame::DeliveredInTime;
        const int late = Frame::DeliveredLate;
        QTest::newRow("no deadline") << 100000 << -1 << inTime;
        QTest::newRow("any negative deadline") << 100000 << smallestInt << inTime;
        QTest::newRow("deadline 0, no delay") << 0 << 0 << inTime;
        QTest::newRow("deadline 0, some delay") << 1 << 0 << late;
        QTest::newRow("delay equal to the deadline") << 50 << 50 << inTime;
        QTest::newRow("delay one above the deadline") << 51 << 50 << late;
    }

    void theDeadlineDecidesOnLateness()
    {
        QFETCH(int, delay);
        QFETCH(int, deadline);
        QFETCH(int, delivered);
        TestAccess::delay(*_pair->link) = delay;
        Frame frame = _pair->carry(_pair->unicast(), deadline);
        QCOMPARE(TestAccess::flags(frame), delivered);
        QVERIFY(frame.wasDelivered(false));
        QCOMPARE(frame.wasDelivered(true), delivered == Frame::DeliveredInTime);
    }

    void eightDrawsAreMadePerByte_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<double>("reliability");
        QTest::newRow("smallest frame") << smallestFrame << 1.0;
        QTest::newRow("no multiple of eight") << 21 << 1.0;
        QTest::newRow("largest frame") << largestFrame << 1.0;
        QTest::newRow("above certainty") << smallestFrame << 2.0;
    }

    void eightDrawsAreMadePerByte()
    {
        QFETCH(int, size);
        QFETCH(double, reliability);
        _setLink({0, 0, reliability, 1.0});
        const int expected = drawAfter(8, bitsPerByte * size);
        qsrand(8);
        Frame frame = _pair->carry(_pair->unicast(size));
        QCOMPARE(qrand(), expected);
        QCOMPARE(TestAccess::flags(frame), int(Frame::DeliveredInTime));
        QCOMPARE(frame.payload(), _pair->unicast(size));
    }

    void anEmptyFrameDrawsNoBits()
    {
        auto& parameters = TestAccess::parameters(*network());
        parameters.addressLength = 0;
        parameters.sourceAddressOffset = 0;
        _pair->receiver->setAddress(QByteArray());
        _setLink({0, 0, 0.0, 1.0});
        const int expected = drawAfter(8, 0);
        qsrand(8);
        Frame frame = _pair->carry(QByteArray());
        QCOMPARE(qrand(), expected);
        QCOMPARE(TestAccess::flags(frame), int(Frame::DeliveredInTime));
    }

    void errorsAreThoseOfTheDrawSequence_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("deviation");
        QTest::addColumn<double>("reliability");
        QTest::addColumn<double>("detection");
        for (const int size : {smallestFrame, 64, largestFrame}) {
            for (const int deviation : {0, 20}) {
                for (const double reliability : {0.0, 0.5, 0.99, 0.999, 0.99999, 1.0}) {
                    for (const double detection : {0.0, 0.5, 1.0})
                        QTest::addRow("%d bytes, deviation %d, reliability %g, detection %g", size, deviation,
                                      reliability, detection)
                            << size << deviation << reliability << detection;
                }
            }
        }
    }

    void errorsAreThoseOfTheDrawSequence()
    {
        QFETCH(int, size);
        QFETCH(int, deviation);
        QFETCH(double, reliability);
        QFETCH(double, detection);
        const LinkValues values{100, deviation, reliability, detection};
        const QByteArray bytes = _pair->unicast(size);
        _setLink(values);
        asterisksDuring([&] {
            for (uint seed = 1; seed <= 20; ++seed) {
                const Replay expected = replay(seed, bytes, values);
                qsrand(seed);
                int delay = untouched;
                const Frame frame = _pair->carry(bytes, noDeadline, &delay);
                QCOMPARE(qrand(), expected.nextDraw);
                QCOMPARE(delay, expected.delay);
                QCOMPARE(frame.payload(), expected.payload);
                QCOMPARE(frame.isCRCCorrect(), expected.flippedBits == 0);
                QCOMPARE(frame.wasDelivered(true), !expected.isDetected);
            }
        });
    }

    void reliabilityZeroFlipsEveryBit()
    {
        _setLink({0, 0, 0.0, 0.0});
        asterisksDuring([this] {
            Frame frame = _pair->carry(_pair->unicast(20));
            QCOMPARE(frame.payload(), inverted(_pair->unicast(20)));
            QCOMPARE(TestAccess::flags(frame), int(Frame::CRCError | Frame::DeliveredInTime));
        });
    }

    void detectedErrorsKeepThePayloadAndTheFrame()
    {
        _setLink({0, 0, 0.0, 1.0});
        asterisksDuring([this] {
            Frame frame = _pair->carry(_pair->broadcast(), noDeadline, nullptr, true);
            QCOMPARE(frame.payload(), _pair->broadcast());
            QCOMPARE(TestAccess::flags(frame), int(Frame::CRCError | Frame::Broadcast | Frame::ForceCapture));
            QVERIFY(frame.isValid());
        });
    }

    void anUndetectedLateFrameIsStillLate()
    {
        _setLink({10, 0, 0.0, 0.0});
        asterisksDuring([this] {
            Frame frame = _pair->carry(_pair->unicast(), 5);
            QCOMPARE(TestAccess::flags(frame), int(Frame::CRCError | Frame::DeliveredLate));
        });
    }

    void undecidedReliabilitiesFallBack_data()
    {
        QTest::addColumn<double>("own");
        QTest::addColumn<double>("inherited");
        QTest::addColumn<bool>("correct");
        QTest::newRow("own 1, inherited 0") << 1.0 << 0.0 << true;
        QTest::newRow("own 0 is decided") << 0.0 << 1.0 << false;
        QTest::newRow("undecided, inherited 0") << -1.0 << 0.0 << false;
        QTest::newRow("undecided, inherited 1") << -1.0 << 1.0 << true;
        QTest::newRow("any negative is undecided") << -0.001 << 1.0 << true;
        QTest::newRow("not a number is undecided") << std::nan("") << 1.0 << true;
        QTest::newRow("infinity keeps") << infinity << 0.0 << true;
        QTest::newRow("negative infinity is undecided") << -infinity << 1.0 << true;
        QTest::newRow("negative everywhere flips") << -1.0 << -1.0 << false;
        QTest::newRow("undecided, inherited infinity") << -1.0 << infinity << true;
        QTest::newRow("undecided, inherited not a number") << -1.0 << std::nan("") << false;
    }

    void undecidedReliabilitiesFallBack()
    {
        QFETCH(double, own);
        QFETCH(double, inherited);
        QFETCH(bool, correct);
        TestAccess::reliability(*_pair->link) = own;
        TestAccess::reliability(*network()->defaultConnection()) = inherited;
        asterisksDuring([&] { QCOMPARE(_pair->carry(_pair->unicast()).isCRCCorrect(), correct); });
    }

    void undecidedDetectionsFallBack_data()
    {
        QTest::addColumn<double>("own");
        QTest::addColumn<double>("inherited");
        QTest::addColumn<bool>("delivered");
        QTest::newRow("own 1, inherited 0") << 1.0 << 0.0 << false;
        QTest::newRow("own 0 is decided") << 0.0 << 1.0 << true;
        QTest::newRow("undecided, inherited 0") << -1.0 << 0.0 << true;
        QTest::newRow("undecided, inherited 1") << -1.0 << 1.0 << false;
        QTest::newRow("not a number is undecided") << std::nan("") << 1.0 << false;
        QTest::newRow("infinity detects") << infinity << 0.0 << false;
        QTest::newRow("negative infinity is undecided") << -infinity << 1.0 << false;
        QTest::newRow("negative everywhere detects nothing") << -1.0 << -1.0 << true;
        QTest::newRow("undecided, inherited infinity") << -1.0 << infinity << false;
        QTest::newRow("undecided, inherited not a number") << -1.0 << std::nan("") << true;
    }

    void undecidedDetectionsFallBack()
    {
        QFETCH(double, own);
        QFETCH(double, inherited);
        QFETCH(bool, delivered);
        _setLink({0, 0, 0.0, own});
        TestAccess::errorDetection(*network()->defaultConnection()) = inherited;
        asterisksDuring([&] { QCOMPARE(_pair->carry(_pair->unicast()).wasDelivered(false), delivered); });
    }

    void eachFlippedBitIsLoggedOnce_data()
    {
        QTest::addColumn<double>("reliability");
        QTest::addColumn<double>("detection");
        QTest::newRow("all bits, not detected") << 0.0 << 0.0;
        QTest::newRow("all bits, detected") << 0.0 << 1.0;
        QTest::newRow("some bits") << 0.9 << 0.0;
        QTest::newRow("none") << 1.0 << 1.0;
    }

    void eachFlippedBitIsLoggedOnce()
    {
        QFETCH(double, reliability);
        QFETCH(double, detection);
        const LinkValues values{0, 0, reliability, detection};
        _setLink(values);
        const Replay expected = replay(3, _pair->unicast(64), values);
        QCOMPARE(expected.flippedBits > 0, reliability < 1.0);
        qsrand(3);
        QCOMPARE(asterisksDuring([this] { _pair->carry(_pair->unicast(64)); }), expected.flippedBits);
    }

    void aSilencedDebugOutputChangesNoDraw()
    {
        const LinkValues values{0, 0, 0.9, 0.0};
        _setLink(values);
        const Replay expected = replay(3, _pair->unicast(64), values);
        QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
        qsrand(3);
        const int logged = asterisksDuring([&] {
            const Frame frame = _pair->carry(_pair->unicast(64));
            QCOMPARE(qrand(), expected.nextDraw);
            QCOMPARE(frame.payload(), expected.payload);
        });
        QLoggingCategory::setFilterRules(QString());
        QCOMPARE(logged, 0);
    }

private:
    void _setLink(const LinkValues& values)
    {
        TestAccess::delay(*_pair->link) = values.base;
        TestAccess::deviation(*_pair->link) = values.deviation;
        TestAccess::reliability(*_pair->link) = values.reliability;
        TestAccess::errorDetection(*_pair->link) = values.detection;
    }

    std::unique_ptr<LinkedPair> _pair;
};

QTEST_MAIN(TestFrameFate)
#include "tst_framefate.moc"
