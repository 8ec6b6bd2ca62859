#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "outputfile.h"
#include "testhelpers.h"

#include <QTemporaryDir>
#include <QtTest>

#include <cstdio>
#include <functional>
#include <utility>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

constexpr uid_t nobody = 65534;
constexpr int manyNodes = 1000;  // some 180 KB of a simulation file, which Qt reads in many pieces
const QByteArray pcapMagic = QByteArray::fromHex("A1B2C3D4");

/// Hides the mounts of this process from all others; false where it may not.
bool makeMountsPrivate()
{
    static const bool arePrivate
        = unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return arePrivate;
}

/// Mounts a small disk in memory while it lives. Only this process sees it.
class Disk
{
public:
    explicit Disk(const QByteArray& limits)
        : _limits(limits)
    {
        _isThere = makeMountsPrivate() && mount("none", _path(), "tmpfs", 0, _limits.constData()) == 0;
    }

    ~Disk() { umount2(_path(), MNT_DETACH); }

    Q_DISABLE_COPY_MOVE(Disk)

    bool isThere() const { return _isThere; }
    QString path(const char* fileName) const { return _folder.filePath(QString::fromLatin1(fileName)); }

    bool makeReadOnly() const
    {
        return mount("none", _path(), "tmpfs", MS_REMOUNT | MS_RDONLY, _limits.constData()) == 0;
    }

    /// Leaves no room for a byte, nor for another file when their number is limited.
    bool fill() const
    {
        QFile filling(path("filling"));
        if (!filling.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
            return false;
        while (filling.write(QByteArray(4096, 'x')) > 0) { }
        return filling.error() == QFileDevice::ResourceError;
    }

    bool makeRoom() const { return QFile::remove(path("filling")); }

private:
    const char* _path() const { return _place.constData(); }

    QTemporaryDir _folder;
    QByteArray _place = QFile::encodeName(_folder.path());
    QByteArray _limits;
    bool _isThere = false;
};

const QByteArray smallDisk = "size=64k";
const QByteArray diskOfOneFile = "size=64k,nr_inodes=2";  // the folder is one of the two

/// Takes the rights of root from the process while it lives: permissions do not bind root.
class WithoutRights
{
public:
    WithoutRights() { _isBound = geteuid() != 0 || seteuid(nobody) == 0; }
    ~WithoutRights() { _isBound = seteuid(getuid()) == 0; }

    Q_DISABLE_COPY_MOVE(WithoutRights)

    bool isBound() const { return _isBound; }

private:
    bool _isBound = false;
};

/// Plays a file that somebody changes after the loader has read a number of bytes.
class ChangingFile : public QFile
{
public:
    ChangingFile(const QString& name, qint64 readBefore, std::function<void()> change)
        : QFile(name)
        , _left(readBefore)
        , _change(std::move(change))
    {
    }

