#include "lattivo.h"
#include "scriptedpeer.h"

#include <QByteArray>
#include <QString>
#include <QtTest>

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <linux/sockios.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>

namespace {

constexpr int shortPause = 50;          // ms
constexpr int smallBuffer = 16 * 1024;  // bytes

std::atomic<int> allocations{0};

/// A client that is closed with its test.
class Client
{
public:
    explicit Client(quint16 port, const lattivo_options* options = nullptr, const char* host = "127.0.0.1")
    {
        result = lattivo_open(&_client, host, port, options);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { close(); }

    operator lattivo_client*() const { return _client; }  // NOLINT(google-explicit-constructor)
    QString error() const { return QString::fromUtf8(lattivo_error(_client)); }

    lattivo_result close()
    {
        const lattivo_result closing = lattivo_close(_client);
        _client = nullptr;
        return closing;
    }

    lattivo_result result;  // of opening

private:
    lattivo_client* _client = nullptr;
};

lattivo_options shortOptions()
{
    lattivo_options options{};
    options.timeout = shortPause;
    return options;
}

/// A client that is identified by an address, and its far end.
struct Pair {
    explicit Pair(const lattivo_options& options = lattivo_options{}, int receiveBuffer = 0)
        : listener(AF_INET, receiveBuffer)
        , client(listener.port(), &options)
        , peer(listener.accept())
    {
        lattivo_identify_by_address(client, "\x02\0\0\0\0\x01", 6);
        peer->receive(12);
    }
    ~Pair() { peer->close(); }

    lattivo_result receive(int timeout = patience) { return lattivo_receive(client, &message, timeout); }
    QByteArray frame() const
    {
        return {reinterpret_cast<const char*>(message.frame), static_cast<int>(message.size)};
    }

    Listener listener;
    Client client;
    std::unique_ptr<FarEnd> peer;
    lattivo_message message{};
};

/// Identifies by the name "Left" in a thread of its own.
class Naming
{
public:
    explicit Naming(lattivo_client* client)
        : _thread([this, client] {
            _result = lattivo_identify_by_name(client, "Left");
            _isOver = true;
        })
    {
    }
    Naming(const Naming&) = delete;
    Naming& operator=(const Naming&) = delete;
    ~Naming() { wait(); }

    bool isOver() const { return _isOver; }

    lattivo_result wait()
    {
        if (_thread.joinable())
            _thread.join();
        return _result;
    }

private:
    std::atomic<bool> _isOver{false};
    lattivo_result _result = LATTIVO_OK;
    std::thread _thread;
};

const char nameMessage[] = "03 00000005 05 4C656674";
constexpr int nameMessageSize = 10;
const char knockMessage[] = "07 00000000";
constexpr int knockMessageSize = 5;

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

class TestClientKit : public QObject
{
    Q_OBJECT

private slots:
    // Connecting

    void aMissingListenerIsNamedWithItsPort()
    {
        Listener listener;
        listener.close();
        const Client client(listener.port());
        QCOMPARE(client.result, LATTIVO_NO_CONNECTION);
        QCOMPARE(
            client.error(),
            QStringLiteral("127.0.0.1, port %1 cannot be reached: Connection refused").arg(listener.port()));
        QCOMPARE(lattivo_descriptor(client), -1);
    }

    void anUnknownHostIsNamed()
    {
        const Client client(1, nullptr, "no host");
        QCOMPARE(client.result, LATTIVO_UNKNOWN_HOST);
        QVERIFY2(client.error().startsWith("no host cannot be found: "), qPrintable(client.error()));
    }

    void theNextAddressIsTriedWhenOneDoesNotAnswer()
    {
        const Listener listener;  // of "localhost" only the one of IPv4
        const lattivo_options options = shortOptions();
        const Client client(listener.port(), &options, "localhost");
        QCOMPARE(client.result, LATTIVO_OK);
    }

