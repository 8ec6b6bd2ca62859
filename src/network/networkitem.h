#pragma once

#include <QGraphicsItem>

QT_BEGIN_NAMESPACE
class QWidget;
QT_END_NAMESPACE

/// What the user can place in the network's scene and edit in the property editor: a node or a connection.
class NetworkItem : public QGraphicsItem
{
public:
    /// What type() returns. The numbers are stored in simulation files and may not change.
    enum ItemType {
        NodeType = QGraphicsItem::UserType,
        ConnectionType = QGraphicsItem::UserType + 1,
    };

    NetworkItem() = default;

    int type() const override = 0;

    /// A newly made editor for this item, without a parent; the caller owns it.
    virtual QWidget* propertiesWidget() = 0;
};

/// Tells whether anybody sees what happens in \a scene; of one that is no network: always.
bool isSceneWatched(const QGraphicsScene& scene);
