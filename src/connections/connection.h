#pragma once

#include "core/throttledupdate.h"
#include "core/timeouts.h"
#include "network/frame.h"
#include "network/networkitem.h"

#include <QColor>
#include <QList>
#include <QObject>

QT_BEGIN_NAMESPACE
class QDataStream;
QT_END_NAMESPACE

class Node;

/// A link: the medium between two nodes. It holds the frames in flight and hands each over when its delay is
/// up.
///
/// The user may leave settings undecided. The network's default link, itself a Connection without ends, then
/// supplies them at the moment of use. The getters give the own values; the caller applies the fallback.
class Connection : public QObject, public NetworkItem
{
    Q_OBJECT

public:
    /// Registers itself with both nodes, which are not owned and may be null.
    Connection(Node* node1, Node* node2);

    /// Takes itself off its nodes. Frames in flight vanish with it, and nobody is told.
    ~Connection() override;

    // Ends
    Node* node(int index);                // null for an index other than 0 and 1
    void setNode(int index, Node* node);  // leaves the nodes' lists of links alone
    Node* otherNode(const Node* node);    // null when \a node is no end of this link
    bool isNodeInvolved(Node* node);

    // Behaviour: the own values
    bool isBroken() const { return _broken; }
    double reliability() const { return _reliability; }
    double errorDetectionReliability() const { return _errorDetectionReliability; }
    int delayMs() const { return _delayMs; }
    int delayDeviationMs() const { return _delayDeviationMs; }

    // Statistics: nothing advances them yet
    qint64 totalFrames() const { return _totalFrames; }
    qint64 lostFrames() const { return _lostFrames; }
    qint64 crcErrors() const { return _crcErrors; }
    void resetStatistics();

    /// Takes a frame of \a source on its way to the other end. \a atLeastUntil is the sender's deadline for a
    /// confirmation in ms, -1 when it expects none. \a lastConnection marks the link that confirms broadcasts
    /// and whose frame is captured. Returns whether the frame will be delivered, in time or late.
    bool carryFrame(QByteArray frame, int atLeastUntil, bool lastConnection, Node* source);

    // Scene item
    QWidget* propertiesWidget() override;
    int type() const override { return ConnectionType; }
    QRectF boundingRect() const override;
    QPainterPath shape() const override;
    void paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* widget) override;
    using QGraphicsItem::prepareGeometryChange;  // an end that moves also moves these bounds

public slots:
    /// Hands over the oldest frame in flight, whichever frame the delay belonged to: a link never reorders.
    void deliverFrame();

protected:
    void mousePressEvent(QGraphicsSceneMouseEvent* event) override;
    void mouseReleaseEvent(QGraphicsSceneMouseEvent* event) override;

private:
    friend class ConnectionPropertiesWidget;
    friend class Network;
    friend struct TestAccess;
    friend QDataStream& operator<<(QDataStream& stream, Connection* connection);
    friend QDataStream& operator>>(QDataStream& stream, Connection* connection);

    class PaintedArea;

    void _setStrokeWidth(double width);
    void _discardFramesInFlight();
    void _drawFramesInFlight(QPainter* painter, const QPen& linePen) const;
    QColor _effectiveColor() const;
    double _effectiveStrokeWidth() const;
    double _effectiveReliability() const;
    double _reachBeyondLine() const;

    Node* _nodes[2];                           // not owned
    QList<Frame> _frames;                      // in flight, oldest first
    bool _broken = false;                      // carries nothing new
    double _reliability = -1.0;                // per bit, 0 to 1; negative: the default link's
    double _errorDetectionReliability = -1.0;  // per corrupted frame, likewise
    int _delayMs = -1;                         // 0 or less: the default link's
    int _delayDeviationMs = -1;                // 0 or less: the default link's
    qint64 _totalFrames = 0;
    qint64 _lostFrames = 0;
    qint64 _crcErrors = 0;
    QColor _connectionColor;               // invalid: the default link's
    double _connectionStrokeWidth = -1.0;  // scene units; negative: the default link's
    QPointF _pressedAt;                    // where in the scene the left button went down

    // One for each frame carried; they outlive frames that were discarded.
    Timeouts _deliveries{[this] { deliverFrame(); }};
    ThrottledUpdate _repaint{this, isSceneWatched};
};

// One link record of the simulation file; reading starts behind the record's header
QDataStream& operator<<(QDataStream& stream, Connection* connection);
QDataStream& operator>>(QDataStream& stream, Connection* connection);
