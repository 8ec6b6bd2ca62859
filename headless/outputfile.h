#pragma once

#include <QString>

class QFile;

/// Closes \a file. Null when all that was written is where it belongs, else the reason why it is not;
/// \a isWritten tells whether every write took all that it was given.
QString closingError(QFile& file, bool isWritten);
