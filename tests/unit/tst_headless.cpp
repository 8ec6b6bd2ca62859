#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "sockethelpers.h"
#include "testaccess.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <csignal>
#include <memory>
#include <utility>
#include <vector>

#include <unistd.h>

namespace {

constexpr int processPatience = 20000;  // ms; only a failing test waits that long

enum ExitCode {  // as --help lists them
    Success = 0,
    WrongOption = 2,
    SimulationNotLoaded = 3,
    PortNotOpened = 4,
    DumpNotWritten = 5,
    ReportNotWritten = 6,
    NodesMissing = 7,
    NotEnded = -1,
};

enum MessageType { FrameMessage = 1, ConfirmationMessage = 2 };

const QByteArray delivered = hex("01");
const QByteArray lost = hex("02");
const QByteArray everybody = hex("FFFFFFFFFFFF");

enum NodeNumber { A = 1, B, C, D, E, F, G, H, Nobody };

QString nodeName(int node)
{
    return QString(QLatin1Char(static_cast<char>('A' + node - 1)));
}

QByteArray nodeAddress(int node)
{
    return hex("0200000000") + static_cast<char>(node);
}

QByteArray frameBytes(const QByteArray& destination, int source, const QByteArray& data = QByteArray())
{
    return destination + nodeAddress(source) + data;
}

QByteArray frameBytes(int destination, int source, const QByteArray& data = QByteArray())
{
    return frameBytes(nodeAddress(destination), source, data);
}

QList<QByteArray> numberedFrames(int count)
{
    QList<QByteArray> frames;
    for (int number = 0; number < count; ++number)
        frames.append(frameBytes(B, A, QByteArray::number(number).rightJustified(20, '0')));
    return frames;
}

/// One link between two nodes, and how long those wait for their confirmations.
struct Link {
    double reliability = 1.0;
    double errorDetection = 1.0;
    int delay = 0;      // ms
    int deviation = 0;  // ms
    int timeout = 1;    // ms
};

TcpNode* addNode(int number, int timeout)
{
    auto* node = new TcpNode(nodeAddress(number), nullptr);
    node->setName(nodeName(number));
    TestAccess::acknowledgeTimeout(*node) = timeout;
    NetworkSimulation::instance()->network()->addItem(node);
    return node;
}

void addPair(int number, const Link& link)
{
    TcpNode* first = addNode(number, link.timeout);
    auto* connection = new Connection(first, addNode(number + 1, link.timeout));
    TestAccess::reliability(*connection) = link.reliability;
    TestAccess::errorDetection(*connection) = link.errorDetection;
    TestAccess::delay(*connection) = link.delay;
    TestAccess::deviation(*connection) = link.deviation;
    NetworkSimulation::instance()->network()->addItem(connection);
}

/// A new simulation whose nodes want confirmations: A and B at the ends of the first link, C and D of the
/// second...
void makeSimulation(const QList<Link>& links)
{
    Network* network = NetworkSimulation::newNetworkSimulation()->network();
    TestAccess::framesAcknowledged(*network->defaultNode()) = Qt::Checked;
    for (int i = 0; i < links.size(); ++i)
        addPair(2 * i + 1, links.at(i));
}

QByteArray contentsOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString& path, const QByteArray& contents)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size();
}

QJsonObject reportIn(const QString& path)
{
    return QJsonDocument::fromJson(contentsOf(path)).object();
}

QJsonObject nodeIn(const QJsonObject& report, int number)
{
    const QJsonArray nodes = report.value("nodes").toArray();
    for (const QJsonValue& node : nodes) {
        if (node.toObject().value("name") == nodeName(number))
            return node.toObject();
    }
    return QJsonObject();
}

QJsonObject traffic(int frames, int bytes)
{
    return {{"frames", frames}, {"bytes", bytes}};
}

int numberAt(const QByteArray& bytes, int offset)
{
    return bytes.mid(offset, 4).toHex().toInt(nullptr, 16);
}

