#include "nodes/tcpnode.h"

#include "nodes/tcpnodepropertieswidget.h"
#include "tcphelpers.h"

#include <QtTest>

#include <memory>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

using namespace TestHelpers;

namespace {

constexpr int lingerTime = 3000;  // ms

/// Fills the kernel's buffers, but leaves hardly anything in the simulator's own. Returns all bytes written.
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

    void itsPropertiesWidgetIsThatOfTcpNodes()
    {
        TcpNode* node = addTcpNode(QByteArray());
        const std::unique_ptr<QWidget> widget(node->propertiesWidget());

        QVERIFY(qobject_cast<TcpNodePropertiesWidget*>(widget.get()));
        QVERIFY(!widget->parent());
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

    // Programs that go

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

        // Lets the rest move into the kernel, but not reach the peer
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
};

QTEST_MAIN(TestTcpNode)
#include "tst_tcpnode.moc"
