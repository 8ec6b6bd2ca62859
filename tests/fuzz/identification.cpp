#include "fuzztarget.h"

#include "network/network.h"
#include "nodes/tcpnode.h"
#include "protocol/bridgeprotocol.h"
#include "testaccess.h"

#include <QTcpServer>
#include <QtEndian>

namespace {

/// Bits of the input's first byte.
enum Choice : unsigned {
    IsNameBased,
    IsPlugAndPlayOn,
    IsAddressShort,       // one byte
    ComesASecondProgram,  // with the same bytes, while the first one is still there
    EndsItsOutput,        // behind its last byte
    ClosesBeforeItIsRead,
    IsServerStoppedBefore,  // anything is read
    IsNodeDeletedAtTheEnd,  // with its program, if it has one
};

const QString knownName = QStringLiteral("Left");

Fuzz::Goal foundByAddress("a program is attached by its address");
Fuzz::Goal foundByName("a program is attached by its name");
Fuzz::Goal madeByAddress("Plug'n'Place makes a node with an address");
Fuzz::Goal madeByName("Plug'n'Place makes a node with a name");
Fuzz::Goal tookOver("a program takes the node of another one over");
Fuzz::Goal wasRefused("a program is refused");
Fuzz::Goal readsOn("a node reads what follows an address");
Fuzz::Goal deletedAttached("a node is deleted with its program");

/// Opens what only a server itself may call.
struct AcceptingServer : QTcpServer {
    using QTcpServer::incomingConnection;
};

/// Acts as if the kernel had just accepted the program.
void accept(QTcpServer& server, Fuzz::Program& program)
{
    (server.*(&AcceptingServer::incomingConnection))(program.takeSimulatorEnd());
    emit server.newConnection();
    Fuzz::passEvents();
}

/// Tells anew what docs/protocol.md says of the first bytes.
struct Expectation {
    Expectation(const Network& network, const QByteArray& bytes)
    {
        const bool isByName = network.isNameUsedForPnpIdentification();
        if (bytes.size() < Bridge::nodeControlHeaderSize || bytes.at(0) != Bridge::NodeControl
            || bytes.at(Bridge::headerSize) != (isByName ? Bridge::SetName : Bridge::SetAddress))
            return;

        const qint64 announced = qint64{qFromBigEndian<quint32>(bytes.constData() + 1)} - 1;
        const QByteArray rest = bytes.mid(Bridge::nodeControlHeaderSize);
        if (!isByName && (announced != network.addressLength() || rest.size() < announced))
            return;

        const QByteArray value = rest.left(static_cast<int>(qBound<qint64>(0, announced, rest.size())));
        for (TcpNode* candidate : qAsConst(TestAccess::allTcpNodes())) {
            if (isByName ? candidate->name() == Bridge::nameFromBytes(value) : candidate->address() == value)
                node = candidate;
        }
        isNodeNew = !node && network.isTcpPnpEnabled();
    }

    bool isRefused() const { return !node && !isNodeNew; }

    TcpNode* node = nullptr;  // the present one that is to be attached: the one made last of several
    bool isNodeNew = false;
};

class Scene : public Fuzz::Scene
{
public:
    explicit Scene(uint8_t choices)
        : Fuzz::Scene(choices)
    {
        if (_is(IsAddressShort))
            TestAccess::parameters(*_network).addressLength = Fuzz::shortAddressLength;
        _network->setNameUsedForPnpIdentification(_is(IsNameBased));
        _network->setTcpPnpEnabled(_is(IsPlugAndPlayOn));
        _network->setTcpPort(0);
        Fuzz::require(_network->setTcpEnabled(true), "the server can be started");

        _known = new TcpNode(Fuzz::address(1, _network->addressLength()), nullptr);
        _known->setName(knownName);
        _network->addItem(_known);
        auto* plain = new Node(_known->address());  // may not be found, though it lies on top
        plain->setName(knownName);
        _network->addItem(plain);
        _network->addItem(new Connection(_known, plain));
    }

    void playWith(const QByteArrayList& pieces)
    {
        _connect(_first, pieces);
        if (_is(ComesASecondProgram) && !_is(IsServerStoppedBefore))
            _connect(_second, pieces);
        if (_is(IsNodeDeletedAtTheEnd)) {
            deletedAttached.noteIf(_known->socket() != nullptr);
            delete _known;
        }
        _first.close();
        _second.close();
        Fuzz::passEvents();
        _network->setTcpEnabled(false);
        Fuzz::passEvents();
        Fuzz::require(_pending().isEmpty(), "a server that is off keeps no program");
    }

private:
    QList<QTcpSocket*>& _pending() { return TestAccess::server(*_network).pending; }

    void _connect(Fuzz::Program& program, const QByteArrayList& pieces)
    {
        const int waiting = _pending().size();
        accept(TestAccess::server(*_network).server, program);
        Fuzz::require(_pending().size() == waiting + 1, "an accepted program is waited for");
        if (_is(IsServerStoppedBefore)) {
            _network->setTcpEnabled(false);
            Fuzz::require(program.hasEnded(), "a program that is not attached loses its connection");
        }
        for (const QByteArray& piece : pieces)
            _send(program, piece);
        if (_is(EndsItsOutput))
            program.endOutput();
        Fuzz::passEvents(Fuzz::passesOfAFrame);
        if (!_is(IsNameBased) && pieces.size() == 1)
            readsOn.noteIf(_known->sendFramesCount() > 0);
    }

    void _send(Fuzz::Program& program, const QByteArray& piece)
    {
        const bool isFirst = !_pending().isEmpty() && !piece.isEmpty();
        program.send(piece);
        if (_is(ClosesBeforeItIsRead)) {
            program.close();
            Fuzz::passEvents();
        } else if (isFirst)
            _checkOutcome(program, piece);
        else
            Fuzz::passEvents();
    }

    void _checkOutcome(Fuzz::Program& program, const QByteArray& firstBytes)
    {
        const Expectation expected(*_network, firstBytes);
        const QTcpSocket* before = expected.node ? expected.node->socket() : nullptr;
        const int nodes = TestAccess::allTcpNodes().size();
        Fuzz::passEvents();
        Fuzz::require(_pending().isEmpty(), "the first bytes decide");
        Fuzz::require(TestAccess::allTcpNodes().size() == nodes + (expected.isNodeNew ? 1 : 0),
                      "a node is made where Plug'n'Place allows it");
        if (expected.node)
            Fuzz::require(expected.node->socket() && expected.node->socket() != before, "a node is attached");
        if (before) {
            _first.receive();
            Fuzz::require(_first.hasEnded(), "a program that has lost its node loses its connection");
        }
        tookOver.noteIf(before != nullptr);
        (_is(IsNameBased) ? foundByName : foundByAddress).noteIf(expected.node != nullptr);
        (_is(IsNameBased) ? madeByName : madeByAddress).noteIf(expected.isNodeNew);
        wasRefused.noteIf(expected.isRefused());
        Fuzz::require(program.hasEnded() == expected.isRefused(), "a refused program loses its connection");
    }

    TcpNode* _known = nullptr;
    Fuzz::Program _first;
    Fuzz::Program _second;
};

}  // namespace

/// The input is a byte of choices and what a program sends as soon as it is connected.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Fuzz::play<Scene>(data, size);
    return 0;
}
