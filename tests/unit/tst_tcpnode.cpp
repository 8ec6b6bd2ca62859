#include "nodes/tcpnode.h"

#include "network/networksimulation.h"
#include "nodes/tcpnodepropertieswidget.h"
#include "sockethelpers.h"
#include "testaccess.h"
#include "testhelpers.h"

#include <QApplication>
#include <QContextMenuEvent>
#include <QGraphicsSceneContextMenuEvent>
#include <QGraphicsView>
#include <QMenu>
#include <QTimer>
#include <QtTest>

#include <functional>
#include <memory>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

constexpr int lingerTime = 3000;  // ms
constexpr int megabyte = 1024 * 1024;
constexpr int burstSize = 300;   // frames
constexpr int muchInput = 2000;  // messages; more than a program may send before others have their turn
constexpr int connectedBit = 1;
constexpr int disabledBit = 2;
const QByteArray marker
    = hex("05 00000001 06");  // the Identify command: shows that nothing was sent before it

Network* network()
{
    return NetworkSimulation::instance()->network();
}

/// In the network, which owns it.
template <typename Identity> TcpNode* addTcpNode(const Identity& identity, QTcpSocket* socket = nullptr)
{
    auto* node = new TcpNode(identity, socket);
    network()->addItem(node);
    return node;
}

/// A TCP node of the network with its program.
struct AttachedNode : SocketPair {
    explicit AttachedNode(const QByteArray& address = QByteArray())
        : node(addTcpNode(address, nodeEnd))
    {
    }

    bool waitUntilDetached() const
    {
        QSignalSpy changes(node, SIGNAL(connectionStateChanged()));
        return !node->socket() || (changes.wait(patience) && !node->socket());
    }

    TcpNode* node;
};

/// Frames of three bytes: destination, source, one byte of data.
void useOneByteAddresses()
{
    auto& parameters = TestAccess::parameters(*network());
    parameters.addressLength = 1;
    parameters.sourceAddressOffset = 1;
    parameters.broadcastAddress = hex("FF");
}

/// Frame messages from BB to AA, each of another length or letter; in all what one read takes.
QByteArray burstOfFrames()
{
    QByteArray bytes;
    for (int i = 0; i < burstSize; ++i)
        bytes += message(1, hex("AABB") + QByteArray(1 + i % 200, static_cast<char>(i)));
    return bytes;
}

/// Returns the bytes on the wire.
QByteArray writeEachKindOfMessage(TcpNode* node)
{
    node->dataIndication(hex("AA"));
    node->dataConfirmation(false);
    node->sendDebugCommand(TcpNode::StepDC);
    node->dataIndication(hex("BB"));
    return hex("01 00000001 AA  02 00000001 02  05 00000001 03  01 00000001 BB");
}

/// As links deliver their frames: within a pass of the timeouts. Returns when that pass is over.
bool runInPass(const std::function<void()>& deliveries)
{
    Timeouts pass(deliveries);
    pass.start(0);
    return TestHelpers::passTimeouts();
}

/// Frame messages of \a count MiB, each of another letter, as one pass delivers them. Returns the bytes on
/// the wire.
QByteArray deliverInOnePass(TcpNode* node, int count)
{
    QByteArray delivered;
    const bool isOver = runInPass([&] {
        for (int i = 0; i < count; ++i) {
            const QByteArray frame(megabyte, static_cast<char>('A' + i));
            node->dataIndication(frame);
            delivered += message(1, frame);
        }
    });
    return isOver ? delivered : QByteArray();
}

/// Leaves bytes in the simulator's own buffer, behind those that the kernel takes. Returns all that was
/// written.
QByteArray writeMoreThanTheKernelTakes(AttachedNode& attached)
{
    attached.program.stopReading();
    QByteArray written;
    for (int i = 0; i < 32; ++i) {
        const QByteArray frame(megabyte, static_cast<char>('A' + i));
        attached.node->dataIndication(frame);
        written += message(1, frame);
    }
    const qint64 allBytes = attached.nodeEnd->bytesToWrite();
    QSignalSpy sendings(attached.nodeEnd, SIGNAL(bytesWritten(qint64)));
    sendings.wait(patience);
    attached.nodeEnd->flush();
    return attached.nodeEnd->bytesToWrite() < allBytes ? written : QByteArray();
}

/// As above, but the simulator's own buffer holds hardly anything.
QByteArray writeLittleMoreThanTheKernelTakes(AttachedNode& attached)
{
    attached.program.stopReading();
    const QByteArray frame(32 * 1024, 'x');
    QByteArray written;
    QSignalSpy sendings(attached.nodeEnd, SIGNAL(bytesWritten(qint64)));
    do {
        if (written.size() > 64 * megabyte)
            return QByteArray();
        attached.node->dataIndication(frame);
        written += message(1, frame);
    } while (sendings.wait(100));
    return written;
}

/// Looks at the open debug menu and answers it, while the node shows it.
class MenuUser : public QObject
{
    Q_OBJECT

public:
    using Answer = std::function<void(QMenu*)>;

    explicit MenuUser(const Answer& answer)
        : _answer(answer)
    {
        connect(&_timer, SIGNAL(timeout()), this, SLOT(lookForMenu()));
        _timer.start(1);
    }

    bool hasAnswered() const { return _hasAnswered; }

private slots:
    void lookForMenu()
    {
        auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget());
        if (!menu)
            return;
        _timer.stop();
        _hasAnswered = true;
        _answer(menu);
    }

private:
    Answer _answer;
    QTimer _timer;
    bool _hasAnswered = false;
};

void dismiss(QMenu* menu)
{
    QTest::keyClick(menu, Qt::Key_Escape);
}

MenuUser::Answer choose(const QString& text)
{
    return [text](QMenu* menu) {
        const QList<QAction*> entries = menu->actions();
        for (QAction* entry : entries) {
            if (entry->text() == text) {
                menu->setActiveAction(entry);
                QTest::keyClick(menu, Qt::Key_Return);
                return;
            }
        }
        dismiss(menu);
    };
}

/// A request for the context menu at \a node; returns when the menu has been answered.
void requestContextMenu(const Node* node)
{
    QGraphicsSceneContextMenuEvent event(QEvent::GraphicsSceneContextMenu);
    event.setScenePos(node->scenePos());
    event.setScreenPos(QPoint(100, 100));
    QApplication::sendEvent(network(), &event);
}

/// What messages from the program can change.
struct NodeState {
    explicit NodeState(TcpNode& node)
        : name(node.name())
        , address(node.address())
        , activeColor(TestAccess::activeColor(node))
        , inactiveColor(TestAccess::inactiveColor(node))
        , flags(TestAccess::flags(node) & ~connectedBit)
        , sendFrames(node.sendFramesCount())
    {
    }

    bool operator==(const NodeState& other) const
    {
        return name == other.name && address == other.address && activeColor == other.activeColor
            && inactiveColor == other.inactiveColor && flags == other.flags && sendFrames == other.sendFrames;
    }

    QString name;
    QByteArray address;
    QColor activeColor;
    QColor inactiveColor;
    int flags;
    qint64 sendFrames;
};

void addRow(const QByteArray& bytes)
{
    QTest::newRow(bytes.toHex(' ').constData()) << bytes;
}

}  // namespace

