#pragma once

#include <QEventLoop>
#include <QObject>
#include <QSet>

class Network;

/// What has been written to the programs and is not with them yet.
class UnsentBytes : public QObject
{
    Q_OBJECT

public:
    explicit UnsentBytes(const Network& network);

    /// Runs the event loop until all is sent, but no longer than \a longest milliseconds.
    void wait(int longest);

private slots:
    void _forgetWhenSent();
    void _forget(QObject* socket);

private:
    void _watch(const QObject* socket);

    QSet<const QObject*> _sockets;  // not owned; those that hold some of it
    QEventLoop _loop;
};
