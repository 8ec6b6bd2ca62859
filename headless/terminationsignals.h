#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <optional>

/// Turns SIGINT, SIGTERM and SIGHUP into a signal of the event loop, but not a SIGHUP that the caller
/// ignores. The second signal of a kind ends the process at once. A process has one such object.
class TerminationSignals : public QObject
{
    Q_OBJECT

public:
    explicit TerminationSignals(QObject* parent = nullptr);

signals:
    void received();

private slots:
    void _drain();

private:
    std::optional<QSocketNotifier> _notifier;  // empty when there is nothing to watch
};
