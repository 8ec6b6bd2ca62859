#include "headlesshelpers.h"

#include <QStandardPaths>

#include <algorithm>
#include <memory>

using namespace HeadlessHelpers;

namespace {

/// Returns the bodies of the frame messages among \a messages.
QList<QByteArray> framesAmong(const QByteArray& messages)
{
    QList<QByteArray> frames;
    for (int offset = 0; offset + 5 <= messages.size(); offset += 5 + numberAt(messages, offset + 1)) {
        if (messages.at(offset) == FrameMessage)
            frames.append(messages.mid(offset + 5, numberAt(messages, offset + 1)));
    }
    return frames;
}

/// Holds what a run over a lossy link leaves behind.
struct LossyRun {
    QList<QByteArray> arrived;
    QList<QByteArray> dumped;
    qint64 seed = -1;
};

bool operator==(const LossyRun& a, const LossyRun& b)
{
    return a.arrived == b.arrived && a.dumped == b.dumped && a.seed == b.seed;
}

const Link lossyLink = {0.997, 0.5, 2, 3, 20};

/// Draws the random decisions for frames that go over lossyLink one after the other.
LossyRun predictedRun(uint seed, const QList<QByteArray>& frames)
{
    const auto draw = [] { return qrand() / 2147483647.0; };
    LossyRun run;
    run.seed = seed;
    qsrand(seed);
    for (const QByteArray& frame : frames) {
        qrand();  // the delay
        QByteArray changed = frame;
        for (int bit = 0; bit < 8 * frame.size(); ++bit) {
            if (!(lossyLink.reliability > draw()))
                changed[bit / 8] = static_cast<char>(changed.at(bit / 8) ^ 1 << bit % 8);
        }
        const bool isNoticed = changed != frame && lossyLink.errorDetection > draw();
        run.dumped.append(isNoticed ? frame : changed);
        if (!isNoticed)
            run.arrived.append(changed);
    }
    return run;
}

}  // namespace

