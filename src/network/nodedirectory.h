#pragma once

#include "nodes/node.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <set>
#include <utility>

/// Finds the nodes of a network by what programs identify themselves with. With 10,000 nodes and links, a
/// look through the scene's sorted items would take some 9 ms for each program.
class NodeDirectory
{
public:
    /// Adds \a node, which is not owned. Remove it before its name or address changes, and add it again
    /// after.
    void add(Node* node)
    {
        _byName.insert({node->name(), node});
        _byAddress.insert({node->address(), node});
    }

    /// Does nothing for a node that is not in.
    void remove(Node* node)
    {
        _byName.erase({node->name(), node});
        _byAddress.erase({node->address(), node});
    }

    // In no particular order
    QList<Node*> nodes(const QString& name) const { return _nodes(_byName, name); }
    QList<Node*> nodes(const QByteArray& address) const { return _nodes(_byAddress, address); }

private:
    template <typename Identity> using Entries = std::set<std::pair<Identity, Node*>>;

    template <typename Identity>
    static QList<Node*> _nodes(const Entries<Identity>& entries, const Identity& identity)
    {
        QList<Node*> nodes;
        for (auto entry = entries.lower_bound({identity, nullptr});
             entry != entries.end() && entry->first == identity; ++entry)
            nodes.append(entry->second);
        return nodes;
    }

    Entries<QString> _byName;
    Entries<QByteArray> _byAddress;
};
