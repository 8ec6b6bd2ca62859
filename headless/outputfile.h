#pragma once

#include <QByteArray>
#include <QIODevice>
#include <QString>

/// A file that a run opens when it starts, and writes as a whole when it ends. Older contents stay until
/// then. Unlike QFile, it can tell why the kernel wrote only a part.
class OutputFile : public QIODevice
{
    Q_OBJECT

public:
    explicit OutputFile(const QString& name);
    ~OutputFile() override;  // removes a new file that nothing was written to

    QString name() const { return _name; }
    QString error() const { return _error; }        // of the first call that failed; null: none did
    int descriptor() const { return _descriptor; }  // -1 while closed
    bool isSequential() const override { return true; }

    /// Opens the file. Waits for the reader of a pipe.
    [[nodiscard]] bool open(OpenMode mode = WriteOnly) override;

    /// Closes the file. False when not all that was written got there.
    [[nodiscard]] bool finish();

protected:
    qint64 readData(char* data, qint64 size) override;
    qint64 writeData(const char* data, qint64 size) override;

private:
    void _cut();
    void _writeOut();
    void _removeIfEmpty() const;
    bool _check(bool isOk);

    QString _name;
    QString _error;
    int _descriptor = -1;
    bool _isNew = false;      // made by open()
    bool _isWritten = false;  // older contents are gone
    QByteArray _unwritten;    // not given to the kernel yet
};

/// Tells whether two descriptors lead to one file. False for devices and pipes, which have nothing to
/// overwrite, and for descriptors that are -1.
bool isSameFile(int descriptor1, int descriptor2);
