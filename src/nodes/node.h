#pragma once

#include "core/throttledupdate.h"
#include "core/timeouts.h"
#include "network/networkitem.h"

#include <QByteArray>
#include <QColor>
#include <QList>
#include <QObject>
#include <QString>

#include <functional>

QT_BEGIN_NAMESPACE
class QDataStream;
QT_END_NAMESPACE

class Connection;

/// One station of the simulated network: where a frame enters a link and where it leaves it.
///
/// A plain node is passive; only an attached program (see TcpNode) makes it active. The user may leave
/// settings undecided: Qt::PartiallyChecked, a number below the range, an invalid colour. The network's
/// default node, itself a Node, then supplies them at the moment of use.
class Node : public QObject, public NetworkItem
{
    Q_OBJECT

public:
    /// Simulation files hold these numbers, so they may not change.
    enum NodeKind {
        PlainNode = -1,
        TcpNodeKind = 1,
    };

    /// When to paint a change: at once, as the user expects of his own, or together with the traffic. Traffic
    /// is painted some 60 times a second at most.
    enum Repaint {
        AtOnce,
        WithTraffic,
    };

    explicit Node(const QByteArray& address);
    explicit Node(const QString& name);

    /// Deletes the node's links.
    ~Node() override;

    // Identity
    QString name() const { return _name; }
    void setName(const QString& name, Repaint repaint = AtOnce);
    QByteArray address() const { return _address; }  // raw bytes
    void setAddress(const QByteArray& address, Repaint repaint = AtOnce);

    // State
    bool isInPromiscuousMode() const;  // the default node's when undecided
    bool active() const;               // connected and not disabled

    /// Switches the disabled bit when \a disabling: active clears it. Else switches the connected bit: active
    /// sets it.
    void setActive(bool active, bool disabling, Repaint repaint = AtOnce);

    // Links, in the order of attachment; owned by this node
    void addConnection(Connection* connection);  // ignores one that is there already
    void removeConnection(Connection* connection);
    const QList<Connection*>& connections() const { return _connections; }
    int connectionCount() const { return _connections.size(); }

    // Statistics
    qint64 sendFramesCount() const { return _sendFrames; }
    qint64 sendBytesCount() const { return _sendBytes; }
    qint64 receivedFramesCount() const { return _receivedFrames; }
    qint64 receivedBytesCount() const { return _receivedBytes; }
    void resetStatistics();

    // Appearance; an invalid colour means the default node's
    void setInactiveColor(const QColor& color, Repaint repaint = AtOnce);
    void setActiveColor(const QColor& color, Repaint repaint = AtOnce);
    // These two repaint nothing, on purpose: the next flash shows them
    void setTxColor(const QColor& color) { _txColor = color; }
    void setRxColor(const QColor& color) { _rxColor = color; }

    // Link layer, called by links
    void _dataIndication(QByteArray frame);  // a frame has arrived
    void _dataConfirmation(bool delivered);  // passed on when confirmations are wanted, else ignored

    // For the node's program; a plain node has none
    virtual void dataIndication(QByteArray frame);
    virtual void dataConfirmation(bool delivered);

    // Scene item
    QWidget* propertiesWidget() override;
    virtual int nodeType() const { return PlainNode; }  // a NodeKind
    int type() const override { return NodeType; }
    QRectF boundingRect() const override;
    QPainterPath shape() const override;
    void paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* widget) override;

public slots:
    /// Sends a frame over every link. An inactive node flashes its transmit colour all the same, on purpose,
    /// but drops the frame and never confirms it.
    void dataRequest(QByteArray frame);

    void clearTxFlag();
    void clearRxFlag();

    /// Reports the loss of a sent frame, whether or not the program still wants confirmations.
    void frameLost();

signals:
    void sendStatisticsChanged(int frames, int bytes);  // truncated to int
    void receivedStatisticsChanged(int frames, int bytes);
    void nameChanged();  // set, perhaps to the same one

protected:
    QVariant itemChange(GraphicsItemChange change, const QVariant& value) override;

private:
    friend class Network;
    friend class NodePropertiesWidget;
    friend struct TestAccess;
    friend QDataStream& operator<<(QDataStream& stream, Node* node);
    friend QDataStream& operator>>(QDataStream& stream, Node* node);

    void _initialize();
    bool _changeIdentity(const std::function<void()>& change, Repaint repaint);

    enum StateFlag {
        Connected = 1,  // a program drives the node
        Disabled = 2,   // switched off by the user or by the program
        Transmitting = 4,
        Receiving = 8,
    };

    void _setFlag(StateFlag flag, bool on);
    bool _isConfirmationWanted() const;
    int _effectiveAcknowledgeTimeout() const;
    bool _carryOverConnections(const QByteArray& frame, int acknowledgeTimeout);
    bool _calculateWidthForText(Repaint repaint);
    void _update(Repaint repaint);
    void _updateScene(Repaint repaint);
    QColor _baseColor() const;
    void _drawDisc(QPainter* painter, const QColor& base, const QColor& dark) const;
    void _drawLabels(QPainter* painter) const;
    static void _drawSelectionMarks(QPainter* painter);

    QString _name;
    QByteArray _address;
    int _flags = 0;  // of StateFlag
    Qt::CheckState _promiscuousMode = Qt::PartiallyChecked;
    QList<Connection*> _connections;
    qint64 _sendFrames = 0;
    qint64 _sendBytes = 0;
    qint64 _receivedFrames = 0;
    qint64 _receivedBytes = 0;
    Qt::CheckState _framesAcknowledged = Qt::PartiallyChecked;
    int _frameAcknowledgeTimeout = -1;  // ms; below 1: the default node's
    QColor _inactiveColor;
    QColor _activeColor;
    QColor _txColor;
    QColor _rxColor;
    double _strokeWidth = -1.0;  // scene units; 0 or below: the default node's
    Qt::CheckState _showName = Qt::PartiallyChecked;
    Qt::CheckState _showAddress = Qt::PartiallyChecked;
    Qt::CheckState _showConnectionCount = Qt::PartiallyChecked;
    int _widthForText = 0;  // pixels of the wider of name and address

    Timeouts _txFlashes{[this] { clearTxFlag(); }, Timeouts::Leisurely};
    Timeouts _rxFlashes{[this] { clearRxFlag(); }, Timeouts::Leisurely};
    Timeouts _losses{[this] { frameLost(); }};
    ThrottledUpdate _repaint{this, isSceneWatched};
};

/// Returns the node's number within a simulation file. It is unique among the living nodes; 0 means no node.
quint64 nodeFileId(const Node* node);

// One node record of the simulation file; reading starts behind the record's header
QDataStream& operator<<(QDataStream& stream, Node* node);
QDataStream& operator>>(QDataStream& stream, Node* node);
