#include "core/timeouts.h"

#include "testhelpers.h"

#include <QElapsedTimer>
#include <QEventLoop>

#include <sys/resource.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

using namespace TestHelpers;

namespace {

constexpr qint64 nanosecondsPerMillisecond = 1000000;
constexpr qint64 generous = 2000;  // ms that a busy machine may be late
constexpr int patience = 60000;    // ms
constexpr int manyTimeouts = 100000;

/// Makes the next timeout build a new scheduler. Nothing may be pending that matters to anybody.
void deleteScheduler()
{
    const QObjectList children = qApp->children();
    for (QObject* child : children) {
        if (child->inherits("TimeoutScheduler"))
            delete child;
    }
}

/// While it lives, the process cannot open anything.
class NoMoreDescriptors
{
public:
    NoMoreDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &_before);
        const rlimit none{0, _before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }

    ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &_before); }

    Q_DISABLE_COPY_MOVE(NoMoreDescriptors)

private:
    rlimit _before{};
};

}  // namespace

class TestTimeouts : public QObject
{
    Q_OBJECT

private slots:
    // Due times

    void theHandlerRunsOnceForEachStart()
    {
        int runs = 0;
        Timeouts timeouts([&] { ++runs; });
        timeouts.start(0);
        timeouts.start(2);
        timeouts.start(2);
        timeouts.start(5);
        QVERIFY(passTimeouts(5));
        QCOMPARE(runs, 4);
        QVERIFY(passTimeouts(5));
        QCOMPARE(runs, 4);
    }

    void nothingRunsInsideTheCall_data()
    {
        QTest::addColumn<int>("delay");
        QTest::newRow("no delay") << 0;
        QTest::newRow("negative delay") << -1;
        QTest::newRow("most negative delay") << smallestInt;
    }

    void nothingRunsInsideTheCall()
    {
        QFETCH(int, delay);
        int runs = 0;
        Timeouts timeouts([&] { ++runs; });
        timeouts.start(delay);
        QCOMPARE(runs, 0);
        QCoreApplication::sendPostedEvents();  // runs no timer
        QCOMPARE(runs, 0);
        QVERIFY(passTimeouts());
        QCOMPARE(runs, 1);
    }

    void noTimeoutIsEarlyOrFarTooLate_data()
    {
        QTest::addColumn<int>("delay");
        for (const int delay : {0, 1, 2, 3, 10, 33, 100})
            QTest::addRow("%d ms", delay) << delay;
    }

    void noTimeoutIsEarlyOrFarTooLate()
    {
        QFETCH(int, delay);
        for (int i = 0; i < 5; ++i) {
            QElapsedTimer clock;
            qint64 elapsed = -1;
            Timeouts timeouts([&] { elapsed = clock.nsecsElapsed(); });
            clock.start();
            timeouts.start(delay);
            QTRY_VERIFY(elapsed >= 0);
            QVERIFY(elapsed >= delay * nanosecondsPerMillisecond);
            QVERIFY(elapsed < (delay + generous) * nanosecondsPerMillisecond);
        }
    }

    /// Counts the best of many tries: a busy machine spoils some. A try in which both are late counts as
    /// good.
    void aTimeoutWaitsForNoWholeMillisecondOfAnother()
    {
        constexpr int tries = 50;
        constexpr qint64 shift = 400000;  // ns between the two
        constexpr qint64 limit = 300000;  // ns; waiting for a whole millisecond behind the first takes 600000
        QElapsedTimer clock;
        qint64 smallestLateness = patience * nanosecondsPerMillisecond;
        for (int i = 0; i < tries && smallestLateness >= limit; ++i) {
            qint64 firstRunTime = 0;
            qint64 runTime = 0;
            QEventLoop loop;
            Timeouts first([&] { firstRunTime = clock.nsecsElapsed(); });
            Timeouts second([&] {
                runTime = clock.nsecsElapsed();
                loop.quit();
            });
            clock.start();
            first.start(2);
            while (clock.nsecsElapsed() < shift) { }
            const qint64 dueTime = clock.nsecsElapsed() + 2 * nanosecondsPerMillisecond;
            second.start(2);
            loop.exec();
            if (firstRunTime < dueTime)
                smallestLateness = std::min(smallestLateness, runTime - dueTime);
        }
        QVERIFY2(smallestLateness < limit, qPrintable(QString::number(smallestLateness)));
    }

