#include "ui/trafficfields.h"

#include <QLineEdit>

namespace {

constexpr int pauseTime = 16;  // ms

}  // namespace

TrafficFields::TrafficFields(QLineEdit* frames, QLineEdit* bytes, QObject* parent)
    : QObject(parent)
    , _framesField(frames)
    , _bytesField(bytes)
{
}

void TrafficFields::show(int frames, int bytes)
{
    _frames = frames;
    _bytes = bytes;
    _isWaiting = _pause.isActive();
    if (!_isWaiting)
        _write();
}

void TrafficFields::timerEvent(QTimerEvent*)
{
    _pause.stop();
    if (!_isWaiting)
        return;
    _isWaiting = false;
    _write();
}

void TrafficFields::_write()
{
    _framesField->setText(QString::number(_frames));
    _bytesField->setText(QString::number(_bytes));
    _pause.start(pauseTime, this);
}
