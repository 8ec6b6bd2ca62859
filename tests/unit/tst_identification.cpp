#include "network/network.h"

#include "serverhelpers.h"

#include <QtTest>

using namespace TestHelpers;

/// How a program says who it is.
class TestIdentification : public QObject
{
    Q_OBJECT

private:
    /// Verifies that neither the present node nor Plug'n'Place takes the program.
    void verifyRefused(const QByteArray& identification)
    {
        network()->setTcpPnpEnabled(true);
        TcpNode* node = addTcpNode(leftAddress);
        node->setName(QStringLiteral("Left"));
        PendingProgram program;
        program.send(identification);
        QVERIFY(isRefused(program));
        QVERIFY(!node->socket());
        QCOMPARE(network()->items().size(), 1);
    }

private slots:
    void init()
    {
        qsrand(1);
        QVERIFY(listenInNewSimulation());
    }

    void cleanup()
    {
        NetworkSimulation::deleteNetworkSimulation();
        QVERIFY(TestAccess::allTcpNodes().isEmpty());
    }

    // By address

    void anAddressAttachesItsNode()
    {
        TcpNode* left = addTcpNode(leftAddress);
        TcpNode* right = addTcpNode(rightAddress);
        PendingProgram program;
        program.send(hex("03 00000007 01 020000000001"));

        QVERIFY(waitUntilAttached(left));
        QCOMPARE(left->socket(), program.nodeEnd.data());
        QCOMPARE(program.nodeEnd->parent(), left);
        QVERIFY(left->active());
        QVERIFY(!right->socket());
        QVERIFY(pending().isEmpty());
    }

    void anAddressOfTheNetworksLengthIsExpected()
    {
        TestAccess::parameters(*network()).addressLength = 2;
        TcpNode* node = addTcpNode(hex("0A0B"));
        PendingProgram tooLong;
        tooLong.send(addressMessage(leftAddress));
        QVERIFY(isRefused(tooLong));

        PendingProgram program;
        program.send(hex("03 00000003 01 0A0B"));
        QVERIFY(waitUntilAttached(node));
    }

    void anythingButAnAddressIsRefused_data()
    {
        QTest::addColumn<QByteArray>("bytes");

        for (const char* type : {"00", "01", "02", "04", "05", "06", "07", "FF"})
            addRow(hex(type) + hex("00000007 01 020000000001"));
        for (const char* length :
             {"00000000", "00000001", "00000006", "00000008", "01000007", "80000007", "FFFFFFFF"})
            addRow(hex("03") + hex(length) + hex("01 020000000001"));
        for (const char* kind : {"00", "02", "03", "04", "05", "06", "FF"})
            addRow(hex("03 00000007") + hex(kind) + hex("020000000001"));
        addRow(hex("03 00000006 01 0200000000"));
        addRow(hex("03 00000008 01 02000000000102"));
        addRow(hex("03 00000005 05 4C656674"));  // a node's name
        addRow("GET / HTTP/1.1\r\n\r\n");
    }

    void anythingButAnAddressIsRefused()
    {
        QFETCH(QByteArray, bytes);

        verifyRefused(bytes);
    }

    void anAddressCutShortIsRefused()
    {
        network()->setTcpPnpEnabled(true);
        const QByteArray whole = addressMessage(hex("020000000000"));  // bytes read as zero would complete it
        TcpNode* node = addTcpNode(hex("020000000000"));
        for (int length = 1; length < whole.size(); ++length) {
            PendingProgram program;
            program.send(whole.left(length));
            QVERIFY2(isRefused(program), qPrintable(QString::number(length)));
        }

        QVERIFY(!node->socket());
        QCOMPARE(network()->items().size(), 1);
    }

    void theRestOfAnAddressIsNotWaitedFor()
    {
        TcpNode* node = addTcpNode(leftAddress);
        PendingProgram program;
        program.send(hex("03 00000007 01"));
        QTRY_VERIFY(pending().isEmpty());
        program.send(leftAddress);

        QVERIFY(isRefused(program));
        QVERIFY(!node->socket());
    }

    void bytesBehindAnAddressAreReadByTheNode()
    {
        TcpNode* node = addTcpNode(leftAddress);
        PendingProgram program;
        program.send(addressMessage(leftAddress) + hex("01 00000003 AABBCC") + control(5, "Left"));

        QVERIFY(waitUntilAttached(node));
        QTRY_COMPARE(node->name(), QStringLiteral("Left"));
        QCOMPARE(node->sendFramesCount(), qint64{1});
        QCOMPARE(node->sendBytesCount(), qint64{3});
        QVERIFY(node->socket());
    }

    void bytesBehindAnAddressAreReadByANewNode()
    {
        network()->setTcpPnpEnabled(true);
        PendingProgram program;
        program.send(addressMessage(leftAddress) + control(5, "Left"));
        const TcpNode* node = waitForNewNode();

        QVERIFY(node);
        QTRY_COMPARE(node->name(), QStringLiteral("Left"));
    }

    void anIncompleteMessageBehindAnAddressClosesTheConnection()
    {
        TcpNode* node = addTcpNode(leftAddress);
        QSignalSpy changes(node, SIGNAL(connectionStateChanged()));
        PendingProgram program;
        program.send(addressMessage(leftAddress) + hex("01 00000003 AABB"));

        QVERIFY(program.waitForEnd());
        QVERIFY(!node->socket());
        QCOMPARE(node->sendFramesCount(), qint64{0});
        QCOMPARE(changes.count(), 2);  // attached first
    }

    // By name

