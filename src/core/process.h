#pragma once

/// Protects the process from its surroundings. A program calls it before it opens anything.
///
/// Opens standard streams that the caller has closed, so that no message gets into a file or a socket.
/// Ignores the signals of a closed pipe and of a file that may not grow: writing then fails with an error.
void prepareProcess();
