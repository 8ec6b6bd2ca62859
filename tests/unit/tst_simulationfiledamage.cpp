#include "network/networksimulation.h"

#include "storedsimulations.h"
#include "testaccess.h"

#include <QFile>
#include <QImage>
#include <QLoggingCategory>
#include <QPainter>
#include <QtTest>

#include <cmath>
#include <ctime>
#include <limits>
#include <random>

using namespace StoredSimulations;

namespace {

constexpr quint32 hugeWords[] = {0xFFFFFFFE, 0xFFFFFFFF, 0x7FFFFFFF, 0x80000000};
constexpr double longestLoad = 1.0;  // s of the processor, so that a busy machine fails no test

/// Does what a user would with a loaded simulation: looks at it, lets frames travel, reads the capture,
/// saves.
void exercise()
{
    QImage image(64, 64, QImage::Format_ARGB32_Premultiplied);
    QPainter painter(&image);
    network().render(&painter, QRectF(), QRectF(-150, -150, 500, 500));
    network().items(QRectF(-150, -150, 500, 500));
    network().itemsBoundingRect();
    network().addressInputMask(-1);
    const QList<Node*> nodes = items<Node>();
    for (Node* node : nodes) {
        node->setActive(true, false);
        node->dataRequest(QByteArray(20, '\xFF'));
    }
    const QList<Connection*> connections = items<Connection>();
    for (Connection* connection : connections)
        connection->deliverFrame();
    const Capture* capture = NetworkSimulation::instance()->capture();
    for (int column = 0; column < capture->columnCount(); ++column)
        capture->data(capture->index(0, column));
    QVERIFY(!saved().isEmpty());
}

/// Returns whether \a bytes could be loaded. Fails the test when that, or what comes then, takes too long.
bool loadInTime(const QByteArray& bytes)
{
    const std::clock_t start = std::clock();
    const auto elapsed = [start] { return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC; };
    const bool isLoaded = loadSimulation(bytes);
    [&] { QVERIFY2(elapsed() < longestLoad, "the load hangs"); }();
    if (isLoaded)
        exercise();
    [&] { QVERIFY2(elapsed() < 2 * longestLoad, "what was loaded hangs"); }();
    return isLoaded;
}

/// Returns the process's largest memory so far, in KiB; -1 when the system does not tell.
int largestMemory()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QList<QByteArray> lines = status.readAll().split('\n');
    for (const QByteArray& line : lines) {
        if (line.startsWith("VmHWM:"))
            return line.simplified().split(' ').at(1).toInt();
    }
    return -1;
}

}  // namespace

