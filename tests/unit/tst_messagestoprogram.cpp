#include "nodes/tcpnode.h"

#include "tcphelpers.h"

#include <QTimer>
#include <QtTest>

#include <functional>

using namespace TestHelpers;

namespace {

/// Writes one message of each kind. Returns the bytes on the wire.
QByteArray writeEachKindOfMessage(TcpNode* node)
{
    node->dataIndication(hex("AA"));
    node->dataConfirmation(false);
    node->sendDebugCommand(TcpNode::StepDC);
    node->dataIndication(hex("BB"));
    return hex("01 00000001 AA  02 00000001 02  05 00000001 03  01 00000001 BB");
}

/// Runs \a deliveries within a pass of the timeouts, as links deliver their frames. Returns after that pass.
bool runInPass(const std::function<void()>& deliveries)
{
    Timeouts pass(deliveries);
    pass.start(0);
    return passTimeouts();
}

/// Delivers \a count frames of 1 MiB in one pass, each of another letter. Returns the bytes on the wire.
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

}  // namespace

/// Tests what a node writes to its program, and when.
class TestMessagesToProgram : public QObject
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

    // Message by message

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

    /// Sends messages that fit into the memory that the node keeps between passes, and some that do not.
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

    /// Leaves bytes unread at the program's end: the kernel resets the connection, and sending fails at once.
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
};

QTEST_MAIN(TestMessagesToProgram)
#include "tst_messagestoprogram.moc"
