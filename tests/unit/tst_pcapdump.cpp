#include "capture/capture.h"

#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "testaccess.h"

#include <QBuffer>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {

// magic, version 2.4, time zone, accuracy, snap length 65535, link type 0
const QByteArray header = QByteArray::fromHex("A1B2C3D4"
                                              "0002"
                                              "0004"
                                              "00000000"
                                              "00000000"
                                              "0000FFFF"
                                              "00000000");

struct Packet {
    int length;
    int capturedLength;
    QByteArray time;
};

QByteArray contentsOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

}  // namespace

class TestPcapDump : public QObject
{
    Q_OBJECT

private:
    static Capture& capture() { return *NetworkSimulation::instance()->capture(); }

    static void add(const QByteArray& payload, quint64 sent, int flags = Frame::DeliveredInTime)
    {
        Frame frame(payload, sent, sent + 7, static_cast<Frame::FrameFlags>(flags));
        capture().addFrame(frame);
    }

    static QByteArray dump()
    {
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        CaptureDumpStream stream(&buffer);
        stream.setVersion(10);
        CaptureDumpStream& result = stream << capture();
        return &result == &stream ? buffer.data() : QByteArray();
    }

    /// Reads a dump with an analyser. One that fails gives no packets, which no caller expects.
    static QList<Packet> packetsAsAnalysed(const QString& analyser, const QString& file)
    {
        QProcess process;
        process.start(analyser,
                      {"-r", file, "-T", "fields", "-E", "separator=,", "-e", "frame.len", "-e",
                       "frame.cap_len", "-e", "frame.time_epoch"});
        if (!process.waitForFinished(60000) || process.exitCode() != 0) {
            qWarning() << process.readAllStandardError();
            return {};
        }
        QList<Packet> packets;
        const QList<QByteArray> lines = process.readAllStandardOutput().split('\n');
        for (const QByteArray& line : lines) {
            const QList<QByteArray> fields = line.split(',');
            if (fields.size() == 3)
                packets.append({fields.at(0).toInt(), fields.at(1).toInt(), fields.at(2)});
        }
        return packets;
    }

    static TcpNode* addActiveNode(const QByteArray& address, const QPointF& position)
    {
        auto* node = new TcpNode(address, nullptr);
        NetworkSimulation::instance()->network()->addItem(node);
        node->setPos(position);
        node->setActive(true, false);
        return node;
    }

private slots:
    void init()
    {
        NetworkSimulation::newNetworkSimulation();
        capture().setEnabled(true);
    }

    void cleanupTestCase() { NetworkSimulation::deleteNetworkSimulation(); }

    // Bytes

    void anEmptyCaptureIsTheHeaderAlone()
    {
        QCOMPARE(header.size(), 24);
        QCOMPARE(dump(), header);
    }

    void framesWithoutPayloadAreSkipped()
    {
        add(QByteArray(), 1);
        add(QByteArray(""), 2);
        QCOMPARE(capture().rowCount(), 2);
        QCOMPARE(dump(), header);
        add(QByteArray("x"), 3);
        add(QByteArray(), 4);
        QCOMPARE(dump().size(), header.size() + 16 + 1 + 2);
    }

    void aFrameOfFiveBytesIsARecordOf23()
    {
        add(QByteArray::fromHex("0A0B0C0D0E"), 123456789);
        const QByteArray record = QByteArray::fromHex("0001E240"  // 123456 s
                                                      "00000315"  // 789 ms, where microseconds are announced
                                                      "00000007"  // with the two trailer bytes
                                                      "00000005"
                                                      "0A0B0C0D0E"
                                                      "0101");
        QCOMPARE(record.size(), 23);
        QCOMPARE(dump(), header + record);
    }

    void theTimeIsCutTo32Bits_data()
    {
        QTest::addColumn<quint64>("sent");
        QTest::addColumn<QByteArray>("fields");
        QTest::newRow("zero") << quint64(0) << QByteArray("0000000000000000");
        QTest::newRow("999 ms") << quint64(999) << QByteArray("00000000000003E7");
        QTest::newRow("1 s") << quint64(1000) << QByteArray("0000000100000000");
        QTest::newRow("32 bits") << quint64(0xFFFFFFFF)
                                 << QByteArray("00418937"
                                               "00000127");
        QTest::newRow("63 bits") << quint64(0x7FFFFFFFFFFFFFFF)
                                 << QByteArray("A5E353F7"
                                               "00000327");
        QTest::newRow("64 bits") << quint64(0xFFFFFFFFFFFFFFFF)
                                 << QByteArray("4BC6A7EF"
                                               "00000267");
    }

