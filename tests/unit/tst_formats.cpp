#include "core/streamhelpers.h"
#include "loadsimulation.h"
#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "sockethelpers.h"
#include "testaccess.h"

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

namespace {

constexpr int idSize = 8;
constexpr int nodeHeaderSize = 16;
constexpr int connectionHeaderSize = 20;

const QByteArray leftAddress = hex("020000000001");
const QByteArray rightAddress = hex("020000000002");

struct Example {
    QByteArray bytes;
    QList<int> offsets;        // of the first byte of each line
    QStringList explanations;  // of each line
};

/// Reads an example: the explanation of a line stands behind its "#".
Example exampleOf(const QString& block)
{
    Example example;
    const QStringList lines = block.split('\n', Qt::SkipEmptyParts);
    for (const QString& line : lines) {
        example.offsets.append(example.bytes.size());
        example.explanations.append(line.section('#', 1).trimmed());
        example.bytes += QByteArray::fromHex(line.section('#', 0, 0).toLatin1());
    }
    return example;
}

Network* network()
{
    return NetworkSimulation::instance()->network();
}

TcpNode* addNode(const QByteArray& address)
{
    auto* node = new TcpNode(address, nullptr);
    network()->addItem(node);
    return node;
}

/// Blanks the numbers that identify nodes within a file: they differ each time.
QByteArray withoutIds(QByteArray bytes, int offset, int count = 1)
{
    return bytes.replace(offset, count * idSize, QByteArray(count * idSize, '\0'));
}

template <typename Value> QByteArray written(Value&& value)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setVersion(Stream::version);
    stream << value;
    return bytes;
}

QByteArray idOf(const Node* node)
{
    QByteArray bytes(idSize, '\0');
    qToBigEndian(nodeFileId(node), bytes.data());
    return bytes;
}

QByteArray contentsOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

}  // namespace

