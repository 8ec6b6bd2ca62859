#pragma once

#include <QByteArray>
#include <QIODevice>
#include <QString>

/// A file that is opened at the start of a run and written, from its beginning to its end, when the run is
/// over. Older contents stay until then. Unlike QFile it can tell why a write that was done in part was not
/// done whole.
class OutputFile : public QIODevice
{
    Q_OBJECT

public:
    explicit OutputFile(const QString& name);
    ~OutputFile() override;  // removes a file that is new and that nothing was written to

    QString name() const { return _name; }
    QString error() const { return _error; }        // of the first call that failed; null: none has
    int descriptor() const { return _descriptor; }  // -1 while closed
    bool isSequential() const override { return true; }

    /// Waits for the reader of a pipe.
    [[nodiscard]] bool open(OpenMode mode = WriteOnly) override;

    /// Closes the file. False when something of what was written is not where it belongs.
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
    QByteArray _unwritten;    // taken, but not given to the kernel yet
};

/// Whether two names have led to one file. Never so of devices and pipes, which have nothing to overwrite,
/// and of descriptors that are -1.
bool isSameFile(int descriptor1, int descriptor2);