/// Damaged and hostile simulation files.
class TestSimulationFileDamage : public QObject
{
    Q_OBJECT

private slots:
    /// Silences the "*" of each corrupted bit, which would fill pages.
    void initTestCase() { QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false")); }

    void init()
    {
        qsrand(1);
        NetworkSimulation::newNetworkSimulation();
    }

    void cleanupTestCase() { NetworkSimulation::deleteNetworkSimulation(); }

    // Damage

    void aFileCutAtAnyLengthFails_data()
    {
        QTest::addColumn<Stored::Simulation>("simulation");
        QTest::newRow("version 1") << filledSimulation();
        QTest::newRow("version 0") << filled(Stored::newSimulationOfVersion0());
    }

    void aFileCutAtAnyLengthFails()
    {
        QFETCH(Stored::Simulation, simulation);
        const QByteArray bytes = bytesOf(simulation);
        QVERIFY(loadInTime(bytes));
        for (int length = 0; length < bytes.size(); ++length) {
            QVERIFY2(!loadInTime(bytes.left(length)), qPrintable(QString::number(length)));
            QVERIFY(isNewAndEmpty());
        }
    }

    void hugeCountsAndLengthsNeitherCrashNorTakeMemory_data() { aFileCutAtAnyLengthFails_data(); }

    void hugeCountsAndLengthsNeitherCrashNorTakeMemory()
    {
        QFETCH(Stored::Simulation, simulation);
        const ByteWriter file = Stored::write(simulation);
        QVERIFY(file.lengthOffsets.size() > 10);
        QVERIFY(loadInTime(file.bytes));
        const int memoryBefore = largestMemory();
        for (const int offset : file.lengthOffsets) {
            for (const quint32 word : hugeWords)
                loadInTime(replaced(file.bytes, offset, bigEndian(word)));
        }
#ifndef __SANITIZE_ADDRESS__  // it keeps what was freed for a while
        QVERIFY(memoryBefore > 0);
        QVERIFY2(largestMemory() - memoryBefore < 32 * 1024, "memory was taken for bytes that are not there");
#else
        Q_UNUSED(memoryBefore)
#endif
    }

    void aHugeCountOverALongFileEndsWithTheFile()
    {
        const QByteArray bytes = bytesOf(Stored::Simulation());
        const QByteArray rest(1024 * 1024, '\0');
        for (const quint32 word : hugeWords) {
            QVERIFY(!loadInTime(bytes.left(nodeCountOffset(bytes)) + bigEndian(word) + rest));
            QVERIFY(!loadInTime(bytes.left(nodeCountOffset(bytes) + 4) + bigEndian(word) + rest));
        }
    }

    void randomBytesAreRefused()
    {
        std::mt19937 generator(1);
        const QByteArray magicWords[] = {QByteArray(), QByteArray::fromHex("C191277C"),
                                         QByteArray::fromHex("C191277D"
                                                             "00000001")};
        for (int round = 0; round < 300; ++round) {
            QByteArray bytes = magicWords[round % 3];
            const int size = static_cast<int>(generator() % 2000);
            for (int i = 0; i < size; ++i)
                bytes += static_cast<char>(generator());
            QVERIFY(!loadInTime(bytes));
            QVERIFY(isNewAndEmpty());
        }
    }

    void randomChangesToAFileAreSurvived()
    {
        std::mt19937 generator(2);
        const QByteArray bytes = bytesOf(filledSimulation());
        int loaded = 0;
        for (int round = 0; round < 500; ++round) {
            QByteArray damaged = bytes;
            for (int change = 0; change <= round % 4; ++change)
                damaged[static_cast<int>(generator() % static_cast<uint>(bytes.size()))]
                    = static_cast<char>(generator());
            if (loadInTime(damaged))
                ++loaded;
        }
        QVERIFY(loaded > 0);  // most changes hit values and not the format
    }

    /// Tries the five numbers of the network that nobody checks when they are read.
    void extremeParametersAreSurvived()
    {
        const int extremes[] = {std::numeric_limits<int>::max(), std::numeric_limits<int>::min(), -1, 0};
        for (const int extreme : extremes) {
            for (int field = 0; field < 8; ++field) {
                Stored::Simulation simulation = filledSimulation();
                simulation.nodes[0].flags = 0;
                simulation.connections[0].isBroken = false;
                int* fields[] = {
                    &simulation.maximalTransferUnit,           &simulation.addressLength,
                    &simulation.destinationAddressOffset,      &simulation.sourceAddressOffset,
                    &simulation.nodes[0].acknowledgeTimeout,   &simulation.connections[0].delay,
                    &simulation.connections[0].delayDeviation, &simulation.defaultConnection.delayDeviation};
                *fields[field] = extreme;
                QVERIFY(loadInTime(bytesOf(simulation)));
                QCOMPARE(items<Node>().size(), 3);
            }
        }
    }

    void oddNumbersAreSurvived_data()
    {
        using Limits = std::numeric_limits<double>;
        QTest::addColumn<double>("number");
        QTest::newRow("NaN") << Limits::quiet_NaN();
        QTest::newRow("infinity") << Limits::infinity();
        QTest::newRow("negative infinity") << -Limits::infinity();
        QTest::newRow("largest") << Limits::max();
        QTest::newRow("lowest") << Limits::lowest();
        QTest::newRow("1e9") << 1e9;
        QTest::newRow("-1e9") << -1e9;
        QTest::newRow("smallest") << Limits::denorm_min();
        QTest::newRow("1e-9") << 1e-9;
    }

    void oddNumbersAreSurvived()
    {
        QFETCH(double, number);
        const ByteWriter file = Stored::write(filledSimulation());
        QVERIFY(file.doubleOffsets.size() > 10);
        for (const int offset : file.doubleOffsets) {
            QVERIFY(loadInTime(replaced(file.bytes, offset, bigEndian(number))));
            QCOMPARE(items<Node>().size(), 3);
            QCOMPARE(items<Connection>().size(), 2);
            const QList<QGraphicsItem*> all = network().items();
            for (const QGraphicsItem* item : all) {
                const QRectF bounds = item->sceneBoundingRect();
                QVERIFY(std::isfinite(bounds.left()) && std::isfinite(bounds.top()));
                QVERIFY(std::isfinite(bounds.right()) && std::isfinite(bounds.bottom()));
            }
        }
    }

    void probabilitiesAreReadAsTheyStandButForNaN_data()
    {
        using Limits = std::numeric_limits<double>;
        QTest::addColumn<double>("stored");
        QTest::addColumn<double>("read");
        QTest::newRow("NaN") << Limits::quiet_NaN() << -1.0;
        QTest::newRow("negative NaN") << -Limits::quiet_NaN() << -1.0;
        QTest::newRow("infinity") << Limits::infinity() << Limits::infinity();
        QTest::newRow("negative infinity") << -Limits::infinity() << -Limits::infinity();
        QTest::newRow("above 1") << 7.0 << 7.0;
        QTest::newRow("below 0") << -0.25 << -0.25;
    }

    void probabilitiesAreReadAsTheyStandButForNaN()
    {
        QFETCH(double, stored);
        QFETCH(double, read);
        Stored::Simulation simulation;
        simulation.nodes = {plainNode(idOfFirst, 0, 0), plainNode(idOfSecond, 100, 100)};
        simulation.connections = {plainConnection(idOfFirst, idOfSecond)};
        const auto setAll = [&](double number) {
            for (Stored::Connection* record : {&simulation.defaultConnection, &simulation.connections[0]}) {
                record->reliability = number;
                record->errorDetectionReliability = number;
            }
        };
        setAll(stored);
        QVERIFY(loadSimulation(bytesOf(simulation)));
        for (const Connection* link : {network().defaultConnection(), items<Connection>().first()}) {
            QCOMPARE(link->reliability(), read);
            QCOMPARE(link->errorDetectionReliability(), read);
        }
        setAll(read);
        QCOMPARE(saved(), bytesOf(asSavedAgain(simulation)));
    }

    void positionsAndWidthsAreMovedIntoTheScene_data()
    {
        using Limits = std::numeric_limits<double>;
        QTest::addColumn<double>("stored");
        QTest::addColumn<double>("coordinate");
        QTest::addColumn<double>("width");
        QTest::newRow("NaN") << Limits::quiet_NaN() << 0.0 << -1.0;
        QTest::newRow("infinity") << Limits::infinity() << 0.0 << -1.0;
        QTest::newRow("negative infinity") << -Limits::infinity() << 0.0 << -1.0;
        QTest::newRow("at the far end") << 1e7 << 1e7 << 1e7;
        QTest::newRow("beyond the far end") << 1.1e7 << 1e7 << 1e7;
        QTest::newRow("beyond the other end") << -1.1e7 << -1e7 << -1e7;
    }

    void positionsAndWidthsAreMovedIntoTheScene()
    {
        QFETCH(double, stored);
        QFETCH(double, coordinate);
        QFETCH(double, width);
        Stored::Simulation simulation;
        simulation.nodes = {plainNode(idOfFirst, stored, stored), plainNode(idOfSecond, 100, 100)};
        simulation.nodes[0].strokeWidth = stored;
        simulation.connections = {plainConnection(idOfFirst, idOfSecond)};
        simulation.connections[0].strokeWidth = stored;
        QVERIFY(loadSimulation(bytesOf(simulation)));
        Node& node = *itemsAsRead<Node>().first();
        QCOMPARE(node.pos(), QPointF(coordinate, coordinate));
        QCOMPARE(TestAccess::strokeWidth(node), width);
        QCOMPARE(TestAccess::strokeWidth(*items<Connection>().first()), width);
    }

    void oddSwitchesReadAsUnchecked()
    {
        const ByteWriter file = Stored::write(filledSimulation());
        QCOMPARE(file.checkStateOffsets.size(), 4 * 5);  // the default node and three nodes
        for (const int offset : file.checkStateOffsets) {
            for (const quint32 state : {3U, 0xFFFFFFFFU, 0x7FFFFFFFU, 0x80000000U})
                QVERIFY(loadInTime(replaced(file.bytes, offset, bigEndian(state))));
        }

        Stored::Simulation simulation;
        simulation.nodes = {plainNode(1, 0, 0)};
        simulation.nodes[0].showName = 3;
        simulation.nodes[0].framesAcknowledged = -1;
        simulation.nodes[0].promiscuousMode = 0x7FFFFFFF;
        QVERIFY(loadSimulation(bytesOf(simulation)));
        Node& node = *items<Node>().first();
        QCOMPARE(TestAccess::showName(node), Qt::Unchecked);
        QCOMPARE(TestAccess::framesAcknowledged(node), Qt::Unchecked);
        QCOMPARE(TestAccess::promiscuousMode(node), Qt::Unchecked);
    }

    void oddColorKindsReadAsNoColor()
    {
        const ByteWriter file = Stored::write(filledSimulation());
        QCOMPARE(file.colorOffsets.size(), 1 + 4 * 4 + 2);
        for (const int offset : file.colorOffsets) {
            for (int kind = 0; kind < 256; kind += kind < 8 ? 1 : 31)
                QVERIFY(loadInTime(replaced(file.bytes, offset, QByteArray(1, static_cast<char>(kind)))));
        }

        Stored::Simulation simulation;
        simulation.nodes = {plainNode(1, 0, 0)};
        for (const quint8 kind : {quint8(6), quint8(127), quint8(128), quint8(255)}) {
            simulation.nodes[0].txColor = Stored::rgb(1, 2, 3);
            simulation.nodes[0].txColor.kind = kind;
            QVERIFY(loadSimulation(bytesOf(simulation)));
            QVERIFY(!TestAccess::txColor(*items<Node>().first()).isValid());
        }
    }

    // Odd items

    void aConnectionOfANodeWithItselfLoads()
    {
        Stored::Simulation simulation;
        simulation.nodes = {plainNode(1, 0, 0)};
        simulation.connections = {plainConnection(1, 1)};
        QVERIFY(loadInTime(bytesOf(simulation)));
        QCOMPARE(items<Connection>().size(), 1);
        delete items<Node>().first();
        QVERIFY(network().items().isEmpty());
    }
};

QTEST_MAIN(TestSimulationFileDamage)
#include "tst_simulationfiledamage.moc"