/// The frames of a dump, read by its documented form. One that is damaged gives a text in their place.
QList<QByteArray> framesIn(const QString& dump)
{
    const QByteArray bytes = contentsOf(dump);
    if (!bytes.startsWith(hex("A1B2C3D4 00020004 00000000 00000000 0000FFFF 00000000")))
        return {"no dump"};

    QList<QByteArray> frames;
    int offset = 24;
    while (offset + 16 <= bytes.size()) {
        const int milliseconds = numberAt(bytes, offset + 4);
        const int capturedLength = numberAt(bytes, offset + 8);
        const int length = numberAt(bytes, offset + 12);
        const QByteArray trailer = bytes.mid(offset + 16 + length, 2);
        if (milliseconds > 999 || capturedLength != length + 2 || trailer != hex("0101"))
            return {"a damaged record"};
        frames.append(bytes.mid(offset + 16, length));
        offset += 16 + capturedLength;
    }
    if (offset != bytes.size())
        return {"a cut record"};
    return frames;
}

/// What a build server has: no display, no desktop session.
QProcessEnvironment bareEnvironment()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "XDG_RUNTIME_DIR", "QT_QPA_PLATFORM"})
        environment.remove(name);
    // What the leak checker has to say of leaks that are none would be a second line
    environment.insert("LSAN_OPTIONS", environment.value("LSAN_OPTIONS") + ":print_suppressions=0");
    return environment;
}

/// The program under test, as a user's script starts it.
class Simulator
{
public:
    explicit Simulator(const QStringList& arguments,
                       const QProcessEnvironment& environment = bareEnvironment())
        : Simulator(QStringLiteral(LATTIVO_HEADLESS), arguments, environment)
    {
    }

    Simulator(const QString& command, const QStringList& arguments, const QProcessEnvironment& environment)
    {
        _process.setProcessEnvironment(environment);
        _process.start(command, arguments);
    }

    ~Simulator()
    {
        _process.kill();
        _process.waitForFinished();
    }

    Q_DISABLE_COPY_MOVE(Simulator)

    /// Waits for the line that says on which port it listens; 0 when that line does not come.
    quint16 port()
    {
        const QRegularExpression ready("^listening on port (\\d+)\n");
        while (!output().contains('\n') && _process.waitForReadyRead(processPatience)) { }
        return ready.match(QString::fromUtf8(output())).captured(1).toUShort();
    }

    /// Waits for its end.
    int exitCode(int patience = processPatience)
    {
        const bool isOver = QTest::qWaitFor([this] { return hasEnded(); }, patience);
        return isOver && _process.exitStatus() == QProcess::NormalExit ? _process.exitCode() : NotEnded;
    }

    void signal(int number) { kill(static_cast<pid_t>(_process.processId()), number); }
    int end()
    {
        signal(SIGTERM);
        return exitCode();
    }

    bool hasEnded() const { return _process.state() == QProcess::NotRunning; }

    /// What it has used so far, in ms; the kernel counts in steps of 10.
    qint64 processorTime() const
    {
        const QByteArray state = contentsOf(QStringLiteral("/proc/%1/stat").arg(_process.processId()));
        const QList<QByteArray> fields = state.mid(state.lastIndexOf(')') + 2).split(' ');
        return (fields.value(11).toLongLong() + fields.value(12).toLongLong()) * 1000 / sysconf(_SC_CLK_TCK);
    }

    QByteArray output() { return _output += _process.readAllStandardOutput(); }
    QByteArray errors() { return _errors += _process.readAllStandardError(); }

private:
    QProcess _process;
    QByteArray _output;
    QByteArray _errors;
};

// Root without these two is bound by the permissions of files as everybody else
const QString setpriv = QStringLiteral("setpriv");
const QString withoutRightsOfRoot = QStringLiteral("--bounding-set=-dac_override,-dac_read_search");

bool canBeBoundByPermissions()
{
    return geteuid() != 0 || QProcess::execute(setpriv, {withoutRightsOfRoot, "true"}) == 0;
}

std::unique_ptr<Simulator> startBoundByPermissions(const QStringList& arguments)
{
    if (geteuid() != 0)
        return std::make_unique<Simulator>(arguments);
    const QStringList command = QStringList{withoutRightsOfRoot, LATTIVO_HEADLESS} + arguments;
    return std::make_unique<Simulator>(setpriv, command, bareEnvironment());
}

