#include "nodes/node.h"

#include "connections/connection.h"
#include "core/ownordefault.h"
#include "core/streamhelpers.h"
#include "network/frame.h"
#include "network/network.h"
#include "network/networksimulation.h"
#include "nodes/nodepropertieswidget.h"

#include <QApplication>
#include <QFontMetrics>
#include <QPainter>
#include <QRadialGradient>

#include <algorithm>

namespace {

constexpr qreal nodeZValue = 2.0;    // above the links
constexpr int flashDuration = 500;   // ms, of the transmit and receive colours
constexpr int longestLabel = 10000;  // characters; measuring and drawing end there

// Scene units, around the node's centre
constexpr int smallestHalfWidth = 24;
constexpr int boundsHalfHeight = 40;
constexpr int labelHeight = 20;
const QRectF disc(-20, -20, 40, 40);
const QRectF centreText(-23, -23, 46, 46);
const QRectF highlight(-12, -16, 24, 16);
const QPointF shadeCentre(0, 15);
constexpr qreal shadeRadius = 30;
constexpr int lighterPercent = 120;
constexpr int darkerPercent = 200;
constexpr int highlightAlpha = 75;
constexpr int selectionMarkSize = 6;
const QPoint selectionMarks[] = {{-23, -23}, {-23, 17}, {17, -23}, {17, 17}};

const Node* defaultNode()
{
    return NetworkSimulation::instance()->network()->defaultNode();
}

bool isChecked(Qt::CheckState own, Qt::CheckState inherited)
{
    return ownOrDefault(own, inherited) == Qt::Checked;
}

/// Returns the text of a label, no longer than can be measured and drawn in a moment.
QString labelText(const QString& name)
{
    return name.left(longestLabel);
}

QString labelText(const QByteArray& address)
{
    return QString::fromLatin1(address.left(longestLabel / 2).toHex().toUpper());
}

/// Adds halves of the packed words. The lowest bit of a channel spills into the next one, on purpose.
QColor coarseBlend(const QColor& one, const QColor& other)
{
    return QColor((one.rgba() >> 1) + (other.rgba() >> 1));
}

bool hasVersionOneFields()
{
    return NetworkSimulation::instance()->fileVersion() == 1;
}

}  // namespace

Node::Node(const QByteArray& address)
    : _address(address)
{
    _initialize();
}

Node::Node(const QString& name)
    : _name(name)
{
    _initialize();
}

void Node::_initialize()
{
    setFlags(QGraphicsItem::ItemIsSelectable | QGraphicsItem::ItemIsMovable
             | QGraphicsItem::ItemSendsGeometryChanges);
    setZValue(nodeZValue);
    _calculateWidthForText(AtOnce);
}

Node::~Node()
{
    if (auto* network = qobject_cast<Network*>(scene()))
        network->_forget(this);
    const QList<Connection*> connections = _connections;  // each takes itself off the list
    qDeleteAll(connections);
}

void Node::setName(const QString& name, Repaint repaint)
{
    _changeIdentity([&] { _name = name; }, repaint);
    _updateScene(repaint);
    emit nameChanged();
}

void Node::setAddress(const QByteArray& address, Repaint repaint)
{
    const bool areBoundsNew = _changeIdentity([&] { _address = address; }, repaint);
    if (areBoundsNew && repaint == WithTraffic)
        _updateScene(repaint);
    else
        _update(repaint);
}

/// Changes name or address, and with them the node's place in the network's directory and its labels. Returns
/// whether its bounds are new.
bool Node::_changeIdentity(const std::function<void()>& change, Repaint repaint)
{
    auto* network = qobject_cast<Network*>(scene());
    if (network)
        network->_directory.remove(this);
    change();
    if (network)
        network->_directory.add(this);
    return _calculateWidthForText(repaint);
}

bool Node::isInPromiscuousMode() const
{
    return isChecked(_promiscuousMode, defaultNode()->_promiscuousMode);
}

bool Node::active() const
{
    return (_flags & (Connected | Disabled)) == Connected;
}

void Node::setActive(bool active, bool disabling, Repaint repaint)
{
    if (disabling)
        _setFlag(Disabled, !active);
    else
        _setFlag(Connected, active);
    _update(repaint);
}

void Node::addConnection(Connection* connection)
{
    if (!_connections.contains(connection))
        _connections.append(connection);
    update();
}

void Node::removeConnection(Connection* connection)
{
    _connections.removeAll(connection);
    update();
}

void Node::resetStatistics()
{
    _sendFrames = 0;
    _sendBytes = 0;
    _receivedFrames = 0;
    _receivedBytes = 0;
    emit sendStatisticsChanged(0, 0);
    emit receivedStatisticsChanged(0, 0);
}

void Node::setInactiveColor(const QColor& color, Repaint repaint)
{
    _inactiveColor = color;
    _update(repaint);
}

void Node::setActiveColor(const QColor& color, Repaint repaint)
{
    _activeColor = color;
    _update(repaint);
}

