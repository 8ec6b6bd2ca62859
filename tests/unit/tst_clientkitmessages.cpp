#include "clientfixture.h"

#include <QByteArray>
#include <QtTest>

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <linux/sockios.h>

#include <atomic>
#include <cstdlib>
#include <thread>

namespace {

constexpr int smallBuffer = 16 * 1024;  // bytes

std::atomic<int> allocations{0};

}  // namespace

// The linker leads the library's own calls here.
extern "C" {

void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* memory, size_t size);

void* __wrap_malloc(size_t size)
{
    ++allocations;
    return __real_malloc(size);
}

void* __wrap_calloc(size_t count, size_t size)
{
    ++allocations;
    return __real_calloc(count, size);
}

void* __wrap_realloc(void* memory, size_t size)
{
    ++allocations;
    return __real_realloc(memory, size);
}
}

class TestClientKitMessages : public QObject
{
    Q_OBJECT

private slots:
    // Sending

    void messagesLeaveTogetherAndInOrder()
    {
        const Pair pair;
        QCOMPARE(lattivo_send_frame(pair.client, "\x02\x01\x41", 3, 0), LATTIVO_OK);
        QCOMPARE(lattivo_send_address(pair.client, "\x02\0\0\0\0\x03", 6, 0), LATTIVO_OK);
        QCOMPARE(lattivo_send_active(pair.client, true, 0), LATTIVO_OK);
        QCOMPARE(lattivo_send_active(pair.client, false, 0), LATTIVO_OK);
        QCOMPARE(lattivo_send_colour(pair.client, 0x40, 0x80, 0x20, 0), LATTIVO_OK);
        QCOMPARE(lattivo_send_name(pair.client, "Left", 0), LATTIVO_OK);
        QCOMPARE(lattivo_send_frame(pair.client, nullptr, 0, 0), LATTIVO_OK);
        QCOMPARE(lattivo_timeout(pair.client), 0);
        QVERIFY(!pair.peer->isReadable(0));

        const QByteArray expected = hex("01 00000003 020141"
                                        "03 00000007 01 020000000003"
                                        "03 00000001 02"
                                        "03 00000001 03"
                                        "03 00000004 04 408020"
                                        "03 00000005 05 4C656674"
                                        "01 00000000");
        QCOMPARE(lattivo_flush(pair.client, 0), LATTIVO_OK);
        QCOMPARE(lattivo_timeout(pair.client), -1);
        QCOMPARE(pair.peer->receive(expected.size()), expected);
    }

    void receivingSendsWhatIsQueued()
    {
        Pair pair;
        lattivo_send_frame(pair.client, "\x41", 1, 0);
        QCOMPARE(pair.receive(0), LATTIVO_AGAIN);
        QCOMPARE(pair.peer->receive(6), hex("01 00000001 41"));
    }

    void receivingSendsNothingWhileMessagesAreHere()
    {
        Pair pair;
        pair.peer->send(hex("02 00000001 01 02 00000001 01"));
        QCOMPARE(pair.receive(), LATTIVO_OK);
        lattivo_send_frame(pair.client, "\x41", 1, 0);
        QCOMPARE(pair.receive(0), LATTIVO_OK);
        QVERIFY(!pair.peer->isReadable(0));
        QCOMPARE(pair.receive(0), LATTIVO_AGAIN);
        QCOMPARE(pair.peer->receive(6), hex("01 00000001 41"));
    }

    void aFullQueueLeavesByItself()
    {
        const Pair pair;
        const QByteArray frame(1000, 'f');
        for (int i = 0; i < 100; ++i)
            QCOMPARE(lattivo_send_frame(pair.client, frame.constData(), frame.size(), 0), LATTIVO_OK);
        QVERIFY(pair.peer->isReadable());
        QCOMPARE(pair.peer->unreadBytes() % (LATTIVO_HEADER_SIZE + frame.size()), 0);
    }

