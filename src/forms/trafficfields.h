#pragma once

#include "core/throttle.h"

#include <QObject>

QT_BEGIN_NAMESPACE
class QLineEdit;
QT_END_NAMESPACE

/// Two read-only fields that count traffic. They show numbers at once, but those of a long burst only some 60
/// times a second: painting the fields must not hold the traffic up. The last numbers shown are true.
class TrafficFields : public QObject
{
    Q_OBJECT

public:
    /// Does not own the fields, which live as long as \a parent.
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
