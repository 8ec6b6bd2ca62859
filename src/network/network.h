#pragma once

#include "connections/connection.h"
#include "core/throttledupdate.h"
#include "network/networkitem.h"
#include "network/nodedirectory.h"
#include "nodes/node.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QGraphicsScene>
#include <QList>
#include <QTcpServer>
#include <QTimer>

QT_BEGIN_NAMESPACE
class QGraphicsLineItem;
class QTcpSocket;
QT_END_NAMESPACE

class TcpNode;

/// The scene that holds the simulated network. It owns the nodes and links, the network-wide frame parameters
/// and the templates that undecided settings fall back to. It also owns the state of editing and the TCP
/// server for the nodes' programs.
class Network : public QGraphicsScene
{
    Q_OBJECT

public:
    enum EditMode {
        Selection = 0,
        NodePlacement = 1,
        ConnectionDrawing = 2,
    };

    explicit Network(QWidget* parent = nullptr);
    ~Network() override;

    // Editing
    EditMode editorMode() const { return _editor.mode; }
    void setEditorMode(EditMode mode);   // any mode but Selection clears the selection
    NetworkItem* selectedNetworkItem();  // the first selected item; null for none or another kind of item
    void deleteSelectedNetworkItem();    // the first selected item only
    bool isEmpty() const;                // no item of any kind is left
    using QGraphicsScene::items;
    QList<QGraphicsItem*> items(Qt::SortOrder order = Qt::DescendingOrder) const;  // in stacking order
    bool isWatched() const;                            // by a view, or by an object connected to changed()
    void repaintWithTraffic() { _repaint.request(); }  // the whole scene, some 60 times a second at most
    QWidget* propertiesWidget();                       // new, without a parent; the caller owns it

    // TCP server
    quint16 tcpPort() const { return _tcpServer.port; }
    void setTcpPort(quint16 port);  // a listening server moves to the new port; if it cannot, it stays off
    quint16 listeningPort() const;  // the real one when tcpPort() is 0; 0 while the server is off
    bool isTcpEnabled() const { return _tcpServer.server.isListening(); }
    bool setTcpEnabled(bool enable);  // false when the port cannot be opened; the server is then off
    QString tcpErrorString() const;   // why the last start of the server failed; empty when it did not
    bool isTcpPnpEnabled() const { return _tcpServer.pnpEnabled; }
    void setTcpPnpEnabled(bool enable) { _tcpServer.pnpEnabled = enable; }
    bool isNameUsedForPnpIdentification() const { return _tcpServer.nameBasedPnp; }
    void setNameUsedForPnpIdentification(bool use) { _tcpServer.nameBasedPnp = use; }

    // Frame parameters, in bytes
    int maximalTransferUnit() const { return _network.maximalTransferUnit; }
    int addressLength() const { return _network.addressLength; }
    int destinationAddressOffset() const { return _network.destinationAddressOffset; }
    int sourceAddressOffset() const { return _network.sourceAddressOffset; }
    const QByteArray& broadcastAddress() const { return _network.broadcastAddress; }

    /// Returns the QLineEdit input mask for an address of \a length bytes; negative: the network's address
    /// length. It has at least one byte pair, so that no address field is without a mask. It has at most as
    /// many as a line edit can hold.
    QString addressInputMask(int length) const;

    // Traffic
    qint64 framesLeftLinks() const { return _framesLeftLinks; }  // ever, delivered or lost
    void noteFrameLeavesLink();

    // Templates
    Connection* defaultConnection() { return &_defaultConnection; }
    const Connection* defaultConnection() const { return &_defaultConnection; }
    Node* defaultNode() { return &_defaultNode; }
    const Node* defaultNode() const { return &_defaultNode; }

signals:
    /// Tells that a deletion has left the scene empty.
    void lastNodeDeleted();

    /// Tells that a frame has left its link, delivered or lost.
    void frameLeftLink();

    /// Tells that a program has got a new node, to which it is attached.
    void nodeAdded(TcpNode* node);

protected:
    void mousePressEvent(QGraphicsSceneMouseEvent* event) override;
    void mouseMoveEvent(QGraphicsSceneMouseEvent* event) override;
    void mouseReleaseEvent(QGraphicsSceneMouseEvent* event) override;
    void mouseDoubleClickEvent(QGraphicsSceneMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void helpEvent(QGraphicsSceneHelpEvent* event) override;
    void drawBackground(QPainter* painter, const QRectF& area) override;  // begins a picture
    void drawForeground(QPainter* painter, const QRectF& area) override;  // ends a picture

private slots:
    void _tcpPnpNewNode();
    void _tcpPnpDataFromPending();
    void _tcpPnpPendingDisconnected();
    void _tcpResumeAccepting();

private:
    friend class Connection;
    friend class NetworkPropertiesWidget;
    friend class Node;
    friend struct TestAccess;
    friend QDataStream& operator>>(QDataStream& stream, Network& network);

    void _setDefaults();
    Node* _nodeAt(const QPointF& position) const;
    QString _commentAt(const QPointF& position) const;
    Connection* _linkBesideBounds(const QPointF& position) const;
    void _pressInSelection(QGraphicsSceneMouseEvent* event);
    void _endMouseGrab(const QGraphicsSceneMouseEvent* release);
    void _placeNode(const QPointF& position);
    void _remeasureConnectionsOfSelection();
    void _startDrawing(const QPointF& position);
    void _connectTo(Node* end);
    void _endDrawing();
    void _forget(Node* node);

    bool _startTcpServer();
    void _stopTcpServer();
    void _restAccepting();
    void _forgetPending(QTcpSocket* socket);
    void _identifyByName(QTcpSocket* socket);
    void _identifyByAddress(QTcpSocket* socket);
    template <typename Identity> void _attach(QTcpSocket* socket, const Identity& identity);
    TcpNode* _topmostTcpNode(const QList<Node*>& candidates) const;

    struct {
        EditMode mode = Selection;
        Node* from = nullptr;                            // where a drawing started; not owned
        QGraphicsLineItem* connectionPreview = nullptr;  // owned; null while nothing is drawn
    } _editor;

    struct {
        int maximalTransferUnit = 255;
        int addressLength = 6;
        int destinationAddressOffset = 0;
        int sourceAddressOffset = 6;
        QByteArray broadcastAddress = QByteArray::fromHex("FFFFFFFFFFFF");
    } _network;

    Connection _defaultConnection{nullptr, nullptr};
    Node _defaultNode{QByteArray()};

    struct {
        bool pnpEnabled = false;    // unknown programs get new nodes
        bool nameBasedPnp = false;  // programs identify by name, else by address
        quint16 port = 8844;
        QTcpServer server;
        QList<QTcpSocket*> pending;  // accepted, not identified yet; owned
        QString error;               // of the last start that failed
    } _tcpServer;

    qint64 _framesLeftLinks = 0;
    NodeDirectory _directory;  // the nodes in the scene, which keep it true
    QTimer _acceptRetry;       // runs after accepting has failed
    QElapsedTimer _painting;   // since a picture began
    ThrottledUpdate _repaint{this, isSceneWatched};
};

// The network record of the simulation file
QDataStream& operator<<(QDataStream& stream, Network& network);
QDataStream& operator>>(QDataStream& stream, Network& network);