/// One line that names the program and holds \a part.
bool isOneLine(const QByteArray& errors, const QString& part)
{
    const bool isOne = errors.startsWith("lattivo-headless: ") && errors.indexOf('\n') == errors.size() - 1
        && errors.contains(part.toUtf8());
    if (!isOne)
        qWarning() << "expected" << part << "in" << errors;
    return isOne;
}

/// A user's program, in this process.
class Client : public Program
{
public:
    Client() = default;
    Client(quint16 port, int node) { isAttached = attach(port, node); }

    /// Returns once the simulator has attached it: the simulator has then dealt with the byte behind the
    /// identification, which is too short for a frame and so is reported as lost.
    bool attach(quint16 port, int node)
    {
        if (!connectTo(port))
            return false;
        send(control(1, nodeAddress(node)) + message(FrameMessage, QByteArray(1, '\0')));
        return next(ConfirmationMessage) == lost;
    }

    /// In one piece, so that no message is cut.
    void sendFrames(const QList<QByteArray>& frames)
    {
        QByteArray messages;
        for (const QByteArray& frame : frames)
            messages += message(FrameMessage, frame);
        send(messages);
    }
    void sendFrame(const QByteArray& frame) { sendFrames({frame}); }

    /// The body of the next message of this type; null when none comes. Others before it are dropped.
    QByteArray next(MessageType type)
    {
        while (true) {
            const QByteArray header = receive(5);
            if (header.size() < 5)
                return QByteArray();
            const QByteArray body = receive(numberAt(header, 1));
            if (header.at(0) == type)
                return body;
        }
    }
    QByteArray nextFrame() { return next(FrameMessage); }

    bool isAttached = false;
};

/// The bodies of the frame messages among \a messages.
QList<QByteArray> framesAmong(const QByteArray& messages)
{
    QList<QByteArray> frames;
    for (int offset = 0; offset + 5 <= messages.size(); offset += 5 + numberAt(messages, offset + 1)) {
        if (messages.at(offset) == FrameMessage)
            frames.append(messages.mid(offset + 5, numberAt(messages, offset + 1)));
    }
    return frames;
}

/// What a run over a lossy link leaves behind.
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

/// The random decisions for frames that go over lossyLink one after the other, drawn here.
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

constexpr int largeFrameSize = 16000;
constexpr int manyLargeFrames = 1000;  // more than the kernel's buffers take, less than what drops a program

}  // namespace

