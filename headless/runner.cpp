#include "runner.h"

#include "awaitednodes.h"
#include "core/streamhelpers.h"
#include "network/networksimulation.h"
#include "report.h"
#include "unsentbytes.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRandomGenerator>

#include <cstdio>

namespace {

constexpr int longestUnsentWait = 3000;  // ms for the programs at the end, as many as after a protocol error

Network& network()
{
    return *NetworkSimulation::instance()->network();
}

QString notWritten(const QString& what, const OutputFile& file)
{
    return QStringLiteral("cannot write the %1 %2: %3").arg(what, file.name(), file.error());
}

int milliseconds(double seconds)
{
    return static_cast<int>(seconds * 1000);
}

}  // namespace

Runner::Runner(const Options& options, QObject* parent)
    : QObject(parent)
    , _options(options)
    , _simulation(options.simulationFile)
    , _dump(options.captureFile)
    , _report(options.reportFile)
{
    _waitLimit.setSingleShot(true);
    _runLimit.setSingleShot(true);
    _runLimit.setTimerType(Qt::PreciseTimer);
    connect(&_waitLimit, SIGNAL(timeout()), this, SLOT(_giveUpWaiting()));
    connect(&_runLimit, SIGNAL(timeout()), this, SLOT(_endByDuration()));
}

ExitCode Runner::run()
{
    if (!_openOutputs() || !_openSimulation() || !_checkFiles())
        return _exitCode;
    _catchSignals();
    if (!_loadSimulation())
        return _exitCode;
    _applySettings();
    if (!_startServer())
        return _exitCode;

    _awaitNodes();
    QCoreApplication::exec();
    UnsentBytes(network()).wait(longestUnsentWait);
    return _exitCode;
}

/// Opens the files at the start: nobody should wait an hour to learn that a folder does not exist.
bool Runner::_openOutputs()
{
    if (!_options.captureFile.isEmpty() && !_dump.open())
        return _fail(ExitCode::DumpNotWritten, notWritten("dump", _dump));
    if (!_options.reportFile.isEmpty() && !_report.open())
        return _fail(ExitCode::ReportNotWritten, notWritten("report", _report));
    return true;
}

bool Runner::_openSimulation()
{
    if (_options.simulationFile.isEmpty())
        return true;
    const QFileInfo info(_simulation);
    if (info.exists() && !info.isFile())  // opening a pipe could wait forever
        return _failToLoad("it is a directory, a pipe or a device");
    return _simulation.open(QIODevice::ReadOnly) || _failToLoad(_simulation.errorString());
}

/// Checks that no two names lead to one file, before anything is written. Compares what is open, since names
/// say nothing of hard links.
bool Runner::_checkFiles()
{
    const auto check = [this](const OutputFile& file, int other, const QString& otherName) {
        if (!isSameFile(file.descriptor(), other))
            return true;
        const QString otherSpelling = file.name() == otherName ? QString() : ", also as " + otherName;
        return _fail(ExitCode::WrongOption, "the file " + file.name() + " is named twice" + otherSpelling);
    };
    return check(_dump, _simulation.handle(), _simulation.fileName())
        && check(_report, _simulation.handle(), _simulation.fileName())
        && check(_report, _dump.descriptor(), _dump.name());
}

/// Catches signals, but not before the files are open: opening a pipe waits for its reader, and a signal must
/// be able to end that.
void Runner::_catchSignals()
{
    _signals.emplace();
    connect(&*_signals, SIGNAL(received()), this, SLOT(_endBySignal()));
}

bool Runner::_loadSimulation()
{
    if (!_simulation.isOpen()) {
        NetworkSimulation::newNetworkSimulation();
        return true;
    }
    bool isLoaded = true;
    NetworkSimulation::loadNetworkSimulation(&_simulation, &isLoaded);
    _simulation.close();
    return isLoaded || _failToLoad("it is no simulation file, or is damaged");
}

void Runner::_applySettings()
{
    const quint32 seed = _options.seed.value_or(QRandomGenerator::global()->generate());
    _options.seed = seed;
    qsrand(seed);
    if (_options.plugAndPlay)
        network().setTcpPnpEnabled(true);
    if (_options.identifyByName)
        network().setNameUsedForPnpIdentification(*_options.identifyByName);
    if (!_options.captureFile.isEmpty())
        NetworkSimulation::instance()->capture()->setEnabled(true);
}