    void aSimulatorIsReachedByIpVersion6()
    {
        const Listener listener(AF_INET6);
        if (!listener.isListening())
            QSKIP("there is no IPv6 here");
        const lattivo_options options = shortOptions();
        const Client client(listener.port(), &options, "::1");
        QCOMPARE(client.result, LATTIVO_OK);
    }

    void aWrongOptionIsRefused()
    {
        lattivo_options options{};
        options.timeout = -1;
        const Client client(1, &options);
        QCOMPARE(client.result, LATTIVO_WRONG_USE);
        QVERIFY(!client.error().isEmpty());
    }

    void afterAFailureEveryCallGivesIt()
    {
        Listener listener;
        listener.close();
        const Client client(listener.port());
        lattivo_message message;
        QCOMPARE(lattivo_identify_by_address(client, "a", 1), LATTIVO_NO_CONNECTION);
        QCOMPARE(lattivo_identify_by_name(client, "a"), LATTIVO_NO_CONNECTION);
        QCOMPARE(lattivo_send_frame(client, "a", 1, 0), LATTIVO_NO_CONNECTION);
        QCOMPARE(lattivo_flush(client, 0), LATTIVO_NO_CONNECTION);
        QCOMPARE(lattivo_receive(client, &message, 0), LATTIVO_NO_CONNECTION);
        QCOMPARE(lattivo_largest_frame(client), size_t{0});
        QVERIFY(!lattivo_has_more(client));
    }

    // Identifying

    void anAddressIsSentAtOnce()
    {
        const Listener listener;
        const Client client(listener.port());
        const auto peer = listener.accept();
        QCOMPARE(lattivo_identify_by_address(client, "\x02\0\0\0\0\x01", 6), LATTIVO_OK);
        QCOMPARE(peer->receive(12), hex("03 00000007 01 020000000001"));
    }

    void aNameIsReadWhenTwoConnectionsMadeInTurnHaveEnded()
    {
        const Listener listener;
        const Client client(listener.port());
        const auto peer = listener.accept();
        Naming naming(client);
        QCOMPARE(peer->receive(nameMessageSize), hex(nameMessage));

        const auto first = listener.accept();
        QCOMPARE(first->receive(knockMessageSize), hex(knockMessage));
        QVERIFY(!listener.isProgramWaiting(shortPause));
        first->close();
        const auto second = listener.accept();
        QCOMPARE(second->receive(knockMessageSize), hex(knockMessage));
        QVERIFY(!naming.isOver());
        second->close();
        QCOMPARE(naming.wait(), LATTIVO_OK);
    }

    void aNameIsReadWhenAMessageComes()
    {
        const Listener listener;
        const Client client(listener.port());
        const auto peer = listener.accept();
        Naming naming(client);
        const auto knock = listener.accept();
        peer->send(hex("05 00000001 03"));
        QCOMPARE(naming.wait(), LATTIVO_OK);
        lattivo_message message;
        QCOMPARE(lattivo_receive(client, &message, patience), LATTIVO_OK);
        QCOMPARE(message.command, LATTIVO_COMMAND_STEP);
    }

    void aNameThatIsRefusedIsTold()
    {
        const Listener listener;
        const Client client(listener.port());
        auto peer = listener.accept();
        Naming naming(client);
        peer->receive(nameMessageSize);
        peer->close();
        QCOMPARE(naming.wait(), LATTIVO_REFUSED);
        QVERIFY2(client.error().endsWith(" has refused the name \"Left\""), qPrintable(client.error()));
    }

    void aServerThatIsSwitchedOffHasReadTheName()
    {
        Listener listener;
        const Client client(listener.port());
        const auto peer = listener.accept();
        listener.close();
        QCOMPARE(lattivo_identify_by_name(client, "Left"), LATTIVO_OK);
    }

    void aSilentSimulatorIsGivenUp()
    {
        const Listener listener;
        const lattivo_options options = shortOptions();
        const Client client(listener.port(), &options);
        QCOMPARE(lattivo_identify_by_name(client, "Left"), LATTIVO_NO_CONNECTION);
        QVERIFY2(client.error().endsWith(" has not answered for 50 ms"), qPrintable(client.error()));
    }

