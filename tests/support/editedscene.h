#pragma once

#include "testhelpers.h"

#include <QGraphicsView>
#include <QMouseEvent>

#include <memory>

/// A network in a view that is shown, and a user's mouse on it.
class EditedScene
{
protected:
    static constexpr QRectF canvas{-300, -300, 600, 600};

    void showScene()
    {
        NetworkSimulation::newNetworkSimulation();
        _view = std::make_unique<QGraphicsView>(&network());
        _view->setSceneRect(canvas);  // fixed, so that new items shift nothing under the mouse
        _view->resize(700, 700);
        _view->show();
        QVERIFY(QTest::qWaitForWindowExposed(_view.get()));
    }

    void deleteScene()
    {
        _view.reset();
        NetworkSimulation::deleteNetworkSimulation();
    }

    static Network& network() { return *NetworkSimulation::instance()->network(); }
    static auto& editor() { return TestAccess::editor(network()); }

    TcpNode* addNode(const QPointF& position)
    {
        auto* node = new TcpNode(QByteArray(), nullptr);
        network().addItem(node);
        node->setPos(position);
        return node;
    }

    Connection* join(Node* one, Node* other)
    {
        auto* connection = new Connection(one, other);
        network().addItem(connection);
        return connection;
    }

    static QList<Connection*> connections()
    {
        QList<Connection*> found;
        const QList<QGraphicsItem*> items = network().items();
        for (QGraphicsItem* item : items) {
            if (auto* connection = dynamic_cast<Connection*>(item))
                found.append(connection);
        }
        return found;
    }

    /// Sends a mouse event to the view. Returns whether somebody accepted it.
    bool send(QEvent::Type type, const QPointF& position, Qt::MouseButton button, Qt::MouseButtons held)
    {
        const QPoint local = _view->mapFromScene(position);
        const QPoint global = _view->viewport()->mapToGlobal(local);
        QMouseEvent event(type, local, global, button, held, Qt::NoModifier);
        QCoreApplication::sendEvent(_view->viewport(), &event);
        return event.isAccepted();
    }

    bool press(const QPointF& position, Qt::MouseButton button = Qt::LeftButton)
    {
        return send(QEvent::MouseButtonPress, position, button, button);
    }

    bool move(const QPointF& position, Qt::MouseButtons held = Qt::LeftButton)
    {
        return send(QEvent::MouseMove, position, Qt::NoButton, held);
    }

    bool release(const QPointF& position, Qt::MouseButton button = Qt::LeftButton)
    {
        return send(QEvent::MouseButtonRelease, position, button, Qt::NoButton);
    }

    void drag(const QPointF& from, const QPointF& to)
    {
        press(from);
        move((from + to) / 2);
        move(to);
        release(to);
    }

    void chooseMode(int mode) { network().setEditorMode(static_cast<Network::EditMode>(mode)); }

    std::unique_ptr<QGraphicsView> _view;
};
