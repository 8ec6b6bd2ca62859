#include "network/networksimulation.h"
#include "process.h"
#include "ui/mainwindow.h"

#include <QApplication>
#include <QIcon>

int main(int argc, char* argv[])
{
    prepareProcess();
    qputenv("QT_NO_GLIB", "1");  // the toolkit's own event loop costs the frames half of what GLib's does
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Lattivo"));  // the title of a window without its own
    QApplication::setWindowIcon(QIcon(QStringLiteral(":Icon.png")));
    int result = 0;
    {
        MainWindow window;
        window.show();
        result = QApplication::exec();
    }
    NetworkSimulation::deleteNetworkSimulation();  // while there is an application to close its sockets in
    return result;
}