/// Starts the server. A simulation file may have done so already, or have failed to.
bool Runner::_startServer()
{
    if (_options.listenPort) {
        network().setTcpEnabled(false);
        network().setTcpPort(*_options.listenPort);
        network().setTcpEnabled(true);
    }
    if (!network().tcpErrorString().isEmpty())
        return _fail(ExitCode::PortNotOpened,
                     QStringLiteral("cannot open port %1: %2")
                         .arg(network().tcpPort())
                         .arg(network().tcpErrorString()));
    if (!network().isTcpEnabled()) {
        fputs("lattivo-headless: the TCP server is off, so no program can attach (see --listen)\n", stderr);
        return true;
    }
    printf("listening on port %d\n", network().listeningPort());
    fflush(stdout);
    return true;
}

void Runner::_awaitNodes()
{
    if (_options.waitFor.isEmpty()) {
        _beginCounting();
        return;
    }
    _awaitedNodes = new AwaitedNodes(_options.waitFor, network(), this);
    connect(_awaitedNodes, SIGNAL(allAttached()), this, SLOT(_beginCounting()));
    _waitLimit.start(milliseconds(_options.waitTimeout));
}

void Runner::_giveUpWaiting()
{
    _fail(ExitCode::NodesMissing,
          QStringLiteral("not attached in time: %1").arg(_awaitedNodes->missing().join(", ")));
    _end("missing nodes");
}

void Runner::_beginCounting()
{
    _stopWaiting();
    _runTime.start();
    _framesLeftBefore = network().framesLeftLinks();
    if (_options.frames)  // a signal for each frame costs 5 % of the frames per second
        connect(&network(), SIGNAL(frameLeftLink()), this, SLOT(_checkFrames()));
    if (_options.duration)
        _runLimit.start(milliseconds(*_options.duration));
}

void Runner::_stopWaiting()
{
    _waitLimit.stop();
    if (!_awaitedNodes)
        return;
    _awaitedNodes->disconnect(this);
    _awaitedNodes->deleteLater();  // this may be its signal
    _awaitedNodes = nullptr;
}

void Runner::_checkFrames()
{
    if (_framesLeftLinks() >= *_options.frames)
        _end("frames");
}

qint64 Runner::_framesLeftLinks() const
{
    return _runTime.isValid() ? network().framesLeftLinks() - _framesLeftBefore : 0;
}

void Runner::_endByDuration()
{
    _end("duration");
}

void Runner::_endBySignal()
{
    _end("signal");
}

/// Writes everything as it is now, without what the event loop still has to do.
void Runner::_end(const QString& endedBy)
{
    if (_hasEnded)
        return;
    _hasEnded = true;
    _stopWaiting();
    _writeDump();
    _writeReport(endedBy);
    QCoreApplication::quit();
}

void Runner::_writeDump()
{
    if (!_dump.isOpen())
        return;
    CaptureDumpStream stream(&_dump);
    stream.setVersion(Stream::version);
    stream << *NetworkSimulation::instance()->capture();
    if (!_dump.finish())
        _fail(ExitCode::DumpNotWritten, notWritten("dump", _dump));
}

void Runner::_writeReport(const QString& endedBy)
{
    if (!_report.isOpen())
        return;
    RunFacts facts;
    facts.seed = *_options.seed;
    facts.seconds = _runTime.isValid() ? static_cast<double>(_runTime.nsecsElapsed()) / 1e9 : 0.0;
    facts.framesLeftLinks = _framesLeftLinks();
    facts.endedBy = endedBy;
    _report.write(QJsonDocument(makeReport(*NetworkSimulation::instance(), facts)).toJson());
    if (!_report.finish())
        _fail(ExitCode::ReportNotWritten, notWritten("report", _report));
}

bool Runner::_failToLoad(const QString& reason)
{
    return _fail(ExitCode::SimulationNotLoaded,
                 QStringLiteral("cannot load the simulation %1: %2").arg(_simulation.fileName(), reason));
}

/// Tells the user of a failure. The first one decides the exit code. Returns false always.
bool Runner::_fail(ExitCode code, const QString& message)
{
    fprintf(stderr, "lattivo-headless: %s\n", qPrintable(message));
    if (_exitCode == ExitCode::Success)
        _exitCode = code;
    return false;
}
