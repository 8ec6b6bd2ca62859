#include "fuzztarget.h"

#include "network/networksimulation.h"
#include "testaccess.h"

#include <QApplication>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int mostCuts = 7;

/// Ends the process when signal and slot do not fit: Qt only warns.
void endOnFailedConnect(QtMsgType /*type*/, const QMessageLogContext& /*context*/, const QString& message)
{
    Fuzz::require(!message.startsWith(QLatin1String("QObject::connect: ")), qPrintable(message));
}

}  // namespace

/// Takes the place of the program's icons: to decode them for each new simulation would take a third of the
/// time.
int qInitResources_resources()
{
    return 1;
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_NO_GLIB", "1");                    // Qt's own event loop has less to do
    qputenv("QT_LOGGING_RULES", "*.debug=false");  // a "*" for each flipped bit
    qInstallMessageHandler(endOnFailedConnect);
    static int argumentCount = 1;            // the fuzzer's own options are not Qt's
    new QApplication(argumentCount, *argv);  // lives as long as the process
    return 0;
}

void Fuzz::require(bool holds, const char* promise)
{
    if (holds)
        return;
    std::fprintf(stderr, "Broken promise: %s\n", promise);
    std::abort();
}

Fuzz::Goal::Goal(const char* words)
    : what(words)
{
    goals().push_back(this);
}

/// Makes the list for the first goal: nothing else says which file's variables are made first.
std::vector<const Fuzz::Goal*>& Fuzz::goals()
{
    static std::vector<const Goal*> all;
    return all;
}

/// Lets each input see the same random draws.
Fuzz::Scene::Scene(uint8_t choices)
    : _network(NetworkSimulation::newNetworkSimulation()->network())
    , _choices(choices)
{
    qsrand(1);
}

void Fuzz::deleteNetwork()
{
    NetworkSimulation::deleteNetworkSimulation();
    passEvents();
    require(TestAccess::allTcpNodes().isEmpty(), "no node outlives its network");
}

/// Runs deletions that were put off where a program's event loop would run them.
void Fuzz::passEvents(int passes)
{
    for (int i = 0; i < passes; ++i) {
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
}

QByteArrayList Fuzz::piecesOf(const QByteArray& input)
{
    const int cuts = input.isEmpty() ? 0 : input.at(0) & mostCuts;
    const QByteArray whole = input.leftJustified(1 + cuts, '\0');
    QByteArrayList pieces;
    int position = 1 + cuts;
    for (int cut = 1; cut <= cuts; ++cut) {
        const int length = static_cast<uint8_t>(whole.at(cut));
        pieces.append(whole.mid(position, length));
        position += length;
    }
    pieces.append(whole.mid(position));
    return pieces;
}

Fuzz::Program::Program()
{
    int ends[2] = {-1, -1};
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0,
            "sockets can be made");
    _simulatorEnd = ends[0];
    _ownEnd = ends[1];
}

Fuzz::Program::~Program()
{
    if (_simulatorEnd >= 0)
        ::close(_simulatorEnd);
    close();
}

int Fuzz::Program::takeSimulatorEnd()
{
    return std::exchange(_simulatorEnd, -1);
}

/// Loses the bytes that the kernel does not take, because the simulator has closed or reads nothing.
void Fuzz::Program::send(const QByteArray& bytes)
{
    const auto taken = ::send(_ownEnd, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL);
    Q_UNUSED(taken)
}

void Fuzz::Program::endOutput()
{
    ::shutdown(_ownEnd, SHUT_WR);
}

void Fuzz::Program::close()
{
    if (_ownEnd >= 0)
        ::close(_ownEnd);
    _ownEnd = -1;
}

QByteArray Fuzz::Program::receive()
{
    QByteArray received;
    char part[4096];
    while (true) {
        const ssize_t size = ::recv(_ownEnd, part, sizeof part, 0);
        if (size <= 0)
            return received;
        received.append(part, static_cast<int>(size));
    }
}

bool Fuzz::Program::hasEnded()
{
    char byte = 0;
    const ssize_t size = ::recv(_ownEnd, &byte, sizeof byte, MSG_PEEK);
    return size == 0 || (size < 0 && errno != EAGAIN);
}
