#include "network/network.h"

#include "nodes/tcpnode.h"

#include <QGraphicsLineItem>
#include <QGraphicsSceneMouseEvent>
#include <QKeyEvent>
#include <QPen>
#include <QTextDocument>
#include <QToolTip>

namespace {

constexpr qreal previewOpacity = 0.5;
constexpr qreal reachOfLinks = 12.0;   // bands reach 10 units, and bounds may lack one on each side
constexpr qreal previewZValue = -1.0;  // under the nodes, so that it never hides the one under the cursor

/// Returns what shows a comment as it is, also where Qt would take it for markup.
QString asTyped(const QString& comment)
{
    if (!Qt::mightBeRichText(comment))
        return comment;
    return QStringLiteral("<p style=\"white-space:pre\">%1</p>").arg(comment.toHtmlEscaped());
}

}  // namespace

void Network::setEditorMode(EditMode mode)
{
    _editor.mode = mode;
    if (mode != Selection)
        clearSelection();
}

void Network::mousePressEvent(QGraphicsSceneMouseEvent* event)
{
    switch (_editor.mode) {
    case Selection:
        _pressInSelection(event);
        return;
    case NodePlacement:  // with any button, also on top of a node: this mode only places nodes
        _placeNode(event->scenePos());
        break;
    case ConnectionDrawing:
        _startDrawing(event->scenePos());
        break;
    }
    event->accept();
}

void Network::mouseMoveEvent(QGraphicsSceneMouseEvent* event)
{
    switch (_editor.mode) {
    case Selection:
        QGraphicsScene::mouseMoveEvent(event);
        _remeasureConnectionsOfSelection();
        return;
    case NodePlacement:
        break;
    case ConnectionDrawing:
        if (_editor.from && _editor.connectionPreview)
            _editor.connectionPreview->setLine(QLineF(_editor.from->pos(), event->scenePos()));
        break;
    }
    event->accept();
}

/// Ends a drawing, also one during which the mode has changed; that one makes no link.
void Network::mouseReleaseEvent(QGraphicsSceneMouseEvent* event)
{
    switch (_editor.mode) {
    case Selection:
        QGraphicsScene::mouseReleaseEvent(event);
        _endMouseGrab(event);
        _endDrawing();
        update();
        return;
    case NodePlacement:
        break;
    case ConnectionDrawing:
        _connectTo(_nodeAt(event->scenePos()));
        break;
    }
    _endMouseGrab(event);
    _endDrawing();
    event->accept();
}

/// Ignores double clicks, on purpose: neither the scene nor an item reacts to them.
void Network::mouseDoubleClickEvent(QGraphicsSceneMouseEvent* event)
{
    event->accept();
}

/// Handles Delete and drops all other keys: items never receive any.
void Network::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Delete)
        deleteSelectedNetworkItem();
}

/// Shows the user's comment on what is there, also on a link beside its bounds.
void Network::helpEvent(QGraphicsSceneHelpEvent* event)
{
    const QString comment = _commentAt(event->scenePos());
    QToolTip::showText(event->screenPos(), asTyped(comment), event->widget());
    event->setAccepted(!comment.isEmpty());
}

/// Returns the comment of the topmost item that has one.
QString Network::_commentAt(const QPointF& position) const
{
    const Connection* link = _linkBesideBounds(position);
    if (link && !link->toolTip().isEmpty())
        return link->toolTip();
    const QList<QGraphicsItem*> found = items(position);
    for (const QGraphicsItem* item : found) {
        if (!item->toolTip().isEmpty())
            return item->toolTip();
    }
    return QString();
}

/// Gives the press to a link that Qt does not find, which then handles it as any item would.
void Network::_pressInSelection(QGraphicsSceneMouseEvent* event)
{
    Connection* link = nullptr;
    if (event->button() == Qt::LeftButton && !mouseGrabberItem())
        link = _linkBesideBounds(event->scenePos());
    if (link)
        link->grabMouse();
    QGraphicsScene::mousePressEvent(event);
    if (link)
        event->accept();
}

/// Frees the mouse, which a pressed item would keep when the mode changes before the release.
void Network::_endMouseGrab(const QGraphicsSceneMouseEvent* release)
{
    QGraphicsItem* item = mouseGrabberItem();
    if (item && !release->buttons())
        item->ungrabMouse();
}

/// Returns the topmost item at \a position if it is a link that Qt does not find. Qt looks for items within
/// their bounds, and those of a level or an upright link are next to nothing.
Connection* Network::_linkBesideBounds(const QPointF& position) const
{
    const QRectF vicinity(position - QPointF(reachOfLinks, reachOfLinks),
                          QSizeF(2 * reachOfLinks, 2 * reachOfLinks));
    const QList<QGraphicsItem*> nearby = items(vicinity, Qt::IntersectsItemBoundingRect);
    for (QGraphicsItem* item : nearby) {
        if (item->contains(item->mapFromScene(position)))
            return item == itemAt(position, QTransform()) ? nullptr : dynamic_cast<Connection*>(item);
    }
    return nullptr;
}

void Network::_remeasureConnectionsOfSelection()
{
    const QList<Node*> nodes = itemsOf<Node>(selectedItems());
    for (const Node* node : nodes) {
        for (Connection* connection : node->connections())
            connection->prepareGeometryChange();
    }
}

Node* Network::_nodeAt(const QPointF& position) const
{
    auto* node = dynamic_cast<Node*>(itemAt(position, QTransform()));
    return node && node->type() == NetworkItem::NodeType ? node : nullptr;
}

void Network::_placeNode(const QPointF& position)
{
    auto* node = new TcpNode(QByteArray(), nullptr);
    addItem(node);
    node->setPos(position);
}

void Network::_startDrawing(const QPointF& position)
{
    _endDrawing();  // a preview left over from a press without a release
    _editor.from = _nodeAt(position);
    if (!_editor.from)
        return;

    const QPen pen(QBrush(_defaultConnection._connectionColor, Qt::SolidPattern),
                   _defaultConnection._connectionStrokeWidth, Qt::SolidLine, Qt::SquareCap, Qt::BevelJoin);
    _editor.connectionPreview = addLine(QLineF(_editor.from->pos(), position), pen);
    _editor.connectionPreview->setOpacity(previewOpacity);
    _editor.connectionPreview->setZValue(previewZValue);
}

/// Joins the node where the drawing started with \a end, unless they are the same or already joined.
void Network::_connectTo(Node* end)
{
    Node* from = _editor.from;
    if (!from || !end || end == from)
        return;
    for (Connection* connection : from->connections()) {
        if (connection->isNodeInvolved(end))
            return;
    }
    addItem(new Connection(from, end));
}

void Network::_endDrawing()
{
    _editor.from = nullptr;
    delete _editor.connectionPreview;  // takes itself off the scene
    _editor.connectionPreview = nullptr;
}

/// Removes a node that leaves from the directory, and ends a drawing that started there.
void Network::_forget(Node* node)
{
    _directory.remove(node);
    if (_editor.from == node)
        _endDrawing();
}