class TestHeadless : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(_folder.isValid()); }

    void cleanup()
    {
        for (const QString& path : {_simulation, _dump, _report})
            QFile::remove(path);
        for (const char* link : {"link", "hard link", "link to the dump", "linked folder"})
            QFile::remove(_folder.filePath(link));
        NetworkSimulation::deleteNetworkSimulation();
    }

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
        constexpr int slack = 150;  // of a busy machine, at one frame of several at least
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
        // A name is given afterwards; a closing message tells when all that has been read
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
        QVERIFY(sleeper.receiveAll().size() < manyLargeFrames * largeFrameSize);  // it really was held up
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
        // With the byte that each program sends when it attaches
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
               + message(FrameMessage, counted.last()));  // not one of them may be missed
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

    /// It once looked every 10 ms, and missed the nodes that came behind the last look.
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

    /// Its time runs out while a program that does not read holds the process up.
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

    void wrongOptionsAreRefused_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("complaint");
        QTest::newRow("unknown") << QStringList("--bad") << "'bad'";
        QTest::newRow("no value") << QStringList("--listen") << "--listen";
        QTest::newRow("a value too many") << QStringList("--plug-and-play=1") << "--plug-and-play";
        QTest::newRow("two files") << QStringList{"a", "b"} << "more than one";
        QTest::newRow("a file without a name") << QStringList("") << "simulation file is empty";
        const std::pair<const char*, QStringList> badValues[] = {
            {"listen", {"x", "-1", "65536"}},
            {"identify-by", {"number"}},
            {"capture", {""}},
            {"report", {""}},
            {"seed", {"-1", "4294967296"}},
            {"duration", {"0", "nan", "2147484"}},
            {"frames", {"0", "1.5"}},
            {"wait-for", {"A,,B"}},
            {"wait-timeout", {"0"}},
        };
        for (const auto& [option, values] : badValues) {
            for (const QString& value : values)
                QTest::addRow("%s=%s", option, qPrintable(value))
                    << QStringList{QStringLiteral("--%1=%2").arg(QLatin1String(option), value)}
                    << QStringLiteral("\"%1\" of option --%2").arg(value, QLatin1String(option));
        }
    }

    void wrongOptionsAreRefused()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, complaint);
        Simulator simulator(arguments);
        QCOMPARE(simulator.exitCode(), WrongOption);
        QVERIFY(isOneLine(simulator.errors(), complaint));
        QCOMPARE(simulator.output(), QByteArray());
    }

    void whatIsNoSimulationIsRefused_data()
    {
        QTest::addColumn<QByteArray>("contents");
        NetworkSimulation::newNetworkSimulation();
        QVERIFY(saveNow());
        const QByteArray whole = contentsOf(_simulation);
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("something else") << QByteArray("[simulation]\n");
        QTest::newRow("cut by a byte") << whole.left(whole.size() - 1);
        QTest::newRow("half of it") << whole.left(whole.size() / 2);
        QTest::newRow("another trailer") << whole.left(whole.size() - 1) + '\0';
        QTest::newRow("a byte too many in it") << QByteArray(whole).insert(100, '\0');
    }

    void whatIsNoSimulationIsRefused()
    {
        QFETCH(QByteArray, contents);
        QVERIFY(writeFile(_simulation, contents));
        Simulator simulator({_simulation, "--listen", "0"});
        QCOMPARE(simulator.exitCode(), SimulationNotLoaded);
        QVERIFY(isOneLine(simulator.errors(), "cannot load the simulation " + _simulation));
        QCOMPARE(simulator.output(), QByteArray());
        QCOMPARE(contentsOf(_simulation), contents);
    }

    void aMissingSimulationIsNotCreated()
    {
        Simulator missing({_simulation});
        QCOMPARE(missing.exitCode(), SimulationNotLoaded);
        QVERIFY(isOneLine(missing.errors(), "No such file"));
        QVERIFY(!QFile::exists(_simulation));

        Simulator folder({_folder.path()});
        QCOMPARE(folder.exitCode(), SimulationNotLoaded);
        QVERIFY(isOneLine(folder.errors(), "directory"));
    }

    void aSimulationThatMayNotBeReadIsRefused()
    {
        if (!canBeBoundByPermissions())
            QSKIP("root cannot give up its rights here: a simulation that may not be read was not tested");
        QVERIFY(save({Link()}));
        QVERIFY(QFile::setPermissions(_simulation, QFileDevice::Permissions()));
        const std::unique_ptr<Simulator> simulator = startBoundByPermissions({_simulation, "--listen", "0"});
        QCOMPARE(simulator->exitCode(), SimulationNotLoaded);
        QVERIFY(isOneLine(simulator->errors(), "Permission denied"));
    }

    void aSimulationThatMayOnlyBeReadIsLoaded()
    {
        if (!canBeBoundByPermissions())
            QSKIP("root cannot give up its rights here: a simulation that may only be read was not tested");
        QVERIFY(save({Link()}));
        QVERIFY(QFile::setPermissions(_simulation, QFileDevice::ReadOwner));
        const std::unique_ptr<Simulator> simulator = startBoundByPermissions({_simulation, "--listen", "0"});
        QVERIFY(Client(simulator->port(), A).isAttached);
        QCOMPARE(simulator->end(), Success);
        QCOMPARE(simulator->errors(), QByteArray());
    }

    void theSimulationFileIsNotChanged()
    {
        QVERIFY(save({Link()}));
        const QByteArray before = contentsOf(_simulation);
        const QDateTime written = QFileInfo(_simulation).lastModified();
        Simulator simulator({_simulation, "--listen", "0", "--plug-and-play", "--capture", _dump});
        Client stranger(simulator.port(), Nobody);
        QVERIFY(stranger.isAttached);
        QCOMPARE(simulator.end(), Success);
        QCOMPARE(contentsOf(_simulation), before);
        QCOMPARE(QFileInfo(_simulation).lastModified(), written);
    }

    void oneFileIsNotNamedTwice_data()
    {
        QTest::addColumn<QStringList>("arguments");
        const QString simulation = _folder.filePath("a.ltvo");
        const QString otherSpelling
            = _folder.filePath("../" + QFileInfo(_folder.path()).fileName() + "/a.ltvo");
        const QString link = _folder.filePath("link");
        const QString dump = _folder.filePath("a.pcap");
        QTest::newRow("dump over simulation") << QStringList{simulation, "--capture", simulation};
        QTest::newRow("report over simulation") << QStringList{simulation, "--report", simulation};
        QTest::newRow("another spelling") << QStringList{simulation, "--capture", otherSpelling};
        QTest::newRow("through a link") << QStringList{simulation, "--report", link};
        QTest::newRow("through a hard link")
            << QStringList{simulation, "--report", _folder.filePath("hard link")};
        QTest::newRow("in a linked folder")
            << QStringList{simulation, "--capture", _folder.filePath("linked folder/a.ltvo")};
        QTest::newRow("dump and report") << QStringList{simulation, "--report", dump, "--capture", dump};
        QTest::newRow("dump and report through a link to nothing")
            << QStringList{simulation, "--report", _folder.filePath("link to the dump"), "--capture", dump};
        QTest::newRow("report and dump through a link to nothing")
            << QStringList{simulation, "--report", dump, "--capture", _folder.filePath("link to the dump")};
        QTest::newRow("dump and report in a linked folder") << QStringList{
            simulation, "--report", _folder.filePath("linked folder/a.pcap"), "--capture", dump};
        QTest::newRow("a simulation that is not there") << QStringList{dump, "--capture", dump};
    }

    void oneFileIsNotNamedTwice()
    {
        QFETCH(QStringList, arguments);
        QVERIFY(save({Link()}));
        const QByteArray before = contentsOf(_simulation);
        QFile::link(_simulation, _folder.filePath("link"));
        QFile::link(_dump, _folder.filePath("link to the dump"));
        QFile::link(_folder.path(), _folder.filePath("linked folder"));
        QCOMPARE(::link(QFile::encodeName(_simulation).constData(),
                        QFile::encodeName(_folder.filePath("hard link")).constData()),
                 0);
        Simulator simulator(arguments + QStringList{"--listen", "0", "--duration", "0.01"});
        QCOMPARE(simulator.exitCode(), WrongOption);
        QVERIFY(isOneLine(simulator.errors(), "is named twice"));
        QCOMPARE(contentsOf(_simulation), before);
        QVERIFY(!QFile::exists(_dump));
    }

    void aDeviceMayBeNamedTwice()
    {
        Simulator simulator(
            {"--listen", "0", "--duration", "0.01", "--capture", "/dev/null", "--report", "/dev/null"});
        QCOMPARE(simulator.exitCode(), Success);
    }

    void aPortInUseIsReported_data()
    {
        QTest::addColumn<bool>("isInFile");
        QTest::newRow("given as an option") << false;
        QTest::newRow("given in the simulation") << true;
    }

    void aPortInUseIsReported()
    {
        QFETCH(bool, isInFile);
        makeSimulation({});
        Network* network = NetworkSimulation::instance()->network();
        network->setTcpPort(0);
        QVERIFY(network->setTcpEnabled(true));
        const quint16 port = network->listeningPort();
        TestAccess::server(*network).port = isInFile ? port : 0;
        QVERIFY(NetworkSimulation::instance()->save(_simulation));  // and goes on listening

        Simulator simulator(isInFile ? QStringList{_simulation}
                                     : QStringList{_simulation, "--listen", QString::number(port)});
        QCOMPARE(simulator.exitCode(), PortNotOpened);
        QVERIFY(isOneLine(simulator.errors(), QStringLiteral("cannot open port %1").arg(port)));
        QCOMPARE(simulator.output(), QByteArray());
    }

    void anotherPortThanTheOneInUseCanBeGiven()
    {
        makeSimulation({Link()});
        Network* network = NetworkSimulation::instance()->network();
        network->setTcpPort(0);
        QVERIFY(network->setTcpEnabled(true));
        TestAccess::server(*network).port = network->listeningPort();
        QVERIFY(NetworkSimulation::instance()->save(_simulation));  // and goes on listening

        Simulator simulator({_simulation, "--listen", "0"});
        QVERIFY(Client(simulator.port(), A).isAttached);
        QCOMPARE(simulator.end(), Success);
        QCOMPARE(simulator.errors(), QByteArray());
    }

    void outputsThatCannotBeOpenedEndTheRunAtOnce_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("complaint");
        const QString nowhere = _folder.filePath("no/folder");
        QTest::newRow("dump in a missing folder")
            << QStringList{"--capture", nowhere} << int(DumpNotWritten) << "the dump " + nowhere;
        QTest::newRow("report in a missing folder")
            << QStringList{"--report", nowhere} << int(ReportNotWritten) << "the report " + nowhere;
        QTest::newRow("dump over a folder") << QStringList{"--capture", _folder.path()} << int(DumpNotWritten)
                                            << "the dump " + _folder.path();
        QTest::newRow("report over a folder") << QStringList{"--report", _folder.path()}
                                              << int(ReportNotWritten) << "the report " + _folder.path();
    }

    void outputsThatCannotBeOpenedEndTheRunAtOnce()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, complaint);
        Simulator simulator(arguments + QStringList{"--listen", "0"});
        QCOMPARE(simulator.exitCode(), exitCode);
        QVERIFY(isOneLine(simulator.errors(), "cannot write " + complaint));
        QCOMPARE(simulator.output(), QByteArray());
    }

    void aRefusedStartLeavesFilesAsTheyWere_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        const QString nowhere = _folder.filePath("no/folder");
        QTest::newRow("no simulation")
            << QStringList{nowhere, "--report", _report} << int(SimulationNotLoaded);
        QTest::newRow("a damaged simulation")
            << QStringList{_simulation, "--report", _report} << int(SimulationNotLoaded);
        QTest::newRow("a report in a missing folder")
            << QStringList{"--report", nowhere} << int(ReportNotWritten);
        QTest::newRow("a port that is taken")
            << QStringList{"--report", _report, "--listen", "taken"} << int(PortNotOpened);
    }

    void aRefusedStartLeavesFilesAsTheyWere()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QTcpServer server;
        QVERIFY(server.listen());
        arguments.replaceInStrings("taken", QString::number(server.serverPort()));
        const QString link = _folder.filePath("link");
        QVERIFY(writeFile(_simulation, "damaged") && QFile::link(_dump, link));

        Simulator overNewFiles(arguments + QStringList{"--capture", link});
        QCOMPARE(overNewFiles.exitCode(), exitCode);
        QVERIFY(!QFile::exists(_dump) && !QFile::exists(_report));
        QVERIFY(QFileInfo(link).isSymLink());

        QVERIFY(writeFile(_dump, "old dump") && writeFile(_report, "old report"));
        Simulator overOldFiles(arguments + QStringList{"--capture", link});
        QCOMPARE(overOldFiles.exitCode(), exitCode);
        QCOMPARE(contentsOf(_dump), QByteArray("old dump"));
        QCOMPARE(contentsOf(_report), QByteArray("old report"));
    }

    void aKilledRunLeavesFilesAsTheyWere()
    {
        QVERIFY(writeFile(_dump, "old dump") && writeFile(_report, "old report"));
        Simulator simulator({"--listen", "0", "--capture", _dump, "--report", _report});
        QVERIFY(simulator.port() != 0);
        simulator.signal(SIGKILL);
        QCOMPARE(simulator.exitCode(), NotEnded);
        QCOMPARE(contentsOf(_dump), QByteArray("old dump"));
        QCOMPARE(contentsOf(_report), QByteArray("old report"));
    }

    void outputsTakeThePlaceOfOlderFiles_data()
    {
        QTest::addColumn<int>("oldSize");
        QTest::newRow("empty ones") << 0;
        QTest::newRow("shorter ones") << 1;
        QTest::newRow("longer ones") << 100000;
    }

    void outputsTakeThePlaceOfOlderFiles()
    {
        QFETCH(int, oldSize);
        const QByteArray old(oldSize, '}');
        QVERIFY(writeFile(_dump, old) && writeFile(_report, old));
        Simulator simulator({"--listen", "0", "--duration", "0.01", "--capture", _dump, "--report", _report});
        QCOMPARE(simulator.exitCode(), Success);
        QCOMPARE(framesIn(_dump), QList<QByteArray>());
        QCOMPARE(reportIn(_report).value("endedBy"), QJsonValue("duration"));
    }

    void outputsThatCannotBeWrittenAreReported_data()
    {
        QTest::addColumn<bool>("isDump");
        QTest::addColumn<int>("exitCode");
        QTest::newRow("dump") << true << int(DumpNotWritten);
        QTest::newRow("report") << false << int(ReportNotWritten);
    }

    void outputsThatCannotBeWrittenAreReported()
    {
        QFETCH(bool, isDump);
        QFETCH(int, exitCode);
        const QString full = QStringLiteral("/dev/full");
        if (!QFile::exists(full))
            QSKIP("there is no /dev/full here: a full disk was not tested");
        Simulator simulator({"--listen", "0", "--duration", "0.01", "--capture", isDump ? full : _dump,
                             "--report", isDump ? _report : full});
        QCOMPARE(simulator.exitCode(), exitCode);
        QVERIFY(isOneLine(simulator.errors(), "/dev/full: No space left on device"));
        if (isDump)  // the other one is written
            QCOMPARE(reportIn(_report).value("endedBy"), QJsonValue("duration"));
        else
            QCOMPARE(contentsOf(_dump).size(), 24);
    }

    void aFullDiskForBothIsTwoLinesAndTheCodeOfTheDump()
    {
        if (!QFile::exists("/dev/full"))
            QSKIP("there is no /dev/full here: a full disk was not tested");
        Simulator simulator(
            {"--listen", "0", "--duration", "0.01", "--capture", "/dev/full", "--report", "/dev/full"});
        QCOMPARE(simulator.exitCode(), DumpNotWritten);
        QCOMPARE(simulator.errors().count('\n'), 2);
    }

