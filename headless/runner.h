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

/// One run of a simulation without a window: sets it up as the options say, waits for its end and writes what
/// is asked for. Each failure is one line on standard error and an exit code of its own.
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
    qint64 _framesLeftLinks() const;  // while the run counts
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
    AwaitedNodes* _awaitedNodes = nullptr;       // owned; null while nobody is waited for
    QTimer _waitLimit;
    QTimer _runLimit;
    QElapsedTimer _runTime;        // invalid until all waited-for nodes are attached
    qint64 _framesLeftBefore = 0;  // when counting began
    bool _hasEnded = false;
};