    void timeoutsRunWhenTheKernelHasNoTimerLeft()
    {
        constexpr int delay = 5;  // ms
        int runs = 0;
        Timeouts timeouts([&] { ++runs; });
        QElapsedTimer clock;
        deleteScheduler();
        {
            const NoMoreDescriptors noMore;
            clock.start();
            timeouts.start(delay);
        }
        QTRY_COMPARE(runs, 1);
        QVERIFY(clock.elapsed() >= delay);
        timeouts.start(0);
        QTRY_COMPARE(runs, 2);
        deleteScheduler();  // the next one gets the kernel's timer again
    }

    void timeoutsRunInOrderOfTheirDueTimes()
    {
        QStringList order;
        Timeouts first([&] { order.append(QStringLiteral("first")); });
        Timeouts second([&] { order.append(QStringLiteral("second")); });
        Timeouts third([&] { order.append(QStringLiteral("third")); });
        third.start(30);
        first.start(10);
        second.start(20);
        first.start(40);
        QVERIFY(passTimeouts(40));
        QCOMPARE(order.join(QLatin1Char(' ')), QStringLiteral("first second third first"));
    }

    void equalDelaysRunInOrderOfTheirStarts()
    {
        constexpr int count = 50;
        QList<int> order;
        QList<int> expected;
        std::vector<std::unique_ptr<Timeouts>> owners;
        for (int i = 0; i < count; ++i)
            owners.push_back(std::make_unique<Timeouts>([&order, i] { order.append(i); }));
        for (int i = count - 1; i >= 0; --i) {
            owners[static_cast<size_t>(i)]->start(5);
            expected.append(i);
        }
        QVERIFY(passTimeouts(5));
        QCOMPARE(order, expected);
    }

    void aShorterDelayOvertakes()
    {
        int lateRuns = 0;
        int soonRuns = 0;
        Timeouts late([&] { ++lateRuns; });
        Timeouts soon([&] { ++soonRuns; });
        late.start(patience);
        soon.start(5);
        QTRY_COMPARE(soonRuns, 1);
        QCOMPARE(lateRuns, 0);
        late.start(1);
        QTRY_COMPARE(lateRuns, 1);
    }

    void theLongestDelayIsNeitherNegativeNorInTheWay()
    {
        int runs = 0;
        Timeouts timeouts([&] { ++runs; });
        timeouts.start(largestInt);
        timeouts.start(largestInt);
        QVERIFY(passTimeouts(20));
        QCOMPARE(runs, 0);
        timeouts.start(1);
        QTRY_COMPARE(runs, 1);
    }

    void manyOwnersRunInOrder()
    {
        constexpr size_t count = 1000;
        std::mt19937 random(1);
        std::vector<int> delays;
        std::vector<size_t> order;
        std::vector<std::unique_ptr<Timeouts>> owners;
        for (size_t i = 0; i < count; ++i) {
            delays.push_back(static_cast<int>(random() % 50));
            owners.push_back(std::make_unique<Timeouts>([&order, i] { order.push_back(i); }));
            owners.back()->start(delays.back());
        }
        QVERIFY(passTimeouts(50));
        QCOMPARE(order.size(), count);
        for (size_t i = 0; i < count; ++i) {
            for (size_t j = i + 1; j < count; ++j)  // j ran after i: it was not due before
                QVERIFY(order[j] > order[i] || delays[order[j]] > delays[order[i]]);
        }
    }

    // Owners that go

    void aDestroyedOwnerNeverRuns()
    {
        int runs = 0;
        auto timeouts = std::make_unique<Timeouts>([&] { ++runs; });
        for (const int delay : {0, 1, 5})
            timeouts->start(delay);
        timeouts.reset();
        QVERIFY(passTimeouts(5));
        QCOMPARE(runs, 0);
    }

    void destroyedOwnersLeaveTheOthersInOrder()
    {
        constexpr int count = 200;
        constexpr int longest = 25;
        const auto delayOf = [](int i) { return longest - i * 7 % 20; };
        std::vector<int> order;
        std::vector<std::unique_ptr<Timeouts>> owners;
        for (int i = 0; i < count; ++i) {
            owners.push_back(std::make_unique<Timeouts>([&order, i] { order.push_back(i); }));
            owners.back()->start(delayOf(i));
        }
        std::vector<int> left;
        for (int i = 0; i < count; ++i) {
            if (i * 13 % 3 == 0)
                owners[static_cast<size_t>(i)].reset();
            else
                left.push_back(i);
        }
        QVERIFY(passTimeouts(longest));
        QVERIFY(left.size() < count);
        std::vector<int> ran = order;
        std::sort(ran.begin(), ran.end());
        QCOMPARE(ran, left);
        for (size_t i = 1; i < order.size(); ++i)  // started later, or with a longer delay
            QVERIFY(order[i] > order[i - 1] || delayOf(order[i]) > delayOf(order[i - 1]));
    }