private:
    bool save(const QList<Link>& links)
    {
        makeSimulation(links);
        return saveNow();
    }

    bool saveNow()
    {
        const bool isSaved = NetworkSimulation::instance()->save(_simulation);
        NetworkSimulation::deleteNetworkSimulation();
        return isSaved;
    }

    bool saveWithLargeFrames()
    {
        makeSimulation({Link(), Link()});
        TestAccess::parameters(*NetworkSimulation::instance()->network()).maximalTransferUnit
            = largeFrameSize;
        return saveNow();
    }

    /// Many large frames are under way from A to B, whose program has stopped to read.
    bool fill(Client& sleeper, Client& sender) const
    {
        sleeper.stopReading();
        const QByteArray large = frameBytes(B, A, QByteArray(largeFrameSize - 12, 'x'));
        for (int i = 0; i < manyLargeFrames; ++i) {
            sender.sendFrame(large);
            if (sender.next(ConfirmationMessage) != delivered)
                return false;
        }
        return true;
    }

    /// The run is over then, though not the process.
    bool waitForReport()
    {
        return QTest::qWaitFor([this] { return !contentsOf(_report).isEmpty(); }, processPatience);
    }

    /// 200 frames over lossyLink.
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

    QTemporaryDir _folder;
    QString _simulation = _folder.filePath("a.ltvo");  // save() writes it
    QString _dump = _folder.filePath("a.pcap");
    QString _report = _folder.filePath("a.json");
};

QTEST_MAIN(TestHeadless)
#include "tst_headless.moc"