    void theLargestFrameIsSentAndALargerOneRefused()
    {
        const Pair pair;
        const auto limit = static_cast<int>(lattivo_largest_frame(pair.client));
        QVERIFY(limit > 10000);
        const QByteArray frame(limit + 1, 'f');
        lattivo_send_frame(pair.client, "a", 1, 0);
        QCOMPARE(lattivo_send_frame(pair.client, frame.constData(), limit + 1, 0), LATTIVO_TOO_LARGE);
        QVERIFY2(pair.client.error().contains(QStringLiteral("a segment of %1 bytes").arg(limit + 5)),
                 qPrintable(pair.client.error()));
        QCOMPARE(lattivo_send_frame(pair.client, frame.constData(), limit, 0), LATTIVO_OK);
        QCOMPARE(lattivo_flush(pair.client, 0), LATTIVO_OK);
        QCOMPARE(pair.peer->receive(6 + 5 + limit).size(), 6 + 5 + limit);
        QVERIFY(!pair.peer->isReadable(0));
    }

    void aSizeBeyondAllMemoryIsRefused()
    {
        const Pair pair;
        QCOMPARE(lattivo_send_frame(pair.client, "a", SIZE_MAX, 0), LATTIVO_TOO_LARGE);
        QCOMPARE(lattivo_send_address(pair.client, "a", SIZE_MAX, 0), LATTIVO_TOO_LARGE);
    }

    void aFrameOfMissingBytesIsRefused()
    {
        const Pair pair;
        QCOMPARE(lattivo_send_frame(pair.client, nullptr, 1, 0), LATTIVO_WRONG_USE);
    }

    /// What waits in the kernel behind the window is cut after 200 ms.
    void whatDoesNotFitIntoTheWindowIsNotGivenToTheKernel()
    {
        const Pair pair(lattivo_options{}, smallBuffer);
        _fillWindow(pair.client);
        int unsent = 0;
        QCOMPARE(::ioctl(lattivo_descriptor(pair.client), SIOCOUTQNSD, &unsent), 0);
        QCOMPARE(unsent, 0);
        QCOMPARE(pair.peer->unreadBytes() % _messageSize, 0);
    }

    void aFullWindowIsLookedAtAgain()
    {
        const Pair pair(lattivo_options{}, smallBuffer);
        _fillWindow(pair.client);
        QVERIFY(!lattivo_wants_write(pair.client));
        QCOMPARE(lattivo_timeout(pair.client), 1);
        QCOMPARE(lattivo_flush(pair.client, 1), LATTIVO_AGAIN);
        QCOMPARE(pair.client.error(), QStringLiteral("there is no room to send within the given time"));
        pair.peer->receive(pair.peer->unreadBytes());
        QCOMPARE(lattivo_flush(pair.client, patience), LATTIVO_OK);
        QCOMPARE(lattivo_timeout(pair.client), -1);
    }

    /// The word that it has opened may get lost.
    void aFullWindowIsProbed()
    {
        const Pair pair(lattivo_options{}, smallBuffer);
        QVERIFY(!_isProbed(pair.client));
        _fillWindow(pair.client);
        QVERIFY(_isProbed(pair.client));
    }

    void sendingToAClosedConnectionFailsWithoutASignal()
    {
        const Pair pair;
        pair.peer->close();
        lattivo_result result = LATTIVO_OK;
        for (int i = 0; i < patience && result == LATTIVO_OK; ++i) {
            lattivo_send_frame(pair.client, "a", 1, 0);
            result = lattivo_flush(pair.client, 1);
        }
        QCOMPARE(result, LATTIVO_CLOSED);
        QVERIFY(pair.client.error().startsWith("the connection to 127.0.0.1 port "));
    }

    void aFullWindowOfAClosedConnectionIsNotWaitedFor()
    {
        const Pair pair(lattivo_options{}, smallBuffer);
        _fillWindow(pair.client);
        pair.peer->close();
        QCOMPARE(lattivo_flush(pair.client, -1), LATTIVO_CLOSED);
    }

    // Receiving

