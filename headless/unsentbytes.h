#pragma once

#include <QEventLoop>
#include <QObject>
#include <QSet>

class Network;

/// Waits for what was written to the programs and has not been sent yet.
class UnsentBytes : public QObject
{
    Q_OBJECT

public:
    explicit UnsentBytes(const Network& network);

    /// Runs the event loop until all is sent, but for \a longest milliseconds at most.
    void wait(int longest);

private slots:
    void _forgetWhenSent();
    void _forget(QObject* socket);

private:
    void _watch(const QObject* socket);

    QSet<const QObject*> _sockets;  // not owned; those with something to send
    QEventLoop _loop;
};