void Node::dataRequest(QByteArray frame)
{
    _txFlashes.startShared(flashDuration);  // may end a flash
    _flags |= Transmitting;
    _repaint.request();

    const bool isConfirmationWanted = _isConfirmationWanted();
    const int timeout = _effectiveAcknowledgeTimeout();
    if (!active())
        return;

    _sendBytes += frame.size();
    ++_sendFrames;
    emit sendStatisticsChanged(static_cast<int>(_sendFrames), static_cast<int>(_sendBytes));

    bool isDelivered = false;
    if (_connections.isEmpty() && Frame::isBroadcast(frame)) {
        isDelivered = true;  // a lone node's broadcast has reached everybody
        if (isConfirmationWanted)
            dataConfirmation(true);
    }
    if (_carryOverConnections(frame, isConfirmationWanted ? timeout : -1))
        isDelivered = true;
    if (!isDelivered && isConfirmationWanted)
        _losses.start(timeout);
}

/// Gives the frame to each link. The last one confirms broadcasts and has the frame captured. Returns whether
/// one of them will deliver it.
bool Node::_carryOverConnections(const QByteArray& frame, int acknowledgeTimeout)
{
    bool isDelivered = false;
    const QList<Connection*> connections = _connections;
    for (Connection* connection : connections) {
        const bool isLast = connection == connections.last();
        if (connection->carryFrame(frame, acknowledgeTimeout, isLast, this))
            isDelivered = true;
    }
    return isDelivered;
}

void Node::_dataIndication(QByteArray frame)
{
    _rxFlashes.startShared(flashDuration);  // may end a flash
    _flags |= Receiving;
    _repaint.request();

    _receivedBytes += frame.size();
    ++_receivedFrames;
    emit receivedStatisticsChanged(static_cast<int>(_receivedFrames), static_cast<int>(_receivedBytes));
    dataIndication(frame);
}

void Node::_dataConfirmation(bool delivered)
{
    if (_isConfirmationWanted())
        dataConfirmation(delivered);
}

void Node::dataIndication(QByteArray /*frame*/)
{
}

void Node::dataConfirmation(bool /*delivered*/)
{
}

/// Ends a flash. Frames sent during the flash do not extend it, on purpose: the first timeout clears the
/// flag.
void Node::clearTxFlag()
{
    _flags &= ~Transmitting;
    _repaint.request();
}

void Node::clearRxFlag()
{
    _flags &= ~Receiving;
    _repaint.request();
}

void Node::frameLost()
{
    dataConfirmation(false);
}

bool Node::_isConfirmationWanted() const
{
    return isChecked(_framesAcknowledged, defaultNode()->_framesAcknowledged);
}

int Node::_effectiveAcknowledgeTimeout() const
{
    return ownOrDefault(_frameAcknowledgeTimeout >= 1, _frameAcknowledgeTimeout,
                        defaultNode()->_frameAcknowledgeTimeout);
}

void Node::_setFlag(StateFlag flag, bool on)
{
    _flags = on ? _flags | flag : _flags & ~flag;
}

QWidget* Node::propertiesWidget()
{
    return new NodePropertiesWidget(this, nullptr);
}

QRectF Node::boundingRect() const
{
    const int left = -std::max(smallestHalfWidth, _widthForText / 2);
    return QRectF(left, -boundsHalfHeight, std::max(2 * smallestHalfWidth, _widthForText),
                  2 * boundsHalfHeight);
}

QPainterPath Node::shape() const
{
    QPainterPath path;
    path.addEllipse(disc);
    return path;
}

/// Tells the links before the node moves, so that Qt repaints their old and new places. Keeps the network's
/// directory true when the node enters or leaves a scene.
QVariant Node::itemChange(GraphicsItemChange change, const QVariant& value)
{
    auto* network = qobject_cast<Network*>(scene());
    if (change == QGraphicsItem::ItemPositionChange) {
        for (Connection* connection : qAsConst(_connections))
            connection->prepareGeometryChange();
    } else if (change == QGraphicsItem::ItemSceneChange && network) {
        network->_forget(this);
    } else if (change == QGraphicsItem::ItemSceneHasChanged && network) {
        network->_directory.add(this);
    }
    return QGraphicsItem::itemChange(change, value);
}

/// Measures the labels and returns whether the bounds are new. Does not announce bounds that change with the
/// traffic, since Qt would repaint them at once: the caller repaints the scene.
bool Node::_calculateWidthForText(Repaint repaint)
{
    const QFontMetrics metrics = QApplication::fontMetrics();
    const int width = std::max(metrics.horizontalAdvance(labelText(_name)),
                               metrics.horizontalAdvance(labelText(_address)));
    if (width == _widthForText)
        return false;
    if (repaint == AtOnce)
        prepareGeometryChange();
    _widthForText = width;
    return true;
}

void Node::_update(Repaint repaint)
{
    if (repaint == AtOnce)
        update();
    else
        _repaint.request();
}

void Node::_updateScene(Repaint repaint)
{
    auto* network = qobject_cast<Network*>(scene());
    if (network && repaint == WithTraffic)
        network->repaintWithTraffic();
    else if (scene())
        scene()->update();
}

