#include "core/throttle.h"

#include "testhelpers.h"

#include <QElapsedTimer>

using namespace TestHelpers;

namespace {

constexpr int pauseTime = 16;  // ms
constexpr int quietTime = 40;  // ms, more than two pauses

}  // namespace

class TestThrottle : public QObject
{
    Q_OBJECT

private slots:
    void theFirstRequestsRunAtOnce()
    {
        int runs = 0;
        Throttle throttle([&] { ++runs; }, 3);
        for (int expected : {1, 2, 3, 3, 3}) {
            throttle.request();
            QCOMPARE(runs, expected);
        }
    }

    void laterRequestsShareTheRunAtTheEndOfThePause()
    {
        int runs = 0;
        Throttle throttle([&] { ++runs; });
        for (int i = 0; i < 1000; ++i)
            throttle.request();
        QCOMPARE(runs, 1);
        QVERIFY(passTimeouts(pauseTime));
        QCOMPARE(runs, 2);
        QVERIFY(passTimeouts(quietTime));
        QCOMPARE(runs, 2);
    }

    void aQuietTimeLetsRequestsRunAtOnceAgain()
    {
        int runs = 0;
        Throttle throttle([&] { ++runs; });
        throttle.request();
        throttle.request();
        QVERIFY(passTimeouts(quietTime));
        QCOMPARE(runs, 2);
        throttle.request();
        QCOMPARE(runs, 3);
    }

    void withoutRunsAtOnceTheFirstRequestWaitsForTheNextPass()
    {
        int runs = 0;
        Throttle throttle([&] { ++runs; }, 0);
        throttle.request();
        throttle.request();
        QCOMPARE(runs, 0);
        QVERIFY(passTimeouts());
        QCOMPARE(runs, 1);
        throttle.request();
        QCOMPARE(runs, 1);
        QVERIFY(passTimeouts(pauseTime));
        QCOMPARE(runs, 2);
    }

    void aPauseLastsAsLongAsItWasLengthened()
    {
        constexpr qint64 longPause = 100;  // ms
        int runs = 0;
        Throttle throttle([&] { ++runs; });
        QElapsedTimer clock;
        clock.start();
        throttle.request();
        throttle.lengthenPause(longPause * 1000000 / 2);
        throttle.lengthenPause(longPause * 1000000 / 2);
        throttle.request();
        QTRY_COMPARE(runs, 2);
        QVERIFY(clock.elapsed() >= longPause - 1);  // the rest of a millisecond is not waited for
    }
};

QTEST_MAIN(TestThrottle)
#include "tst_throttle.moc"
