#pragma once

#include "exitcode.h"
#include "options.h"
#include "outputfile.h"
#include "terminationsignals.h"

#include <QElapsedTimer>
#include <QFile>
#include <QObject>
#include <QTimer>

#include <optional>

class AwaitedNodes;

/// One run of a simulation without a window. It sets the simulation up as the options say, waits for the end
/// and writes what they ask for. Each failure has its line on standard error and its exit code.
class Runner : public QObject
{
    Q_OBJECT

public:
    explicit Runner(const Options& options, QObject* parent = nullptr);

    ExitCode run();

private slots:
    void _beginCounting();
    void _giveUpWaiting();
    void _checkFrames();
    void _endByDuration();
    void _endBySignal();

private:
    bool _openOutputs();
    bool _openSimulation();
    bool _checkFiles();
    void _catchSignals();
    bool _loadSimulation();
    void _applySettings();
    bool _startServer();
    void _awaitNodes();
    void _stopWaiting();
    qint64 _framesLeftLinks() const;  // since the run began to count
    void _end(const QString& endedBy);
    void _writeDump();
    void _writeReport(const QString& endedBy);
    bool _failToLoad(const QString& reason);
    bool _fail(ExitCode code, const QString& message);

    Options _options;
    ExitCode _exitCode = ExitCode::Success;
    QFile _simulation;
    OutputFile _dump;
    OutputFile _report;
    std::optional<TerminationSignals> _signals;  // empty until there is something to write at the end
    AwaitedNodes* _awaitedNodes = nullptr;       // owned; null while the run waits for nobody
    QTimer _waitLimit;
    QTimer _runLimit;
    QElapsedTimer _runTime;        // invalid until all awaited nodes are attached
    qint64 _framesLeftBefore = 0;  // when the run began to count
    bool _hasEnded = false;
};