    void allMessagesAreUnderstood()
    {
        Pair pair;
        pair.peer->send(hex("01 0000000E 020000000002020000000001 4142"
                            "02 00000001 01"
                            "02 00000001 02"
                            "05 00000001 06"
                            "01 FFFFFFFF"));
        QCOMPARE(pair.receive(), LATTIVO_OK);
        QCOMPARE(pair.message.type, LATTIVO_MESSAGE_FRAME);
        QCOMPARE(pair.frame(), hex("020000000002020000000001 4142"));
        QVERIFY(lattivo_has_more(pair.client));
        QCOMPARE(pair.receive(0), LATTIVO_OK);
        QCOMPARE(pair.message.type, LATTIVO_MESSAGE_CONFIRMATION);
        QCOMPARE(pair.message.outcome, LATTIVO_DELIVERED);
        QCOMPARE(pair.receive(0), LATTIVO_OK);
        QCOMPARE(pair.message.outcome, LATTIVO_LOST);
        QCOMPARE(pair.receive(0), LATTIVO_OK);
        QCOMPARE(pair.message.type, LATTIVO_MESSAGE_DEBUG_COMMAND);
        QCOMPARE(pair.message.command, LATTIVO_COMMAND_IDENTIFY);
        QVERIFY(lattivo_has_more(pair.client));
        QCOMPARE(pair.receive(0), LATTIVO_OK);
        QCOMPARE(pair.message.type, LATTIVO_MESSAGE_FRAME);
        QCOMPARE(pair.message.size, size_t{0});
        QVERIFY(!lattivo_has_more(pair.client));
        QCOMPARE(pair.receive(0), LATTIVO_AGAIN);
    }

    void aMessageInPiecesIsJoined()
    {
        Pair pair;
        const QByteArray bytes = hex("01 00000003 414243");
        for (int i = 0; i < bytes.size(); ++i) {
            QCOMPARE(pair.receive(0), LATTIVO_AGAIN);
            QVERIFY(!lattivo_has_more(pair.client));
            pair.peer->send(bytes.mid(i, 1));
        }
        QCOMPARE(pair.receive(), LATTIVO_OK);
        QCOMPARE(pair.frame(), QByteArray("ABC"));
    }

    void manyFramesArriveWhole()
    {
        Pair pair;
        QByteArray bytes;
        for (int i = 0; i < 2000; ++i)
            bytes += hex("01 00000060") + QByteArray(96, static_cast<char>(i));
        std::thread sending([&] { pair.peer->send(bytes); });
        int intact = 0;
        for (int i = 0; i < 2000 && pair.receive() == LATTIVO_OK; ++i)
            intact += pair.frame() == QByteArray(96, static_cast<char>(i)) ? 1 : 0;
        sending.join();
        QCOMPARE(intact, 2000);
    }

    void theLargestFrameIsReceived()
    {
        Pair pair(_optionsForFramesOf(100));
        pair.peer->send(hex("01 00000064") + QByteArray(100, 'f'));
        QCOMPARE(pair.receive(), LATTIVO_OK);
        QCOMPARE(pair.message.size, size_t{100});
    }

    void aFrameThatIsTooLargeIsRefusedBeforeItArrives()
    {
        Pair pair(_optionsForFramesOf(100));
        pair.peer->send(hex("01 00000065"));
        QCOMPARE(pair.receive(), LATTIVO_FRAME_TOO_LARGE);
        QVERIFY2(pair.client.error().endsWith(" sends a frame of 101 bytes, the client takes at most 100"),
                 qPrintable(pair.client.error()));
        QCOMPARE(pair.receive(0), LATTIVO_FRAME_TOO_LARGE);
    }