class TestTcpNode : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        qsrand(1);
        NetworkSimulation::newNetworkSimulation();
    }

    void cleanup()
    {
        NetworkSimulation::deleteNetworkSimulation();
        QVERIFY(TestAccess::allTcpNodes().isEmpty());
    }

    // Attaching and detaching

    void aNodeWithoutASocketIsUnattachedAndInactive()
    {
        TcpNode* node = addTcpNode(QStringLiteral("Left"));

        QCOMPARE(node->name(), QStringLiteral("Left"));
        QVERIFY(node->address().isEmpty());
        QVERIFY(!node->socket());
        QVERIFY(!node->active());
        QCOMPARE(TestAccess::flags(*node), 0);
    }

    void aNodeIsAttachedAtItsConstruction()
    {
        SocketPair named;
        SocketPair addressed;
        TcpNode* byName = addTcpNode(QStringLiteral("Left"), named.nodeEnd);
        TcpNode* byAddress = addTcpNode(hex("0102"), addressed.nodeEnd);

        QCOMPARE(byName->name(), QStringLiteral("Left"));
        QVERIFY(byName->address().isEmpty());
        QCOMPARE(byName->socket(), named.nodeEnd.data());
        QVERIFY(byAddress->name().isEmpty());
        QCOMPARE(byAddress->address(), hex("0102"));
        QCOMPARE(byAddress->socket(), addressed.nodeEnd.data());
    }

    void itsKindIsThatOfTcpNodesInFiles()
    {
        const TcpNode node(QByteArray(), nullptr);

        QCOMPARE(node.type(), 65536);
        QCOMPARE(node.nodeType(), 1);
    }

    void livingNodesAreListedInOrderOfConstruction()
    {
        const auto first = std::make_unique<TcpNode>(QStringLiteral("1"), nullptr);
        auto second = std::make_unique<TcpNode>(QByteArray("2"), nullptr);
        const auto third = std::make_unique<TcpNode>(QStringLiteral("3"), nullptr);
        QCOMPARE(TestAccess::allTcpNodes(), (QList<TcpNode*>{first.get(), second.get(), third.get()}));

        second.reset();
        QCOMPARE(TestAccess::allTcpNodes(), (QList<TcpNode*>{first.get(), third.get()}));
    }

    void aConnectedSocketMakesTheNodeActive()
    {
        SocketPair pair;
        TcpNode* node = addTcpNode(QByteArray());
        QSignalSpy changes(node, SIGNAL(connectionStateChanged()));
        node->setSocket(pair.nodeEnd);

        QCOMPARE(node->socket(), pair.nodeEnd.data());
        QCOMPARE(pair.nodeEnd->parent(), node);
        QVERIFY(node->active());
        QCOMPARE(TestAccess::flags(*node), connectedBit);
        QCOMPARE(changes.count(), 1);
    }

    void anUnconnectedSocketIsNeitherAdoptedNorDeleted()
    {
        const QPointer<QTcpSocket> socket = new QTcpSocket(network());
        TcpNode* node = addTcpNode(QByteArray());
        QSignalSpy changes(node, SIGNAL(connectionStateChanged()));
        node->setSocket(socket);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);

        QVERIFY(socket);
        QCOMPARE(socket->parent(), network());
        QVERIFY(!node->socket());
        QVERIFY(!node->active());
        QCOMPARE(changes.count(), 0);
    }

    void anUnconnectedSocketStillEndsTheOldConnection()
    {
        AttachedNode attached;
        QTcpSocket unconnected;
        attached.node->setSocket(&unconnected);

        QVERIFY(!attached.node->socket());
        QVERIFY(attached.program.waitForEnd());
    }

    void attachingLeavesADisabledNodeInactive()
    {
        SocketPair pair;
        TcpNode* node = addTcpNode(QByteArray());
        node->setActive(false, true);
        node->setSocket(pair.nodeEnd);

        QVERIFY(!node->active());
        QCOMPARE(TestAccess::flags(*node), connectedBit | disabledBit);
    }

    void itsSocketSendsWithoutDelay()
    {
        const AttachedNode attached;

        int noDelay = 0;
        socklen_t size = sizeof noDelay;
        const auto descriptor = static_cast<int>(attached.nodeEnd->socketDescriptor());
        QCOMPARE(getsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &noDelay, &size), 0);
        QVERIFY(noDelay != 0);
    }

    void theSameSocketAgainIsClosed()
    {
        AttachedNode attached;
        attached.node->setSocket(attached.nodeEnd);

        QVERIFY(!attached.node->socket());
        QVERIFY(!attached.node->active());
        QVERIFY(attached.program.waitForEnd());
        QTRY_VERIFY(!attached.nodeEnd);
    }

    void theSameSocketAgainWithUnsentBytesIsDeletedAtOnce()
    {
        AttachedNode attached;
        QVERIFY(!writeMoreThanTheKernelTakes(attached).isEmpty());
        attached.node->setSocket(attached.nodeEnd);

        QVERIFY(!attached.nodeEnd);
        QVERIFY(!attached.node->socket());
    }

    void aNewSocketReplacesTheOldOne()
    {
        AttachedNode attached;
        SocketPair other;
        attached.node->setSocket(other.nodeEnd);

        QVERIFY(attached.program.waitForEnd());
        QTRY_VERIFY(!attached.nodeEnd);
        QCOMPARE(attached.node->socket(), other.nodeEnd.data());
        QVERIFY(attached.node->active());
        attached.node->sendDebugCommand(TcpNode::IdentifyDC);
        QCOMPARE(other.program.receive(marker.size()), marker);
    }

    void replacingASocketTellsOfBothChanges()
    {
        AttachedNode attached;
        SocketPair other;
        QSignalSpy changes(attached.node, SIGNAL(connectionStateChanged()));
        attached.node->setSocket(other.nodeEnd);

        QCOMPARE(changes.count(), 2);
    }

    void settingNoSocketDetaches()
    {
        AttachedNode attached;
        QSignalSpy changes(attached.node, SIGNAL(connectionStateChanged()));
        attached.node->setSocket(nullptr);

        QVERIFY(!attached.node->socket());
        QVERIFY(!attached.node->active());
        QCOMPARE(changes.count(), 1);
        QVERIFY(attached.program.waitForEnd());
        QTRY_VERIFY(!attached.nodeEnd);
    }

    void anOldSocketWithUnsentBytesIsDeletedAtOnce()
    {
        AttachedNode attached;
        QVERIFY(!writeMoreThanTheKernelTakes(attached).isEmpty());
        QSignalSpy changes(attached.node, SIGNAL(connectionStateChanged()));
        attached.node->setSocket(nullptr);

        QVERIFY(!attached.nodeEnd);
        QVERIFY(!attached.node->socket());
        QVERIFY(!attached.node->active());
        QCOMPARE(changes.count(), 1);
    }

    void theEndOfTheProgramDetaches()
    {
        AttachedNode attached;
        QSignalSpy changes(attached.node, SIGNAL(connectionStateChanged()));
        attached.program.close();

        QVERIFY(changes.wait(patience));
        QVERIFY(!attached.node->socket());
        QVERIFY(!attached.node->active());
        QCOMPARE(changes.count(), 1);
        QTRY_VERIFY(!attached.nodeEnd);
    }

    void aKilledProgramDetaches()
    {
        AttachedNode attached;
        attached.node->sendDebugCommand(TcpNode::RunContDC);  // unread: the kernel answers with a reset
        attached.program.abort();

        QVERIFY(attached.waitUntilDetached());
        QTRY_VERIFY(!attached.nodeEnd);
    }

    void aDetachedNodeCanBeAttachedAgain()
    {
        AttachedNode attached;
        attached.program.close();
        QVERIFY(attached.waitUntilDetached());
        SocketPair other;
        attached.node->setSocket(other.nodeEnd);

        QVERIFY(attached.node->active());
        other.program.send(control(5, "again"));
        QTRY_COMPARE(attached.node->name(), QStringLiteral("again"));
    }

    void deletingTheNodeClosesItsSocket()
    {
        AttachedNode attached;
        delete attached.node;

        QVERIFY(!attached.nodeEnd);
        QVERIFY(attached.program.waitForEnd());
    }

    void deletingTheNetworkClosesItsSockets()
    {
        AttachedNode idle;
        AttachedNode busy;
        QVERIFY(!writeMoreThanTheKernelTakes(busy).isEmpty());
        NetworkSimulation::deleteNetworkSimulation();

        QVERIFY(!idle.nodeEnd);
        QVERIFY(!busy.nodeEnd);
        QVERIFY(idle.program.waitForEnd());
    }

    // To the program

    void aFrameIsWrittenWithItsLength()
    {
        AttachedNode attached;
        attached.node->dataIndication(hex("AABBCC"));
        attached.node->dataIndication(QByteArray(0x1234, 'x'));

        QCOMPARE(attached.program.receive(8), hex("01 00000003 AABBCC"));
        QCOMPARE(attached.program.receive(5 + 0x1234), hex("01 00001234") + QByteArray(0x1234, 'x'));
    }

    void anEmptyFrameIsNotWritten()
    {
        AttachedNode attached;
        attached.node->dataIndication(QByteArray());
        attached.node->dataIndication(QByteArray(""));
        attached.node->dataIndication(QByteArray(1, '\0'));

        QCOMPARE(attached.program.receive(6), hex("01 00000001 00"));
    }

    void confirmationsAreWritten_data()
    {
        QTest::addColumn<bool>("delivered");
        QTest::addColumn<QByteArray>("bytes");

        QTest::newRow("delivered") << true << hex("02 00000001 01");
        QTest::newRow("not delivered") << false << hex("02 00000001 02");
    }

    void confirmationsAreWritten()
    {
        QFETCH(bool, delivered);
        QFETCH(QByteArray, bytes);

        AttachedNode attached;
        attached.node->dataConfirmation(delivered);
        attached.node->sendDebugCommand(TcpNode::IdentifyDC);
        QCOMPARE(attached.program.receive(bytes.size() + marker.size()), bytes + marker);
    }

    void debugCommandsAreWritten_data()
    {
        QTest::addColumn<int>("command");
        QTest::addColumn<QByteArray>("bytes");

        QTest::newRow("invalid") << int{TcpNode::InvalidDC} << hex("05 00000001 00");
        QTest::newRow("run/continue") << int{TcpNode::RunContDC} << hex("05 00000001 01");
        QTest::newRow("pause") << int{TcpNode::PauseDC} << hex("05 00000001 02");
        QTest::newRow("step") << int{TcpNode::StepDC} << hex("05 00000001 03");
        QTest::newRow("reset") << int{TcpNode::ResetDC} << hex("05 00000001 04");
        QTest::newRow("quit") << int{TcpNode::QuitDC} << hex("05 00000001 05");
        QTest::newRow("identify") << int{TcpNode::IdentifyDC} << hex("05 00000001 06");
    }

    void debugCommandsAreWritten()
    {
        QFETCH(int, command);
        QFETCH(QByteArray, bytes);

        AttachedNode attached;
        attached.node->sendDebugCommand(static_cast<TcpNode::DebugCommand>(command));
        QCOMPARE(attached.program.receive(bytes.size()), bytes);
    }

    void nothingIsKeptForALaterProgram()
    {
        SocketPair pair;
        TcpNode* node = addTcpNode(QByteArray());
        node->dataIndication(hex("AABBCC"));
        node->dataConfirmation(true);
        node->sendDebugCommand(TcpNode::QuitDC);
        node->setSocket(pair.nodeEnd);
        node->sendDebugCommand(TcpNode::IdentifyDC);

        QCOMPARE(pair.program.receive(marker.size()), marker);
    }

    void messagesArriveInOrder()
    {
        AttachedNode attached;
        const QByteArray expected = writeEachKindOfMessage(attached.node);
        QCOMPARE(attached.program.receive(expected.size()), expected);
    }

    void exactly64MiBOfUnsentBytesAreKept()
    {
        AttachedNode attached;
        const QByteArray frame(megabyte - 5, 'x');  // a mebibyte with type and length
        for (int i = 0; i < 64; ++i)
            attached.node->dataIndication(frame);

        QCOMPARE(attached.nodeEnd->bytesToWrite(), qint64{64} * megabyte);
        QVERIFY(attached.node->active());
    }

    void moreThan64MiBOfUnsentBytesCloseTheSocket()
    {
        AttachedNode attached;
        attached.program.stopReading();
        const QByteArray frame(megabyte - 5, 'x');
        for (int i = 0; i < 64; ++i)
            attached.node->dataIndication(frame);
        QSignalSpy changes(attached.node, SIGNAL(connectionStateChanged()));
        attached.node->sendDebugCommand(TcpNode::IdentifyDC);

        QVERIFY(!attached.node->socket());
        QVERIFY(!attached.node->active());
        QCOMPARE(changes.count(), 1);
        QCOMPARE(attached.nodeEnd->bytesToWrite(), qint64{0});
        QTRY_VERIFY(!attached.nodeEnd);
        QVERIFY(attached.program.waitForEnd());
    }

    // Within a pass of deliveries

    void messagesOfOnePassArriveInOrder()
    {
        AttachedNode attached;
        QByteArray expected;
        QVERIFY(runInPass([&] { expected = writeEachKindOfMessage(attached.node); }));
        QCOMPARE(attached.program.receive(expected.size()), expected);
    }

    /// Some small enough for the memory that the node keeps from one to the next, some not.
    void messagesOfManyPassesArriveInOrder()
    {
        AttachedNode attached;
        QByteArray expected;
        for (int i = 0; i < 60; ++i) {
            const QByteArray frame(1 << i % 20, static_cast<char>('A' + i));
            const auto deliver = [&] { attached.node->dataIndication(frame); };
            QVERIFY(runInPass(deliver));
            deliver();  // and some outside of any
            expected += message(1, frame) + message(1, frame);
        }

        QVERIFY(attached.program.receive(expected.size()) == expected);
    }

    void aPassThatTheKernelTakesInPartArrivesWhole()
    {
        AttachedNode attached;
        attached.program.stopReading();
        const QByteArray first = deliverInOnePass(attached.node, 32);
        const qint64 unsent = attached.nodeEnd->bytesToWrite();
        QVERIFY(unsent > 0);
        QVERIFY(unsent < first.size());
        const QByteArray second = deliverInOnePass(attached.node, 4);
        QVERIFY(!second.isEmpty());
        attached.program.resumeReading();

        QVERIFY(attached.program.receive(first.size()) == first);
        QVERIFY(attached.program.receive(second.size()) == second);
    }

    void aPassFollowsWhatWaitsInTheSocket()
    {
        AttachedNode attached;
        const QByteArray before = writeMoreThanTheKernelTakes(attached);
        QVERIFY(!before.isEmpty());
        const QByteArray pass = deliverInOnePass(attached.node, 2);
        QVERIFY(!pass.isEmpty());
        attached.program.resumeReading();

        QVERIFY(attached.program.receive(before.size()) == before);
        QVERIFY(attached.program.receive(pass.size()) == pass);
    }

    void moreThan64MiBInOnePassCloseTheSocket()
    {
        AttachedNode attached;
        const QByteArray frame(megabyte - 5, 'x');  // a mebibyte with type and length
        bool isKept = false;
        QVERIFY(runInPass([&] {
            for (int i = 0; i < 64; ++i)
                attached.node->dataIndication(frame);
            isKept = attached.node->socket() != nullptr;
            attached.node->sendDebugCommand(TcpNode::IdentifyDC);
            attached.node->dataIndication(frame);
        }));

        QVERIFY(isKept);
        QVERIFY(!attached.node->socket());
        QVERIFY(!attached.node->active());
        QCOMPARE(attached.program.receiveAll(), QByteArray());
    }

    void messagesFromAnEventLoopWithinAPassKeepTheirPlace()
    {
        AttachedNode attached;
        bool isSent = false;
        const auto sendCommand = [&] {
            attached.node->sendDebugCommand(TcpNode::StepDC);
            isSent = true;
        };
        QVERIFY(runInPass([&] {
            attached.node->dataIndication(hex("AA"));
            QTimer::singleShot(0, attached.node, sendCommand);
            if (QTest::qWaitFor([&] { return isSent; }, patience))
                attached.node->dataIndication(hex("BB"));
        }));

        const QByteArray expected = hex("01 00000001 AA  05 00000001 03  01 00000001 BB");
        QCOMPARE(attached.program.receive(expected.size()), expected);
    }

    void aProgramThatGoesWithinAPassDetaches_data()
    {
        QTest::addColumn<bool>("isKilled");

        QTest::newRow("closed") << false;
        QTest::newRow("killed") << true;
    }

    void aProgramThatGoesWithinAPassDetaches()
    {
        QFETCH(bool, isKilled);

        AttachedNode attached;
        QSignalSpy changes(attached.node, SIGNAL(connectionStateChanged()));
        const auto deliver = [&] { attached.node->dataIndication(QByteArray(1000, 'x')); };
        QVERIFY(runInPass([&] {
            deliver();
            if (isKilled)
                attached.program.abort();
            else
                attached.program.close();
            deliver();
        }));
        QVERIFY(runInPass(deliver));

        QTRY_VERIFY(!attached.node->socket());
        QVERIFY(!attached.node->active());
        QTRY_VERIFY(!attached.nodeEnd);
        QCOMPARE(changes.count(), 1);
    }

    /// With bytes that it has not read the program's end is reset, and sending fails at once.
    void aProgramThatIsGoneBeforeItsMessagesAreSentDetaches()
    {
        AttachedNode attached;
        attached.program.stopReading();
        QVERIFY(!deliverInOnePass(attached.node, 1).isEmpty());
        QSignalSpy changes(attached.node, SIGNAL(connectionStateChanged()));
        QVERIFY(runInPass([&] {
            attached.program.abort();
            attached.node->dataIndication(hex("AA"));
            attached.node->dataIndication(hex("BB"));
        }));

        QTRY_VERIFY(!attached.node->socket());
        QVERIFY(!attached.node->active());
        QTRY_VERIFY(!attached.nodeEnd);
        QCOMPARE(changes.count(), 1);
    }

    void aNodeMayGoWhileMessagesWaitForTheEndOfAPass()
    {
        AttachedNode attached;
        QVERIFY(runInPass([&] {
            attached.node->dataIndication(hex("AA"));
            delete attached.node;
        }));

        QVERIFY(!attached.nodeEnd);
        QVERIFY(attached.program.waitForEnd());
    }

    void aNewProgramGetsNothingOfItsPredecessorsPass()
    {
        AttachedNode attached;
        SocketPair other;
        QVERIFY(runInPass([&] {
            attached.node->dataIndication(hex("AA"));
            attached.node->setSocket(other.nodeEnd);
            attached.node->sendDebugCommand(TcpNode::IdentifyDC);
        }));

        QCOMPARE(other.program.receive(marker.size()), marker);
        QVERIFY(attached.program.waitForEnd());
    }

    void aProtocolErrorWithinAPassLosesNoMessageBeforeIt()
    {
        AttachedNode attached;
        bool isDetached = false;
        QVERIFY(runInPass([&] {
            attached.node->dataIndication(hex("AA"));
            attached.program.send(hex("06"));
            isDetached = attached.waitUntilDetached();
            attached.node->dataIndication(hex("BB"));
        }));

        QVERIFY(isDetached);
        QCOMPARE(attached.program.receiveAll(), hex("01 00000001 AA"));
    }

    // From the program

    void aFrameIsSent()
    {
        AttachedNode attached;
        attached.program.send(hex("01 00000003 AABBCC"));

        QTRY_COMPARE(attached.node->sendFramesCount(), qint64{1});
        QCOMPARE(attached.node->sendBytesCount(), qint64{3});
        QVERIFY(attached.node->active());
    }

    void aLargeFrameIsReadWhole()
    {
        AttachedNode attached;
        const QByteArray frame(40000, 'x');
        attached.program.send(message(1, frame));

        QTRY_COMPARE(attached.node->sendFramesCount(), qint64{1});
        QCOMPARE(attached.node->sendBytesCount(), qint64{frame.size()});
        QVERIFY(attached.node->active());
    }

    void writesThatFollowOneAnotherAreAllRead()
    {
        AttachedNode attached;
        for (int count = 1; count <= 50; ++count) {
            attached.program.send(message(1, QByteArray(count, 'x')));
            QTRY_COMPARE(attached.node->sendFramesCount(), qint64{count});
        }
        QVERIFY(attached.node->active());
    }

    void aFrameReachesTheProgramAtTheOtherEnd()
    {
        useOneByteAddresses();
        AttachedNode left(hex("BB"));
        AttachedNode right(hex("AA"));
        network()->addItem(new Connection(left.node, right.node));
        left.program.send(hex("01 00000003 AABBCC"));

        QCOMPARE(right.program.receive(8), hex("01 00000003 AABBCC"));
    }

    void aBurstReachesTheProgramAtTheOtherEndInOrder()
    {
        useOneByteAddresses();
        AttachedNode left(hex("BB"));
        AttachedNode right(hex("AA"));
        network()->addItem(new Connection(left.node, right.node));
        const QByteArray burst = burstOfFrames();
        left.program.send(burst);

        QVERIFY(right.program.receive(burst.size()) == burst);
    }

    void confirmationsReachTheSender()
    {
        useOneByteAddresses();
        AttachedNode left(hex("BB"));
        AttachedNode right(hex("AA"));
        network()->addItem(new Connection(left.node, right.node));
        TestAccess::framesAcknowledged(*left.node) = Qt::Checked;
        TestAccess::acknowledgeTimeout(*left.node) = 50;
        left.program.send(hex("01 00000003 AABBCC"));
        QCOMPARE(left.program.receive(6), hex("02 00000001 01"));

        left.program.send(hex("01 00000003 DDBBCC"));  // an address that no node has
        QCOMPARE(left.program.receive(6), hex("02 00000001 02"));
    }

    void eachFrameOfABurstIsConfirmed()
    {
        useOneByteAddresses();
        AttachedNode left(hex("BB"));
        AttachedNode right(hex("AA"));
        network()->addItem(new Connection(left.node, right.node));
        TestAccess::framesAcknowledged(*left.node) = Qt::Checked;
        TestAccess::acknowledgeTimeout(*left.node) = patience;
        left.program.send(burstOfFrames());

        const QByteArray expected = hex("02 00000001 01").repeated(burstSize);
        QCOMPARE(left.program.receive(expected.size()), expected);
    }

    void aProgramThatSendsMuchLetsTheOthersIn()
    {
        AttachedNode busy;
        AttachedNode other;
        busy.program.send(hex("01 00000001 AA").repeated(muchInput));
        other.program.send(hex("01 00000001 BB"));
        QSignalSpy sendings(other.node, SIGNAL(sendStatisticsChanged(int, int)));

        QVERIFY(sendings.wait(patience));
        QVERIFY(busy.node->sendFramesCount() < muchInput);
        QTRY_COMPARE(busy.node->sendFramesCount(), qint64{muchInput});
    }

    void allThatAProgramSendsBeforeItGoesIsHandled()
    {
        AttachedNode attached;
        attached.program.send(hex("01 00000001 AA").repeated(muchInput));
        attached.program.close();

        QVERIFY(attached.waitUntilDetached());
        QCOMPARE(attached.node->sendFramesCount(), qint64{muchInput});
    }

    /// Confirmations that nobody takes make the kernel reset the connection.
    void allThatAProgramSendsBeforeItResetsTheConnectionIsHandled()
    {
        useOneByteAddresses();
        AttachedNode attached;
        TestAccess::framesAcknowledged(*attached.node) = Qt::Checked;
        attached.program.send(hex("01 00000002 FFBB").repeated(muchInput));
        attached.program.close();

        QVERIFY(attached.waitUntilDetached());
        QCOMPARE(attached.node->sendFramesCount(), qint64{muchInput});
    }

    void aProtocolErrorFarBehindClosesTheConnection()
    {
        AttachedNode attached;
        attached.program.send(hex("01 00000001 AA").repeated(muchInput) + hex("06") + hex("01 00000001 BB"));

        QVERIFY(attached.waitUntilDetached());
        QCOMPARE(attached.node->sendFramesCount(), qint64{muchInput});
    }

    /// The socket reads on while it lingers, although it has stopped before: its input would hold it up for 3
    /// s.
    void aProtocolErrorFarBehindLosesNothingWrittenBefore()
    {
        AttachedNode attached;
        attached.node->dataIndication(hex("AA"));
        attached.program.send(hex("01 00000001 AA").repeated(muchInput) + hex("06"));
        QVERIFY(attached.waitUntilDetached());
        attached.program.send(QByteArray(megabyte, 'x'));

        QCOMPARE(attached.program.receiveAll(), hex("01 00000001 AA"));
        QTRY_VERIFY_WITH_TIMEOUT(!attached.nodeEnd, 1000);
    }

    void largeMessagesLetTheOthersInSooner()
    {
        constexpr int size = 10000;
        constexpr int count = 9;
        AttachedNode busy;
        AttachedNode other;
        busy.program.send(message(1, QByteArray(size, 'x')).repeated(count));
        other.program.send(hex("01 00000001 BB"));
        QSignalSpy sendings(other.node, SIGNAL(sendStatisticsChanged(int, int)));

        QVERIFY(sendings.wait(patience));
        QVERIFY(busy.node->sendFramesCount() < count);
        QTRY_COMPARE(busy.node->sendFramesCount(), qint64{count});
    }

    void aNewProgramIsReadFromItsOwnBeginning()
    {
        AttachedNode attached;
        SocketPair other;
        QSignalSpy sendings(attached.node, SIGNAL(sendStatisticsChanged(int, int)));
        attached.program.send(hex("01 00000001 AA").repeated(muchInput));
        QVERIFY(sendings.wait(patience));
        attached.node->setSocket(other.nodeEnd);
        attached.node->resetStatistics();
        other.program.send(hex("01 00000003 AABBCC"));

        QTRY_COMPARE(attached.node->sendFramesCount(), qint64{1});
        QCOMPARE(attached.node->sendBytesCount(), qint64{3});
        QVERIFY(attached.node->active());
    }

    void nothingIsReadWhileAProgramHasMessagesToBeHandled()
    {
        AttachedNode attached;
        const QByteArray input = hex("01 00000001 AA").repeated(muchInput);
        qint64 mostUnread = 0;
        bool isFirst = true;
        connect(attached.node, &Node::sendStatisticsChanged, this, [&] {
            if (isFirst)
                attached.program.send(input);
            isFirst = false;
            mostUnread = std::max(mostUnread, attached.nodeEnd->bytesAvailable());
        });
        attached.program.send(input);

        QTRY_COMPARE(attached.node->sendFramesCount(), qint64{2} * muchInput);
        QCOMPARE(mostUnread, qint64{input.size()});
    }

    void anEmptyFrameIsARequestToo_data()
    {
        QTest::addColumn<QByteArray>("bytes");

        addRow(hex("01 00000000"));
        addRow(hex("01 FFFFFFFF"));  // the length of a null array
    }

    void anEmptyFrameIsARequestToo()
    {
        QFETCH(QByteArray, bytes);

        AttachedNode attached;
        attached.program.send(bytes + hex("01 00000001 AA"));
        QTRY_COMPARE(attached.node->sendFramesCount(), qint64{2});
        QCOMPARE(attached.node->sendBytesCount(), qint64{1});
        QVERIFY(attached.node->active());
    }

    void messagesInOneWriteAreAllHandled()
    {
        AttachedNode attached;
        attached.program.send(hex("01 00000002 AABB") + control(5, "Left") + hex("04 00000002 0707")
                              + hex("01 00000001 CC") + control(3, QByteArray()));

        QTRY_COMPARE(TestAccess::flags(*attached.node) & disabledBit, disabledBit);
        QCOMPARE(attached.node->sendFramesCount(), qint64{2});
        QCOMPARE(attached.node->sendBytesCount(), qint64{3});
        QCOMPARE(attached.node->name(), QStringLiteral("Left"));
        QVERIFY(attached.node->socket());
    }

    void anAddressOfTheSameLengthReplacesThePresentOne()
    {
        AttachedNode attached(hex("0102"));  // not the network's length
        attached.program.send(hex("03 00000003 01 0A0B"));

        QTRY_COMPARE(attached.node->address(), hex("0A0B"));
    }

    void aNodeWithoutAddressTakesOneOfTheNetworksLength()
    {
        AttachedNode attached;
        attached.program.send(hex("03 00000007 01 020000000005"));

        QTRY_COMPARE(attached.node->address(), hex("020000000005"));
    }

    void anAddressOfAnotherLengthIsReadAndDropped_data()
    {
        QTest::addColumn<QByteArray>("present");
        QTest::addColumn<QByteArray>("sent");

        QTest::newRow("shorter") << hex("0102") << hex("0A");
        QTest::newRow("longer") << hex("0102") << hex("0A0B0C");
        QTest::newRow("the network's") << hex("0102") << hex("020000000005");
        QTest::newRow("none") << hex("0102") << QByteArray();
        QTest::newRow("no address yet, too short") << QByteArray() << hex("0200000000");
        QTest::newRow("no address yet, too long") << QByteArray() << hex("02000000000506");
    }

    void anAddressOfAnotherLengthIsReadAndDropped()
    {
        QFETCH(QByteArray, present);
        QFETCH(QByteArray, sent);

        AttachedNode attached(present);
        attached.program.send(control(1, sent) + control(5, "next"));
        QTRY_COMPARE(attached.node->name(), QStringLiteral("next"));
        QCOMPARE(attached.node->address(), present);
        QVERIFY(attached.node->socket());
    }

    void theProgramDisablesAndEnablesTheNode()
    {
        AttachedNode attached;
        attached.program.send(hex("03 00000001 03"));
        QTRY_COMPARE(TestAccess::flags(*attached.node), connectedBit | disabledBit);
        QVERIFY(!attached.node->active());

        attached.program.send(hex("03 00000001 02"));
        QTRY_COMPARE(TestAccess::flags(*attached.node), connectedBit);
        QVERIFY(attached.node->active());
    }

    void dataAnnouncedBehindAnActivationIsTheNextMessage_data()
    {
        QTest::addColumn<int>("subType");

        QTest::newRow("enable") << 2;
        QTest::newRow("disable") << 3;
    }

    void dataAnnouncedBehindAnActivationIsTheNextMessage()
    {
        QFETCH(int, subType);

        AttachedNode attached;
        attached.program.send(control(subType, control(5, "data")));
        QTRY_COMPARE(attached.node->name(), QStringLiteral("data"));
        QVERIFY(attached.node->socket());
    }

    void anActivationOfLengthZeroIsUnderstood()
    {
        AttachedNode attached;
        attached.program.send(hex("03 00000000 03") + control(5, "next"));

        QTRY_COMPARE(attached.node->name(), QStringLiteral("next"));
        QCOMPARE(TestAccess::flags(*attached.node), connectedBit | disabledBit);
    }

    void aColorSetsTheActiveAndAPalerInactiveOne_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QColor>("active");
        QTest::addColumn<QColor>("inactive");

        QTest::newRow("even") << hex("03 00000004 04 408020") << QColor(64, 128, 32) << QColor(182, 214, 166);
        QTest::newRow("odd") << hex("03 00000004 04 010305") << QColor(1, 3, 5) << QColor(150, 151, 152);
        QTest::newRow("black") << hex("03 00000004 04 000000") << QColor(0, 0, 0) << QColor(150, 150, 150);
        QTest::newRow("brightest") << hex("03 00000004 04 D3D3D3") << QColor(211, 211, 211)
                                   << QColor(255, 255, 255);
    }

    void aColorSetsTheActiveAndAPalerInactiveOne()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QColor, active);
        QFETCH(QColor, inactive);

        AttachedNode attached;
        attached.program.send(bytes);
        QTRY_COMPARE(TestAccess::activeColor(*attached.node), active);
        QCOMPARE(TestAccess::inactiveColor(*attached.node), inactive);
    }

    void aBrightColorLeavesTheInactiveOneUndecided_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QColor>("active");

        QTest::newRow("orange") << hex("03 00000004 04 FF8000") << QColor(255, 128, 0);
        QTest::newRow("red just too bright") << hex("03 00000004 04 D40000") << QColor(212, 0, 0);
        QTest::newRow("green just too bright") << hex("03 00000004 04 00D400") << QColor(0, 212, 0);
        QTest::newRow("blue just too bright") << hex("03 00000004 04 0000D4") << QColor(0, 0, 212);
    }

    void aBrightColorLeavesTheInactiveOneUndecided()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QColor, active);

        AttachedNode attached;
        attached.node->setInactiveColor(Qt::red);
        attached.program.send(bytes);
        QTRY_COMPARE(TestAccess::activeColor(*attached.node), active);
        QVERIFY(!TestAccess::inactiveColor(*attached.node).isValid());
    }

    void aColorOfAnotherLengthIsTheNextMessage()
    {
        AttachedNode attached;
        attached.program.send(control(4, control(5, "data")));
        QTRY_COMPARE(attached.node->name(), QStringLiteral("data"));
        attached.program.send(controlOfLength(0, 4, control(5, "more")));
        QTRY_COMPARE(attached.node->name(), QStringLiteral("more"));

        QVERIFY(!TestAccess::activeColor(*attached.node).isValid());
        QVERIFY(attached.node->socket());
    }

    void aNameIsTakenAsUtf8UpToAZeroByte_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("name");

        QTest::newRow("ASCII") << hex("03 00000006 05 4C696E6B73") << QStringLiteral("Links");
        QTest::newRow("UTF-8") << hex("03 00000006 05 5AC3BC6765") << QString::fromUtf8("Z\xC3\xBCge");
        QTest::newRow("zero byte within") << hex("03 00000006 05 4142004344") << QStringLiteral("AB");
        QTest::newRow("zero byte first") << hex("03 00000003 05 0041") << QString();
        QTest::newRow("empty") << hex("03 00000001 05") << QString();
    }

    void aNameIsTakenAsUtf8UpToAZeroByte()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, name);

        AttachedNode attached;
        attached.node->setName(QStringLiteral("before"));
        attached.program.send(bytes);
        QTRY_COMPARE(attached.node->name(), name);
        QVERIFY(attached.node->socket());
    }

    void anIgnoredMessageLeavesTheConnectionOpen_data()
    {
        QTest::addColumn<QByteArray>("bytes");

        addRow(hex("04 00000000"));
        addRow(hex("04 FFFFFFFF"));
        addRow(hex("04 00000003 070707"));  // whose body would close the connection
    }

    void anIgnoredMessageLeavesTheConnectionOpen()
    {
        QFETCH(QByteArray, bytes);

        AttachedNode attached;
        attached.program.send(bytes + control(5, "next"));
        QTRY_COMPARE(attached.node->name(), QStringLiteral("next"));
        QVERIFY(attached.node->active());
    }

    void goodbyeClosesTheConnection_data()
    {
        QTest::addColumn<QByteArray>("bytes");

        addRow(hex("07 00000000"));
        addRow(hex("07 FFFFFFFF"));
        addRow(hex("07 00000002 ABCD"));
        addRow(hex("07 00000006 03 00000001 03"));  // whose body would disable the node
    }

    void goodbyeClosesTheConnection()
    {
        QFETCH(QByteArray, bytes);

        AttachedNode attached;
        QSignalSpy changes(attached.node, SIGNAL(connectionStateChanged()));
        attached.program.send(bytes);
        QVERIFY(attached.program.waitForEnd());
        QVERIFY(!attached.node->socket());
        QCOMPARE(TestAccess::flags(*attached.node), 0);
        QCOMPARE(changes.count(), 1);
        QTRY_VERIFY(!attached.nodeEnd);
    }

    void unknownMessageTypesCloseTheConnection()
    {
        for (int type = 0; type <= 255; ++type) {
            if (type == 1 || type == 3 || type == 4 || type == 7)
                continue;
            AttachedNode attached;
            attached.program.send(QByteArray(1, static_cast<char>(type)));
            QVERIFY2(attached.program.waitForEnd(), qPrintable(QString::number(type)));
            QVERIFY2(!attached.node->socket() && !attached.node->active(), qPrintable(QString::number(type)));
        }
    }

    void unknownControlTypesCloseTheConnection()
    {
        for (int subType = 0; subType <= 255; ++subType) {
            if (subType >= 1 && subType <= 5)
                continue;
            AttachedNode attached;
            attached.program.send(control(subType, QByteArray()));
            QVERIFY2(attached.program.waitForEnd(), qPrintable(QString::number(subType)));
            QVERIFY2(!attached.node->socket() && !attached.node->active(),
                     qPrintable(QString::number(subType)));
        }
    }

    void nothingBehindAProtocolErrorIsActedUpon()
    {
        AttachedNode attached;
        attached.program.send(hex("06") + control(5, "too late") + hex("01 00000001 AA"));

        QVERIFY(attached.program.waitForEnd());
        QVERIFY(attached.node->name().isEmpty());
        QCOMPARE(attached.node->sendFramesCount(), qint64{0});
    }

    // Damage

    void anIncompleteMessageIsNotActedUpon_data()
    {
        QTest::addColumn<QByteArray>("whole");

        QTest::newRow("frame") << hex("01 00000003 AABBCC");
        QTest::newRow("address") << hex("03 00000007 01 020000000005");
        QTest::newRow("enable") << hex("03 00000001 02");
        QTest::newRow("disable") << hex("03 00000001 03");
        QTest::newRow("colour") << hex("03 00000004 04 408020");
        QTest::newRow("name") << hex("03 00000006 05 4C696E6B73");
        QTest::newRow("ignored") << hex("04 00000003 AABBCC");
        QTest::newRow("goodbye") << hex("07 00000003 AABBCC");
    }

    void anIncompleteMessageIsNotActedUpon()
    {
        QFETCH(QByteArray, whole);

        for (int length = 1; length < whole.size(); ++length) {
            AttachedNode attached;
            const NodeState before(*attached.node);
            attached.program.send(whole.left(length));
            QVERIFY2(attached.program.waitForEnd(), qPrintable(QString::number(length)));
            QVERIFY2(!attached.node->socket(), qPrintable(QString::number(length)));
            QVERIFY2(NodeState(*attached.node) == before, qPrintable(QString::number(length)));
        }
    }

    void theRestOfAnIncompleteMessageComesTooLate()
    {
        AttachedNode attached;
        attached.program.send(hex("03 00000006 05 4C69"));
        QVERIFY(attached.waitUntilDetached());
        attached.program.send(hex("6E6B73"));

        QVERIFY(attached.program.waitForEnd());
        QVERIFY(attached.node->name().isEmpty());
    }

    void whatCameBeforeAnIncompleteMessageIsActedUpon()
    {
        AttachedNode attached;
        attached.program.send(hex("01 00000003 AABBCC  01 00000003 AABB"));

        QVERIFY(attached.program.waitForEnd());
        QCOMPARE(attached.node->sendFramesCount(), qint64{1});
        QCOMPARE(attached.node->sendBytesCount(), qint64{3});
    }

    void aHostileLengthClosesTheConnectionAndTakesNoMemory_data()
    {
        QTest::addColumn<QByteArray>("bytes");

        const char* const lengths[]
            = {"FFFFFFFE", "80000001", "80000000", "7FFFFFFF", "7FFFFFF0", "40000000"};
        for (const char* length : lengths) {
            for (const char* type : {"01", "04", "07"})
                addRow(hex(type) + hex(length) + QByteArray(20, 'x'));
            for (const char* subType : {"01", "05"})
                addRow(hex("03") + hex(length) + hex(subType) + QByteArray(20, 'x'));
        }
        for (const char* subType : {"01", "05"}) {
            addRow(hex("03 FFFFFFFF") + hex(subType) + QByteArray(20, 'x'));
            addRow(hex("03 00000000") + hex(subType) + QByteArray(20, 'x'));  // one byte less than nothing
        }
    }

    void aHostileLengthClosesTheConnectionAndTakesNoMemory()
    {
        QFETCH(QByteArray, bytes);

        AttachedNode attached;
        const NodeState before(*attached.node);
        const qint64 memoryBefore = peakMemory();
        QVERIFY(memoryBefore > 0);
        attached.program.send(bytes);

        QVERIFY(attached.program.waitForEnd());
        QVERIFY(NodeState(*attached.node) == before);
        QVERIFY(peakMemory() - memoryBefore < unremarkableMemory);
    }

    // Closing with unsent bytes

    void aProtocolErrorDetachesAtOnceWhileThePeerDoesNotRead()
    {
        AttachedNode attached;
        QVERIFY(!writeMoreThanTheKernelTakes(attached).isEmpty());
        QSignalSpy changes(attached.node, SIGNAL(connectionStateChanged()));
        attached.program.send(hex("06"));

        QVERIFY(changes.wait(lingerTime / 3));
        QVERIFY(!attached.node->socket());
        QCOMPARE(TestAccess::flags(*attached.node), 0);
        QVERIFY(attached.nodeEnd);  // still has bytes to send
    }

    void whatWasWrittenBeforeAProtocolErrorIsStillSent()
    {
        AttachedNode attached;
        const QByteArray written = writeMoreThanTheKernelTakes(attached);
        QVERIFY(!written.isEmpty());
        attached.program.send(hex("06"));
        QVERIFY(attached.waitUntilDetached());
        attached.program.resumeReading();

        QVERIFY(attached.program.receiveAll() == written);
        QTRY_VERIFY(!attached.nodeEnd);
    }

    void aPeerThatStillWritesGetsWhatWasWrittenBefore()
    {
        AttachedNode attached;
        const QByteArray written = writeLittleMoreThanTheKernelTakes(attached);
        QVERIFY(!written.isEmpty());
        attached.program.send(hex("06"));
        QVERIFY(attached.waitUntilDetached());
        attached.program.send(hex("01 00000003 AABBCC"));

        // Enough for the rest to move into the kernel, not enough to reach the peer
        attached.program.resumeReading(written.size() / 2);
        QTRY_VERIFY(!attached.nodeEnd || attached.nodeEnd->bytesToWrite() == 0);
        attached.program.send(hex("01 00000003 AABBCC"));
        attached.program.resumeReading();
        QVERIFY(attached.program.receiveAll() == written);
        QCOMPARE(attached.node->sendFramesCount(), qint64{0});
    }

    void aLingeringSocketIsDroppedAfterThreeSeconds()
    {
        AttachedNode attached;
        QVERIFY(!writeMoreThanTheKernelTakes(attached).isEmpty());
        QSignalSpy endOfSocket(attached.nodeEnd, SIGNAL(destroyed()));
        attached.program.send(hex("06"));
        QVERIFY(attached.waitUntilDetached());
        QElapsedTimer sinceDetached;
        sinceDetached.start();

        QVERIFY(endOfSocket.wait(2 * lingerTime));
        QVERIFY(sinceDetached.elapsed() > lingerTime - 500);
    }

    void aLingeringSocketLeavesAReattachedNodeAlone()
    {
        AttachedNode attached;
        QVERIFY(!writeMoreThanTheKernelTakes(attached).isEmpty());
        attached.program.send(hex("06"));
        QVERIFY(attached.waitUntilDetached());
        SocketPair other;
        attached.node->setSocket(other.nodeEnd);
        QSignalSpy changes(attached.node, SIGNAL(connectionStateChanged()));
        QSignalSpy endOfSocket(attached.nodeEnd, SIGNAL(destroyed()));
        attached.program.send(control(5, "late"));
        attached.program.abort();

        QVERIFY(endOfSocket.wait(2 * lingerTime));
        QCOMPARE(attached.node->socket(), other.nodeEnd.data());
        QVERIFY(attached.node->active());
        QVERIFY(attached.node->name().isEmpty());
        QCOMPARE(changes.count(), 0);
    }

    void aLingeringSocketOutlivesItsNode()
    {
        AttachedNode attached;
        const QByteArray written = writeMoreThanTheKernelTakes(attached);
        QVERIFY(!written.isEmpty());
        attached.program.send(hex("06"));
        QVERIFY(attached.waitUntilDetached());
        delete attached.node;
        attached.program.resumeReading();

        QVERIFY(attached.program.receiveAll() == written);
    }

    void aLingeringSocketGoesWithTheNetwork()
    {
        AttachedNode attached;
        QVERIFY(!writeMoreThanTheKernelTakes(attached).isEmpty());
        attached.program.send(hex("06"));
        QVERIFY(attached.waitUntilDetached());
        QVERIFY(attached.nodeEnd);
        NetworkSimulation::deleteNetworkSimulation();

        QVERIFY(!attached.nodeEnd);
    }

    // Debug commands by the user

    void aCommandGoesToAllNodesWhenNothingIsSelected()
    {
        AttachedNode first;
        addTcpNode(QByteArray());  // has no program and is passed over
        AttachedNode second;
        TcpNode::sendDebugCommandToSelectedOrAll(TcpNode::StepDC);

        QCOMPARE(first.program.receive(6), hex("05 00000001 03"));
        QCOMPARE(second.program.receive(6), hex("05 00000001 03"));
    }

    void aCommandGoesToTheSelectedNodeOnly()
    {
        AttachedNode first;
        AttachedNode second;
        second.node->setSelected(true);
        TcpNode::sendDebugCommandToSelectedOrAll(TcpNode::PauseDC);
        first.node->sendDebugCommand(TcpNode::IdentifyDC);

        QCOMPARE(second.program.receive(6), hex("05 00000001 02"));
        QCOMPARE(first.program.receive(6), marker);
    }

    void aCommandGoesNowhereWhenAPlainNodeIsSelected()
    {
        AttachedNode attached;
        auto* plain = new Node(QByteArray());
        network()->addItem(plain);
        plain->setSelected(true);
        TcpNode::sendDebugCommandToSelectedOrAll(TcpNode::PauseDC);
        attached.node->sendDebugCommand(TcpNode::IdentifyDC);

        QCOMPARE(attached.program.receive(6), marker);
    }

    void aCommandGoesNowhereWhenAConnectionIsSelected()
    {
        AttachedNode first;
        AttachedNode second;
        auto* connection = new Connection(first.node, second.node);
        network()->addItem(connection);
        connection->setSelected(true);
        QCOMPARE(network()->selectedNetworkItem(), connection);
        TcpNode::sendDebugCommandToSelectedOrAll(TcpNode::PauseDC);
        first.node->sendDebugCommand(TcpNode::IdentifyDC);
        second.node->sendDebugCommand(TcpNode::IdentifyDC);

        QCOMPARE(first.program.receive(6), marker);
        QCOMPARE(second.program.receive(6), marker);
    }

    void theContextMenuListsTheCommands()
    {
        QStringList entries;
        QStringList withoutIcon;
        const MenuUser user([&](QMenu* menu) {
            const QList<QAction*> actions = menu->actions();
            for (const QAction* action : actions) {
                entries.append(action->isSeparator() ? QStringLiteral("-") : action->text());
                if (!action->isSeparator() && action->icon().availableSizes().isEmpty())
                    withoutIcon.append(action->text());
            }
            dismiss(menu);
        });
        requestContextMenu(addTcpNode(QByteArray()));

        QVERIFY(user.hasAnswered());
        const QStringList expected = {"Identify", "-", "Run/Continue", "Pause", "Step", "Reset", "Quit"};
        QCOMPARE(entries, expected);
        QCOMPARE(withoutIcon, QStringList());
    }

    void theContextMenuOpensAtTheEventsPosition()
    {
        QPoint position;
        const MenuUser user([&](QMenu* menu) {
            position = menu->pos();
            dismiss(menu);
        });
        requestContextMenu(addTcpNode(QByteArray()));

        QCOMPARE(position, QPoint(100, 100));
    }

    void theContextMenuBelongsToTheFocusWidget()
    {
        QWidget window;
        window.setFocusPolicy(Qt::StrongFocus);
        window.show();
        window.activateWindow();
        window.setFocus();
        QTRY_COMPARE(QApplication::focusWidget(), &window);

        const QWidget* parent = nullptr;
        QPointer<QMenu> shown;
        const MenuUser user([&](QMenu* menu) {
            shown = menu;
            parent = menu->parentWidget();
            dismiss(menu);
        });
        requestContextMenu(addTcpNode(QByteArray()));
        QCOMPARE(parent, &window);
        QVERIFY(user.hasAnswered());
        QVERIFY(!shown);
    }

    void theContextMenuSelectsItsNodeAlone()
    {
        TcpNode* other = addTcpNode(QByteArray());
        other->setPos(500, 500);
        other->setSelected(true);
        TcpNode* node = addTcpNode(QByteArray());
        const MenuUser user(dismiss);
        requestContextMenu(node);

        QVERIFY(user.hasAnswered());
        QCOMPARE(network()->selectedItems(), QList<QGraphicsItem*>{node});
    }

    void aContextMenuEntrySendsItsCommand_data()
    {
        QTest::addColumn<QString>("entry");
        QTest::addColumn<QByteArray>("bytes");

        QTest::newRow("identify") << "Identify" << hex("05 00000001 06");
        QTest::newRow("run/continue") << "Run/Continue" << hex("05 00000001 01");
        QTest::newRow("pause") << "Pause" << hex("05 00000001 02");
        QTest::newRow("step") << "Step" << hex("05 00000001 03");
        QTest::newRow("reset") << "Reset" << hex("05 00000001 04");
        QTest::newRow("quit") << "Quit" << hex("05 00000001 05");
    }

    void aContextMenuEntrySendsItsCommand()
    {
        QFETCH(QString, entry);
        QFETCH(QByteArray, bytes);

        AttachedNode attached;
        const MenuUser user(choose(entry));
        requestContextMenu(attached.node);
        QVERIFY(user.hasAnswered());
        QCOMPARE(attached.program.receive(bytes.size()), bytes);
    }

    void aContextMenuEntryGoesToItsNodeOnly()
    {
        AttachedNode other;
        other.node->setPos(500, 500);
        AttachedNode attached;
        const MenuUser user(choose(QStringLiteral("Reset")));
        requestContextMenu(attached.node);
        other.node->sendDebugCommand(TcpNode::IdentifyDC);

        QCOMPARE(attached.program.receive(6), hex("05 00000001 04"));
        QCOMPARE(other.program.receive(6), marker);
    }

    void dismissingTheContextMenuSendsNothing()
    {
        AttachedNode attached;
        const MenuUser user(dismiss);
        requestContextMenu(attached.node);
        QVERIFY(user.hasAnswered());
        attached.node->sendDebugCommand(TcpNode::IdentifyDC);

        QCOMPARE(attached.program.receive(6), marker);
    }

    void theNodeMayGoWhileItsContextMenuIsOpen()
    {
        AttachedNode attached;
        const MenuUser user([&](QMenu* menu) {
            delete attached.node;
            choose(QStringLiteral("Quit"))(menu);
        });
        requestContextMenu(attached.node);

        QVERIFY(user.hasAnswered());
        QVERIFY(attached.program.receiveAll().isEmpty());
    }

    void aRightClickInAViewOpensTheContextMenu()
    {
        AttachedNode attached;
        QGraphicsView view(network());
        view.resize(300, 300);
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));

        const MenuUser user(choose(QStringLiteral("Step")));
        const QPoint position = view.mapFromScene(attached.node->scenePos());
        QContextMenuEvent event(QContextMenuEvent::Mouse, position, view.viewport()->mapToGlobal(position));
        QApplication::sendEvent(view.viewport(), &event);
        QVERIFY(user.hasAnswered());
        QCOMPARE(attached.program.receive(6), hex("05 00000001 03"));
    }

    void itsPropertiesWidgetIsThatOfTcpNodes()
    {
        TcpNode* node = addTcpNode(QByteArray());
        const std::unique_ptr<QWidget> widget(node->propertiesWidget());

        QVERIFY(qobject_cast<TcpNodePropertiesWidget*>(widget.get()));
        QVERIFY(!widget->parent());
    }
};

QTEST_MAIN(TestTcpNode)
#include "tst_tcpnode.moc"
