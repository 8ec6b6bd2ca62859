#include "core/biterrors.h"

#include <QtTest>

#include <cmath>
#include <limits>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr quint64 modulus = 2147483647;  // of the generator behind qrand()
constexpr quint64 multiplier = 48271;
constexpr int largestDraw = 2147483647;
constexpr int bitsPerByte = 8;

using Draw = int (*)();
using DrawMask = QByteArray (*)(int size, double reliability);

bool isKept(int draw, double reliability)
{
    return reliability > draw / 2147483647.0;
}

/// Draws one number a bit and compares fractions: the class must give the same.
QByteArray plainMask(int size, double reliability, Draw draw)
{
    QByteArray mask(size, '\0');
    bool flipped = false;
    for (int bit = 0; bit < size * bitsPerByte; ++bit) {
        if (isKept(draw(), reliability))
            continue;
        char& byte = mask.data()[bit / bitsPerByte];
        byte = static_cast<char>(byte | (1 << bit % bitsPerByte));
        flipped = true;
    }
    return flipped ? mask : QByteArray();
}

QByteArray plainQrandMask(int size, double reliability)
{
    return plainMask(size, reliability, qrand);
}

/// Holds a mask and the numbers that come after it.
struct Outcome {
    QByteArray mask;
    int next[2];

    bool operator==(const Outcome& other) const
    {
        return mask == other.mask && next[0] == other.next[0] && next[1] == other.next[1];
    }
};

Outcome outcomeOf(DrawMask drawMask, int size, double reliability)
{
    const QByteArray mask = drawMask(size, reliability);
    const int next = qrand();
    return {mask, {next, qrand()}};
}

Outcome outcomeOf(DrawMask drawMask, uint seed, int size, double reliability)
{
    qsrand(seed);
    return outcomeOf(drawMask, size, reliability);
}

/// Draws frames of many lengths and reliabilities, while others call qrand() too; returns all that came out.
std::vector<Outcome> outcomesOfMixedUse(DrawMask drawMask)
{
    const double reliabilities[] = {1.0, 0.9999, 0.999, 0.5, 0.0};
    std::mt19937 choices(1);
    std::vector<Outcome> outcomes;
    for (int frame = 0; frame < 3000; ++frame) {
        const double reliability = reliabilities[choices() % 5];
        for (auto foreignCalls = choices() % 4; foreignCalls > 0; --foreignCalls)
            qrand();
        outcomes.push_back(outcomeOf(drawMask, static_cast<int>(choices() % 300), reliability));
    }
    return outcomes;
}

quint64 power(quint64 base, quint64 exponent)
{
    quint64 result = 1;
    for (; exponent > 0; exponent >>= 1) {
        if (exponent & 1)
            result = result * base % modulus;
        base = base * base % modulus;
    }
    return result;
}

/// Returns the state from which \a count draws lead to \a last.
uint stateBefore(quint64 last, quint64 count)
{
    return static_cast<uint>(last * power(multiplier, modulus - 1 - count) % modulus);
}

// The generators that tests put in place of qrand(): they count their calls
quint64 state = 1;
int drawCalls = 0;
int setCalls = 0;

int nextBy(quint64 factor)
{
    ++drawCalls;
    state = state * factor % modulus;
    return static_cast<int>(state);
}

int knownDraw()
{
    return nextBy(multiplier);
}

int otherDraw()
{
    return nextBy(16807);
}

int secondOtherDraw()
{
    return nextBy(drawCalls == 1 ? 16807 : multiplier);
}

int largestDrawAlways()
{
    ++drawCalls;
    return largestDraw;
}

int zeroAlways()
{
    ++drawCalls;
    return 0;
}

const struct {
    const char* name;
    Draw draw;
} otherGenerators[] = {
    {"another factor", otherDraw},
    {"another second number only", secondOtherDraw},
    {"stuck at the largest draw", largestDrawAlways},
    {"stuck at zero", zeroAlways},
};
constexpr int otherGeneratorCount = sizeof otherGenerators / sizeof otherGenerators[0];

void setState(uint value)
{
    ++setCalls;
    state = value;
}

void restart()
{
    state = 1;
    drawCalls = 0;
    setCalls = 0;
}

constexpr int shortFrame = 13;  // bytes: a whole block and a part of one

