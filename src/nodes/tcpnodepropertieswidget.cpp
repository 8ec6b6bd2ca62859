#include "nodes/tcpnodepropertieswidget.h"

#include "forms/propertyform.h"
#include "nodes/tcpnode.h"

#include <QHostAddress>
#include <QLineEdit>
#include <QTcpSocket>

namespace {

/// Shows IPv4 addresses in their plain form: a server on all addresses sees such peers under IPv6 addresses.
QString hostText(const QHostAddress& host)
{
    bool isIpv4 = false;
    const quint32 ipv4 = host.toIPv4Address(&isIpv4);
    QString text = (isIpv4 ? QHostAddress(ipv4) : host).toString();
    return text.replace(QLatin1String("127.0.0.1"), QLatin1String("localhost"));
}

QString peerText(const QTcpSocket* socket)
{
    if (!socket || socket->state() != QAbstractSocket::ConnectedState)
        return QStringLiteral("-");
    return hostText(socket->peerAddress()) + QLatin1Char(':') + QString::number(socket->peerPort());
}

}  // namespace

TcpNodePropertiesWidget::TcpNodePropertiesWidget(TcpNode* node, QWidget* parentProperties)
    : _node(node)
{
    PropertyForm form(this, tr("TCP Node"));
    form.beginGroup(tr("Connection"));
    _peer = form.addReadOnlyField(QString(), QString());
    form.embed(parentProperties);
    form.addEnd();

    connectionStateUpdate();
    connect(node, SIGNAL(connectionStateChanged()), this, SLOT(connectionStateUpdate()));
}

void TcpNodePropertiesWidget::connectionStateUpdate()
{
    _peer->setText(peerText(_node ? _node->socket() : nullptr));
}