    void aHandlerMayDestroyItsOwner()
    {
        int runs = 0;
        std::unique_ptr<Timeouts> timeouts;
        timeouts = std::make_unique<Timeouts>([&] {
            ++runs;
            timeouts.reset();
        });
        timeouts->start(0);
        timeouts->start(0);
        timeouts->start(3);
        QVERIFY(passTimeouts(3));
        QCOMPARE(runs, 1);
    }

    void aHandlerMayDestroyAnother()
    {
        int runs = 0;
        auto victim = std::make_unique<Timeouts>([&] { ++runs; });
        Timeouts killer([&] { victim.reset(); });
        killer.start(0);
        victim->start(0);
        victim->start(3);
        QVERIFY(passTimeouts(3));
        QVERIFY(!victim);
        QCOMPARE(runs, 0);
    }

    void aHandlerMayReplaceItsOwner()
    {
        int replacementRuns = 0;
        std::unique_ptr<Timeouts> timeouts;
        timeouts = std::make_unique<Timeouts>([&] {
            timeouts = std::make_unique<Timeouts>([&] { ++replacementRuns; });
            timeouts->start(0);
        });
        timeouts->start(0);
        timeouts->start(0);
        QVERIFY(passTimeouts());
        QVERIFY(passTimeouts());
        QCOMPARE(replacementRuns, 1);
    }

    // Room for events

    void aHandlerThatStartsAgainLeavesRoomForEvents()
    {
        constexpr int rounds = 1000;
        int runs = 0;
        int runsAtEvent = -1;
        std::unique_ptr<Timeouts> timeouts;
        timeouts = std::make_unique<Timeouts>([&] {
            if (runs++ == 0)
                QMetaObject::invokeMethod(
                    this, [&] { runsAtEvent = runs; }, Qt::QueuedConnection);
            if (runs < rounds)
                timeouts->start(0);
        });
        timeouts->start(0);
        QTRY_COMPARE(runs, rounds);
        QCOMPARE(runsAtEvent, 1);
    }

    void handlersThatStartEachOtherLeaveRoomForEvents()
    {
        constexpr int rounds = 1000;
        int runs = 0;
        int runsAtEvent = -1;
        std::unique_ptr<Timeouts> ping;
        std::unique_ptr<Timeouts> pong;
        const auto startOther = [&](const std::unique_ptr<Timeouts>& other) {
            if (runs++ == 0)
                QMetaObject::invokeMethod(
                    this, [&] { runsAtEvent = runs; }, Qt::QueuedConnection);
            if (runs < rounds)
                other->start(0);
        };
        ping = std::make_unique<Timeouts>([&] { startOther(pong); });
        pong = std::make_unique<Timeouts>([&] { startOther(ping); });
        ping->start(0);
        QTRY_COMPARE(runs, rounds);
        QCOMPARE(runsAtEvent, 1);
    }

    void anEventLoopOfAHandlersOwnRunsNoHandlers()
    {
        int otherRuns = 0;
        int otherRunsInside = -1;
        Timeouts other([&] { ++otherRuns; });
        Timeouts nesting([&] {
            QEventLoop loop;
            QTimer::singleShot(30, &loop, SLOT(quit()));
            other.start(1);
            loop.exec();
            otherRunsInside = otherRuns;
        });
        other.start(5);  // its timer is running when the inner loop begins
        nesting.start(0);
        QTRY_COMPARE(otherRuns, 2);
        QCOMPARE(otherRunsInside, 0);
    }

    // Shared starts

    void aSharedTimeoutIsNeverEarly()
    {
        for (const int delay : {0, 1, 20}) {
            QElapsedTimer clock;
            qint64 elapsed = -1;
            Timeouts timeouts([&] { elapsed = clock.nsecsElapsed(); });
            clock.start();
            timeouts.startShared(delay);
            QVERIFY(elapsed < 0);
            QTRY_VERIFY(elapsed >= 0);
            QVERIFY(elapsed >= delay * nanosecondsPerMillisecond);
            QVERIFY(elapsed < (delay + 1 + generous) * nanosecondsPerMillisecond);
        }
    }