/// Adds draws at which the fate of a bit turns, for bits at the ends of a byte, a block and the frame.
void addDrawsForBits()
{
    QTest::addColumn<int>("draw");
    QTest::addColumn<int>("bit");

    for (const int draw : {1, 2, 1073741824, 2147483645, 2147483646}) {
        for (const int bit : {0, 7, 8, 63, 64, shortFrame * bitsPerByte - 1})
            QTest::addRow("draw %d for bit %d", draw, bit) << draw << bit;
    }
}

/// Tells whether a bit flips when its draw is \a draw.
bool isFlipped(int draw, int bit, double reliability)
{
    qsrand(stateBefore(static_cast<quint64>(draw), static_cast<quint64>(bit) + 1));
    const QByteArray mask = BitErrors::drawMask(shortFrame, reliability);
    return !mask.isEmpty() && ((mask.at(bit / bitsPerByte) >> (bit % bitsPerByte)) & 1) != 0;
}

}  // namespace

class TestBitErrors : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        qsrand(1);
        restart();
    }

    // The same numbers and the same state as plain calls
    void everyLengthEqualsPlainCalls_data()
    {
        QTest::addColumn<double>("reliability");

        QTest::newRow("above 1") << 1.5;
        QTest::newRow("1") << 1.0;
        QTest::newRow("just below 1") << std::nextafter(1.0, 0.0);
        QTest::newRow("0.9999") << 0.9999;
        QTest::newRow("0.999") << 0.999;
        QTest::newRow("0.5") << 0.5;
        QTest::newRow("0") << 0.0;
        QTest::newRow("negative") << -1.0;
    }

    void everyLengthEqualsPlainCalls()
    {
        QFETCH(double, reliability);

        for (const uint seed : {1U, 12345U, 3000000000U}) {
            for (int size = 0; size <= 320; ++size) {
                const Outcome expected = outcomeOf(plainQrandMask, seed, size, reliability);
                QVERIFY2(outcomeOf(BitErrors::drawMask, seed, size, reliability) == expected,
                         qPrintable(QString("seed %1, %2 bytes").arg(seed).arg(size)));
            }
        }
    }

    void longFramesEqualPlainCalls_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<double>("reliability");

        for (const int size : {1500, 4096, 65535, 262144}) {
            for (const double reliability : {1.0, 0.999999, 0.9999, 0.5})
                QTest::addRow("%d bytes, %g", size, reliability) << size << reliability;
        }
    }

    void longFramesEqualPlainCalls()
    {
        QFETCH(int, size);
        QFETCH(double, reliability);

        const Outcome expected = outcomeOf(plainQrandMask, 7, size, reliability);
        QVERIFY(outcomeOf(BitErrors::drawMask, 7, size, reliability) == expected);
    }

    void manySeedsEqualPlainCalls()
    {
        std::mt19937 seeds(2);
        for (int i = 0; i < 3000; ++i) {
            const uint seed = static_cast<uint>(seeds());
            for (const double reliability : {1.0, 0.999}) {
                const Outcome expected = outcomeOf(plainQrandMask, seed, 64, reliability);
                QVERIFY2(outcomeOf(BitErrors::drawMask, seed, 64, reliability) == expected,
                         qPrintable(QString("seed %1, reliability %2").arg(seed).arg(reliability)));
            }
        }
    }

    void extremeSeedsEqualPlainCalls_data()
    {
        QTest::addColumn<uint>("seed");

        for (const uint seed : {0U, 1U, 2U, 48271U, 2147483645U, 2147483646U, 2147483647U, 2147483648U,
                                4294967293U, 4294967294U, 4294967295U})
            QTest::addRow("%u", seed) << seed;
    }

    void extremeSeedsEqualPlainCalls()
    {
        QFETCH(uint, seed);

        for (const double reliability : {1.0, 0.9}) {
            const Outcome expected = outcomeOf(plainQrandMask, seed, 20, reliability);
            QVERIFY(outcomeOf(BitErrors::drawMask, seed, 20, reliability) == expected);
        }
    }

    void extremeLastNumbersAreLeftAsTheState_data()
    {
        QTest::addColumn<quint64>("last");

        for (const quint64 last :
             {quint64(1), quint64(2), modulus / 2, modulus / 2 + 1, modulus - 2, modulus - 1})
            QTest::addRow("%llu", last) << last;
    }

    void extremeLastNumbersAreLeftAsTheState()
    {
        QFETCH(quint64, last);

        for (const int size : {1, 8, 64, 255}) {
            const uint seed = stateBefore(last, quint64(size) * bitsPerByte);
            for (const double reliability : {1.0, 0.9}) {
                const Outcome expected = outcomeOf(plainQrandMask, seed, size, reliability);
                QVERIFY(outcomeOf(BitErrors::drawMask, seed, size, reliability) == expected);
            }
        }
    }

    void framesBetweenForeignCallsEqualPlainCalls()
    {
        qsrand(99);
        const std::vector<Outcome> expected = outcomesOfMixedUse(plainQrandMask);
        qsrand(99);
        QVERIFY(outcomesOfMixedUse(BitErrors::drawMask) == expected);
    }

    void aThreadThatNeverSetASeedEqualsPlainCalls()
    {
        Outcome expected;
        Outcome actual;
        std::thread([&] { expected = outcomeOf(plainQrandMask, 64, 0.9); }).join();
        std::thread([&] { actual = outcomeOf(BitErrors::drawMask, 64, 0.9); }).join();
        QVERIFY(actual == expected);
    }

    /// Puts the flip into each place of a vector, after no, one and more blocks without a flip.
    void theOnlyFlipIsFoundAtEveryPlace()
    {
        constexpr int size = 40;                                  // bytes: five blocks
        const double reliability = (modulus - 1) / 2147483647.0;  // flips the largest number only
        for (int bit = 0; bit < size * bitsPerByte; ++bit) {
            QByteArray expected(size, '\0');
            expected.data()[bit / bitsPerByte] = static_cast<char>(1 << bit % bitsPerByte);
            qsrand(stateBefore(modulus - 1, static_cast<quint64>(bit) + 1));
            QCOMPARE(BitErrors::drawMask(size, reliability), expected);
        }
    }

    // Masks
    void noBytesTakeNoDraw_data()
    {
        QTest::addColumn<int>("size");

        QTest::newRow("none") << 0;
        QTest::newRow("fewer than none") << -1;
    }

    void noBytesTakeNoDraw()
    {
        QFETCH(int, size);

        QVERIFY(BitErrors::_drawMask(size, 0.0, {knownDraw, setState}).isEmpty());
        QCOMPARE(drawCalls, 0);
        QCOMPARE(setCalls, 0);
    }

    void reliabilityZeroFlipsEveryBit()
    {
        QCOMPARE(BitErrors::drawMask(shortFrame, 0.0), QByteArray(shortFrame, '\xFF'));
    }

    void reliabilityThatIsNoNumberFlipsEveryBit()
    {
        const double noNumber = std::numeric_limits<double>::quiet_NaN();
        QCOMPARE(BitErrors::drawMask(shortFrame, noNumber), QByteArray(shortFrame, '\xFF'));
    }

    void aFrameWithoutFlipHasAnEmptyMask()
    {
        // The number right after the frame's would be a flip: computed with the last block, it must not count
        qsrand(stateBefore(modulus - 1, shortFrame * bitsPerByte + 1));
        QVERIFY(BitErrors::drawMask(shortFrame, 0.9999999).isEmpty());
        QCOMPARE(qrand(), static_cast<int>(modulus - 1));
    }

    void aDrawWhoseFractionIsTheReliabilityFlipsItsBit_data() { addDrawsForBits(); }

    void aDrawWhoseFractionIsTheReliabilityFlipsItsBit()
    {
        QFETCH(int, draw);
        QFETCH(int, bit);

        QVERIFY(isFlipped(draw, bit, draw / 2147483647.0));
    }

    void aDrawWhoseFractionIsJustBelowTheReliabilityKeepsItsBit_data() { addDrawsForBits(); }

    void aDrawWhoseFractionIsJustBelowTheReliabilityKeepsItsBit()
    {
        QFETCH(int, draw);
        QFETCH(int, bit);

        QVERIFY(!isFlipped(draw, bit, std::nextafter(draw / 2147483647.0, 2.0)));
    }

    // The fraction compared as one number
    void largestKeptDrawIsThatOfTheFractions_data()
    {
        QTest::addColumn<double>("reliability");
        QTest::addColumn<int>("largestKept");

        using Limits = std::numeric_limits<double>;
        QTest::newRow("not a number") << Limits::quiet_NaN() << -1;
        QTest::newRow("minus infinity") << -Limits::infinity() << -1;
        QTest::newRow("negative") << -0.5 << -1;
        QTest::newRow("minus zero") << -0.0 << -1;
        QTest::newRow("zero") << 0.0 << -1;
        QTest::newRow("smallest denormal") << Limits::denorm_min() << 0;
        QTest::newRow("smallest normal") << Limits::min() << 0;
        QTest::newRow("the fraction of draw 1") << 1 / 2147483647.0 << 0;
        QTest::newRow("just above the fraction of draw 1") << std::nextafter(1 / 2147483647.0, 1.0) << 1;
        QTest::newRow("a half") << 0.5 << 1073741823;
        QTest::newRow("the fraction of the last number") << 2147483646 / 2147483647.0 << 2147483645;
        QTest::newRow("just below 1") << std::nextafter(1.0, 0.0) << 2147483646;
        QTest::newRow("1") << 1.0 << 2147483646;
        QTest::newRow("just above 1") << std::nextafter(1.0, 2.0) << largestDraw;
        QTest::newRow("2") << 2.0 << largestDraw;
        QTest::newRow("largest") << Limits::max() << largestDraw;
        QTest::newRow("infinity") << Limits::infinity() << largestDraw;
    }

    void largestKeptDrawIsThatOfTheFractions()
    {
        QFETCH(double, reliability);
        QFETCH(int, largestKept);

        QCOMPARE(BitErrors::_largestKept(reliability), largestKept);
        QVERIFY(largestKept == -1 || isKept(largestKept, reliability));
        QVERIFY(largestKept == largestDraw || !isKept(largestKept + 1, reliability));
    }

    void largestKeptDrawOfRandomReliabilitiesIsThatOfTheFractions()
    {
        std::mt19937_64 random(3);
        std::uniform_real_distribution<double> anywhere(0.0, 1.0);
        std::uniform_int_distribution<int> draws(1, largestDraw);
        for (int i = 0; i < 200000; ++i) {
            const double fraction = draws(random) / 2147483647.0;
            for (const double reliability : {anywhere(random), fraction, std::nextafter(fraction, 0.0),
                                             std::nextafter(fraction, 1.0), std::pow(anywhere(random), 40)}) {
                const int largestKept = BitErrors::_largestKept(reliability);
                QVERIFY(isKept(largestKept, reliability));
                QVERIFY(!isKept(largestKept + 1, reliability));
            }
        }
    }

    // Which generator it is
    void theKnownGeneratorIsAskedTwiceAndSetOnce()
    {
        const int size = 64;
        for (const double reliability : {1.0, 0.9}) {
            restart();
            const QByteArray expected = plainMask(size, reliability, knownDraw);
            const quint64 expectedState = state;
            restart();
            QCOMPARE(BitErrors::_drawMask(size, reliability, {knownDraw, setState}), expected);
            QCOMPARE(drawCalls, 2);
            QCOMPARE(setCalls, 1);
            QCOMPARE(state, expectedState);
        }
    }

    void anotherGeneratorIsAskedForEveryBitAndNeverSet_data()
    {
        QTest::addColumn<int>("generator");
        QTest::addColumn<double>("reliability");

        for (int generator = 0; generator < otherGeneratorCount; ++generator) {
            for (const double reliability : {1.0, 0.9999, 0.9, 0.0})
                QTest::addRow("%s, %g", otherGenerators[generator].name, reliability)
                    << generator << reliability;
        }
    }

    void anotherGeneratorIsAskedForEveryBitAndNeverSet()
    {
        QFETCH(int, generator);
        QFETCH(double, reliability);

        const Draw draw = otherGenerators[generator].draw;
        for (const int size : {1, 7, 8, 9, 64, 255}) {
            restart();
            const QByteArray expected = plainMask(size, reliability, draw);
            restart();
            QCOMPARE(BitErrors::_drawMask(size, reliability, {draw, setState}), expected);
            QCOMPARE(drawCalls, size * bitsPerByte);
            QCOMPARE(setCalls, 0);
        }
    }

    void reliabilityOneFlipsTheLargestDrawOfAnotherGenerator()
    {
        QCOMPARE(BitErrors::_drawMask(3, 1.0, {largestDrawAlways, setState}), QByteArray(3, '\xFF'));
    }
};

QTEST_APPLESS_MAIN(TestBitErrors)

#include "tst_biterrors.moc"
