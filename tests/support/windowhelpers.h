#pragma once

#include "network/networksimulation.h"
#include "ui/capturetableview.h"
#include "ui/mainwindow.h"
#include "ui/propertyeditor.h"

#include <QDir>
#include <QGraphicsView>
#include <QMenuBar>
#include <QScrollArea>
#include <QTableView>
#include <QTemporaryDir>
#include <QToolBar>
#include <QtTest>

#include <memory>

/// Shows the whole window, for tests that use mouse and keys.
namespace WindowHelpers {

inline const QPoint leftPlace(120, 150);  // in the view
inline const QPoint rightPlace(360, 220);
inline const QPoint emptyPlace(240, 340);

inline Network* network()
{
    return NetworkSimulation::instance()->network();
}

template <typename Item> QList<Item*> itemsOf()
{
    QList<Item*> found;
    const QList<QGraphicsItem*> items = network()->items(Qt::AscendingOrder);
    for (QGraphicsItem* item : items) {
        if (auto* wanted = dynamic_cast<Item*>(item))
            found.append(wanted);
    }
    return found;
}

/// Owns a window with a new simulation, and a folder for its files. A test class inherits it.
class ShownWindow
{
protected:
    static void _useDialogsOfQt()
    {
        QApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
        QApplication::setEffectEnabled(Qt::UI_AnimateMenu, false);
    }

    void _show()
    {
        _folder = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/mainwindow-XXXXXX"));
        QVERIFY(_folder->isValid());
        QVERIFY(QDir::setCurrent(_folder->path()));
        NetworkSimulation::newNetworkSimulation();
        _window = std::make_unique<MainWindow>();
        _window->show();
        _window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(_window.get()));
    }

    void _close()
    {
        _window.reset();
        QDir::setCurrent(QDir::tempPath());
        _folder.reset();
    }

    QGraphicsView* _view() const { return qobject_cast<QGraphicsView*>(_window->centralWidget()); }
    QScrollArea* _editor() const { return _window->findChild<PropertyEditor*>()->findChild<QScrollArea*>(); }
    QTableView* _table() const { return _window->findChild<CaptureTableView*>()->findChild<QTableView*>(); }
    template <typename Form> bool _shows() const { return qobject_cast<Form*>(_editor()->widget()); }

    QMenu* _menu(const QString& title) const
    {
        const QList<QAction*> menus = _window->menuBar()->actions();
        for (QAction* menu : menus) {
            if (menu->text() == title)
                return menu->menu();
        }
        return nullptr;
    }

    QAction* _action(const QString& menu, const QString& text) const
    {
        const QList<QAction*> actions = _menu(menu)->actions();
        for (QAction* action : actions) {
            if (action->text() == text)
                return action;
        }
        return nullptr;
    }

    QToolBar* _toolBar(const QString& title) const
    {
        const QList<QToolBar*> bars = _window->findChildren<QToolBar*>();
        for (QToolBar* bar : bars) {
            if (bar->windowTitle() == title)
                return bar;
        }
        return nullptr;
    }

    void _pressButton(const QString& toolBar, const QString& text) const
    {
        const QList<QAction*> actions = _toolBar(toolBar)->actions();
        for (QAction* action : actions) {
            if (action->text() == text)
                QTest::mouseClick(_toolBar(toolBar)->widgetForAction(action), Qt::LeftButton);
        }
    }

    void _choose(const QString& menu, const QString& text) const
    {
        QMenuBar* bar = _window->menuBar();
        QTest::mouseClick(bar, Qt::LeftButton, Qt::NoModifier,
                          bar->actionGeometry(_menu(menu)->menuAction()).center());
        QTest::mouseClick(_menu(menu), Qt::LeftButton, Qt::NoModifier,
                          _menu(menu)->actionGeometry(_action(menu, text)).center());
    }

    void _shortcut(Qt::Key key, Qt::KeyboardModifiers modifiers = Qt::ControlModifier) const
    {
        _window->activateWindow();  // a dialog may just have been closed, and there may be no window manager
        if (!QTest::qWaitForWindowActive(_window.get()))
            qFatal("the window does not get the keyboard");
        QTest::keyClick(_window.get(), key, modifiers);
    }

    void _click(const QPoint& place) const
    {
        QTest::mouseClick(_view()->viewport(), Qt::LeftButton, Qt::NoModifier, place);
    }

    /// Moves the mouse with the left button held, which QTest cannot.
    void _moveTo(const QPoint& place) const
    {
        QMouseEvent move(QEvent::MouseMove, place, _view()->viewport()->mapToGlobal(place), Qt::NoButton,
                         Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(_view()->viewport(), &move);
    }

    void _drag(const QPoint& from, const QPoint& to) const
    {
        QTest::mousePress(_view()->viewport(), Qt::LeftButton, Qt::NoModifier, from);
        _moveTo(to);
        QTest::mouseRelease(_view()->viewport(), Qt::LeftButton, Qt::NoModifier, to);
    }

    /// Places two nodes and returns to the selection mode.
    void _placeNodes() const
    {
        _shortcut(Qt::Key_1);
        _click(leftPlace);
        _click(rightPlace);
        _shortcut(Qt::Key_Escape, Qt::NoModifier);
    }

    std::unique_ptr<QTemporaryDir> _folder;
    std::unique_ptr<MainWindow> _window;
};

}  // namespace WindowHelpers
