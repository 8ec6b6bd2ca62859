#pragma once

#include <QGraphicsItem>
#include <QList>

QT_BEGIN_NAMESPACE
class QWidget;
QT_END_NAMESPACE

/// A node or a link: the user places it in the network's scene and edits it in the property editor.
class NetworkItem : public QGraphicsItem
{
public:
    /// Values of type(). Simulation files hold these numbers, so they may not change.
    enum ItemType {
        NodeType = QGraphicsItem::UserType,
        ConnectionType = QGraphicsItem::UserType + 1,
    };

    NetworkItem() = default;

    int type() const override = 0;

    /// Makes an editor for this item, without a parent. The caller owns it.
    virtual QWidget* propertiesWidget() = 0;
};

/// Returns those of \a items that are of the class \a Item, in the same order.
template <typename Item, typename Base> QList<Item*> itemsOf(const QList<Base*>& items)
{
    QList<Item*> found;
    for (Base* base : items) {
        if (auto* item = dynamic_cast<Item*>(base))
            found.append(item);
    }
    return found;
}

/// Tells whether anybody sees what happens in \a scene. True of any scene that is no network.
bool isSceneWatched(const QGraphicsScene& scene);