/// Compares every worked example of docs/protocol.md and docs/files.md with the program.
class TestFormats : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(_folder.isValid());
        const QString documents = QString::fromUtf8(contentsOf(LATTIVO_DOCS "/protocol.md")
                                                    + contentsOf(LATTIVO_DOCS "/files.md"));
        const QRegularExpression block("<!-- example: (\\S+) -->\n```\n(.*?)```",
                                       QRegularExpression::DotMatchesEverythingOption);
        QRegularExpressionMatchIterator blocks = block.globalMatch(documents);
        while (blocks.hasNext()) {
            const QRegularExpressionMatch found = blocks.next();
            QVERIFY2(!_examples.contains(found.captured(1)), qPrintable(found.captured(1)));
            _examples.insert(found.captured(1), exampleOf(found.captured(2)));
        }
        QCOMPARE(_examples.size(), documents.count("<!-- example:"));
    }

    void init() { NetworkSimulation::newNetworkSimulation(); }
    void cleanup() { NetworkSimulation::deleteNetworkSimulation(); }

    /// An example that is added to a document needs a test and its name here.
    void everyExampleHasATest()
    {
        const QStringList tested = {
            "capture-record",           "closing-message",    "color",
            "confirmation-delivered",   "confirmation-lost",  "connection-record",
            "control-activate",         "control-address",    "control-color",
            "control-deactivate",       "control-name",       "debug-command-step",
            "dropped-message",          "frame-from-program", "frame-to-program",
            "identify-address",         "identify-name",      "new-simulation",
            "new-simulation-version-0", "node-record",        "pcap-dump",
            "pcap-dump-empty",
        };
        QCOMPARE(QStringList(_examples.keys()), tested);
        for (const Example& example : qAsConst(_examples))
            QVERIFY(!example.bytes.isEmpty());
    }

    void theOffsetsInWholeFilesAreRight_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("version 1") << "new-simulation";
        QTest::newRow("version 0") << "new-simulation-version-0";
    }

    void theOffsetsInWholeFilesAreRight()
    {
        QFETCH(QString, name);
        const Example example = _examples.value(name);
        QVERIFY(example.offsets.size() > 40);
        for (int line = 0; line < example.offsets.size(); ++line) {
            const QString explanation = example.explanations.at(line);
            QCOMPARE(explanation.section(' ', 0, 0), QString::number(example.offsets.at(line)));
        }
    }

    void aColorIsWrittenAndRead()
    {
        const QColor color(155, 155, 255);
        QCOMPARE(written(color), bytesOf("color"));
        QDataStream stream(bytesOf("color"));
        stream.setVersion(Stream::version);
        QCOMPARE(Stream::readColor(stream), color);
        QVERIFY(stream.atEnd());
    }

    void aNodeRecordIsWritten()
    {
        TcpNode* node = addNode(leftAddress);
        node->setName("Left");
        node->setToolTip("Gate");
        node->setPos(-150, 20.5);
        node->setActive(false, true);
        node->setActiveColor(QColor(64, 128, 32));
        node->setInactiveColor(QColor(182, 214, 166));
        TestAccess::framesAcknowledged(*node) = Qt::Checked;
        TestAccess::acknowledgeTimeout(*node) = 500;
        TestAccess::showAddress(*node) = Qt::Checked;
        TestAccess::showConnectionCount(*node) = Qt::Unchecked;

        constexpr int idOffset = 8;
        const QByteArray record = written(static_cast<Node*>(node));
        QCOMPARE(record.mid(idOffset, idSize), idOf(node));
        QCOMPARE(withoutIds(record, idOffset), withoutIds(bytesOf("node-record"), idOffset));
    }

    void aNodeRecordIsRead()
    {
        TcpNode* node = addNode(QByteArray());
        QDataStream stream(bytesOf("node-record").mid(nodeHeaderSize));
        stream.setVersion(Stream::version);
        stream >> static_cast<Node*>(node);
        QVERIFY(stream.atEnd() && stream.status() == QDataStream::Ok);

        QCOMPARE(node->name(), QStringLiteral("Left"));
        QCOMPARE(node->toolTip(), QStringLiteral("Gate"));
        QCOMPARE(node->address(), leftAddress);
        QCOMPARE(node->pos(), QPointF(-150, 20.5));
        QCOMPARE(TestAccess::activeColor(*node), QColor(64, 128, 32));
        QCOMPARE(TestAccess::framesAcknowledged(*node), Qt::Checked);
        QCOMPARE(TestAccess::acknowledgeTimeout(*node), 500);
        QCOMPARE(TestAccess::showAddress(*node), Qt::Checked);
        QCOMPARE(TestAccess::showConnectionCount(*node), Qt::Unchecked);
        QCOMPARE(TestAccess::showName(*node), Qt::PartiallyChecked);
        QCOMPARE(written(static_cast<Node*>(node)).mid(nodeHeaderSize),
                 bytesOf("node-record").mid(nodeHeaderSize));
    }

    void aConnectionRecordIsWritten()
    {
        TcpNode* left = addNode(leftAddress);
        TcpNode* right = addNode(rightAddress);
        auto* connection = new Connection(left, right);
        network()->addItem(connection);
        TestAccess::reliability(*connection) = 1.0 - 1.0 / 1024;
        TestAccess::delay(*connection) = 20;
        TestAccess::deviation(*connection) = 10;

        constexpr int idsOffset = 4;
        const QByteArray record = written(connection);
        QCOMPARE(record.mid(idsOffset, 2 * idSize), idOf(left) + idOf(right));
        QCOMPARE(withoutIds(record, idsOffset, 2), withoutIds(bytesOf("connection-record"), idsOffset, 2));
    }

    void aConnectionRecordIsRead()
    {
        auto* connection = new Connection(addNode(leftAddress), addNode(rightAddress));
        network()->addItem(connection);
        QDataStream stream(bytesOf("connection-record").mid(connectionHeaderSize));
        stream.setVersion(Stream::version);
        stream >> connection;
        QVERIFY(stream.atEnd() && stream.status() == QDataStream::Ok);

        QVERIFY(!connection->isBroken());
        QCOMPARE(connection->reliability(), 0.9990234375);
        QVERIFY(connection->errorDetectionReliability() < 0);
        QCOMPARE(connection->delayMs(), 20);
        QCOMPARE(connection->delayDeviationMs(), 10);
        QCOMPARE(written(connection).mid(connectionHeaderSize),
                 bytesOf("connection-record").mid(connectionHeaderSize));
    }

    void aCaptureRecordIsWritten()
    {
        Capture& capture = *NetworkSimulation::instance()->capture();
        capture.setEnabled(true);
        QCOMPARE(written(capture), bytesOf("capture-record"));
    }

    void aCaptureRecordIsRead()
    {
        Capture& capture = *NetworkSimulation::instance()->capture();
        capture.setViewFollows(true);
        QDataStream stream(bytesOf("capture-record"));
        stream.setVersion(Stream::version);
        stream >> capture;
        QVERIFY(stream.atEnd());
        QVERIFY(capture.isEnabled());
        QVERIFY(!capture.doesViewFollows());
    }

    void theFileOfANewSimulation()
    {
        constexpr int idOffset = 115;
        const QByteArray example = bytesOf("new-simulation");
        QCOMPARE(example.size(), 245);
        QCOMPARE(withoutIds(saved(), idOffset), withoutIds(example, idOffset));

        QVERIFY(loadSimulation(example));
        QCOMPARE(NetworkSimulation::instance()->fileVersion(), 1U);
        QCOMPARE(withoutIds(saved(), idOffset), withoutIds(example, idOffset));
    }

    void theFileOfANewSimulationOfVersion0()
    {
        constexpr int idOffset = 110;
        const QByteArray example = bytesOf("new-simulation-version-0");
        QCOMPARE(example.size(), 236);
        QVERIFY(loadSimulation(example));
        QCOMPARE(NetworkSimulation::instance()->fileVersion(), 0U);
        QCOMPARE(withoutIds(saved(), idOffset), withoutIds(example, idOffset));
    }

    void identificationByAddress()
    {
        const TcpNode* node = addNode(leftAddress);
        network()->setTcpPort(0);
        QVERIFY(network()->setTcpEnabled(true));
        Program program(network()->listeningPort());
        program.send(bytesOf("identify-address"));
        QTRY_VERIFY(node->socket());
    }

    void identificationByName()
    {
        TcpNode* node = addNode(rightAddress);
        node->setName("Right");
        network()->setNameUsedForPnpIdentification(true);
        network()->setTcpPort(0);
        QVERIFY(network()->setTcpEnabled(true));
        Program program(network()->listeningPort());
        program.send(bytesOf("identify-name"));
        QTRY_VERIFY(node->socket());
    }

    void aFrameGoesFromProgramToProgram()
    {
        TcpNode* left = addNode(leftAddress);
        TcpNode* right = addNode(rightAddress);
        network()->addItem(new Connection(left, right));
        SocketPair atLeft;
        SocketPair atRight;
        left->setSocket(atLeft.nodeEnd);
        right->setSocket(atRight.nodeEnd);

        const QByteArray arriving = bytesOf("frame-to-program");
        atLeft.program.send(bytesOf("frame-from-program"));
        QCOMPARE(atRight.program.receive(arriving.size()), arriving);
    }

    void outcomesOfFrames()
    {
        TcpNode* node = addNode(leftAddress);
        SocketPair pair;
        node->setSocket(pair.nodeEnd);
        node->dataConfirmation(true);
        node->dataConfirmation(false);
        const QByteArray expected = bytesOf("confirmation-delivered") + bytesOf("confirmation-lost");
        QCOMPARE(pair.program.receive(expected.size()), expected);
    }

    void aDebugCommand()
    {
        TcpNode* node = addNode(leftAddress);
        SocketPair pair;
        node->setSocket(pair.nodeEnd);
        node->sendDebugCommand(TcpNode::StepDC);
        const QByteArray expected = bytesOf("debug-command-step");
        QCOMPARE(pair.program.receive(expected.size()), expected);
    }

    void aDroppedMessage()
    {
        TcpNode* node = addNode(leftAddress);
        SocketPair pair;
        node->setSocket(pair.nodeEnd);
        pair.program.send(bytesOf("dropped-message") + bytesOf("control-name"));
        QTRY_COMPARE(node->name(), QStringLiteral("Left"));  // the node understands the next message
        QVERIFY(node->socket());
    }

    void aClosingMessage()
    {
        TcpNode* node = addNode(leftAddress);
        SocketPair pair;
        node->setSocket(pair.nodeEnd);
        pair.program.send(bytesOf("closing-message"));
        QVERIFY(pair.program.waitForEnd());
        QVERIFY(!node->socket());
    }

    void aNewAddress()
    {
        TcpNode* node = addNode(leftAddress);
        SocketPair pair;
        node->setSocket(pair.nodeEnd);
        pair.program.send(bytesOf("control-address"));
        QTRY_COMPARE(node->address(), hex("020000000003"));
    }

    void switchingOffAndOn()
    {
        TcpNode* node = addNode(leftAddress);
        SocketPair pair;
        node->setSocket(pair.nodeEnd);
        QVERIFY(node->active());
        pair.program.send(bytesOf("control-deactivate"));
        QTRY_VERIFY(!node->active());
        pair.program.send(bytesOf("control-activate"));
        QTRY_VERIFY(node->active());
    }

    void aNewColor()
    {
        TcpNode* node = addNode(leftAddress);
        SocketPair pair;
        node->setSocket(pair.nodeEnd);
        pair.program.send(bytesOf("control-color"));
        QTRY_COMPARE(TestAccess::activeColor(*node), QColor(64, 128, 32));
        QCOMPARE(TestAccess::inactiveColor(*node), QColor(182, 214, 166));
    }

    void aNewName()
    {
        TcpNode* node = addNode(leftAddress);
        SocketPair pair;
        node->setSocket(pair.nodeEnd);
        pair.program.send(bytesOf("control-name"));
        QTRY_COMPARE(node->name(), QStringLiteral("Left"));
    }

    void aDumpOfTwoFrames()
    {
        Capture* capture = NetworkSimulation::instance()->capture();
        capture->setEnabled(true);
        Frame first(hex("0102030405"), 123456789, 123456790, Frame::DeliveredInTime);
        Frame second(rightAddress + leftAddress + "AB", 123457001, 123457002, Frame::DeliveredInTime);
        capture->addFrame(first);
        capture->addFrame(second);
        QCOMPARE(dumped(), bytesOf("pcap-dump"));
    }

    void aDumpWithoutFrames() { QCOMPARE(dumped(), bytesOf("pcap-dump-empty")); }

private:
    QByteArray bytesOf(const char* example) const { return _examples.value(example).bytes; }

    QByteArray saved() const
    {
        const QString path = _folder.filePath("saved.ltvo");
        QFile::remove(path);
        return NetworkSimulation::instance()->save(path) ? contentsOf(path) : QByteArray();
    }

    QByteArray dumped() const
    {
        const QString path = _folder.filePath("a.pcapdump");
        return NetworkSimulation::instance()->exportPcapDump(path) ? contentsOf(path) : QByteArray();
    }

    QTemporaryDir _folder;
    QMap<QString, Example> _examples;
};

QTEST_MAIN(TestFormats)
#include "tst_formats.moc"