    bool hasChanged() const { return !_change; }

protected:
    /// Reads as much as from a file that nobody changes: a short answer would mean the end of the file.
    qint64 readData(char* data, qint64 size) override
    {
        if (!_change || size <= _left) {
            const qint64 read = QFile::readData(data, size);
            _left -= qMax<qint64>(read, 0);
            return read;
        }
        const qint64 before = qMax<qint64>(QFile::readData(data, _left), 0);
        std::exchange(_change, nullptr)();
        const qint64 after = QFile::readData(data + before, size - before);
        return before + qMax<qint64>(after, 0);
    }

private:
    qint64 _left;  // bytes
    std::function<void()> _change;
};

/// Plays a file whose disk fails after a number of bytes.
class FailingFile : public QFile
{
public:
    FailingFile(const QString& name, qint64 goodBytes)
        : QFile(name)
        , _left(goodBytes)
    {
    }

protected:
    qint64 readData(char* data, qint64 size) override
    {
        const qint64 read = _left > 0 ? QFile::readData(data, qMin(size, _left)) : -1;
        _left -= qMax<qint64>(read, 0);
        return read;
    }

private:
    qint64 _left;  // bytes
};

void addNodes(int count, const QString& name)
{
    for (int i = 0; i < count; ++i) {
        auto* node = new TcpNode(TestHelpers::nodeAddress(i % 256), nullptr);
        node->setName(name);
        TestHelpers::network()->addItem(node);
    }
}

QStringList nodeNames()
{
    QStringList names;
    const QList<QGraphicsItem*> items = TestHelpers::network()->items();
    for (const QGraphicsItem* item : items) {
        if (const auto* node = dynamic_cast<const TcpNode*>(item))
            names.append(node->name());
    }
    return names;
}

void makeSimulation(int nodes, const QString& name)
{
    NetworkSimulation::newNetworkSimulation();
    addNodes(nodes, name);
}

void capture(int frames, int size)
{
    TestHelpers::capture()->setEnabled(true);
    for (int i = 0; i < frames; ++i) {
        Frame frame(QByteArray(size, 'x'), 0, 0, Frame::DeliveredInTime);
        TestHelpers::capture()->addFrame(frame);
    }
}

bool loads(const QString& fileName)
{
    bool ok = true;
    NetworkSimulation::loadNetworkSimulation(fileName, &ok);
    return ok;
}

bool loads(QIODevice& file)
{
    bool ok = true;
    NetworkSimulation::loadNetworkSimulation(&file, &ok);
    return ok;
}

bool save(const QString& fileName)
{
    return NetworkSimulation::instance()->save(fileName);
}

bool exportDump(const QString& fileName)
{
    return NetworkSimulation::instance()->exportPcapDump(fileName);
}

QByteArray contentsOf(const QString& fileName)
{
    QFile file(fileName);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void write(const QString& fileName, const QByteArray& contents, QIODevice::OpenMode mode)
{
    QFile file(fileName);
    if (!file.open(mode) || file.write(contents) != contents.size())
        qFatal("cannot write a file of the test");
}

void replace(const QString& fileName, const QByteArray& contents)
{
    write(fileName + ".new", contents, QIODevice::WriteOnly);
    if (rename(QFile::encodeName(fileName + ".new").constData(), QFile::encodeName(fileName).constData())
        != 0)
        qFatal("cannot replace a file of the test");
}

#define SKIP_WITHOUT(disk)                                                                                   \
    if (!(disk).isThere())                                                                                   \
    QSKIP("no disk can be mounted here, which root may: a disk that is full or read-only was not tested")

}  // namespace

/// Tests what happens when the machine fails while files are saved, exported and loaded.
class TestFileFaults : public QObject
{
    Q_OBJECT

private slots:
    void cleanup()
    {
        NetworkSimulation::deleteNetworkSimulation();
        QFile::remove(_file);
        QFile::remove(_dump);
    }

    void savingAndExportingOntoADiskWithoutRoomForAFileFail()
    {
        const Disk disk(diskOfOneFile);
        SKIP_WITHOUT(disk);
        QVERIFY(disk.fill());
        makeSimulation(3, "kept");
        QVERIFY(!save(disk.path("a.ltvo")));
        QVERIFY(!exportDump(disk.path("a.pcapdump")));
        QCOMPARE(nodeNames(), QStringList({"kept", "kept", "kept"}));
        QVERIFY(save(_file));
    }

    void savingAndExportingOntoAReadOnlyDiskFail()
    {
        const Disk disk(smallDisk);
        SKIP_WITHOUT(disk);
        makeSimulation(1, "first");
        QVERIFY(save(disk.path("a.ltvo")));
        const QByteArray before = contentsOf(disk.path("a.ltvo"));
        QVERIFY(disk.makeReadOnly());

        addNodes(1, "second");
        QVERIFY(!save(disk.path("a.ltvo")));
        QVERIFY(!exportDump(disk.path("a.ltvo")));
        QCOMPARE(contentsOf(disk.path("a.ltvo")), before);
        QCOMPARE(nodeNames().size(), 2);
    }

