#pragma once

#include "lattivo_protocol.h"
#include "nodes/node.h"
#include "protocol/messageoutput.h"
#include "protocol/messagereader.h"

#include <QAbstractSocket>

QT_BEGIN_NAMESPACE
class QTcpSocket;
QT_END_NAMESPACE

/// A node whose behaviour an external program supplies over TCP. The program's frame messages become sends,
/// and the node writes back delivered frames and confirmations. The program may set the node's address, name,
/// colour and activation.
///
/// The node keeps no part of a message for the next read, on purpose: a message that is only partly there
/// when its first byte is read closes the connection. Programs write each message in one piece.
class TcpNode : public Node
{
    Q_OBJECT

public:
    /// The node sends these to its program; the value is the byte on the wire.
    enum DebugCommand {
        InvalidDC = 0,
        RunContDC = LATTIVO_COMMAND_RUN,
        PauseDC = LATTIVO_COMMAND_PAUSE,
        StepDC = LATTIVO_COMMAND_STEP,
        ResetDC = LATTIVO_COMMAND_RESET,
        QuitDC = LATTIVO_COMMAND_QUIT,
        IdentifyDC = LATTIVO_COMMAND_IDENTIFY,
    };

    // \a socket as in setSocket()
    TcpNode(const QByteArray& address, QTcpSocket* socket);
    TcpNode(const QString& name, QTcpSocket* socket);
    ~TcpNode() override;

    /// Attaches the program behind \a socket; a program attached before loses its connection. From here on
    /// the node owns a connected socket. It does not adopt an unconnected one, which leaves it unattached, as
    /// null does. The socket that it already has is closed, and leaves it unattached too.
    void setSocket(QTcpSocket* socket);
    const QTcpSocket* socket() const { return _socket; }  // null when no program is attached

    void sendDebugCommand(DebugCommand command);

    /// Sends to the selected node, or to every TCP node in order of construction when nothing is selected.
    static void sendDebugCommandToSelectedOrAll(DebugCommand command);

    void dataIndication(QByteArray frame) override;
    void dataConfirmation(bool delivered) override;

    QWidget* propertiesWidget() override;
    int nodeType() const override { return TcpNodeKind; }

signals:
    void connectionStateChanged();

protected:
    void contextMenuEvent(QGraphicsSceneContextMenuEvent* event) override;

private slots:
    void _socketStateChanged(QAbstractSocket::SocketState state);
    void _socketDataIndication();

private:
    friend class TcpNodePropertiesWidget;
    friend struct TestAccess;

    void _adoptSocket(QTcpSocket* socket);
    void _detachSocket();
    void _closeSocket();
    void _abortSocket();
    void _handleInput();
    bool _handleMessage(MessageReader& reader);
    void _handleFrame(MessageReader& reader);
    bool _handleNodeControl(MessageReader& reader);
    void _handleAddress(MessageReader& reader, quint32 dataLength);
    void _handleColor(MessageReader& reader, quint32 dataLength);
    void _handleName(MessageReader& reader, quint32 dataLength);
    void _sendMessage(quint8 type, const QByteArray& body);
    void _flushOutput();

    QTcpSocket* _socket = nullptr;  // owned once adopted; null when no program is attached
    MessageReader _input;  // what has arrived; the node reads no more before it has handled all of it
    Timeouts _furtherInput{[this] { _handleInput(); }};
    MessageOutput _output;  // what the present pass has written
    Timeouts _outputFlush{[this] { _flushOutput(); }};

    static QList<TcpNode*> __allTcpNodes;  // every living TCP node in order of construction; not owned
};