    void theTimeIsCutTo32Bits()
    {
        QFETCH(quint64, sent);
        QFETCH(QByteArray, fields);
        add(QByteArray("x"), sent);
        QCOMPARE(dump().mid(24, 8).toHex().toUpper(), fields);
    }

    void recordsStandInOrderOfCapture()
    {
        add(QByteArray::fromHex("01"), 9000);
        add(QByteArray::fromHex("0203"), 1000);
        add(QByteArray::fromHex("040506"), 5000);
        QCOMPARE(dump(),
                 header
                     + QByteArray::fromHex("00000009"
                                           "00000000"
                                           "00000003"
                                           "00000001"
                                           "01"
                                           "0101")
                     + QByteArray::fromHex("00000001"
                                           "00000000"
                                           "00000004"
                                           "00000002"
                                           "0203"
                                           "0101")
                     + QByteArray::fromHex("00000005"
                                           "00000000"
                                           "00000005"
                                           "00000003"
                                           "040506"
                                           "0101"));
    }

    void everyOutcomeIsExportedAlike()
    {
        add(QByteArray("x"), 1, Frame::DeliveredInTime);
        const QByteArray record = dump().mid(header.size());
        for (const int flags : {0, int(Frame::DeliveredLate), int(Frame::CRCError), int(Frame::Broadcast)})
            add(QByteArray("x"), 1, flags);
        QCOMPARE(dump(), header + record.repeated(5));
    }

    void aFrameLongerThanTheSnapLengthIsWrittenWhole()
    {
        const QByteArray payload(70000, 'x');
        add(payload, 1000);
        QCOMPARE(dump(),
                 header
                     + QByteArray::fromHex("00000001"
                                           "00000000"
                                           "00011172"
                                           "00011170")
                     + payload + QByteArray::fromHex("0101"));
    }

    void payloadsOfZerosAndOnesAreWrittenAsTheyAre()
    {
        add(QByteArray(3, '\0'), 0);
        add(QByteArray(3, '\xFF'), 0);
        QCOMPARE(dump(),
                 header
                     + QByteArray::fromHex("0000000000000000"
                                           "0000000500000003"
                                           "000000"
                                           "0101")
                     + QByteArray::fromHex("0000000000000000"
                                           "0000000500000003"
                                           "FFFFFF"
                                           "0101"));
    }

    // Files

    void theExportWritesTheSameBytesToAFile()
    {
        const QTemporaryDir folder;
        const QString path = folder.filePath(QStringLiteral("a.pcapdump"));
        add(QByteArray("frame"), 123456789);
        QVERIFY(NetworkSimulation::instance()->exportPcapDump(path));
        QCOMPARE(contentsOf(path), dump());
        QCOMPARE(contentsOf(path).size(), 24 + 23);
    }

    void anExistingLongerFileIsTruncated()
    {
        const QTemporaryDir folder;
        const QString path = folder.filePath(QStringLiteral("name as typed"));
        QFile old(path);
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write(QByteArray(1000, 'x'));
        old.close();
        QVERIFY(NetworkSimulation::instance()->exportPcapDump(path));
        QCOMPARE(contentsOf(path), header);
    }

    void exportingLeavesTheCaptureAsItIs()
    {
        add(QByteArray("frame"), 1);
        add(QByteArray(), 2);
        QVERIFY(!dump().isEmpty());
        QCOMPARE(capture().rowCount(), 2);
        QVERIFY(capture().isEnabled());
        QCOMPARE(capture().capturedFrames().first().payload(), QByteArray("frame"));
    }

    void exportingTwiceGivesTheSameFile()
    {
        const QTemporaryDir folder;
        const QString path = folder.filePath(QStringLiteral("a.pcapdump"));
        add(QByteArray("frame"), 1);
        QVERIFY(NetworkSimulation::instance()->exportPcapDump(path));
        const QByteArray first = contentsOf(path);
        QVERIFY(NetworkSimulation::instance()->exportPcapDump(path));
        QCOMPARE(contentsOf(path), first);
    }

