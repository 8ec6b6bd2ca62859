#include "ui/mainwindow.h"

#include "network/networksimulation.h"

#include <QGraphicsView>

MainWindow::MainWindow()
{
    auto* view = new QGraphicsView(this);
    view->setRenderHint(QPainter::Antialiasing);
    view->setMinimumSize(500, 400);
    view->setSceneRect(0, 0, view->width(), view->height());
    view->setScene(NetworkSimulation::instance()->network());
    setCentralWidget(view);
}
