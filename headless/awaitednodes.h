#pragma once

#include <QHash>
#include <QObject>
#include <QStringList>

class Network;
class TcpNode;

/// Tells when each of a number of names belongs to a node with a program attached. Meanwhile programs come
/// and go, rename their nodes and get new ones. The cost of that does not grow with the number of nodes.
class AwaitedNodes : public QObject
{
    Q_OBJECT

public:
    AwaitedNodes(const QStringList& names, const Network& network, QObject* parent = nullptr);

    QStringList missing() const;  // the names without an attached node, in the order given

signals:
    void allAttached();  // perhaps more than once

private slots:
    void _watch(TcpNode* node);
    void _lookAtSender();

private:
    void _lookAt(const TcpNode* node);
    void _count(const QString& name, int change);

    QStringList _names;
    QHash<QString, int> _attachedNodes;          // how many have this name; of the awaited names only
    QHash<const TcpNode*, QString> _attachedAs;  // the name under which an attached node counts
    int _missing = 0;                            // names
};