    void theExportWorksWithTheCaptureSwitchedOff()
    {
        add(QByteArray("frame"), 1);
        const QByteArray whileOn = dump();
        capture().setEnabled(false);
        QCOMPARE(dump(), whileOn);
        QVERIFY(whileOn.size() > header.size());
    }

    void aFileThatCannotBeOpenedIsReported()
    {
        const QTemporaryDir folder;
        QVERIFY(!NetworkSimulation::instance()->exportPcapDump(folder.path()));
        QVERIFY(!NetworkSimulation::instance()->exportPcapDump(folder.filePath(QStringLiteral("no/folder"))));
    }

    void writeErrorsAreIgnored()
    {
        if (!QFile::exists(QStringLiteral("/dev/full")))
            QSKIP("there is no /dev/full here: that write errors are ignored was not tested");
        add(QByteArray(100000, 'x'), 1);
        QVERIFY(NetworkSimulation::instance()->exportPcapDump(QStringLiteral("/dev/full")));
    }

    // A packet analyser

    void aPacketAnalyserReadsTheDump()
    {
        const QString analyser = QStandardPaths::findExecutable(QStringLiteral("tshark"));
        if (analyser.isEmpty())
            QSKIP("tshark is not installed: whether a packet analyser reads the dump was not tested");

        const int sizes[] = {1, 12, 255, 1500, 65000};
        for (const int size : sizes)
            add(QByteArray(size, 'x'), 123456000 + static_cast<quint64>(size % 1000));
        add(QByteArray(), 5);
        const QTemporaryDir folder;
        const QString path = folder.filePath(QStringLiteral("a.pcapdump"));
        QVERIFY(NetworkSimulation::instance()->exportPcapDump(path));

        const QList<Packet> packets = packetsAsAnalysed(analyser, path);
        QCOMPARE(packets.size(), 5);
        for (int i = 0; i < packets.size(); ++i) {
            QCOMPARE(packets.at(i).length, sizes[i]);
            QCOMPARE(packets.at(i).capturedLength, sizes[i] + 2);
            // milliseconds in the place of microseconds
            const QByteArray time
                = "123456.000" + QByteArray::number(sizes[i] % 1000).rightJustified(3, '0') + "000";
            QCOMPARE(packets.at(i).time, time);
        }
    }

    void aPacketAnalyserReadsSimulatedFrames()
    {
        const QString analyser = QStandardPaths::findExecutable(QStringLiteral("tshark"));
        if (analyser.isEmpty())
            QSKIP("tshark is not installed: whether a packet analyser reads simulated frames was not tested");

        const QByteArray receiverAddress = QByteArray::fromHex("0A0B0C0D0E0F");
        auto* sender = addActiveNode(QByteArray::fromHex("010203040506"), QPointF(0, 0));
        auto* receiver = addActiveNode(receiverAddress, QPointF(100, 100));
        NetworkSimulation::instance()->network()->addItem(new Connection(sender, receiver));
        for (int data = 0; data < 10; ++data)
            sender->dataRequest(receiverAddress + sender->address() + QByteArray(data, 'x'));
        QTRY_COMPARE(capture().rowCount(), 10);

        const QTemporaryDir folder;
        const QString path = folder.filePath(QStringLiteral("a.pcapdump"));
        QVERIFY(NetworkSimulation::instance()->exportPcapDump(path));
        const QList<Packet> packets = packetsAsAnalysed(analyser, path);
        QCOMPARE(packets.size(), 10);
        for (int i = 0; i < packets.size(); ++i) {
            const quint64 sent = capture().capturedFrames().at(i).sendTime();
            QCOMPARE(packets.at(i).length, 12 + i);
            QCOMPARE(packets.at(i).capturedLength, 14 + i);
            QCOMPARE(packets.at(i).time,
                     QByteArray::number(sent / 1000) + '.'
                         + QByteArray::number(sent % 1000).rightJustified(6, '0') + "000");
        }
    }
};

QTEST_MAIN(TestPcapDump)
#include "tst_pcapdump.moc"