/// Tests how the runner starts, which programs it attaches, and what it carries for them.
class TestHeadless : public QObject, private RunFiles
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(_folder.isValid()); }
    void cleanup() { clear(); }

    void theReadyLineNamesThePort()
    {
        Simulator simulator({"--listen", "0"});
        const quint16 port = simulator.port();
        QVERIFY(port != 0);
        QVERIFY(Client().connectTo(port));
        QCOMPARE(simulator.end(), Success);
        QCOMPARE(simulator.output(), "listening on port " + QByteArray::number(port) + '\n');
        QCOMPARE(simulator.errors(), QByteArray());
    }

    void aSimulationThatHasTheServerOnListensByItself()
    {
        makeSimulation({Link()});
        NetworkSimulation::instance()->network()->setTcpPort(0);
        QVERIFY(NetworkSimulation::instance()->network()->setTcpEnabled(true));
        QVERIFY(saveNow());

        Simulator simulator({_simulation});
        QVERIFY(Client(simulator.port(), A).isAttached);
        QCOMPARE(simulator.end(), Success);
    }

    void withoutAServerItSaysSo()
    {
        QVERIFY(save({Link()}));
        Simulator simulator({_simulation, "--duration", "0.01"});
        QCOMPARE(simulator.exitCode(), Success);
        QCOMPARE(simulator.output(), QByteArray());
        QVERIFY(isOneLine(simulator.errors(), "the TCP server is off"));
    }

    void noDisplayIsNeeded_data()
    {
        QTest::addColumn<QByteArray>("platform");
        QTest::addColumn<QByteArray>("display");
        QTest::newRow("nothing is set") << QByteArray() << QByteArray();
        QTest::newRow("the display does not answer") << QByteArray("xcb") << QByteArray(":4711");
        QTest::newRow("the platform does not exist") << QByteArray("none") << QByteArray();
    }

    void noDisplayIsNeeded()
    {
        QFETCH(QByteArray, platform);
        QFETCH(QByteArray, display);
        QProcessEnvironment environment = bareEnvironment();
        if (!platform.isNull())
            environment.insert("QT_QPA_PLATFORM", platform);
        if (!display.isNull())
            environment.insert("DISPLAY", display);
        QVERIFY(save({Link()}));

        Simulator simulator({_simulation, "--listen", "0"}, environment);
        QVERIFY(Client(simulator.port(), A).isAttached);
        QCOMPARE(simulator.end(), Success);
        QCOMPARE(simulator.errors(), QByteArray());
    }

    void helpListsOptionsAndExitCodes()
    {
        Simulator simulator({"--help"});
        QCOMPARE(simulator.exitCode(), Success);
        QCOMPARE(simulator.errors(), QByteArray());
        for (const char* option :
             {"--listen <PORT>", "--plug-and-play", "--identify-by <name|address>", "--capture <FILE>",
              "--seed <N>", "--duration <SECONDS>", "--frames <N>", "--wait-for <NAME[,NAME...]>",
              "--wait-timeout <SECONDS>", "--report <FILE>", "--debug-output"})
            QVERIFY2(simulator.output().contains(option), option);
        for (const int code : {Success, WrongOption, SimulationNotLoaded, PortNotOpened, DumpNotWritten,
                               ReportNotWritten, NodesMissing})
            QVERIFY2(simulator.output().contains("\n  " + QByteArray::number(code) + "  "),
                     QByteArray::number(code));
    }

    void theVersionIsPrinted()
    {
        Simulator simulator({"--version"});
        QCOMPARE(simulator.exitCode(), Success);
        QVERIFY(QRegularExpression("^lattivo-headless \\d+\\.\\d+\\.\\d+\n$")
                    .match(QString::fromUtf8(simulator.output()))
                    .hasMatch());
    }

    void framesTravelInBothDirections()
    {
        QVERIFY(save({Link()}));
        Simulator simulator({_simulation, "--listen", "0", "--capture", _dump});
        const quint16 port = simulator.port();
        Client a(port, A);
        Client b(port, B);
        QVERIFY(a.isAttached && b.isAttached);

        const QByteArray there = frameBytes(B, A, "there");
        const QByteArray back = frameBytes(A, B, "and back");
        a.sendFrame(there);
        QCOMPARE(b.nextFrame(), there);
        b.sendFrame(back);
        QCOMPARE(a.nextFrame(), back);

        QCOMPARE(simulator.end(), Success);
        QVERIFY(a.waitForEnd() && b.waitForEnd());
        QCOMPARE(framesIn(_dump), (QList<QByteArray>{there, back}));
    }

    void framesTakeTheDelayOfTheirLink()
    {
        constexpr int shortest = 150 - 100 / 2;
        constexpr int longest = shortest + 100 - 1;
        constexpr int slack = 150;  // a busy machine may be late, though not with each frame
        QVERIFY(save({{1.0, 1.0, 150, 100, 250}}));
        Simulator simulator({_simulation, "--listen", "0", "--seed", "1"});
        const quint16 port = simulator.port();
        Client a(port, A);
        Client b(port, B);
        QVERIFY(a.isAttached && b.isAttached);

        qint64 fastest = processPatience;
        for (int i = 0; i < 5; ++i) {
            QElapsedTimer timer;
            timer.start();
            a.sendFrame(frameBytes(B, A));
            QCOMPARE(b.nextFrame(), frameBytes(B, A));
            QVERIFY2(timer.elapsed() >= shortest - 1, QByteArray::number(timer.elapsed()));
            fastest = qMin(fastest, timer.elapsed());
        }
        QVERIFY2(fastest <= longest + slack, QByteArray::number(fastest));
    }

    void sendersLearnWhatBecameOfTheirFrames()
    {
        constexpr int timeout = 100;
        QVERIFY(save({{1.0, 1.0, 0, 0, timeout}}));
        Simulator simulator({_simulation, "--listen", "0"});
        const quint16 port = simulator.port();
        Client a(port, A);
        Client b(port, B);
        QVERIFY(a.isAttached && b.isAttached);

        a.sendFrame(frameBytes(B, A));
        QCOMPARE(a.next(ConfirmationMessage), delivered);
        a.sendFrame(frameBytes(everybody, A));
        QCOMPARE(a.next(ConfirmationMessage), delivered);
        QElapsedTimer timer;
        timer.start();
        a.sendFrame(frameBytes(Nobody, A));
        QCOMPARE(a.next(ConfirmationMessage), lost);
        QVERIFY2(timer.elapsed() >= timeout - 1, QByteArray::number(timer.elapsed()));
    }

    void theSeedDecidesWhatIsLost()
    {
        QVERIFY(save({lossyLink}));
        const LossyRun first = lossyRun({"--seed", "7"});
        const LossyRun second = lossyRun({"--seed", "7"});
        const LossyRun other = lossyRun({"--seed", "8"});

        const QList<QByteArray> frames = numberedFrames(200);
        const auto intact = std::count_if(first.arrived.begin(), first.arrived.end(),
                                          [&](const QByteArray& frame) { return frames.contains(frame); });
        QVERIFY(first.arrived.size() > 100 && first.arrived.size() < 200);  // some are lost
        QVERIFY(intact < first.arrived.size());                             // some are changed
        QCOMPARE(first.dumped.size(), 200);

        QVERIFY(first == predictedRun(7, frames));
        QVERIFY(second == first);
        QVERIFY(other == predictedRun(8, frames));
        QVERIFY(other.arrived != first.arrived && other.dumped != first.dumped);
    }

    void aDrawnSeedIsReportedAndRepeatsTheRun()
    {
        QVERIFY(save({lossyLink}));
        const LossyRun first = lossyRun({});
        const LossyRun second = lossyRun({});
        QVERIFY(first.seed >= 0 && second.seed >= 0);
        QVERIFY(second.seed != first.seed);
        QVERIFY(lossyRun({"--seed", QString::number(first.seed)}) == first);
    }

    void eachCorruptedBitShowsOnlyWithDebugOutput()
    {
        constexpr int frameBits = 8 * 12;
        QVERIFY(save({{0.0, 0.0, 0, 0, 1}}));  // every bit of every frame is changed
        for (const QStringList& option : {QStringList(), QStringList("--debug-output")}) {
            Simulator simulator(QStringList{_simulation, "--listen", "0"} + option);
            const quint16 port = simulator.port();
            Client a(port, A);
            Client b(port, B);
            QVERIFY(a.isAttached && b.isAttached);
            a.sendFrame(frameBytes(B, A));
            QCOMPARE(b.nextFrame().size(), frameBits / 8);
            QCOMPARE(simulator.end(), Success);
            QCOMPARE(simulator.errors().count('*'), option.isEmpty() ? 0 : frameBits);
        }
    }

    void anUnknownProgramIsRefused()
    {
        Simulator simulator({"--listen", "0", "--report", _report});
        Client stranger;
        QVERIFY(stranger.connectTo(simulator.port()));
        stranger.send(control(1, nodeAddress(A)));
        QVERIFY(stranger.waitForEnd());
        QCOMPARE(simulator.end(), Success);
        QCOMPARE(reportIn(_report).value("nodes").toArray().size(), 0);
    }

    void plugAndPlayMakesANode()
    {
        Simulator simulator({"--listen", "0", "--plug-and-play", "--report", _report});
        Client stranger;
        QVERIFY(stranger.connectTo(simulator.port()));
        // The name comes later; a closing message tells when the simulator has read all
        stranger.send(control(1, nodeAddress(A)) + control(5, "Pump")
                      + message(FrameMessage, frameBytes(B, A)) + message(7, QByteArray()));
        QVERIFY(stranger.waitForEnd());
        QCOMPARE(simulator.end(), Success);

        const QJsonObject expected = {{"name", "Pump"},
                                      {"address", "020000000001"},
                                      {"attached", false},
                                      {"sent", traffic(1, 12)},
                                      {"received", traffic(0, 0)}};
        QCOMPARE(reportIn(_report).value("nodes").toArray(), QJsonArray{expected});
    }

    void programsIdentifyAsTheOptionSays_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addColumn<QByteArray>("accepted");
        QTest::addColumn<QByteArray>("refused");
        const QByteArray byName = control(5, "A");
        const QByteArray byAddress = control(1, nodeAddress(A));
        QTest::newRow("by name") << "name" << byName << byAddress;
        QTest::newRow("by address") << "address" << byAddress << byName;
    }

    void programsIdentifyAsTheOptionSays()
    {
        QFETCH(QString, option);
        QFETCH(QByteArray, accepted);
        QFETCH(QByteArray, refused);
        makeSimulation({Link()});
        NetworkSimulation::instance()->network()->setNameUsedForPnpIdentification(option == "address");
        QVERIFY(saveNow());

        Simulator simulator({_simulation, "--listen", "0", "--identify-by", option, "--wait-for", "A",
                             "--duration", "0.01", "--report", _report});
        const quint16 port = simulator.port();
        Client stranger;
        QVERIFY(stranger.connectTo(port));
        stranger.send(refused);
        QVERIFY(stranger.waitForEnd());
        QVERIFY(!simulator.hasEnded());
        Client a;
        QVERIFY(a.connectTo(port));
        a.send(accepted);
        QCOMPARE(simulator.exitCode(), Success);
        QCOMPARE(nodeIn(reportIn(_report), A).value("attached"), QJsonValue(true));
    }

    void aKilledProgramCanComeBack()
    {
        QVERIFY(save({Link()}));
        Simulator simulator({_simulation, "--listen", "0", "--report", _report});
        const quint16 port = simulator.port();
        Client a(port, A);
        auto killed = std::make_unique<Client>(port, B);
        QVERIFY(a.isAttached && killed->isAttached);
        killed->stopReading();
        a.sendFrame(frameBytes(B, A, "unread"));
        QCOMPARE(a.next(ConfirmationMessage), delivered);
        killed->abort();

        Client again(port, B);
        QVERIFY(again.isAttached);
        a.sendFrame(frameBytes(B, A, "again"));
        QCOMPARE(again.nextFrame(), frameBytes(B, A, "again"));
        QCOMPARE(simulator.end(), Success);
        QCOMPARE(nodeIn(reportIn(_report), B).value("attached"), QJsonValue(true));
        QCOMPARE(nodeIn(reportIn(_report), B).value("received"), QJsonValue(traffic(2, 12 + 6 + 12 + 5)));
    }

    void aProgramThatStopsReadingHoldsNobodyUp()
    {
        QVERIFY(saveWithLargeFrames());
        Simulator simulator({_simulation, "--listen", "0", "--report", _report});
        const quint16 port = simulator.port();
        Client a(port, A);
        Client sleeper(port, B);
        Client c(port, C);
        Client d(port, D);
        QVERIFY(a.isAttached && sleeper.isAttached && c.isAttached && d.isAttached);

        QVERIFY(fill(sleeper, a));
        c.sendFrame(frameBytes(D, C, "still here"));
        QCOMPARE(d.nextFrame(), frameBytes(D, C, "still here"));
        QCOMPARE(simulator.end(), Success);
        sleeper.resumeReading();
        QVERIFY(sleeper.receiveAll().size() < manyLargeFrames * largeFrameSize);  // it had to wait
        QCOMPARE(nodeIn(reportIn(_report), B).value("received"),
                 QJsonValue(traffic(manyLargeFrames, manyLargeFrames * largeFrameSize)));
        QCOMPARE(nodeIn(reportIn(_report), B).value("attached"), QJsonValue(true));
    }

    void framesBeforeAProtocolErrorArriveBehindTheEndToo()
    {
        QVERIFY(saveWithLargeFrames());
        Simulator simulator({_simulation, "--listen", "0", "--report", _report});
        const quint16 port = simulator.port();
        Client a(port, A);
        Client b(port, B);
        QVERIFY(a.isAttached && b.isAttached);
        QVERIFY(fill(b, a));
        b.send(message(7, QByteArray()));
        do {
            a.sendFrame(frameBytes(B, A));
        } while (a.next(ConfirmationMessage) == delivered);

        simulator.signal(SIGTERM);
        QVERIFY(waitForReport());
        QCOMPARE(nodeIn(reportIn(_report), B).value("attached"), QJsonValue(false));
        b.resumeReading();
        const QList<QByteArray> arrived = framesAmong(b.receiveAll());
        const auto isLarge = [](const QByteArray& frame) { return frame.size() == largeFrameSize; };
        QCOMPARE(int(std::count_if(arrived.begin(), arrived.end(), isLarge)), manyLargeFrames);
        QCOMPARE(simulator.exitCode(), Success);
    }

    void waitingForAProgramAtTheEndIsNoWork()
    {
        constexpr int span = 500;  // ms
        QVERIFY(saveWithLargeFrames());
        Simulator simulator({_simulation, "--listen", "0", "--report", _report});
        const quint16 port = simulator.port();
        Client a(port, A);
        Client sleeper(port, B);
        QVERIFY(a.isAttached && sleeper.isAttached);
        QVERIFY(fill(sleeper, a));
        simulator.signal(SIGTERM);
        QVERIFY(waitForReport());
        const qint64 before = simulator.processorTime();
        QCOMPARE(simulator.exitCode(span), NotEnded);
        const qint64 used = simulator.processorTime() - before;
        QVERIFY2(used < span / 5, QByteArray::number(used));
    }

    void aPacketAnalyserReadsTheDump()
    {
        const QString analyser = QStandardPaths::findExecutable("tshark");
        if (analyser.isEmpty())
            QSKIP(
                "tshark is not installed: whether a packet analyser reads the runner's dump was not tested");

        QVERIFY(save({Link()}));
        const QList<QByteArray> frames = numberedFrames(10);
        Simulator simulator({_simulation, "--listen", "0", "--capture", _dump, "--frames", "10"});
        Client a(simulator.port(), A);
        QVERIFY(a.isAttached);
        a.sendFrames(frames);
        QCOMPARE(simulator.exitCode(), Success);

        QProcess process;
        process.start(analyser, {"-r", _dump, "-T", "fields", "-e", "frame.len", "-e", "frame.cap_len"});
        QVERIFY(process.waitForFinished(60000));
        QCOMPARE(process.exitCode(), 0);
        QCOMPARE(process.readAllStandardOutput(), QByteArray("32\t34\n").repeated(10));
    }

private:
    /// Waits until the run is over; its process may go on.
    bool waitForReport()
    {
        return QTest::qWaitFor([this] { return !contentsOf(_report).isEmpty(); }, processPatience);
    }

    /// Sends 200 frames over lossyLink.
    LossyRun lossyRun(const QStringList& seedOptions)
    {
        const QList<QByteArray> frames = numberedFrames(200);
        Simulator simulator(QStringList{_simulation, "--listen", "0", "--capture", _dump, "--report", _report,
                                        "--frames", QString::number(frames.size())}
                            + seedOptions);
        const quint16 port = simulator.port();
        Client a(port, A);
        Client b(port, B);
        if (!a.isAttached || !b.isAttached)
            return LossyRun();
        a.sendFrames(frames.mid(0, 120));
        a.sendFrames(frames.mid(120));

        LossyRun run;
        run.arrived = framesAmong(b.receiveAll());
        if (simulator.exitCode() != Success)
            return LossyRun();
        run.dumped = framesIn(_dump);
        run.seed = qRound64(reportIn(_report).value("seed").toDouble());
        return run;
    }
};

QTEST_MAIN(TestHeadless)
#include "tst_headless.moc"
