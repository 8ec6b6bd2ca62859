#pragma once

#include <QByteArray>
#include <QByteArrayList>

#include <cstddef>
#include <cstdint>
#include <vector>

class Network;

// libFuzzer and the replay program call these; each target defines the second one.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

/// The fuzz targets share this.
namespace Fuzz {

/// Ends the process where a promise of the program is broken, which is a finding like a crash.
void require(bool holds, const char* promise);

/// A case that the seeds of a target must reach; a replay of them fails when none does. Each goal is a
/// variable with static storage.
struct Goal {
    explicit Goal(const char* words);
    Q_DISABLE_COPY_MOVE(Goal)

    void noteIf(bool reached) { isReached = isReached || reached; }

    const char* what;
    bool isReached = false;
};

/// Returns the goals of the target in this program.
std::vector<const Goal*>& goals();

/// Deletes the simulation, of which nothing may be left for the next input.
void deleteNetwork();

/// Runs what is due by now, never waits.
void passEvents(int passes = 1);

constexpr int shortAddressLength = 1;

/// Returns an address as docs/protocol.md has it: 02:00:00:00:00 and the number.
inline QByteArray address(int number, int length)
{
    return QByteArray::fromHex("0200000000").append(static_cast<char>(number)).right(length);
}

constexpr int passesOfAFrame = 4;  // from the socket over a link without delay to the other socket

/// Returns what a program sends, as a stream may cut it. \a input holds a byte with the number of cuts, a
/// byte for the length of each piece but the last, then the bytes themselves. Pieces may be empty, and bytes
/// that are missing read as zero.
QByteArrayList piecesOf(const QByteArray& input);

/// A new network, set up as the first byte of an input chooses; it is gone with the scene.
class Scene
{
public:
    explicit Scene(uint8_t choices);
    ~Scene() { deleteNetwork(); }
    Q_DISABLE_COPY_MOVE(Scene)

protected:
    /// Tells whether the bit \a choice is set.
    bool _is(unsigned choice) const { return (_choices >> choice & 1U) != 0; }

    Network* _network;  // owned by the simulation

private:
    uint8_t _choices;
};

/// Runs an input that begins with a byte of choices; the rest is what a program sends.
template <typename SomeScene> void play(const uint8_t* data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<int>(size));
    SomeScene scene(size > 0 ? data[0] : 0);
    scene.playWith(piecesOf(input.mid(1)));
}

/// The program's end of a connection, the other end of which is a socket of the simulator. Both are made by
/// the kernel without a network: no port is used up and nothing has to be waited for.
class Program
{
public:
    Program();
    ~Program();
    Q_DISABLE_COPY_MOVE(Program)

    int takeSimulatorEnd();  // a descriptor, the caller's from here on

    void send(const QByteArray& bytes);
    void endOutput();
    void close();
    QByteArray receive();  // what has arrived by now
    bool hasEnded();       // the simulator has closed, and all of its bytes were received

private:
    int _simulatorEnd = -1;
    int _ownEnd = -1;
};

}  // namespace Fuzz