    /// Loading wants write permission, on purpose.
    void aFileOnAReadOnlyDiskIsNotOpenedByItsName()
    {
        const Disk disk(smallDisk);
        SKIP_WITHOUT(disk);
        makeSimulation(1, "first");
        QVERIFY(save(disk.path("a.ltvo")));
        QVERIFY(disk.makeReadOnly());
        QVERIFY(!loads(disk.path("a.ltvo")));
        QCOMPARE(nodeNames(), QStringList());

        QFile file(disk.path("a.ltvo"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(loads(file));
        QCOMPARE(nodeNames(), QStringList("first"));
    }

    void savingAndExportingIntoAFolderWithoutPermissionFail()
    {
        const QTemporaryDir folder;  // only its owner may enter it
        QVERIFY(QFile::setPermissions(folder.path(), QFileDevice::ReadOwner | QFileDevice::ExeOwner));
        makeSimulation(1, "kept");
        const WithoutRights rights;
        if (!rights.isBound())
            QSKIP("root cannot give up its rights here: a folder without permission was not tested");
        QVERIFY(!save(folder.filePath("a.ltvo")));
        QVERIFY(!exportDump(folder.filePath("a.pcapdump")));
        QCOMPARE(nodeNames(), QStringList("kept"));
    }

    /// Saving does not cut the file first, so it keeps its place on the disk.
    void aFileThatIsThereIsSavedAgainOnAFullDisk()
    {
        const Disk disk(smallDisk);
        SKIP_WITHOUT(disk);
        makeSimulation(20, "before");
        QVERIFY(save(disk.path("a.ltvo")));
        QVERIFY(disk.fill());

        makeSimulation(20, "behind");
        QVERIFY(save(disk.path("a.ltvo")));
        QVERIFY(loads(disk.path("a.ltvo")));
        QCOMPARE(nodeNames().size(), 20);
        QCOMPARE(nodeNames().count("behind"), 20);
    }

    /// Saving does not report a failed write, on purpose; loading refuses the file that was cut short.
    void aDiskThatFillsUpWhileSavingHarmsOnlyTheNewFile()
    {
        const Disk disk("size=256k");
        SKIP_WITHOUT(disk);
        QVERIFY(disk.fill());
        QVERIFY(disk.makeRoom());
        const QByteArray halfOfTheDisk(128 * 1024, 'x');
        write(disk.path("filling"), halfOfTheDisk, QIODevice::WriteOnly);

        makeSimulation(manyNodes, "kept");
        QVERIFY(save(disk.path("a.ltvo")));
        QCOMPARE(nodeNames().size(), manyNodes);
        QVERIFY(save(_file));
        QVERIFY(contentsOf(disk.path("a.ltvo")).size() < contentsOf(_file).size());
        QVERIFY(!loads(disk.path("a.ltvo")));
        QCOMPARE(nodeNames(), QStringList());

        QVERIFY(loads(_file));
        QVERIFY(disk.makeRoom());
        QVERIFY(save(disk.path("a.ltvo")));
        QVERIFY(loads(disk.path("a.ltvo")));
        QCOMPARE(nodeNames().size(), manyNodes);
    }

    void aDiskThatFillsUpWhileExportingHarmsOnlyTheNewFile()
    {
        constexpr int frames = 1000;
        constexpr int frameSize = 200;
        constexpr int dumpSize = 24 + frames * (16 + frameSize + 2);
        const Disk disk(smallDisk);
        SKIP_WITHOUT(disk);
        NetworkSimulation::newNetworkSimulation();
        capture(frames, frameSize);

        QVERIFY(exportDump(disk.path("a.pcapdump")));
        const QByteArray cut = contentsOf(disk.path("a.pcapdump"));
        QVERIFY(cut.startsWith(pcapMagic) && cut.size() < dumpSize);
        QCOMPARE(TestHelpers::capturedFrames().size(), frames);
        QVERIFY(exportDump(_dump));
        QCOMPARE(contentsOf(_dump).size(), dumpSize);
        QVERIFY(contentsOf(_dump).startsWith(cut));
    }

    void anOutputWrittenInPartOntoAFullDiskNamesTheReason_data()
    {
        QTest::addColumn<int>("pieces");
        QTest::newRow("in one piece") << 1;
        QTest::newRow("in small pieces") << 20 * 1024;
    }

    void anOutputWrittenInPartOntoAFullDiskNamesTheReason()
    {
        QFETCH(int, pieces);
        const Disk disk(smallDisk);
        SKIP_WITHOUT(disk);
        const QByteArray contents(100 * 1024, 'x');
        const int pieceSize = contents.size() / pieces;
        OutputFile file(disk.path("report"));
        QVERIFY(file.open());
        for (int i = 0; i < pieces; ++i)
            file.write(contents.mid(i * pieceSize, pieceSize));
        QVERIFY(!file.finish());
        QCOMPARE(file.error(), QStringLiteral("No space left on device"));
        QCOMPARE(contentsOf(disk.path("report")), contents.left(64 * 1024));
    }

    /// More room does not bring back the part that is missing.
    void anOutputWrittenInPartHoldsThatPartAndNoMore()
    {
        const Disk disk(smallDisk);
        SKIP_WITHOUT(disk);
        write(disk.path("filling"), QByteArray(32 * 1024, 'x'), QIODevice::WriteOnly);
        OutputFile file(disk.path("report"));
        QVERIFY(file.open());
        QCOMPARE(file.write(QByteArray(100 * 1024, 'x')), qint64{-1});
        QVERIFY(disk.makeRoom());
        QCOMPARE(file.write("end"), qint64{-1});
        QVERIFY(!file.finish());
        QCOMPARE(file.error(), QStringLiteral("No space left on device"));
        QCOMPARE(contentsOf(disk.path("report")), QByteArray(32 * 1024, 'x'));
    }

    void aFileThatIsCutWhileItLoadsIsNotLoaded_data() { places(); }

    void aFileThatIsCutWhileItLoadsIsNotLoaded()
    {
        QFETCH(qint64, readBefore);
        makeSimulation(manyNodes, "old");
        QVERIFY(save(_file));
        ChangingFile file(_file, readBefore, [&] { QFile::resize(_file, readBefore); });
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(!loads(file));
        QVERIFY(file.hasChanged());
        QCOMPARE(nodeNames(), QStringList());
    }

    void aFileThatGrowsWhileItLoadsIsLoaded_data() { places(); }

    void aFileThatGrowsWhileItLoadsIsLoaded()
    {
        QFETCH(qint64, readBefore);
        makeSimulation(manyNodes, "old");
        QVERIFY(save(_file));
        const QByteArray more(1024 * 1024, '\xC1');
        ChangingFile file(_file, readBefore, [&] { write(_file, more, QIODevice::Append); });
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(loads(file));
        QVERIFY(file.hasChanged());
        QCOMPARE(nodeNames().count("old"), manyNodes);
    }

    void aFileThatIsReplacedWhileItLoadsIsLoadedAsItWas_data() { places(); }

    void aFileThatIsReplacedWhileItLoadsIsLoadedAsItWas()
    {
        QFETCH(qint64, readBefore);
        makeSimulation(1, "new");
        QVERIFY(save(_file));
        const QByteArray other = contentsOf(_file);
        makeSimulation(manyNodes, "old");
        QVERIFY(save(_file));
        ChangingFile file(_file, readBefore, [&] { replace(_file, other); });
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(loads(file));
        QVERIFY(file.hasChanged());
        QCOMPARE(nodeNames().count("old"), manyNodes);
        QVERIFY(loads(_file));
        QCOMPARE(nodeNames(), QStringList("new"));
    }

    void aFileThatIsOverwrittenWhileItLoadsIsLoadedOrNot_data() { places(); }

    /// The mixture of two files may be a simulation; when it is none, nothing of it is loaded.
    void aFileThatIsOverwrittenWhileItLoadsIsLoadedOrNot()
    {
        QFETCH(qint64, readBefore);
        makeSimulation(manyNodes, "a name of another length");
        QVERIFY(save(_file));
        const QByteArray other = contentsOf(_file);
        makeSimulation(manyNodes, "old");
        QVERIFY(QFile::remove(_file) && save(_file));
        ChangingFile file(_file, readBefore, [&] { write(_file, other, QIODevice::ReadWrite); });
        QVERIFY(file.open(QIODevice::ReadOnly));
        if (!loads(file))
            QCOMPARE(nodeNames(), QStringList());
        QVERIFY(file.hasChanged());
        QVERIFY(loads(_file));
        QCOMPARE(nodeNames().count("a name of another length"), manyNodes);
    }

    void aFileWhoseDiskFailsWhileItLoadsIsNotLoaded_data() { places(); }

    void aFileWhoseDiskFailsWhileItLoadsIsNotLoaded()
    {
        QFETCH(qint64, readBefore);
        makeSimulation(manyNodes, "old");
        QVERIFY(save(_file));
        FailingFile file(_file, readBefore);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(!loads(file));
        QCOMPARE(nodeNames(), QStringList());
    }

private:
    /// Each row says how many bytes have been read when the file changes.
    static void places()
    {
        QTest::addColumn<qint64>("readBefore");
        for (const qint64 bytes : {0, 1, 4, 200, 16384, 16385, 100000})
            QTest::addRow("%lld bytes", bytes) << bytes;
    }

    QTemporaryDir _folder;
    QString _file = _folder.filePath(QStringLiteral("a.ltvo"));
    QString _dump = _folder.filePath(QStringLiteral("a.pcapdump"));
};

QTEST_MAIN(TestFileFaults)
#include "tst_filefaults.moc"
