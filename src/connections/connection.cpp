#include "connections/connection.h"

#include "connections/connectionpropertieswidget.h"
#include "core/ownordefault.h"
#include "core/streamhelpers.h"
#include "network/network.h"
#include "network/networksimulation.h"
#include "nodes/node.h"

#include <QGraphicsEffect>
#include <QGraphicsSceneMouseEvent>
#include <QPainter>

#include <algorithm>
#include <cmath>

namespace {

constexpr double pi = 3.14159265;
constexpr qreal linkZValue = 1.0;
constexpr double faintestOpacity = 0.1;
constexpr double bandHalfWidth = 10.0;  // in the hit test, scene units to either side of the line
constexpr int dotPitch = 8;             // scene units, of the frames in flight
constexpr int dotSize = 6;
constexpr int lineLengthPerDot = 10;
constexpr int capsuleHeight = 14;
constexpr int capsuleMargin = 3;  // left and right of the dots
constexpr double capsuleStrokeWidth = 1.5;
constexpr double selectionMarkSize = 8.0;

const Connection* defaultConnection()
{
    return NetworkSimulation::instance()->network()->defaultConnection();
}

/// Returns the angle of the line between the nodes in radians. Two nodes on one spot give a level line.
double lineAngle(const QPointF& difference)
{
    if (difference.isNull())
        return 0.0;
    return std::atan(difference.y() / difference.x());
}

/// Stamps and captures a frame that leaves its link. Without a capture nobody sees the stamp, which costs 4 %
/// of the frames per second.
void leaveLink(Frame& frame, bool isReceived)
{
    if (!frame.isCaptured())
        return;
    if (isReceived)
        frame.nowReceived();
    else
        frame.neverReceived();
}

/// Hands a frame over and confirms it. It confirms no late frame, nor one that only promiscuous mode picks
/// up.
void handOver(Frame& frame)
{
    frame.destinationNode()->_dataIndication(frame.payload());
    leaveLink(frame, true);
    const bool isConfirmed = frame.wasDelivered(true) && !frame.isBroadcast() && !frame.promiscuousReceive();
    if (frame.sourceNode() && isConfirmed)
        frame.sourceNode()->_dataConfirmation(true);
}

}  // namespace

/// Tells Qt where a link really paints; the picture stays as it is.
///
/// The bounds of a link are smaller, and those of a level or an upright one are empty. By them alone, Qt
/// would lose its updates. It would also leave the link out where only its capsule lies in the repainted
/// region.
class Connection::PaintedArea : public QGraphicsEffect
{
public:
    explicit PaintedArea(const Connection* link)
        : _link(link)
    {
    }

    QRectF boundingRectFor(const QRectF& bounds) const override;

protected:
    void draw(QPainter* painter) override { drawSource(painter); }

private:
    const Connection* _link;  // its owner
};

/// Returns the area that the link paints. \a bounds are the link's in the pixels of a view, or in scene units
/// without a view. A level or an upright link may have bounds that are turned inside out; a scaled view turns
/// them back.
QRectF Connection::PaintedArea::boundingRectFor(const QRectF& bounds) const
{
    const QRectF inScene = _link->boundingRect();
    const double units = std::hypot(inScene.width(), inScene.height());
    const double pixelsPerUnit = units > 0 ? std::hypot(bounds.width(), bounds.height()) / units : 1.0;
    const double growth = pixelsPerUnit * (_link->_reachBeyondLine() - _link->_connectionStrokeWidth);
    return bounds.normalized().adjusted(-growth, -growth, growth, growth);
}

Connection::Connection(Node* node1, Node* node2)
    : _nodes{node1, node2}
{
    setZValue(linkZValue);
    setFlag(QGraphicsItem::ItemIsSelectable);
    setGraphicsEffect(new PaintedArea(this));
    for (Node* node : _nodes) {
        if (node)
            node->addConnection(this);
    }
}

Connection::~Connection()
{
    for (Node* node : _nodes) {
        if (node)
            node->removeConnection(this);
    }
}

Node* Connection::node(int index)
{
    return index == 0 || index == 1 ? _nodes[index] : nullptr;
}

void Connection::setNode(int index, Node* node)
{
    if (index != 0 && index != 1)
        return;
    prepareGeometryChange();
    _nodes[index] = node;
}

