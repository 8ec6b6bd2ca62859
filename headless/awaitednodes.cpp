#include "awaitednodes.h"

#include "network/network.h"
#include "nodes/tcpnode.h"

AwaitedNodes::AwaitedNodes(const QStringList& names, const Network& network, QObject* parent)
    : QObject(parent)
    , _names(names)
{
    for (const QString& name : names)
        _attachedNodes.insert(name, 0);
    _missing = _attachedNodes.size();

    connect(&network, SIGNAL(nodeAdded(TcpNode*)), this, SLOT(_watch(TcpNode*)));
    const QList<TcpNode*> nodes = itemsOf<TcpNode>(network.items());
    for (TcpNode* node : nodes)
        _watch(node);
}

QStringList AwaitedNodes::missing() const
{
    QStringList missing;
    for (const QString& name : _names) {
        if (_attachedNodes.value(name) == 0)
            missing.append(name);
    }
    return missing;
}

/// Watches a node until it dies: it then loses its program first, and so counts no longer.
void AwaitedNodes::_watch(TcpNode* node)
{
    connect(node, SIGNAL(connectionStateChanged()), this, SLOT(_lookAtSender()));
    connect(node, SIGNAL(nameChanged()), this, SLOT(_lookAtSender()));
    _lookAt(node);
}

void AwaitedNodes::_lookAtSender()
{
    _lookAt(qobject_cast<TcpNode*>(sender()));
}

void AwaitedNodes::_lookAt(const TcpNode* node)
{
    if (_attachedAs.contains(node))
        _count(_attachedAs.take(node), -1);
    if (node->socket()) {
        _attachedAs.insert(node, node->name());
        _count(node->name(), +1);
    }
    if (_missing == 0)
        emit allAttached();
}

void AwaitedNodes::_count(const QString& name, int change)
{
    const auto nodes = _attachedNodes.find(name);
    if (nodes == _attachedNodes.end())
        return;
    const bool wasMissing = *nodes == 0;
    *nodes += change;
    const bool isMissing = *nodes == 0;
    _missing += static_cast<int>(isMissing) - static_cast<int>(wasMissing);
}
