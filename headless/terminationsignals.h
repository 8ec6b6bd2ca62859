#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <optional>

/// Turns SIGINT, SIGTERM and, unless the caller had it ignored, SIGHUP into a signal of the event loop. The
/// second one of a kind ends the process at once. One object a process.
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