Node* Connection::otherNode(const Node* node)
{
    if (node == _nodes[0])
        return _nodes[1];
    if (node == _nodes[1])
        return _nodes[0];
    return nullptr;
}

bool Connection::isNodeInvolved(Node* node)
{
    return node == _nodes[0] || node == _nodes[1];
}

void Connection::resetStatistics()
{
    _totalFrames = 0;
    _lostFrames = 0;
    _crcErrors = 0;
}

bool Connection::carryFrame(QByteArray frame, int atLeastUntil, bool lastConnection, Node* source)
{
    int delay = 0;
    const Frame carried(frame, source, otherNode(source), this, atLeastUntil, &delay, lastConnection);
    if (!carried.isValid())
        return false;
    if (lastConnection && carried.isBroadcast())
        source->_dataConfirmation(true);  // once for each send, and at once

    _frames.append(carried);  // also a frame that will be lost: it travels visibly and is captured
    _deliveries.start(delay);
    _repaint.request();
    return carried.wasDelivered(false);
}

void Connection::deliverFrame()
{
    if (_frames.isEmpty())
        return;

    Frame frame = _frames.takeFirst();
    _repaint.request();
    if (frame.destinationNode() && frame.wasDelivered(false))
        handOver(frame);
    else
        leaveLink(frame, false);  // the sender learns of it from its own timeout
    NetworkSimulation::instance()->network()->noteFrameLeavesLink();
}

QWidget* Connection::propertiesWidget()
{
    return new ConnectionPropertiesWidget(this, nullptr);
}

/// Measures with the own stroke width, on purpose. In a link that follows the default width it is -1: the
/// bounds are then one unit smaller than the line on every side.
QRectF Connection::boundingRect() const
{
    if (!_nodes[0] || !_nodes[1])
        return QRectF();

    const QPointF p0 = _nodes[0]->pos();
    const QPointF p1 = _nodes[1]->pos();
    const double width = _connectionStrokeWidth;
    return QRectF(std::min(p0.x(), p1.x()) - width, std::min(p0.y(), p1.y()) - width,
                  std::abs(p0.x() - p1.x()) + 2 * width, std::abs(p0.y() - p1.y()) + 2 * width);
}

/// Returns a band around the line, whatever its stroke width. The band may reach beyond the bounds.
QPainterPath Connection::shape() const
{
    QPainterPath band;
    if (!_nodes[0] || !_nodes[1])
        return band;

    const QPointF p0 = _nodes[0]->pos();
    const QPointF p1 = _nodes[1]->pos();
    const double angle = pi - lineAngle(p0 - p1);
    const QPointF offset(static_cast<int>(std::sin(angle) * bandHalfWidth),
                         static_cast<int>(std::cos(angle) * bandHalfWidth));
    band.moveTo(p0 + offset);
    band.lineTo(p1 + offset);
    band.lineTo(p1 - offset);
    band.lineTo(p0 - offset);
    band.closeSubpath();
    return band;
}

void Connection::paint(QPainter* painter, const QStyleOptionGraphicsItem* /*option*/, QWidget* /*widget*/)
{
    if (!_nodes[0] || !_nodes[1])
        return;

    const QPointF p0 = _nodes[0]->pos();
    const QPointF p1 = _nodes[1]->pos();
    const QPen linePen(QBrush(_effectiveColor(), Qt::SolidPattern), _effectiveStrokeWidth(),
                       _broken ? Qt::DotLine : Qt::SolidLine, Qt::SquareCap, Qt::BevelJoin);
    painter->setPen(linePen);
    painter->setOpacity(std::max(_effectiveReliability(), faintestOpacity));
    painter->drawLine(p0, p1);
    painter->setOpacity(1.0);

    if (!_frames.isEmpty())
        _drawFramesInFlight(painter, linePen);
    if (isSelected()) {
        const QPointF corner(selectionMarkSize / 2, selectionMarkSize / 2);
        painter->setPen(Qt::NoPen);
        painter->setBrush(_effectiveColor());
        painter->drawRect(QRectF((p0 + p1) / 2 - corner, QSizeF(selectionMarkSize, selectionMarkSize)));
    }
}

