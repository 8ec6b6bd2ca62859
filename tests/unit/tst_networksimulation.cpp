#include "network/networksimulation.h"

#include "nodes/tcpnode.h"
#include "testaccess.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QGraphicsView>
#include <QHostAddress>
#include <QPointer>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <memory>

#include <sys/stat.h>
#include <unistd.h>

namespace {

QByteArray contentsOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

class SelectionListener : public QObject
{
    Q_OBJECT

public:
    int calls = 0;

public slots:
    void listen() { ++calls; }
};

/// Takes root's rights over files from the process while it lives.
class UnprivilegedScope
{
public:
    UnprivilegedScope() { isUnprivileged = geteuid() != 0 || seteuid(nobody) == 0; }
    ~UnprivilegedScope()
    {
        if (geteuid() == nobody && seteuid(0) != 0)
            qFatal("cannot become root again");
    }
    Q_DISABLE_COPY_MOVE(UnprivilegedScope)

    bool isUnprivileged = false;

private:
    static constexpr uid_t nobody = 65534;
};

}  // namespace

class TestNetworkSimulation : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        _folder = std::make_unique<QTemporaryDir>();
        QVERIFY(_folder->isValid());
    }

    void cleanup() { NetworkSimulation::deleteNetworkSimulation(); }

    // This test needs a fresh process, so it stands first
    void theFirstCallMakesASimulationOfFileVersion1()
    {
        NetworkSimulation* simulation = NetworkSimulation::instance();
        QVERIFY(simulation);
        QCOMPARE(simulation->fileVersion(), quint32(1));
        QVERIFY(simulation->network()->items().isEmpty());
        QCOMPARE(simulation->capture()->rowCount(), 0);
    }

    void thereIsOneInstanceOnly()
    {
        NetworkSimulation* simulation = NetworkSimulation::instance();
        QCOMPARE(NetworkSimulation::instance(), simulation);
        QCOMPARE(simulation->network(), NetworkSimulation::instance()->network());
        QCOMPARE(simulation->capture(), NetworkSimulation::instance()->capture());
    }

    void theFileConstantsAreFixed()
    {
        QCOMPARE(NetworkSimulation::MagicNumber, 0xC191277CU);
        QCOMPARE(NetworkSimulation::VersionedMagicNumber, 0xC191277DU);
        QCOMPARE(NetworkSimulation::ActualFileVersion, 1U);
    }

    /// Binds references to the constants, as std::max() does: without a definition they do not link.
    void theFileConstantsCanBeReferredTo()
    {
        QCOMPARE(std::max(NetworkSimulation::MagicNumber, NetworkSimulation::VersionedMagicNumber),
                 0xC191277DU);
        QCOMPARE(std::max(NetworkSimulation::ActualFileVersion, 0U), 1U);
    }

    void aNewSimulationReplacesTheOldOne()
    {
        const QPointer<NetworkSimulation> old = NetworkSimulation::instance();
        const QPointer<Network> oldNetwork = old->network();
        NetworkSimulation* fresh = NetworkSimulation::newNetworkSimulation();
        QVERIFY(!old);
        QVERIFY(!oldNetwork);
        QCOMPARE(NetworkSimulation::instance(), fresh);
        QCOMPARE(fresh->fileVersion(), quint32(1));
    }

    void aNewSimulationKeepsNothingOfTheOldOne()
    {
        addNode();
        network().setTcpPnpEnabled(true);
        network().setTcpPort(0);
        TestAccess::parameters(network()).maximalTransferUnit = 7;
        NetworkSimulation::instance()->capture()->setEnabled(true);
        NetworkSimulation::instance()->capture()->setViewFollows(true);

        NetworkSimulation* fresh = NetworkSimulation::newNetworkSimulation();
        QVERIFY(network().items().isEmpty());
        QVERIFY(!network().isTcpPnpEnabled());
        QCOMPARE(network().tcpPort(), quint16(8844));
        QCOMPARE(network().maximalTransferUnit(), 255);
        QVERIFY(!fresh->capture()->isEnabled());
        QVERIFY(!fresh->capture()->doesViewFollows());
    }

    void aNewSimulationIsMadeAfterTheLastOneWasDeleted()
    {
        const QPointer<NetworkSimulation> old = NetworkSimulation::instance();
        NetworkSimulation::deleteNetworkSimulation();
        QVERIFY(!old);
        QVERIFY(NetworkSimulation::instance());
        QCOMPARE(NetworkSimulation::instance()->fileVersion(), quint32(1));
    }

    void deletingTheSimulationTwiceIsHarmless()
    {
        const QPointer<NetworkSimulation> simulation = NetworkSimulation::instance();
        NetworkSimulation::deleteNetworkSimulation();
        NetworkSimulation::deleteNetworkSimulation();
        QVERIFY(!simulation);
    }

    void thereAreAlwaysChanges() { QVERIFY(NetworkSimulation::instance()->hasChanges()); }

    void updatingTheDisplayRepaintsTheWholeScene()
    {
        addNode(QPointF(-300, -300));
        addNode(QPointF(300, 300));
        QSignalSpy changed(&network(), SIGNAL(changed(QList<QRectF>)));
        QVERIFY(changed.wait());  // the new nodes repaint the scene too
        changed.clear();

        NetworkSimulation::instance()->updateNetworkDisplay();
        QVERIFY(changed.wait());
        const auto region = changed.first().first().value<QList<QRectF>>();
        QVERIFY(region.contains(network().sceneRect()));
    }

    void aSelectedItemIsNotAnnouncedByADyingNetwork()
    {
        SelectionListener listener;
        connect(&network(), SIGNAL(selectionChanged()), &listener, SLOT(listen()));
        connect(&network(), SIGNAL(lastNodeDeleted()), &listener, SLOT(listen()));
        addNode()->setSelected(true);
        QCOMPARE(listener.calls, 1);
        NetworkSimulation::newNetworkSimulation();
        QCOMPARE(listener.calls, 1);
    }

    void loadingWithASelectedItemRunsNoSlotsOfTheDyingNetwork()
    {
        QVERIFY(NetworkSimulation::instance()->save(path("a.ltvo")));
        SelectionListener listener;
        connect(&network(), SIGNAL(selectionChanged()), &listener, SLOT(listen()));
        auto* one = addNode();
        auto* other = addNode(QPointF(100, 100));
        auto* connection = new Connection(one, other);
        network().addItem(connection);
        connection->setSelected(true);
        one->setSelected(true);
        const int calls = listener.calls;
        bool ok = true;
        NetworkSimulation::loadNetworkSimulation(path("a.ltvo"), &ok);
        QVERIFY(ok);
        QCOMPARE(listener.calls, calls);
    }

    void aViewOfTheOldNetworkIsLeftWithoutScene()
    {
        QGraphicsView view(&network());
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        addNode()->setSelected(true);
        NetworkSimulation::newNetworkSimulation();
        QVERIFY(!view.scene());
        QCoreApplication::processEvents();
    }

    void framesInFlightVanishWithTheSimulation()
    {
        auto* sender = addNode();
        auto* receiver = addNode(QPointF(100, 100));
        auto* connection = new Connection(sender, receiver);
        network().addItem(connection);
        TestAccess::delay(*connection) = 20;
        sender->setActive(true, false);
        receiver->setActive(true, false);
        sender->dataRequest(QByteArray(20, '\xFF'));
        QCOMPARE(TestAccess::framesInFlight(*connection).size(), 1);

        NetworkSimulation::newNetworkSimulation();
        NetworkSimulation::instance()->capture()->setEnabled(true);
        QSignalSpy leftLink(&network(), SIGNAL(frameLeftLink()));
        QVERIFY(!leftLink.wait(100));
        QCOMPARE(NetworkSimulation::instance()->capture()->rowCount(), 0);
    }

    void deletingTheSimulationClosesServerPendingAndAttachedSockets()
    {
        network().setTcpPort(0);
        network().setTcpPnpEnabled(true);
        QVERIFY(network().setTcpEnabled(true));
        const quint16 port = network().listeningPort();

        QTcpSocket attached;
        attached.connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(attached.waitForConnected());
        attached.write(QByteArray::fromHex("03"
                                           "00000007"
                                           "01"
                                           "0A0B0C0D0E0F"));
        QTRY_COMPARE(network().items().size(), 1);
        QTcpSocket pending;
        pending.connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(pending.waitForConnected());
        QTRY_COMPARE(TestAccess::server(network()).pending.size(), 1);

        NetworkSimulation::deleteNetworkSimulation();
        QTRY_COMPARE(attached.state(), QAbstractSocket::UnconnectedState);
        QTRY_COMPARE(pending.state(), QAbstractSocket::UnconnectedState);
        QTcpSocket late;
        late.connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(!late.waitForConnected());
    }

    void saveAndLoadKeepFileVersion1()
    {
        addNode(QPointF(12, 34));
        QVERIFY(NetworkSimulation::instance()->save(path("a.ltvo")));
        bool ok = true;
        NetworkSimulation* loaded = NetworkSimulation::loadNetworkSimulation(path("a.ltvo"), &ok);
        QVERIFY(ok);
        QCOMPARE(loaded, NetworkSimulation::instance());
        QCOMPARE(loaded->fileVersion(), quint32(1));
        QCOMPARE(network().items().size(), 1);
        QCOMPARE(network().items().first()->pos(), QPointF(12, 34));
    }

    void aSuccessfulLoadLeavesTheFlagAsItIs()
    {
        addNode();
        QVERIFY(NetworkSimulation::instance()->save(path("a.ltvo")));
        bool ok = false;
        NetworkSimulation::loadNetworkSimulation(path("a.ltvo"), &ok);
        QCOMPARE(network().items().size(), 1);
        QVERIFY(!ok);
    }

    void theFlagMayBeNull()
    {
        QVERIFY(NetworkSimulation::instance()->save(path("a.ltvo")));
        write(path("bad.ltvo"), "bad");
        for (const char* name : {"a.ltvo", "none.ltvo", "bad.ltvo"}) {
            const NetworkSimulation* loaded = NetworkSimulation::loadNetworkSimulation(path(name), nullptr);
            QCOMPARE(NetworkSimulation::instance(), loaded);
        }
    }

    void aMissingFileFailsAndIsNotCreated()
    {
        addNode();
        const QPointer<Network> old = &network();
        bool ok = true;
        NetworkSimulation* loaded = NetworkSimulation::loadNetworkSimulation(path("none.ltvo"), &ok);
        QVERIFY(!ok);
        QCOMPARE(loaded, NetworkSimulation::instance());
        QVERIFY(!old);
        QVERIFY(network().items().isEmpty());
        QVERIFY(!QFile::exists(path("none.ltvo")));
        QVERIFY(QDir(_folder->path()).isEmpty());
    }

    void aFileThatMayNotBeWrittenFails()
    {
        addNode();
        QVERIFY(NetworkSimulation::instance()->save(path("a.ltvo")));
        const QByteArray saved = contentsOf(path("a.ltvo"));
        QCOMPARE(chmod(QFile::encodeName(_folder->path()).constData(), 0755), 0);
        QCOMPARE(chmod(QFile::encodeName(path("a.ltvo")).constData(), 0444), 0);

        bool ok = true;
        bool isReadable = false;
        {
            const UnprivilegedScope scope;
            if (!scope.isUnprivileged)
                QSKIP("root's power over files could not be laid down here: whether a read-only file is "
                      "refused "
                      "was not tested");
            isReadable = contentsOf(path("a.ltvo")) == saved;
            NetworkSimulation::loadNetworkSimulation(path("a.ltvo"), &ok);
        }
        QVERIFY(isReadable);
        QVERIFY(!ok);
        QVERIFY(network().items().isEmpty());
        QCOMPARE(contentsOf(path("a.ltvo")), saved);
    }

    void aDeviceThatMayNotBeWrittenLoads()
    {
        addNode();
        QVERIFY(NetworkSimulation::instance()->save(path("a.ltvo")));
        QFile file(path("a.ltvo"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        bool ok = true;
        NetworkSimulation::loadNetworkSimulation(&file, &ok);
        QVERIFY(ok);
        QCOMPARE(network().items().size(), 1);
    }

    void aDirectoryFails()
    {
        addNode();
        bool ok = true;
        NetworkSimulation::loadNetworkSimulation(_folder->path(), &ok);
        QVERIFY(!ok);
        QVERIFY(network().items().isEmpty());
    }

    void aPipeFailsWithoutWaiting()
    {
        QCOMPARE(mkfifo(QFile::encodeName(path("pipe")).constData(), 0600), 0);
        QElapsedTimer clock;
        clock.start();
        bool ok = true;
        NetworkSimulation::loadNetworkSimulation(path("pipe"), &ok);
        QVERIFY(!ok);
        QVERIFY(network().items().isEmpty());
        QVERIFY2(clock.elapsed() < 1000, "the load waited for a writer");
    }

    void anEmptyFileFails()
    {
        write(path("empty"), QByteArray());
        bool ok = true;
        NetworkSimulation::loadNetworkSimulation(path("empty"), &ok);
        QVERIFY(!ok);
        QCOMPARE(QFile(path("empty")).size(), qint64(0));
    }

    void aFileThatBeginsWithOtherWordsFails()
    {
        for (const char* word : {"C191277B", "C191277E", "7D2791C1", "00000000"}) {
            addNode();
            write(path("bad"), QByteArray::fromHex(word) + QByteArray(1000, '\0'));
            bool ok = true;
            NetworkSimulation::loadNetworkSimulation(path("bad"), &ok);
            QVERIFY2(!ok, word);
            QVERIFY(network().items().isEmpty());
            QCOMPARE(NetworkSimulation::instance()->fileVersion(), quint32(1));
        }
    }

    void aFailedLoadLeavesANewEmptySimulation()
    {
        addNode();
        TestAccess::parameters(network()).maximalTransferUnit = 7;
        network().setTcpPort(0);
        QVERIFY(network().setTcpEnabled(true));
        NetworkSimulation::instance()->capture()->setEnabled(true);
        QVERIFY(NetworkSimulation::instance()->save(path("a.ltvo")));
        QByteArray bytes = contentsOf(path("a.ltvo"));
        bytes[bytes.size() - 1] = '\x7C';  // the other of the two magic words
        write(path("a.ltvo"), bytes);

        bool ok = true;
        NetworkSimulation* loaded = NetworkSimulation::loadNetworkSimulation(path("a.ltvo"), &ok);
        QVERIFY(!ok);
        QCOMPARE(loaded, NetworkSimulation::instance());
        QVERIFY(network().items().isEmpty());
        QVERIFY(TestAccess::allTcpNodes().isEmpty());
        QCOMPARE(network().maximalTransferUnit(), 255);
        QCOMPARE(network().tcpPort(), quint16(8844));
        QVERIFY(!network().isTcpEnabled());
        QVERIFY(!loaded->capture()->isEnabled());
        QCOMPARE(loaded->fileVersion(), quint32(1));
    }

    void savingOverALongerFileLeavesItsTailAndStillLoads()
    {
        QVERIFY(NetworkSimulation::instance()->save(path("short.ltvo")));
        const QByteArray shortBytes = contentsOf(path("short.ltvo"));
        const QByteArray old(shortBytes.size() + 77, 'x');
        write(path("a.ltvo"), old);
        QVERIFY(NetworkSimulation::instance()->save(path("a.ltvo")));
        QCOMPARE(contentsOf(path("a.ltvo")), shortBytes + QByteArray(77, 'x'));

        bool ok = true;
        NetworkSimulation::loadNetworkSimulation(path("a.ltvo"), &ok);
        QVERIFY(ok);
    }

    void savingToAPlaceThatCannotBeOpenedFails()
    {
        QVERIFY(!NetworkSimulation::instance()->save(_folder->path()));
        QVERIFY(!NetworkSimulation::instance()->save(path("no/such/folder.ltvo")));
        QVERIFY(!NetworkSimulation::instance()->save(QString()));
    }

    void exportingToAPlaceThatCannotBeOpenedFails()
    {
        QVERIFY(!NetworkSimulation::instance()->exportPcapDump(_folder->path()));
        QVERIFY(!NetworkSimulation::instance()->exportPcapDump(path("no/such/folder.pcapdump")));
        QVERIFY(!NetworkSimulation::instance()->exportPcapDump(QString()));
    }

    void exportingWritesADump()
    {
        QVERIFY(NetworkSimulation::instance()->exportPcapDump(path("a.pcapdump")));
        QCOMPARE(contentsOf(path("a.pcapdump")).left(4), QByteArray::fromHex("A1B2C3D4"));
    }

    void aWriteErrorWhileSavingIsNotReported()
    {
        if (!QFile::exists(QStringLiteral("/dev/full")))
            QSKIP("there is no /dev/full here: what a write error while saving gives was not tested");
        QVERIFY(NetworkSimulation::instance()->save(QStringLiteral("/dev/full")));
    }

private:
    static Network& network() { return *NetworkSimulation::instance()->network(); }

    static TcpNode* addNode(const QPointF& position = QPointF())
    {
        auto* node = new TcpNode(QByteArray(), nullptr);
        network().addItem(node);
        node->setPos(position);
        return node;
    }

    QString path(const char* name) const { return _folder->filePath(QLatin1String(name)); }

    void write(const QString& file, const QByteArray& bytes) const
    {
        QFile output(file);
        QVERIFY(output.open(QIODevice::WriteOnly));
        QCOMPARE(output.write(bytes), qint64(bytes.size()));
    }

    std::unique_ptr<QTemporaryDir> _folder;
};

QTEST_MAIN(TestNetworkSimulation)
#include "tst_networksimulation.moc"
