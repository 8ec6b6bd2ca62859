#include "clientfixture.h"

#include <QString>
#include <QtTest>

#include <netdb.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

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

/// Lets programs wait at a listener until its kernel answers no more, as a silent host.
std::vector<std::unique_ptr<FarEnd>> fill(const Listener& listener)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(listener.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::vector<std::unique_ptr<FarEnd>> waiting;
    for (int i = 0; i <= Listener::backlog; ++i) {
        const int program = ::socket(AF_INET, SOCK_STREAM, 0);
        ::connect(program, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        waiting.push_back(std::make_unique<FarEnd>(program));
    }
    return waiting;
}

std::vector<quint16> portsOfHost;  // what every host is found at, in this order; empty: as the system says
std::function<void()> onConnecting;

}  // namespace

// The linker leads the library's own calls here.
extern "C" {

int __real_connect(int descriptor, const sockaddr* address, socklen_t size);
int __real_getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** addresses);

int __wrap_connect(int descriptor, const sockaddr* address, socklen_t size)
{
    const int result = __real_connect(descriptor, address, size);
    const int error = errno;
    if (onConnecting)
        onConnecting();
    errno = error;
    return result;
}

int __wrap_getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** addresses)
{
    if (portsOfHost.empty())
        return __real_getaddrinfo(host, service, hints, addresses);
    addrinfo** next = addresses;
    for (const quint16 port : portsOfHost) {
        __real_getaddrinfo("127.0.0.1", std::to_string(port).c_str(), hints, next);
        next = &(*next)->ai_next;
    }
    return 0;
}
}

class TestClientKit : public QObject
{
    Q_OBJECT

private slots:
    void cleanup()
    {
        portsOfHost.clear();
        onConnecting = nullptr;
    }

    // Connecting

    void aMissingListenerIsNamedWithItsPort()
    {
        Listener listener;
        listener.close();
        const Client client(listener.port());
        QCOMPARE(client.result, LATTIVO_NO_CONNECTION);
        QCOMPARE(
            client.error(),
            QStringLiteral("127.0.0.1 port %1 cannot be reached: Connection refused").arg(listener.port()));
        QCOMPARE(lattivo_descriptor(client), -1);
    }

    void anUnknownHostIsNamed()
    {
        const Client client(1, nullptr, "no host");
        QCOMPARE(client.result, LATTIVO_UNKNOWN_HOST);
        QVERIFY2(client.error().startsWith("no host cannot be found: "), qPrintable(client.error()));
    }

    void anEmptyHostIsWrongUse()
    {
        const Client client(1, nullptr, "");
        QCOMPARE(client.result, LATTIVO_WRONG_USE);
    }

    void theNextAddressIsTriedWhenOneDoesNotAnswer()
    {
        const Listener listener;  // of "localhost" only the one of IPv4
        const lattivo_options options = shortOptions();
        const Client client(listener.port(), &options, "localhost");
        QCOMPARE(client.result, LATTIVO_OK);
    }

    void theNextAddressIsTriedWhenOneIsSilent()
    {
        const Listener silent;
        const auto waiting = fill(silent);
        const Listener listener;
        portsOfHost = {silent.port(), listener.port()};
        lattivo_options options{};
        options.timeout = 1000;
        QElapsedTimer time;
        time.start();
        const Client client(1, &options, "host");
        QCOMPARE(client.result, LATTIVO_OK);
        QVERIFY(time.elapsed() < options.timeout);
    }

    void aConnectionThatEndsAtOnceIsTold()
    {
        const Listener listener;
        onConnecting = [&listener] { listener.accept()->close(); };
        const Client client(listener.port());
        QCOMPARE(client.result, LATTIVO_CLOSED);
        QVERIFY2(client.error().endsWith(" has closed the connection"), qPrintable(client.error()));
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
        QVERIFY2(client.error().endsWith(
                     " has refused the name \"Left\"; perhaps it identifies programs by address"),
                 qPrintable(client.error()));
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
        QVERIFY2(client.error().endsWith(" has not answered for 0.05 s"), qPrintable(client.error()));
    }

    void receivingGivesTheFailureOfIdentifying()
    {
        const Listener listener;
        const lattivo_options options = shortOptions();
        const Client client(listener.port(), &options);
        lattivo_identify_by_name(client, "Left");
        lattivo_message message;
        QCOMPARE(lattivo_receive(client, &message, patience), LATTIVO_NO_CONNECTION);
        QVERIFY2(client.error().endsWith(" has not answered for 0.05 s"), qPrintable(client.error()));
    }

    void closingDoesNotWaitForASilentSimulatorOnceMore()
    {
        const Listener listener;
        lattivo_options options{};
        options.timeout = 1000;
        Client client(listener.port(), &options);
        lattivo_identify_by_name(client, "Left");
        QElapsedTimer time;
        time.start();
        QCOMPARE(client.close(), LATTIVO_NO_CONNECTION);
        QVERIFY(time.elapsed() < options.timeout);
    }

    void aSimulatorThatTakesNoMoreConnectionsIsGivenUp()
    {
        const Listener listener;
        const lattivo_options options = shortOptions();
        const Client client(listener.port(), &options);
        const auto peer = listener.accept();
        const auto waiting = fill(listener);
        QCOMPARE(lattivo_identify_by_name(client, "Left"), LATTIVO_NO_CONNECTION);
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
        QCOMPARE(QString::fromUtf8(lattivo_error(nullptr)), QStringLiteral("out of memory"));
    }
};

QTEST_GUILESS_MAIN(TestClientKit)
#include "tst_clientkit.moc"