    void startsWithinAMillisecondShareATimeout()
    {
        constexpr int starts = 20000;
        int runs = 0;
        Timeouts timeouts([&] { ++runs; });
        QElapsedTimer clock;
        clock.start();
        for (int i = 0; i < starts; ++i)
            timeouts.startShared(20);
        const qint64 milliseconds = clock.elapsed() + 2;  // the first and the last one in part
        QVERIFY(passTimeouts(21));
        QVERIFY(runs >= 1);
        QVERIFY2(runs <= 2 * milliseconds, qPrintable(QString::number(runs)));
        QVERIFY(2 * milliseconds < starts);
    }

    void startsAMillisecondApartHaveTimeoutsOfTheirOwn()
    {
        constexpr int starts = 5;
        int started = 0;
        int runs = 0;
        QEventLoop loop;  // QTest's own loops look at the timers every 10 ms only
        Timeouts timeouts([&] { ++runs; });
        std::unique_ptr<Timeouts> starter;
        starter = std::make_unique<Timeouts>([&] {
            timeouts.startShared(100);
            if (++started == starts)
                loop.quit();
            else
                starter->start(1);
        });
        starter->start(0);
        loop.exec();
        QVERIFY(passTimeouts(101));
        QCOMPARE(runs, starts);
    }

    void aSharedTimeoutRunsAgainLater()
    {
        int runs = 0;
        Timeouts timeouts([&] { ++runs; });
        timeouts.startShared(0);
        QVERIFY(passTimeouts(2));
        timeouts.startShared(0);
        QVERIFY(passTimeouts(2));
        QCOMPARE(runs, 2);
    }

    void aRunFollowsEachSharedStart()
    {
        constexpr int delay = 3;  // ms, less than the time in which starts share a timeout
        bool hasRunSince = true;
        Timeouts timeouts([&] { hasRunSince = true; });
        for (int pause = 0; pause < 2 * delay; ++pause) {
            timeouts.startShared(delay);
            QVERIFY(passTimeouts(pause));
            timeouts.startShared(delay);
            hasRunSince = false;
            QTRY_VERIFY(hasRunSince);
        }
    }