    void aNameAttachesItsNode()
    {
        network()->setNameUsedForPnpIdentification(true);
        TcpNode* links = addTcpNode(QStringLiteral("Links"));
        TcpNode* right = addTcpNode(QStringLiteral("Right"));
        PendingProgram program;
        program.send(hex("03 00000006 05 4C696E6B73"));

        QVERIFY(waitUntilAttached(links));
        QCOMPARE(links->socket(), program.nodeEnd.data());
        QCOMPARE(program.nodeEnd->parent(), links);
        QVERIFY(links->active());
        QVERIFY(!right->socket());
        QVERIFY(pending().isEmpty());
    }

    void aNameIsReadAsUtf8()
    {
        network()->setNameUsedForPnpIdentification(true);
        const TcpNode* node = addTcpNode(QString::fromUtf8("Z\xC3\xBCge"));
        PendingProgram program;
        program.send(hex("03 00000006 05 5AC3BC6765"));

        QVERIFY(waitUntilAttached(node));
    }

    void anythingButANameIsRefused_data()
    {
        QTest::addColumn<QByteArray>("bytes");

        for (const char* type : {"00", "01", "02", "04", "05", "06", "07", "FF"})
            addRow(hex(type) + hex("00000005 05 4C656674"));
        for (const char* kind : {"00", "01", "02", "03", "04", "06", "FF"})
            addRow(hex("03 00000005") + hex(kind) + hex("4C656674"));
        addRow(hex("03 00000007 01 020000000001"));  // a node's address
    }

    void anythingButANameIsRefused()
    {
        QFETCH(QByteArray, bytes);

        network()->setNameUsedForPnpIdentification(true);
        verifyRefused(bytes);
    }

    void aNameWithoutItsKindIsRefused()
    {
        network()->setNameUsedForPnpIdentification(true);
        network()->setTcpPnpEnabled(true);
        const QByteArray header = hex("03 00000005");
        for (int length = 1; length <= header.size(); ++length) {
            PendingProgram program;
            program.send(header.left(length));
            QVERIFY2(isRefused(program), qPrintable(QString::number(length)));
        }

        QVERIFY(network()->items().isEmpty());
    }

    void aNameIsWhatHasArrived_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("name");

        QTest::newRow("whole") << hex("03 00000005 05 4C656674") << "Left";
        QTest::newRow("one byte missing") << hex("03 00000005 05 4C6566") << "Lef";
        QTest::newRow("two bytes missing") << hex("03 00000005 05 4C65") << "Le";
        QTest::newRow("one byte there") << hex("03 00000005 05 4C") << "L";
        QTest::newRow("no byte there") << hex("03 00000005 05") << "";
        QTest::newRow("more than announced") << hex("03 00000003 05 4C656674") << "Le";
        QTest::newRow("zero byte within") << hex("03 00000005 05 4C650074") << "Le";
        QTest::newRow("zero byte first") << hex("03 00000005 05 00656674") << "";
        QTest::newRow("no byte announced") << hex("03 00000001 05 4C656674") << "";
        QTest::newRow("length 0") << hex("03 00000000 05 4C656674") << "";
        QTest::newRow("greatest length") << hex("03 FFFFFFFF 05 4C656674") << "Left";
        QTest::newRow("greatest positive length") << hex("03 7FFFFFFF 05 4C656674") << "Left";
        QTest::newRow("smallest negative length") << hex("03 80000000 05 4C656674") << "Left";
    }

    void aNameIsWhatHasArrived()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, name);

        network()->setNameUsedForPnpIdentification(true);
        network()->setTcpPnpEnabled(true);
        PendingProgram program;
        program.send(bytes);
        const TcpNode* node = waitForNewNode();
        QVERIFY(node);
        QCOMPARE(node->name(), name);
        QVERIFY(node->active());
    }

    void bytesBehindANameAreLost()
    {
        network()->setNameUsedForPnpIdentification(true);
        TcpNode* node = addTcpNode(QStringLiteral("Left"));
        PendingProgram program;
        program.send(nameMessage("Left") + hex("01 00000003 AABBCC") + hex("06"));
        QVERIFY(waitUntilAttached(node));
        program.send(hex("01 00000001 AA"));

        QTRY_COMPARE(node->sendFramesCount(), qint64{1});
        QCOMPARE(node->sendBytesCount(), qint64{1});
        QVERIFY(node->socket());
    }

    void hostileLengthsTakeNoMemory_data()
    {
        QTest::addColumn<bool>("isByName");
        QTest::addColumn<QByteArray>("bytes");

        for (const char* length : {"FFFFFFFF", "FFFFFFFE", "80000001", "80000000", "7FFFFFFF", "40000000"}) {
            QTest::newRow(qPrintable(QStringLiteral("name ") + length))
                << true << hex("03") + hex(length) + hex("05 41");
            QTest::newRow(qPrintable(QStringLiteral("address ") + length))
                << false << hex("03") + hex(length) + hex("01 020000000001");
        }
    }

    void hostileLengthsTakeNoMemory()
    {
        QFETCH(bool, isByName);
        QFETCH(QByteArray, bytes);

        network()->setNameUsedForPnpIdentification(isByName);
        PendingProgram program;
        const qint64 memoryBefore = peakMemory();
        QVERIFY(memoryBefore > 0);
        program.send(bytes);
        QVERIFY(isRefused(program));
        QVERIFY(peakMemory() - memoryBefore < unremarkableMemory);
    }
};

QTEST_MAIN(TestIdentification)
#include "tst_identification.moc"
