#pragma once

#include "network/network.h"

#include <QMainWindow>

QT_BEGIN_NAMESPACE
class QGraphicsView;
QT_END_NAMESPACE

class CaptureDetailsView;
class CaptureTableView;
class PropertyEditor;

/// The program's window: the network in the middle, the property editor at its right, the capture beneath it,
/// menus and tool bars. It owns no part of the simulation. It lets go of the old one before a new one
/// replaces it.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    MainWindow();

public slots:
    // Editing
    void switchToSelectionEditMode();
    void switchToNodeInsertionEditMode();
    void switchToConnectionDrawingEditMode();
    void deleteItem();
    void networkItemSelectionChanged();

    // Simulation
    void newSimulation();
    void saveSimulationAs();
    void loadSimulation();
    void exportFrames();

    // Programs of the nodes
    void debugRunCont();
    void debugPause();
    void debugStep();
    void debugReset();
    void debugQuit();

private:
    void _addMenus();
    void _addFileMenu();
    void _addEditMenu();
    QList<QAction*> _addDrawingMenu();
    QList<QAction*> _addDebugMenu();
    void _addNetworkView();
    void _addCaptureDock();

    QSize _firstSize() const;
    QGraphicsView* _networkView() const;
    void _switchToDrawing(Network::EditMode mode);
    void _detachSimulation();
    void _attachSimulation();
    void _attachNetwork();

    PropertyEditor* _propertyEditor = nullptr;
    CaptureTableView* _captureView = nullptr;
    CaptureDetailsView* _captureDetails = nullptr;  // there is no such view yet
};
