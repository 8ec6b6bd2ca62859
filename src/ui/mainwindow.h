#pragma once

#include <QMainWindow>

/// The program's window: a view of the network.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    MainWindow();
};
