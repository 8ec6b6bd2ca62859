#include "headlesshelpers.h"

#include <memory>
#include <vector>

using namespace HeadlessHelpers;

/// Tests when a run ends, from when on it counts, and what its report says.
class TestHeadlessEnds : public QObject, private RunFiles
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(_folder.isValid()); }
    void cleanup() { clear(); }

    void theReportCountsEveryOutcome()
    {
        QVERIFY(save({
            Link(),                 // A to B
            {0.0, 0.0, 0, 0, 1},    // C to D: corrupted, never noticed
            {0.0, 1.0, 0, 0, 1},    // E to F: corrupted, always noticed
            {1.0, 1.0, 50, 0, 10},  // G to H: late
        }));
        Simulator simulator({_simulation, "--listen", "0", "--capture", _dump, "--report", _report, "--seed",
                             "5", "--frames", "7"});
        const quint16 port = simulator.port();
        std::vector<std::unique_ptr<Client>> clients;
        for (int node = A; node < H; ++node)
            clients.push_back(std::make_unique<Client>(port, node));
        Client h(port, H);
        QVERIFY(h.isAttached);
        clients.at(A - 1)->sendFrames(
            {frameBytes(B, A), frameBytes(B, A), frameBytes(everybody, A), frameBytes(Nobody, A)});
        clients.at(C - 1)->sendFrame(frameBytes(D, C));
        clients.at(E - 1)->sendFrame(frameBytes(F, E));
        clients.at(G - 1)->sendFrame(frameBytes(H, G));
        QCOMPARE(h.nextFrame(), frameBytes(H, G));
        QCOMPARE(simulator.exitCode(), Success);

        const QJsonObject report = reportIn(_report);
        QCOMPARE(report.keys(),
                 (QStringList{"captured", "endedBy", "framesLeftLinks", "nodes", "runTimeSeconds", "seed"}));
        QCOMPARE(report.value("seed"), QJsonValue(5));
        QCOMPARE(report.value("endedBy"), QJsonValue("frames"));
        QCOMPARE(report.value("framesLeftLinks"), QJsonValue(7));
        QVERIFY(report.value("runTimeSeconds").toDouble() > 0.049);
        QCOMPARE(report.value("captured").toObject(),
                 (QJsonObject{{"frames", 7},
                              {"deliveredInTime", 4},
                              {"deliveredLate", 1},
                              {"notDelivered", 2},
                              {"corrupted", 2},
                              {"corruptedAndDetected", 1},
                              {"broadcast", 1}}));
        QCOMPARE(report.value("nodes").toArray().size(), 8);
        // Each program sent one byte more when it was attached
        QCOMPARE(nodeIn(report, A),
                 (QJsonObject{{"name", "A"},
                              {"address", "020000000001"},
                              {"attached", true},
                              {"sent", traffic(1 + 4, 1 + 4 * 12)},
                              {"received", traffic(0, 0)}}));
        QCOMPARE(nodeIn(report, B).value("received"), QJsonValue(traffic(3, 3 * 12)));
        QCOMPARE(nodeIn(report, F).value("received"), QJsonValue(traffic(0, 0)));
    }

    void theSimulationsOwnCaptureSwitchHolds()
    {
        for (const bool isOn : {false, true}) {
            makeSimulation({Link()});
            NetworkSimulation::instance()->capture()->setEnabled(isOn);
            QVERIFY(saveNow());
            Simulator simulator({_simulation, "--listen", "0", "--report", _report, "--frames", "1"});
            Client a(simulator.port(), A);
            a.sendFrame(frameBytes(B, A));
            QCOMPARE(simulator.exitCode(), Success);
            const QJsonObject captured = reportIn(_report).value("captured").toObject();
            QCOMPARE(captured.value("frames"), QJsonValue(isOn ? 1 : 0));
        }
    }

    void itEndsWithExactlyTheFramesAskedFor()
    {
        QVERIFY(save({Link()}));
        const QList<QByteArray> frames = numberedFrames(50);
        Simulator simulator(
            {_simulation, "--listen", "0", "--frames", "5", "--capture", _dump, "--report", _report});
        Client a(simulator.port(), A);
        QVERIFY(a.isAttached);
        a.sendFrames(frames);
        QCOMPARE(simulator.exitCode(), Success);
        QCOMPARE(framesIn(_dump), frames.mid(0, 5));
        QCOMPARE(reportIn(_report).value("framesLeftLinks"), QJsonValue(5));
        QCOMPARE(reportIn(_report).value("captured").toObject().value("frames"), QJsonValue(5));
    }

    void itEndsAfterTheDuration()
    {
        Simulator simulator({"--listen", "0", "--duration", "0.2", "--report", _report});
        QVERIFY(simulator.port() != 0);
        QCOMPARE(simulator.exitCode(), Success);
        const double seconds = reportIn(_report).value("runTimeSeconds").toDouble();
        QVERIFY2(seconds >= 0.199 && seconds < 2.0, QByteArray::number(seconds));
        QCOMPARE(reportIn(_report).value("endedBy"), QJsonValue("duration"));
    }

    void framesCountOnceTheAwaitedNodesAreThere()
    {
        QVERIFY(save({Link()}));
        Simulator simulator({_simulation, "--listen", "0", "--wait-for", "A,B", "--frames", "2", "--capture",
                             _dump, "--report", _report});
        const quint16 port = simulator.port();
        Client a(port, A);
        QVERIFY(a.isAttached);
        const QList<QByteArray> early = numberedFrames(3);
        for (const QByteArray& frame : early) {
            a.sendFrame(frame);
            QCOMPARE(a.next(ConfirmationMessage), lost);
        }

        const QList<QByteArray> counted = {frameBytes(A, B, "1"), frameBytes(A, B, "2")};
        Client b;
        QVERIFY(b.connectTo(port));
        b.send(control(1, nodeAddress(B)) + message(FrameMessage, counted.first())
               + message(FrameMessage, counted.last()));  // the runner must count both
        QCOMPARE(simulator.exitCode(), Success);
        QCOMPARE(framesIn(_dump), early + counted);
        QCOMPARE(reportIn(_report).value("framesLeftLinks"), QJsonValue(2));
    }

    void timeCountsOnceTheAwaitedNodesAreThere()
    {
        QVERIFY(save({Link()}));
        Simulator simulator(
            {_simulation, "--listen", "0", "--wait-for", "B", "--duration", "0.1", "--report", _report});
        const quint16 port = simulator.port();
        QVERIFY(port != 0);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(simulator.exitCode(300), NotEnded);
        Client b(port, B);
        QCOMPARE(simulator.exitCode(), Success);
        const double seconds = reportIn(_report).value("runTimeSeconds").toDouble();
        QVERIFY2(seconds >= 0.099 && seconds <= timer.elapsed() / 1000.0 - 0.299,
                 QByteArray::number(seconds));
    }

    void framesCountOnceTheLastNodeHasItsName()
    {
        QVERIFY(save({Link()}));
        Simulator simulator({_simulation, "--listen", "0", "--wait-for", "Pump", "--frames", "2", "--capture",
                             _dump, "--report", _report});
        Client a(simulator.port(), A);
        QVERIFY(a.isAttached);
        const QList<QByteArray> frames = numberedFrames(4);
        a.sendFrame(frames.at(0));
        QCOMPARE(a.next(ConfirmationMessage), lost);
        a.send(control(5, "Pump") + message(FrameMessage, frames.at(1)) + message(FrameMessage, frames.at(2))
               + message(FrameMessage, frames.at(3)));
        QCOMPARE(simulator.exitCode(), Success);
        QCOMPARE(framesIn(_dump), frames.mid(0, 3));
        QCOMPARE(reportIn(_report).value("framesLeftLinks"), QJsonValue(2));
    }

    void framesCountOnceANewNodeIsThere()
    {
        QVERIFY(save({Link()}));
        Simulator simulator({_simulation, "--listen", "0", "--plug-and-play", "--wait-for", "A,Pump",
                             "--frames", "1", "--capture", _dump});
        const quint16 port = simulator.port();
        Client a(port, A);
        QVERIFY(a.isAttached);
        const QList<QByteArray> frames = numberedFrames(2);
        a.sendFrame(frames.first());
        QCOMPARE(a.next(ConfirmationMessage), lost);
        Client stranger(port, Nobody);
        QVERIFY(stranger.isAttached);
        stranger.send(control(5, "Pump") + message(FrameMessage, QByteArray(1, '\0')));
        QCOMPARE(stranger.next(ConfirmationMessage), lost);
        a.sendFrame(frames.last());
        QCOMPARE(simulator.exitCode(), Success);
        QCOMPARE(framesIn(_dump), frames);
    }

    void framesCostNoMoreWhileNodesAreAwaited()
    {
        constexpr int manyNodes = 3000;
        makeSimulation({Link()});
        for (int i = 0; i < manyNodes; ++i)
            NetworkSimulation::instance()->network()->addItem(new TcpNode(QString(), nullptr));
        QVERIFY(saveNow());

        const auto processorTime = [this](const QStringList& options) {
            Simulator simulator(QStringList{_simulation, "--listen", "0"} + options);
            Client a(simulator.port(), A);
            const qint64 before = simulator.processorTime();
            const QList<QByteArray> frames = numberedFrames(500);
            for (const QByteArray& frame : frames) {
                a.sendFrame(frame);
                if (a.next(ConfirmationMessage) != lost)
                    return qint64{-1};
            }
            return simulator.processorTime() - before;
        };
        const qint64 unawaited = processorTime({});
        const qint64 awaited = processorTime({"--wait-for", "Nobody", "--wait-timeout", "600"});
        QVERIFY(unawaited >= 0 && awaited >= 0);
        QVERIFY2(awaited <= 3 * unawaited + 100,
                 qPrintable(QStringLiteral("%1 %2").arg(awaited).arg(unawaited)));
    }

    void awaitedNodesThatDoNotComeEndTheRun()
    {
        QVERIFY(save({Link()}));
        Simulator simulator({_simulation, "--listen", "0", "--wait-for", "A,B,Nobody", "--wait-timeout", "1",
                             "--capture", _dump, "--report", _report});
        Client a(simulator.port(), A);
        QVERIFY(a.isAttached);
        QCOMPARE(simulator.exitCode(), NodesMissing);
        QVERIFY(isOneLine(simulator.errors(), "not attached in time: B, Nobody"));
        QCOMPARE(framesIn(_dump), QList<QByteArray>());
        QCOMPARE(reportIn(_report).value("endedBy"), QJsonValue("missing nodes"));
        QCOMPARE(reportIn(_report).value("runTimeSeconds"), QJsonValue(0));
        QCOMPARE(nodeIn(reportIn(_report), A).value("attached"), QJsonValue(true));
        QCOMPARE(nodeIn(reportIn(_report), B).value("attached"), QJsonValue(false));
    }

    /// The runner once looked every 10 ms, and missed nodes that came after its last look.
    void nodesThatComeInTheLastMomentAreThereOrNamed()
    {
        constexpr int waitTimeout = 50;  // ms
        QVERIFY(save({Link()}));
        for (int attempt = 0; attempt < 30; ++attempt) {
            Simulator simulator({_simulation, "--listen", "0", "--wait-for", "A", "--wait-timeout",
                                 QString::number(waitTimeout / 1000.0), "--duration", "0.01"});
            const quint16 port = simulator.port();
            QElapsedTimer sinceStart;
            sinceStart.start();
            Client a;
            if (a.connectTo(port)) {  // else this machine was too slow
                QTest::qSleep(qMax(1, waitTimeout - attempt % 10 - static_cast<int>(sinceStart.elapsed())));
                a.send(control(1, nodeAddress(A)));
            }
            if (simulator.exitCode() == NodesMissing)
                QVERIFY(isOneLine(simulator.errors(), "not attached in time: A\n"));
            else
                QCOMPARE(simulator.exitCode(), Success);
        }
    }

    void aSignalEndsItInOrder_data()
    {
        QTest::addColumn<int>("number");
        QTest::newRow("SIGINT") << SIGINT;
        QTest::newRow("SIGTERM") << SIGTERM;
    }

    void aSignalEndsItInOrder()
    {
        QFETCH(int, number);
        QVERIFY(save({Link()}));
        Simulator simulator({_simulation, "--listen", "0", "--capture", _dump, "--report", _report});
        Client a(simulator.port(), A);
        a.sendFrame(frameBytes(B, A));
        QCOMPARE(a.next(ConfirmationMessage), lost);

        simulator.signal(number);
        QCOMPARE(simulator.exitCode(), Success);
        QCOMPARE(simulator.errors(), QByteArray());
        QVERIFY(a.waitForEnd());
        QCOMPARE(framesIn(_dump), QList<QByteArray>{frameBytes(B, A)});
        QCOMPARE(reportIn(_report).value("endedBy"), QJsonValue("signal"));
    }

    void aSignalEndsTheWaitForNodes()
    {
        QVERIFY(save({Link()}));
        Simulator simulator({_simulation, "--listen", "0", "--wait-for", "A", "--report", _report});
        QVERIFY(simulator.port() != 0);
        QCOMPARE(simulator.end(), Success);
        QCOMPARE(reportIn(_report).value("endedBy"), QJsonValue("signal"));
        QCOMPARE(reportIn(_report).value("runTimeSeconds"), QJsonValue(0));
    }

    /// The time to wait runs out while a program that does not read delays the end.
    void theWaitForNodesEndsOnlyOnce()
    {
        QVERIFY(saveWithLargeFrames());
        Simulator simulator({_simulation, "--listen", "0", "--wait-for", "Nobody", "--wait-timeout", "2",
                             "--report", _report});
        const quint16 port = simulator.port();
        Client a(port, A);
        Client sleeper(port, B);
        QVERIFY(a.isAttached && sleeper.isAttached);
        QVERIFY(fill(sleeper, a));
        const int exitCode = simulator.end();
        const bool isBySignal
            = reportIn(_report).value("endedBy") == "signal";  // else this machine was too slow
        QCOMPARE(exitCode, isBySignal ? int(Success) : int(NodesMissing));
        QCOMPARE(simulator.errors().count('\n'), isBySignal ? 0 : 1);
    }
};

QTEST_MAIN(TestHeadlessEnds)
#include "tst_headlessends.moc"