QColor Node::_baseColor() const
{
    const Node* defaults = defaultNode();
    if (!active())
        return ownOrDefault(_inactiveColor, defaults->_inactiveColor);
    switch (_flags & (Transmitting | Receiving)) {
    case Transmitting | Receiving:
        return coarseBlend(ownOrDefault(_txColor, defaults->_txColor),
                           ownOrDefault(_rxColor, defaults->_rxColor));
    case Transmitting:
        return ownOrDefault(_txColor, defaults->_txColor);
    case Receiving:
        return ownOrDefault(_rxColor, defaults->_rxColor);
    default:
        return ownOrDefault(_activeColor, defaults->_activeColor);
    }
}

void Node::paint(QPainter* painter, const QStyleOptionGraphicsItem* /*option*/, QWidget* /*widget*/)
{
    const QColor base = _baseColor();
    const QColor dark = base.darker(darkerPercent);
    _drawDisc(painter, base, dark);
    painter->setBrush(dark);
    _drawLabels(painter);
    if (isSelected())
        _drawSelectionMarks(painter);
    painter->setPen(Qt::NoPen);
    painter->setBrush(QColor(255, 255, 255, highlightAlpha));
    painter->drawEllipse(highlight);
}

void Node::_drawDisc(QPainter* painter, const QColor& base, const QColor& dark) const
{
    QRadialGradient shade(shadeCentre, shadeRadius);
    shade.setColorAt(0.0, base.lighter(lighterPercent));
    shade.setColorAt(1.0, base);
    painter->setBrush(shade);
    const double width = ownOrDefault(_strokeWidth > 0, _strokeWidth, defaultNode()->_strokeWidth);
    painter->setPen(QPen(dark, width));
    painter->drawEllipse(disc);
}

/// Draws the labels in the pen of the disc's outline.
void Node::_drawLabels(QPainter* painter) const
{
    const Node* defaults = defaultNode();
    const qreal left = -_widthForText / 2.0;
    if (!_name.isEmpty() && isChecked(_showName, defaults->_showName))
        painter->drawText(QRectF(left, -boundsHalfHeight, _widthForText, labelHeight), Qt::AlignCenter,
                          labelText(_name));
    if (isChecked(_showAddress, defaults->_showAddress))
        painter->drawText(QRectF(left, boundsHalfHeight - labelHeight, _widthForText, labelHeight),
                          Qt::AlignCenter, labelText(_address));

    const bool isConnected = (_flags & Connected) != 0;
    if (!isConnected)  // always marked, whatever the setting
        painter->drawText(centreText, Qt::AlignCenter, QStringLiteral("?"));
    else if (isChecked(_showConnectionCount, defaults->_showConnectionCount))
        painter->drawText(centreText, Qt::AlignCenter, QString::number(_connections.size()));
}

/// Draws the marks in the present brush, the darkened base colour.
void Node::_drawSelectionMarks(QPainter* painter)
{
    painter->setPen(Qt::NoPen);
    for (const QPoint& corner : selectionMarks)
        painter->drawRect(QRect(corner, QSize(selectionMarkSize, selectionMarkSize)));
}

quint64 nodeFileId(const Node* node)
{
    return reinterpret_cast<quintptr>(node);
}

QDataStream& operator<<(QDataStream& stream, Node* node)
{
    stream << qint32{node->type()} << qint32{node->nodeType()} << nodeFileId(node) << node->pos();
    stream << node->_address << qint32{node->_flags & Node::Disabled};
    stream << static_cast<qint32>(node->_framesAcknowledged) << qint32{node->_frameAcknowledgeTimeout};
    stream << node->_inactiveColor << node->_activeColor << node->_txColor << node->_rxColor;
    stream << node->_strokeWidth;
    // These are not in the order of the members, on purpose: the format has always had this order.
    stream << static_cast<qint32>(node->_showAddress) << static_cast<qint32>(node->_showConnectionCount)
           << static_cast<qint32>(node->_showName);
    stream << node->_name << node->toolTip();
    if (hasVersionOneFields())
        stream << static_cast<qint32>(node->_promiscuousMode);
    return stream;
}

QDataStream& operator>>(QDataStream& stream, Node* node)
{
    QString comment;
    node->setPos(Stream::readPosition(stream));
    QByteArray address;
    stream >> address >> node->_flags;
    node->_flags &= Node::Disabled;  // the node's program has to attach anew
    node->_framesAcknowledged = Stream::readCheckState(stream);
    stream >> node->_frameAcknowledgeTimeout;
    for (QColor* color : {&node->_inactiveColor, &node->_activeColor, &node->_txColor, &node->_rxColor})
        *color = Stream::readColor(stream);
    node->_strokeWidth = Stream::readFinite(stream, -1.0);
    for (Qt::CheckState* state : {&node->_showAddress, &node->_showConnectionCount, &node->_showName})
        *state = Stream::readCheckState(stream);
    QString name;
    stream >> name >> comment;
    node->_changeIdentity(
        [&] {
            node->_name = name;
            node->_address = address;
        },
        Node::AtOnce);
    node->setToolTip(comment);
    if (hasVersionOneFields())
        node->_promiscuousMode = Stream::readCheckState(stream);
    return stream;
}
