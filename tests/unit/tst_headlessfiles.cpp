#include "headlesshelpers.h"

#include <memory>
#include <utility>

using namespace HeadlessHelpers;

namespace {

// Without these two rights, permissions of files bind root as everybody else
const QString setpriv = QStringLiteral("setpriv");
const QString withoutRightsOfRoot = QStringLiteral("--bounding-set=-dac_override,-dac_read_search");

bool canBeBoundByPermissions()
{
    return geteuid() != 0 || QProcess::execute(setpriv, {withoutRightsOfRoot, "true"}) == 0;
}

std::unique_ptr<Simulator> startBoundByPermissions(const QStringList& arguments)
{
    if (geteuid() != 0)
        return std::make_unique<Simulator>(arguments);
    const QStringList command = QStringList{withoutRightsOfRoot, LATTIVO_HEADLESS} + arguments;
    return std::make_unique<Simulator>(setpriv, command, bareEnvironment());
}

}  // namespace

/// Tests the options and files that the runner refuses, and what happens to its files.
class TestHeadlessFiles : public QObject, private RunFiles
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(_folder.isValid()); }

    void cleanup()
    {
        for (const char* link : {"link", "hard link", "link to the dump", "linked folder"})
            QFile::remove(_folder.filePath(link));
        clear();
    }

    void wrongOptionsAreRefused_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("complaint");
        QTest::newRow("unknown") << QStringList("--bad") << "'bad'";
        QTest::newRow("no value") << QStringList("--listen") << "--listen";
        QTest::newRow("a value too many") << QStringList("--plug-and-play=1") << "--plug-and-play";
        QTest::newRow("two files") << QStringList{"a", "b"} << "more than one";
        QTest::newRow("a file without a name") << QStringList("") << "simulation file is empty";
        const std::pair<const char*, QStringList> badValues[] = {
            {"listen", {"x", "-1", "65536"}},
            {"identify-by", {"number"}},
            {"capture", {""}},
            {"report", {""}},
            {"seed", {"-1", "4294967296"}},
            {"duration", {"0", "nan", "2147484"}},
            {"frames", {"0", "1.5"}},
            {"wait-for", {"A,,B"}},
            {"wait-timeout", {"0"}},
        };
        for (const auto& [option, values] : badValues) {
            for (const QString& value : values)
                QTest::addRow("%s=%s", option, qPrintable(value))
                    << QStringList{QStringLiteral("--%1=%2").arg(QLatin1String(option), value)}
                    << QStringLiteral("\"%1\" of option --%2").arg(value, QLatin1String(option));
        }
    }

    void wrongOptionsAreRefused()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, complaint);
        Simulator simulator(arguments);
        QCOMPARE(simulator.exitCode(), WrongOption);
        QVERIFY(isOneLine(simulator.errors(), complaint));
        QCOMPARE(simulator.output(), QByteArray());
    }

    void whatIsNoSimulationIsRefused_data()
    {
        QTest::addColumn<QByteArray>("contents");
        NetworkSimulation::newNetworkSimulation();
        QVERIFY(saveNow());
        const QByteArray whole = contentsOf(_simulation);
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("something else") << QByteArray("[simulation]\n");
        QTest::newRow("cut by a byte") << whole.left(whole.size() - 1);
        QTest::newRow("half of it") << whole.left(whole.size() / 2);
        QTest::newRow("another trailer") << whole.left(whole.size() - 1) + '\0';
        QTest::newRow("a byte too many in it") << QByteArray(whole).insert(100, '\0');
    }

    void whatIsNoSimulationIsRefused()
    {
        QFETCH(QByteArray, contents);
        QVERIFY(writeFile(_simulation, contents));
        Simulator simulator({_simulation, "--listen", "0"});
        QCOMPARE(simulator.exitCode(), SimulationNotLoaded);
        QVERIFY(isOneLine(simulator.errors(), "cannot load the simulation " + _simulation));
        QCOMPARE(simulator.output(), QByteArray());
        QCOMPARE(contentsOf(_simulation), contents);
    }

    void aMissingSimulationIsNotCreated()
    {
        Simulator missing({_simulation});
        QCOMPARE(missing.exitCode(), SimulationNotLoaded);
        QVERIFY(isOneLine(missing.errors(), "No such file"));
        QVERIFY(!QFile::exists(_simulation));

        Simulator folder({_folder.path()});
        QCOMPARE(folder.exitCode(), SimulationNotLoaded);
        QVERIFY(isOneLine(folder.errors(), "directory"));
    }

    void aSimulationThatMayNotBeReadIsRefused()
    {
        if (!canBeBoundByPermissions())
            QSKIP("root cannot give up its rights here: a simulation that may not be read was not tested");
        QVERIFY(save({Link()}));
        QVERIFY(QFile::setPermissions(_simulation, QFileDevice::Permissions()));
        const std::unique_ptr<Simulator> simulator = startBoundByPermissions({_simulation, "--listen", "0"});
        QCOMPARE(simulator->exitCode(), SimulationNotLoaded);
        QVERIFY(isOneLine(simulator->errors(), "Permission denied"));
    }

    void aSimulationThatMayOnlyBeReadIsLoaded()
    {
        if (!canBeBoundByPermissions())
            QSKIP("root cannot give up its rights here: a simulation that may only be read was not tested");
        QVERIFY(save({Link()}));
        QVERIFY(QFile::setPermissions(_simulation, QFileDevice::ReadOwner));
        const std::unique_ptr<Simulator> simulator = startBoundByPermissions({_simulation, "--listen", "0"});
        QVERIFY(Client(simulator->port(), A).isAttached);
        QCOMPARE(simulator->end(), Success);
        QCOMPARE(simulator->errors(), QByteArray());
    }

    void theSimulationFileIsNotChanged()
    {
        QVERIFY(save({Link()}));
        const QByteArray before = contentsOf(_simulation);
        const QDateTime written = QFileInfo(_simulation).lastModified();
        Simulator simulator({_simulation, "--listen", "0", "--plug-and-play", "--capture", _dump});
        Client stranger(simulator.port(), Nobody);
        QVERIFY(stranger.isAttached);
        QCOMPARE(simulator.end(), Success);
        QCOMPARE(contentsOf(_simulation), before);
        QCOMPARE(QFileInfo(_simulation).lastModified(), written);
    }

    void oneFileIsNotNamedTwice_data()
    {
        QTest::addColumn<QStringList>("arguments");
        const QString simulation = _folder.filePath("a.ltvo");
        const QString otherSpelling
            = _folder.filePath("../" + QFileInfo(_folder.path()).fileName() + "/a.ltvo");
        const QString link = _folder.filePath("link");
        const QString dump = _folder.filePath("a.pcap");
        QTest::newRow("dump over simulation") << QStringList{simulation, "--capture", simulation};
        QTest::newRow("report over simulation") << QStringList{simulation, "--report", simulation};
        QTest::newRow("another spelling") << QStringList{simulation, "--capture", otherSpelling};
        QTest::newRow("through a link") << QStringList{simulation, "--report", link};
        QTest::newRow("through a hard link")
            << QStringList{simulation, "--report", _folder.filePath("hard link")};
        QTest::newRow("in a linked folder")
            << QStringList{simulation, "--capture", _folder.filePath("linked folder/a.ltvo")};
        QTest::newRow("dump and report") << QStringList{simulation, "--report", dump, "--capture", dump};
        QTest::newRow("dump and report through a link to nothing")
            << QStringList{simulation, "--report", _folder.filePath("link to the dump"), "--capture", dump};
        QTest::newRow("report and dump through a link to nothing")
            << QStringList{simulation, "--report", dump, "--capture", _folder.filePath("link to the dump")};
        QTest::newRow("dump and report in a linked folder") << QStringList{
            simulation, "--report", _folder.filePath("linked folder/a.pcap"), "--capture", dump};
        QTest::newRow("a simulation that is not there") << QStringList{dump, "--capture", dump};
    }

    void oneFileIsNotNamedTwice()
    {
        QFETCH(QStringList, arguments);
        QVERIFY(save({Link()}));
        const QByteArray before = contentsOf(_simulation);
        QFile::link(_simulation, _folder.filePath("link"));
        QFile::link(_dump, _folder.filePath("link to the dump"));
        QFile::link(_folder.path(), _folder.filePath("linked folder"));
        QCOMPARE(::link(QFile::encodeName(_simulation).constData(),
                        QFile::encodeName(_folder.filePath("hard link")).constData()),
                 0);
        Simulator simulator(arguments + QStringList{"--listen", "0", "--duration", "0.01"});
        QCOMPARE(simulator.exitCode(), WrongOption);
        QVERIFY(isOneLine(simulator.errors(), "is named twice"));
        QCOMPARE(contentsOf(_simulation), before);
        QVERIFY(!QFile::exists(_dump));
    }

    void aDeviceMayBeNamedTwice()
    {
        Simulator simulator(
            {"--listen", "0", "--duration", "0.01", "--capture", "/dev/null", "--report", "/dev/null"});
        QCOMPARE(simulator.exitCode(), Success);
    }

    void aPortInUseIsReported_data()
    {
        QTest::addColumn<bool>("isInFile");
        QTest::newRow("given as an option") << false;
        QTest::newRow("given in the simulation") << true;
    }

    void aPortInUseIsReported()
    {
        QFETCH(bool, isInFile);
        makeSimulation({});
        Network* network = NetworkSimulation::instance()->network();
        network->setTcpPort(0);
        QVERIFY(network->setTcpEnabled(true));
        const quint16 port = network->listeningPort();
        TestAccess::server(*network).port = isInFile ? port : 0;
        QVERIFY(NetworkSimulation::instance()->save(_simulation));  // and goes on listening

        Simulator simulator(isInFile ? QStringList{_simulation}
                                     : QStringList{_simulation, "--listen", QString::number(port)});
        QCOMPARE(simulator.exitCode(), PortNotOpened);
        QVERIFY(isOneLine(simulator.errors(), QStringLiteral("cannot open port %1").arg(port)));
        QCOMPARE(simulator.output(), QByteArray());
    }

    void anotherPortThanTheOneInUseCanBeGiven()
    {
        makeSimulation({Link()});
        Network* network = NetworkSimulation::instance()->network();
        network->setTcpPort(0);
        QVERIFY(network->setTcpEnabled(true));
        TestAccess::server(*network).port = network->listeningPort();
        QVERIFY(NetworkSimulation::instance()->save(_simulation));  // and goes on listening

        Simulator simulator({_simulation, "--listen", "0"});
        QVERIFY(Client(simulator.port(), A).isAttached);
        QCOMPARE(simulator.end(), Success);
        QCOMPARE(simulator.errors(), QByteArray());
    }

    void outputsThatCannotBeOpenedEndTheRunAtOnce_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("complaint");
        const QString nowhere = _folder.filePath("no/folder");
        QTest::newRow("dump in a missing folder")
            << QStringList{"--capture", nowhere} << int(DumpNotWritten) << "the dump " + nowhere;
        QTest::newRow("report in a missing folder")
            << QStringList{"--report", nowhere} << int(ReportNotWritten) << "the report " + nowhere;
        QTest::newRow("dump over a folder") << QStringList{"--capture", _folder.path()} << int(DumpNotWritten)
                                            << "the dump " + _folder.path();
        QTest::newRow("report over a folder") << QStringList{"--report", _folder.path()}
                                              << int(ReportNotWritten) << "the report " + _folder.path();
    }

    void outputsThatCannotBeOpenedEndTheRunAtOnce()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, complaint);
        Simulator simulator(arguments + QStringList{"--listen", "0"});
        QCOMPARE(simulator.exitCode(), exitCode);
        QVERIFY(isOneLine(simulator.errors(), "cannot write " + complaint));
        QCOMPARE(simulator.output(), QByteArray());
    }

    void aRefusedStartLeavesFilesAsTheyWere_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        const QString nowhere = _folder.filePath("no/folder");
        QTest::newRow("no simulation")
            << QStringList{nowhere, "--report", _report} << int(SimulationNotLoaded);
        QTest::newRow("a damaged simulation")
            << QStringList{_simulation, "--report", _report} << int(SimulationNotLoaded);
        QTest::newRow("a report in a missing folder")
            << QStringList{"--report", nowhere} << int(ReportNotWritten);
        QTest::newRow("a port that is taken")
            << QStringList{"--report", _report, "--listen", "taken"} << int(PortNotOpened);
    }

    void aRefusedStartLeavesFilesAsTheyWere()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QTcpServer server;
        QVERIFY(server.listen());
        arguments.replaceInStrings("taken", QString::number(server.serverPort()));
        const QString link = _folder.filePath("link");
        QVERIFY(writeFile(_simulation, "damaged") && QFile::link(_dump, link));

        Simulator overNewFiles(arguments + QStringList{"--capture", link});
        QCOMPARE(overNewFiles.exitCode(), exitCode);
        QVERIFY(!QFile::exists(_dump) && !QFile::exists(_report));
        QVERIFY(QFileInfo(link).isSymLink());

        QVERIFY(writeFile(_dump, "old dump") && writeFile(_report, "old report"));
        Simulator overOldFiles(arguments + QStringList{"--capture", link});
        QCOMPARE(overOldFiles.exitCode(), exitCode);
        QCOMPARE(contentsOf(_dump), QByteArray("old dump"));
        QCOMPARE(contentsOf(_report), QByteArray("old report"));
    }

    void aKilledRunLeavesFilesAsTheyWere()
    {
        QVERIFY(writeFile(_dump, "old dump") && writeFile(_report, "old report"));
        Simulator simulator({"--listen", "0", "--capture", _dump, "--report", _report});
        QVERIFY(simulator.port() != 0);
        simulator.signal(SIGKILL);
        QCOMPARE(simulator.exitCode(), NotEnded);
        QCOMPARE(contentsOf(_dump), QByteArray("old dump"));
        QCOMPARE(contentsOf(_report), QByteArray("old report"));
    }

    void outputsTakeThePlaceOfOlderFiles_data()
    {
        QTest::addColumn<int>("oldSize");
        QTest::newRow("empty ones") << 0;
        QTest::newRow("shorter ones") << 1;
        QTest::newRow("longer ones") << 100000;
    }

    void outputsTakeThePlaceOfOlderFiles()
    {
        QFETCH(int, oldSize);
        const QByteArray old(oldSize, '}');
        QVERIFY(writeFile(_dump, old) && writeFile(_report, old));
        Simulator simulator({"--listen", "0", "--duration", "0.01", "--capture", _dump, "--report", _report});
        QCOMPARE(simulator.exitCode(), Success);
        QCOMPARE(framesIn(_dump), QList<QByteArray>());
        QCOMPARE(reportIn(_report).value("endedBy"), QJsonValue("duration"));
    }

    void outputsThatCannotBeWrittenAreReported_data()
    {
        QTest::addColumn<bool>("isDump");
        QTest::addColumn<int>("exitCode");
        QTest::newRow("dump") << true << int(DumpNotWritten);
        QTest::newRow("report") << false << int(ReportNotWritten);
    }

    void outputsThatCannotBeWrittenAreReported()
    {
        QFETCH(bool, isDump);
        QFETCH(int, exitCode);
        const QString full = QStringLiteral("/dev/full");
        if (!QFile::exists(full))
            QSKIP("there is no /dev/full here: a full disk was not tested");
        Simulator simulator({"--listen", "0", "--duration", "0.01", "--capture", isDump ? full : _dump,
                             "--report", isDump ? _report : full});
        QCOMPARE(simulator.exitCode(), exitCode);
        QVERIFY(isOneLine(simulator.errors(), "/dev/full: No space left on device"));
        if (isDump)  // the other one is written
            QCOMPARE(reportIn(_report).value("endedBy"), QJsonValue("duration"));
        else
            QCOMPARE(contentsOf(_dump).size(), 24);
    }

    void aFullDiskForBothIsTwoLinesAndTheCodeOfTheDump()
    {
        if (!QFile::exists("/dev/full"))
            QSKIP("there is no /dev/full here: a full disk was not tested");
        Simulator simulator(
            {"--listen", "0", "--duration", "0.01", "--capture", "/dev/full", "--report", "/dev/full"});
        QCOMPARE(simulator.exitCode(), DumpNotWritten);
        QCOMPARE(simulator.errors().count('\n'), 2);
    }
};

QTEST_MAIN(TestHeadlessFiles)
#include "tst_headlessfiles.moc"
