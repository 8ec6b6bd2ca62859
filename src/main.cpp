#include "core/process.h"
#include "network/networksimulation.h"
#include "ui/mainwindow.h"

#include <QApplication>
#include <QIcon>

namespace {

/// Chooses Qt's own event loop, in which a frame takes 1.2 instead of the 1.5 µs of GLib's. The dialogs of a
/// GLib desktop run GLib's loop only: while GTK's file dialog was open, no frame moved and nothing was
/// painted. So the dialogs are Qt's own, too.
void chooseEventLoop()
{
    qputenv("QT_NO_GLIB", "1");
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
}

}  // namespace

int main(int argc, char* argv[])
{
    prepareProcess();
    chooseEventLoop();
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
