#pragma once

#include "core/throttle.h"

#include <QObject>

QT_BEGIN_NAMESPACE
class QLineEdit;
QT_END_NAMESPACE

/// Two read-only fields that count traffic. Numbers are written at once, but for the long run of a burst,
/// which is written some 60 times a second, so that painting the fields does not hold the traffic up; those
/// written last are true.
class TrafficFields : public QObject
{
    Q_OBJECT

public:
    /// The fields are not owned and live as long as \a parent.
    TrafficFields(QLineEdit* frames, QLineEdit* bytes, QObject* parent);

    void show(int frames, int bytes);

private:
    void _write();

    QLineEdit* _framesField;
    QLineEdit* _bytesField;
    int _frames = 0;
    int _bytes = 0;
    Throttle _writing;
};
