#pragma once

#include <QString>
#include <QStringList>

#include <optional>

/// The choices of the user on the command line.
struct Options {
    QString simulationFile;              // empty: a new simulation
    std::optional<quint16> listenPort;   // 0: any free port; not given: as the simulation has it
    bool plugAndPlay = false;            // not given: as the simulation has it
    std::optional<bool> identifyByName;  // not given: as the simulation has it
    QString captureFile;                 // empty: capture as the simulation has it, no dump
    std::optional<quint32> seed;         // not given: drawn at random
    std::optional<double> duration;      // seconds
    std::optional<qint64> frames;        // that left their links
    QStringList waitFor;                 // names of nodes
    double waitTimeout = 30.0;           // seconds
    QString reportFile;                  // empty: no report
    bool debugOutput = false;
};

/// The outcome of parsing: the options, or a text that ends the program.
struct CommandLine {
    std::optional<Options> options;
    QString text;  // help, version or error; without options only
    bool isError = false;
};

/// Reads \a arguments, which begin with the program's own name.
CommandLine parseCommandLine(const QStringList& arguments);