    void aPauseMakesFurtherConnectionsNeedless()
    {
        const Listener listener;
        lattivo_options options{};
        options.attach_pause = shortPause;
        const Client client(listener.port(), &options);
        const auto peer = listener.accept();
        QElapsedTimer time;
        time.start();
        QCOMPARE(lattivo_identify_by_name(client, "Left"), LATTIVO_OK);
        QVERIFY(time.elapsed() >= shortPause - 1);
        QVERIFY(!listener.isProgramWaiting(0));
    }

    void nothingIsSentBeforeTheIdentification()
    {
        const Listener listener;
        const Client client(listener.port());
        const auto peer = listener.accept();
        QCOMPARE(lattivo_send_frame(client, "a", 1, 0), LATTIVO_WRONG_USE);
        QCOMPARE(lattivo_send_active(client, true, 0), LATTIVO_WRONG_USE);
        QCOMPARE(lattivo_flush(client, 0), LATTIVO_OK);
        QVERIFY(!peer->isReadable(0));
    }

    void aProgramIdentifiesItselfOnce()
    {
        const Pair pair;
        QCOMPARE(lattivo_identify_by_address(pair.client, "a", 1), LATTIVO_WRONG_USE);
        QCOMPARE(lattivo_identify_by_name(pair.client, "a"), LATTIVO_WRONG_USE);
    }

    void aMissingNameIsRefused()
    {
        const Listener listener;
        const lattivo_options options = shortOptions();
        const Client client(listener.port(), &options);
        QCOMPARE(lattivo_identify_by_name(client, nullptr), LATTIVO_WRONG_USE);
    }

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
        QVERIFY(pair.client.error().startsWith("the connection to 127.0.0.1, port "));
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

    // Ending

    void closingWaitsUntilEverythingHasBeenRead()
    {
        Pair pair;
        lattivo_send_frame(pair.client, "\x41", 1, 0);
        pair.peer->send(hex("01 00000001 41"));
        std::atomic<bool> isClosed{false};
        lattivo_result result = LATTIVO_AGAIN;
        std::thread closing([&] {
            result = pair.client.close();
            isClosed = true;
        });
        QCOMPARE(pair.peer->receive(6), hex("01 00000001 41"));
        QCOMPARE(pair.peer->receive(1), QByteArray());  // the end
        pair.peer->send(hex("01 00000001 41"));
        QVERIFY(!isClosed);
        pair.peer->close();
        closing.join();
        QCOMPARE(result, LATTIVO_OK);
    }

    void aSimulatorThatHasNotReadEverythingIsTold()
    {
        Pair pair;
        lattivo_send_frame(pair.client, "\x41", 1, 0);
        lattivo_flush(pair.client, 0);
        QVERIFY(pair.peer->isReadable());
        pair.peer->close();
        QCOMPARE(pair.client.close(), LATTIVO_CLOSED);
    }

    void closingGivesASilentSimulatorUp()
    {
        Pair pair(shortOptions());
        QCOMPARE(pair.client.close(), LATTIVO_NO_CONNECTION);
    }

    void closingNothingIsAllowed() { QCOMPARE(lattivo_close(nullptr), LATTIVO_OK); }

    void everyResultHasATextOfItsOwn()
    {
        QSet<QString> texts;
        for (int result = LATTIVO_OK; result <= LATTIVO_SYSTEM_ERROR + 1; ++result)
            texts += QString::fromUtf8(lattivo_result_text(static_cast<lattivo_result>(result)));
        QCOMPARE(texts.size(), LATTIVO_SYSTEM_ERROR + 2);
        QCOMPARE(QString::fromUtf8(lattivo_error(nullptr)), QStringLiteral("there is no memory"));
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

QTEST_GUILESS_MAIN(TestClientKit)
#include "tst_clientkit.moc"
