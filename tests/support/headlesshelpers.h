#pragma once

#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "sockethelpers.h"
#include "testaccess.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

#include <unistd.h>

/// Starts the runner as a user's script does, and attaches programs to it.
namespace HeadlessHelpers {

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

inline const QByteArray delivered = hex("01");
inline const QByteArray lost = hex("02");
inline const QByteArray everybody = hex("FFFFFFFFFFFF");

enum NodeNumber { A = 1, B, C, D, E, F, G, H, Nobody };

inline QString nodeName(int node)
{
    return QString(QLatin1Char(static_cast<char>('A' + node - 1)));
}

inline QByteArray nodeAddress(int node)
{
    return hex("0200000000") + static_cast<char>(node);
}

inline QByteArray frameBytes(const QByteArray& destination, int source, const QByteArray& data = QByteArray())
{
    return destination + nodeAddress(source) + data;
}

inline QByteArray frameBytes(int destination, int source, const QByteArray& data = QByteArray())
{
    return frameBytes(nodeAddress(destination), source, data);
}

inline QList<QByteArray> numberedFrames(int count)
{
    QList<QByteArray> frames;
    for (int number = 0; number < count; ++number)
        frames.append(frameBytes(B, A, QByteArray::number(number).rightJustified(20, '0')));
    return frames;
}

/// Describes one link between two nodes, and how long they wait for confirmations.
struct Link {
    double reliability = 1.0;
    double errorDetection = 1.0;
    int delay = 0;      // ms
    int deviation = 0;  // ms
    int timeout = 1;    // ms
};

inline TcpNode* addNode(int number, int timeout)
{
    auto* node = new TcpNode(nodeAddress(number), nullptr);
    node->setName(nodeName(number));
    TestAccess::acknowledgeTimeout(*node) = timeout;
    NetworkSimulation::instance()->network()->addItem(node);
    return node;
}

inline void addPair(int number, const Link& link)
{
    TcpNode* first = addNode(number, link.timeout);
    auto* connection = new Connection(first, addNode(number + 1, link.timeout));
    TestAccess::reliability(*connection) = link.reliability;
    TestAccess::errorDetection(*connection) = link.errorDetection;
    TestAccess::delay(*connection) = link.delay;
    TestAccess::deviation(*connection) = link.deviation;
    NetworkSimulation::instance()->network()->addItem(connection);
}

/// Makes a simulation whose nodes want confirmations. The first link joins A and B, the second C and D...
inline void makeSimulation(const QList<Link>& links)
{
    Network* network = NetworkSimulation::newNetworkSimulation()->network();
    TestAccess::framesAcknowledged(*network->defaultNode()) = Qt::Checked;
    for (int i = 0; i < links.size(); ++i)
        addPair(2 * i + 1, links.at(i));
}

inline QByteArray contentsOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline bool writeFile(const QString& path, const QByteArray& contents)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size();
}

inline QJsonObject reportIn(const QString& path)
{
    return QJsonDocument::fromJson(contentsOf(path)).object();
}

inline QJsonObject nodeIn(const QJsonObject& report, int number)
{
    const QJsonArray nodes = report.value("nodes").toArray();
    for (const QJsonValue& node : nodes) {
        if (node.toObject().value("name") == nodeName(number))
            return node.toObject();
    }
    return QJsonObject();
}

inline QJsonObject traffic(int frames, int bytes)
{
    return {{"frames", frames}, {"bytes", bytes}};
}

inline int numberAt(const QByteArray& bytes, int offset)
{
    return bytes.mid(offset, 4).toHex().toInt(nullptr, 16);
}

/// Reads the frames of a dump by its documented form. A damaged dump gives a text in their place.
inline QList<QByteArray> framesIn(const QString& dump)
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

/// Returns the environment of a build server, which has no display and no desktop session.
inline QProcessEnvironment bareEnvironment()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "XDG_RUNTIME_DIR", "QT_QPA_PLATFORM"})
        environment.remove(name);
    // The leak checker would print a second line about leaks that it ignores
    environment.insert("LSAN_OPTIONS", environment.value("LSAN_OPTIONS") + ":print_suppressions=0");
    return environment;
}

/// Runs the program under test, as a user's script does.
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

    /// Waits for the line that names the port, and returns the port; 0 when the line does not come.
    quint16 port()
    {
        const QRegularExpression ready("^listening on port (\\d+)\n");
        while (!output().contains('\n') && _process.waitForReadyRead(processPatience)) { }
        return ready.match(QString::fromUtf8(output())).captured(1).toUShort();
    }

    /// Waits until the program ends.
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

    /// Returns the processor time that it has used so far, in ms; the kernel counts in steps of 10.
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

/// Tells whether there is one line, which names the program and holds \a part.
inline bool isOneLine(const QByteArray& errors, const QString& part)
{
    const bool isOne = errors.startsWith("lattivo-headless: ") && errors.indexOf('\n') == errors.size() - 1
        && errors.contains(part.toUtf8());
    if (!isOne)
        qWarning() << "expected" << part << "in" << errors;
    return isOne;
}

/// Plays a user's program, in this process.
class Client : public Program
{
public:
    Client() = default;
    Client(quint16 port, int node) { isAttached = attach(port, node); }

    /// Returns once the simulator has attached it. A byte behind the identification is too short for a frame;
    /// when the simulator reports it as lost, the program is attached.
    bool attach(quint16 port, int node)
    {
        if (!connectTo(port))
            return false;
        send(control(1, nodeAddress(node)) + message(FrameMessage, QByteArray(1, '\0')));
        return next(ConfirmationMessage) == lost;
    }

    /// Sends all in one piece, so that no message is cut.
    void sendFrames(const QList<QByteArray>& frames)
    {
        QByteArray messages;
        for (const QByteArray& frame : frames)
            messages += message(FrameMessage, frame);
        send(messages);
    }
    void sendFrame(const QByteArray& frame) { sendFrames({frame}); }

    /// Returns the body of the next message of this type and drops others; null when none comes.
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

constexpr int largeFrameSize = 16000;
constexpr int manyLargeFrames = 1000;  // they overflow the kernel's buffers, but not what the simulator keeps

/// Owns the files of a run, in a new folder. A test class inherits it.
class RunFiles
{
protected:
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

    /// Sends many large frames from A to B, whose program stops reading.
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

    void clear()
    {
        for (const QString& path : {_simulation, _dump, _report})
            QFile::remove(path);
        NetworkSimulation::deleteNetworkSimulation();
    }

    QTemporaryDir _folder;
    QString _simulation = _folder.filePath("a.ltvo");  // save() writes it
    QString _dump = _folder.filePath("a.pcap");
    QString _report = _folder.filePath("a.json");
};

}  // namespace HeadlessHelpers