    void whatIsOverdueRunsBeforeTheNextSharedStart()
    {
        int runs = 0;
        Timeouts timeouts([&] { ++runs; }, Timeouts::Leisurely);
        timeouts.startShared(2);
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < 3) { }  // holds the event loop up
        timeouts.startShared(2);
        QCOMPARE(runs, 1);
        QTRY_COMPARE(runs, 2);
    }

    void theFirstAndTheLastOfSharedStartsKeepTheirTimes()
    {
        QElapsedTimer clock;
        std::vector<qint64> times;  // ns
        Timeouts timeouts([&] { times.push_back(clock.nsecsElapsed()); });
        clock.start();
        timeouts.startShared(20);
        qint64 lastStart = 0;
        for (int i = 0; i < 20; ++i) {
            lastStart = clock.nsecsElapsed();
            timeouts.startShared(20);
        }
        if (clock.elapsed() >= 1)
            QSKIP("the machine is too slow for so many starts within a millisecond");

        QTRY_COMPARE(times.size(), size_t{2});
        QVERIFY(times[0] >= 20 * nanosecondsPerMillisecond);
        QVERIFY(times[1] >= lastStart + 20 * nanosecondsPerMillisecond);
    }

    void aLeisurelyTimeoutComesAloneToo()
    {
        QElapsedTimer clock;
        QEventLoop loop;
        Timeouts timeouts([&] { loop.quit(); }, Timeouts::Leisurely);
        clock.start();
        timeouts.start(10);
        loop.exec();
        QVERIFY(clock.elapsed() >= 10);
        QVERIFY(clock.elapsed() < 10 + 1 + generous);
    }

    void aLeisurelyTimeoutGoesWithAPunctualOne()
    {
        QStringList order;
        QEventLoop loop;
        Timeouts punctual([&] {
            order.append(QStringLiteral("punctual"));
            loop.quit();
        });
        Timeouts leisurely([&] { order.append(QStringLiteral("leisurely")); }, Timeouts::Leisurely);
        leisurely.start(10);
        punctual.start(10);
        loop.exec();
        QCOMPARE(order, QStringList({QStringLiteral("leisurely"), QStringLiteral("punctual")}));
    }

    void alsoALatePassKeepsTheOrderOfDueTimes()
    {
        QStringList order;
        Timeouts punctual([&] { order.append(QStringLiteral("punctual")); });
        Timeouts leisurely([&] { order.append(QStringLiteral("leisurely")); }, Timeouts::Leisurely);
        punctual.start(1);
        leisurely.start(2);
        punctual.start(3);
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < 5) { }  // holds the event loop up
        QTRY_COMPARE(order.size(), 3);
        QCOMPARE(order.at(1), QStringLiteral("leisurely"));
    }

    void sharedStartsFarIntoAPassAreNotEarly()
    {
        constexpr int delay = 20;       // ms
        constexpr int handlers = 1000;  // due at once
        QElapsedTimer sinceLastStart;
        qint64 elapsed = -1;  // ns
        Timeouts shared([&] { elapsed = sinceLastStart.nsecsElapsed(); });
        Timeouts busy([&] {
            QElapsedTimer clock;
            clock.start();
            while (clock.nsecsElapsed() < 10000) { }
            sinceLastStart.start();
            shared.startShared(delay);
        });
        for (int i = 0; i < handlers; ++i)
            busy.start(0);
        const auto isOver = [&] { return elapsed >= (delay - 1) * nanosecondsPerMillisecond; };
        QTRY_VERIFY(isOver());
        QVERIFY(passTimeouts(2 * delay));
        QVERIFY2(isOver(), qPrintable(QString::number(elapsed)));
    }

    // The end of a pass

    void theEndOfAPassNeedsAPass()
    {
        int runs = 0;
        Timeouts timeouts([&] { ++runs; });
        QVERIFY(!timeouts.startAtEndOfPass());
        QVERIFY(passTimeouts());
        QCOMPARE(runs, 0);
    }

    void theEndOfAPassComesBehindAllThatIsDue()
    {
        QStringList order;
        bool isStarted = false;
        Timeouts end([&] { order.append(QStringLiteral("end")); });
        Timeouts first([&] {
            order.append(QStringLiteral("first"));
            isStarted = end.startAtEndOfPass();
            QMetaObject::invokeMethod(
                this, [&] { order.append(QStringLiteral("event")); }, Qt::QueuedConnection);
        });
        Timeouts second([&] { order.append(QStringLiteral("second")); });
        first.start(0);
        second.start(0);
        second.start(0);
        QTRY_COMPARE(order.size(), 5);
        QVERIFY(isStarted);
        QCOMPARE(order.join(QLatin1Char(' ')), QStringLiteral("first second second end event"));
    }

    void aDestroyedOwnerRunsAtNoEnd()
    {
        int runs = 0;
        auto end = std::make_unique<Timeouts>([&] { ++runs; });
        Timeouts first([&] { QVERIFY(end->startAtEndOfPass()); });
        Timeouts second([&] { end.reset(); });
        first.start(0);
        second.start(0);
        QTRY_VERIFY(!end);
        QVERIFY(passTimeouts());
        QCOMPARE(runs, 0);
    }

    // Many

    void hundredThousandOfOneOwnerAllRun()
    {
        int runs = 0;
        std::mt19937 random(1);
        Timeouts timeouts([&] { ++runs; });
        for (int i = 0; i < manyTimeouts; ++i)
            timeouts.start(static_cast<int>(random() % 200));
        QCOMPARE(runs, 0);
        QTRY_COMPARE_WITH_TIMEOUT(runs, manyTimeouts, patience);
        QVERIFY(passTimeouts());
        QCOMPARE(runs, manyTimeouts);
    }

    void hundredThousandOwnersAllRun()
    {
        int runs = 0;
        std::mt19937 random(1);
        std::vector<std::unique_ptr<Timeouts>> owners;
        for (int i = 0; i < manyTimeouts; ++i) {
            owners.push_back(std::make_unique<Timeouts>([&runs] { ++runs; }));
            owners.back()->start(static_cast<int>(random() % 200));
        }
        QTRY_COMPARE_WITH_TIMEOUT(runs, manyTimeouts, patience);
        QVERIFY(passTimeouts());
        QCOMPARE(runs, manyTimeouts);
    }

    void pendingOnesMayBeDestroyedInAnyOrder()
    {
        int runs = 0;
        std::mt19937 random(1);
        std::vector<std::unique_ptr<Timeouts>> owners;
        for (int i = 0; i < manyTimeouts; ++i) {
            owners.push_back(std::make_unique<Timeouts>([&runs] { ++runs; }));
            owners.back()->start(static_cast<int>(random() % 50));
        }
        std::shuffle(owners.begin(), owners.end(), random);
        owners.resize(manyTimeouts / 2);
        QTRY_COMPARE_WITH_TIMEOUT(runs, manyTimeouts / 2, patience);
        QVERIFY(passTimeouts(50));
        QCOMPARE(runs, manyTimeouts / 2);
    }
};

QTEST_MAIN(TestTimeouts)
#include "tst_timeouts.moc"
