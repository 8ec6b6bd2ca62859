#pragma once

/// How the program ends. The option --help lists them.
enum class ExitCode {
    Success = 0,
    WrongOption = 2,
    SimulationNotLoaded = 3,
    PortNotOpened = 4,
    DumpNotWritten = 5,
    ReportNotWritten = 6,
    NodesMissing = 7,
};