/// Draws a capsule at the middle of the line with a dot for each frame, the oldest first. It holds as many
/// dots as the line has room for.
void Connection::_drawFramesInFlight(QPainter* painter, const QPen& linePen) const
{
    const QPointF difference = _nodes[0]->pos() - _nodes[1]->pos();
    const auto distance = static_cast<int>(std::hypot(difference.x(), difference.y()));
    const double angle = lineAngle(difference) * 180 / pi;
    const int dots = std::min(distance / lineLengthPerDot, _frames.size());
    const int halfWidth = dots * dotPitch / 2;

    painter->save();
    painter->translate((_nodes[0]->pos() + _nodes[1]->pos()) / 2);
    painter->rotate(std::min(angle, 180 - angle));
    painter->setPen(QPen(linePen.brush(), capsuleStrokeWidth, Qt::SolidLine, Qt::SquareCap, Qt::BevelJoin));
    painter->setBrush(Qt::white);
    painter->drawRoundedRect(-halfWidth - capsuleMargin, -capsuleHeight / 2,
                             2 * halfWidth + 2 * capsuleMargin, capsuleHeight, capsuleHeight / 2.0,
                             capsuleHeight / 2.0);
    painter->setPen(Qt::NoPen);
    painter->translate(-halfWidth, 0);
    for (int i = 0; i < dots; ++i) {
        painter->setBrush(_frames.at(i).wasDelivered(false) ? Qt::darkGreen : Qt::darkRed);
        painter->drawEllipse(dotPitch * i + 1, -dotSize / 2, dotSize, dotSize);
    }
    painter->restore();
}

void Connection::mousePressEvent(QGraphicsSceneMouseEvent* event)
{
    if (event->button() == Qt::LeftButton)
        _pressedAt = event->scenePos();
    NetworkItem::mousePressEvent(event);
}

/// Lets Qt tell a click from a drag. Qt does not know where a link was pressed that only the scene found.
void Connection::mouseReleaseEvent(QGraphicsSceneMouseEvent* event)
{
    event->setButtonDownScenePos(Qt::LeftButton, _pressedAt);
    NetworkItem::mouseReleaseEvent(event);
}

/// Sets the width, which changes the bounds. That of the default link changes no bounds: its form repaints
/// the whole scene.
void Connection::_setStrokeWidth(double width)
{
    prepareGeometryChange();
    _connectionStrokeWidth = width;
}

/// Drops the frames, but not their timeouts, on purpose. These take frames that the link carries once mended.
void Connection::_discardFramesInFlight()
{
    _frames.clear();
}

QColor Connection::_effectiveColor() const
{
    return ownOrDefault(_connectionColor, defaultConnection()->_connectionColor);
}

double Connection::_effectiveStrokeWidth() const
{
    return ownOrDefault(_connectionStrokeWidth >= 0, _connectionStrokeWidth,
                        defaultConnection()->_connectionStrokeWidth);
}

double Connection::_effectiveReliability() const
{
    return ownOrDefault(_reliability >= 0, _reliability, defaultConnection()->_reliability);
}

/// Returns how far the picture reaches beyond the line between the nodes at most, on every side: by the caps
/// of the line or by the capsule.
double Connection::_reachBeyondLine() const
{
    return std::max(_effectiveStrokeWidth(), capsuleHeight / 2.0 + capsuleStrokeWidth);
}

QDataStream& operator<<(QDataStream& stream, Connection* connection)
{
    stream << qint32{connection->type()};
    for (Node* node : connection->_nodes)
        stream << nodeFileId(node);
    return stream << connection->_broken << connection->_reliability << connection->_errorDetectionReliability
                  << qint32{connection->_delayMs} << qint32{connection->_delayDeviationMs}
                  << connection->_connectionColor << connection->_connectionStrokeWidth
                  << connection->toolTip();
}

QDataStream& operator>>(QDataStream& stream, Connection* connection)
{
    QString comment;
    connection->prepareGeometryChange();
    stream >> connection->_broken;
    connection->_reliability = Stream::readProbability(stream);
    connection->_errorDetectionReliability = Stream::readProbability(stream);
    stream >> connection->_delayMs >> connection->_delayDeviationMs;
    connection->_connectionColor = Stream::readColor(stream);
    connection->_connectionStrokeWidth = Stream::readFinite(stream, -1.0);
    stream >> comment;
    connection->setToolTip(comment);
    return stream;
}