    void whatIsNoMessageIsAnError_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("unknown type") << hex("03 00000001 01");
        QTest::newRow("type 0") << hex("00 00000001 01");
        QTest::newRow("confirmation without an outcome") << hex("02 00000000");
        QTest::newRow("confirmation with a null outcome") << hex("02 FFFFFFFF");
        QTest::newRow("confirmation with two outcomes") << hex("02 00000002 0101");
        QTest::newRow("outcome 0") << hex("02 00000001 00");
        QTest::newRow("outcome 3") << hex("02 00000001 03");
        QTest::newRow("command 0") << hex("05 00000001 00");
        QTest::newRow("command 7") << hex("05 00000001 07");
        QTest::newRow("command in two bytes") << hex("05 00000002 0101");
    }

    void whatIsNoMessageIsAnError()
    {
        QFETCH(QByteArray, bytes);
        Pair pair;
        pair.peer->send(hex("01 00000001 41") + bytes);
        QCOMPARE(pair.receive(), LATTIVO_OK);
        QCOMPARE(pair.receive(), LATTIVO_PROTOCOL_ERROR);
        QVERIFY(pair.client.error().contains("means nothing"));
        QCOMPARE(pair.receive(0), LATTIVO_PROTOCOL_ERROR);
        QCOMPARE(lattivo_send_frame(pair.client, "a", 1, 0), LATTIVO_PROTOCOL_ERROR);
    }

    void whatCameBeforeTheEndIsReceived()
    {
        Pair pair;
        pair.peer->send(hex("01 00000001 41 02 00000001 01 01 00000002 42"));
        pair.peer->close();
        QCOMPARE(pair.receive(), LATTIVO_OK);
        QCOMPARE(pair.receive(), LATTIVO_OK);
        QCOMPARE(pair.receive(), LATTIVO_CLOSED);
        QVERIFY2(pair.client.error().endsWith(" has closed the connection"), qPrintable(pair.client.error()));
        QCOMPARE(pair.receive(0), LATTIVO_CLOSED);
    }

    void theEndBeforeAnyMessageDoubtsTheAddress()
    {
        Pair pair;
        pair.peer->close();
        QCOMPARE(pair.receive(), LATTIVO_CLOSED);
        QVERIFY2(pair.client.error().endsWith(" has closed the connection; perhaps it has no node of this "
                                              "address, or identifies programs by name"),
                 qPrintable(pair.client.error()));
    }

    void whatCameIsReceivedThoughSendingFails()
    {
        Pair pair;
        pair.peer->send(hex("01 00000001 41"));
        pair.peer->close();
        lattivo_result result = LATTIVO_OK;
        for (int i = 0; i < patience && result == LATTIVO_OK; ++i) {
            lattivo_send_frame(pair.client, "a", 1, 0);
            result = lattivo_flush(pair.client, 1);
        }
        QCOMPARE(result, LATTIVO_CLOSED);
        QCOMPARE(pair.receive(), LATTIVO_OK);
        QCOMPARE(pair.receive(), LATTIVO_CLOSED);
    }

    void receivingWaitsAsLongAsItIsTold()
    {
        Pair pair;
        QElapsedTimer time;
        time.start();
        QCOMPARE(pair.receive(shortPause), LATTIVO_AGAIN);
        QVERIFY(time.elapsed() >= shortPause - 1);
        QCOMPARE(pair.client.error(), QStringLiteral("nothing has arrived within the given time"));
    }

    void noMemoryIsTakenOnceConnected()
    {
        Pair pair;
        const int before = allocations;
        QVERIFY(before >= 3);  // of opening: the counting works
        const QByteArray frame(1000, 'f');
        for (int i = 0; i < 100; ++i) {
            QCOMPARE(lattivo_send_frame(pair.client, frame.constData(), frame.size(), 0), LATTIVO_OK);
            pair.peer->send(hex("01 00000003 414243 02 00000001 01"));
            QCOMPARE(pair.receive(), LATTIVO_OK);
            QCOMPARE(pair.receive(), LATTIVO_OK);
        }
        pair.peer->send(hex("01 FFFFFFFE"));
        QCOMPARE(pair.receive(), LATTIVO_FRAME_TOO_LARGE);
        QCOMPARE(int{allocations}, before);
    }

private:
    static constexpr int _messageSize = LATTIVO_HEADER_SIZE + 700;

    /// Sends until there is no room, and has the last word of the far kernel.
    static void _fillWindow(lattivo_client* client)
    {
        const QByteArray frame(_messageSize - LATTIVO_HEADER_SIZE, 'f');
        lattivo_result result = LATTIVO_OK;
        for (int i = 0; i < 1000 && result == LATTIVO_OK; ++i) {
            result = lattivo_send_frame(client, frame.constData(), frame.size(), 0);
            if (result == LATTIVO_OK)
                result = lattivo_flush(client, 0);
        }
        QCOMPARE(result, LATTIVO_AGAIN);
    }

    static bool _isProbed(lattivo_client* client)
    {
        int on = 0;
        socklen_t size = sizeof on;
        ::getsockopt(lattivo_descriptor(client), SOL_SOCKET, SO_KEEPALIVE, &on, &size);
        return on != 0;
    }

    static lattivo_options _optionsForFramesOf(size_t size)
    {
        lattivo_options options{};
        options.largest_frame = size;
        return options;
    }
};

QTEST_GUILESS_MAIN(TestClientKitMessages)
#include "tst_clientkitmessages.moc"
