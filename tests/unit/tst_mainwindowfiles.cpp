#include "ui/mainwindow.h"

#include "network/networkpropertieswidget.h"
#include "nodes/tcpnode.h"
#include "nodes/tcpnodepropertieswidget.h"
#include "sockethelpers.h"
#include "windowhelpers.h"

#include <QCheckBox>
#include <QFileDialog>
#include <QHeaderView>
#include <QLineEdit>
#include <QMessageBox>
#include <QPointer>

#include <functional>

using namespace WindowHelpers;

namespace {

constexpr int dumpHeaderSize = 24;

/// Answers the dialogs and message boxes that come up, in their order, and keeps what they showed.
class DialogUser : public QObject
{
public:
    using Answer = std::function<void(QDialog*)>;

    explicit DialogUser(const QList<Answer>& answers)
        : _answers(answers)
    {
        startTimer(1);
    }

    bool isDone() const { return _answers.isEmpty(); }

    QStringList shown;

protected:
    void timerEvent(QTimerEvent* /*tick*/) override
    {
        auto* dialog = qobject_cast<QDialog*>(QApplication::activeModalWidget());
        if (!dialog || !dialog->isActiveWindow() || dialog == _answered)
            return;
        if (_answers.isEmpty())
            qFatal("one more dialog than expected: %s", qPrintable(_describe(dialog)));
        _answered = dialog;
        shown.append(_describe(dialog));
        _answers.takeFirst()(dialog);
    }

private:
    static QString _describe(QDialog* dialog)
    {
        if (const auto* box = qobject_cast<QMessageBox*>(dialog))
            return box->windowTitle() + QStringLiteral(": ") + box->text();
        if (const auto* files = qobject_cast<QFileDialog*>(dialog))
            return files->windowTitle() + QStringLiteral(": ") + files->nameFilters().join(QLatin1Char('|'));
        return dialog->windowTitle();
    }

    QList<Answer> _answers;
    QPointer<QDialog> _answered;
};

DialogUser::Answer type(const QString& fileName)
{
    return [fileName](QDialog* dialog) {
        auto* field = dialog->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
        field->clear();
        QTest::keyClicks(field, fileName);
        QTest::keyClick(field, Qt::Key_Return);
    };
}

void press(QDialog* dialog, Qt::Key key)
{
    QTest::keyClick(dialog, key);
}

const DialogUser::Answer cancel = [](QDialog* dialog) { press(dialog, Qt::Key_Escape); };
const DialogUser::Answer acknowledge = [](QDialog* dialog) { press(dialog, Qt::Key_Return); };

QByteArray fileContents(const QString& fileName)
{
    QFile file(fileName);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

}  // namespace

/// Tests the window while its simulation is replaced, saved and loaded, and the dump exported.
class TestMainWindowFiles : public QObject, private ShownWindow
{
    Q_OBJECT

private slots:
    void initTestCase() { _useDialogsOfQt(); }
    void init() { _show(); }
    void cleanup() { _close(); }
    void cleanupTestCase() { NetworkSimulation::deleteNetworkSimulation(); }

    // New
    void newDiscardsTheSimulationWithoutAQuestion()
    {
        DialogUser nobody({});
        _placeNodes();
        _shortcut(Qt::Key_N);
        QCOMPARE(network()->items().size(), 0);
        QCOMPARE(_view()->scene(), network());
        QTest::qWait(20);
        QCOMPARE(nobody.shown, QStringList());
    }

    void newWithASelectedItemShowsTheNewNetwork()
    {
        _placeNodes();
        _click(leftPlace);
        _choose("&File", "&New Simulation");
        QVERIFY(_shows<NetworkPropertiesWidget>());
        QCOMPARE(_view()->scene(), network());
        QCOMPARE(network()->items().size(), 0);
    }

    void newInTheMiddleOfAnEditShowsTheNewNetwork()
    {
        _placeNodes();
        _click(leftPlace);
        auto* field = _editor()->widget()->findChild<QLineEdit*>();
        field->setFocus();
        QTest::keyClicks(field, QStringLiteral("x"));
        QTest::keyClick(field, Qt::Key_N, Qt::ControlModifier);
        QVERIFY(_shows<NetworkPropertiesWidget>());
        QCOMPARE(network()->items().size(), 0);
    }

    void newInTheMiddleOfADragShowsTheNewNetwork()
    {
        _placeNodes();
        QTest::mousePress(_view()->viewport(), Qt::LeftButton, Qt::NoModifier, leftPlace);
        _moveTo(emptyPlace);
        _shortcut(Qt::Key_N);
        _moveTo(rightPlace);
        QTest::mouseRelease(_view()->viewport(), Qt::LeftButton, Qt::NoModifier, rightPlace);
        QCOMPARE(network()->items().size(), 0);
        QVERIFY(_shows<NetworkPropertiesWidget>());
    }

    void newAttachesTheNewCapture()
    {
        NetworkSimulation::instance()->capture()->setEnabled(true);
        _shortcut(Qt::Key_N);
        QCOMPARE(_table()->model(), NetworkSimulation::instance()->capture());
        QVERIFY(!NetworkSimulation::instance()->capture()->isEnabled());
        const int end = _table()->horizontalHeader()->sectionViewportPosition(Capture::DataColumn)
            + _table()->columnWidth(Capture::DataColumn);
        QVERIFY(end >= _table()->viewport()->width());
    }

    void newLeavesTheDrawingActionChecked()
    {
        _shortcut(Qt::Key_1);
        _shortcut(Qt::Key_N);
        QVERIFY(_action("&Drawing", "Insert Node(s)")->isChecked());
        QCOMPARE(network()->editorMode(), Network::Selection);
        QVERIFY(_shows<NetworkPropertiesWidget>());
    }

    void theNewNetworksSelectionIsShown()
    {
        _shortcut(Qt::Key_N);
        _placeNodes();
        _click(rightPlace);
        QVERIFY(_shows<TcpNodePropertiesWidget>());
    }

    // Files
    void aNameWithoutADotGetsTheExtension()
    {
        DialogUser user({type(_path("net"))});
        _shortcut(Qt::Key_S);
        QVERIFY(user.isDone());
        QCOMPARE(user.shown, QStringList({"Save Network: Lattivo File (*.ltvo)"}));
        QCOMPARE(QDir().entryList(QDir::Files), QStringList({"net.ltvo"}));
        QVERIFY(fileContents("net.ltvo").startsWith(hex("C191277D")));
    }

    void aNameWithADotIsUsedUnchanged()
    {
        DialogUser user({type(_path("net.bak"))});
        _choose("&File", "&Save Simulation as...");
        QVERIFY(user.isDone());
        QCOMPARE(QDir().entryList(QDir::Files), QStringList({"net.bak"}));
        QVERIFY(fileContents("net.bak").endsWith(hex("C191277D")));
    }

    void aFolderWithADotCountsAsADot()
    {
        QVERIFY(QDir().mkdir("a.b"));
        DialogUser user({type(_path("a.b/net"))});
        _shortcut(Qt::Key_S);
        QVERIFY(user.isDone());
        QCOMPARE(QDir("a.b").entryList(QDir::Files), QStringList({"net"}));
    }

    void aSimulationThatCannotBeSavedIsReported()
    {
        _placeNodes();
        DialogUser user({type(_path("missing/net")), acknowledge});
        _shortcut(Qt::Key_S);
        QVERIFY(user.isDone());
        QCOMPARE(user.shown.last(), QStringLiteral("Save Network: Could not save the network!"));
        QCOMPARE(itemsOf<TcpNode>().size(), 2);
        QCOMPARE(QDir().entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
    }

    void openBringsBackWhatWasSaved()
    {
        _placeNodes();
        _shortcut(Qt::Key_2);
        _drag(leftPlace, rightPlace);
        DialogUser user({type(_path("net")), type(_path("net.ltvo"))});
        _shortcut(Qt::Key_S);
        _shortcut(Qt::Key_N);
        _shortcut(Qt::Key_O);
        QVERIFY(user.isDone());
        QCOMPARE(user.shown.last(), QStringLiteral("Load Network: Lattivo Files (*.kvt *.ltvo)"));
        QCOMPARE(itemsOf<TcpNode>().size(), 2);
        QCOMPARE(itemsOf<Connection>().size(), 1);
        QCOMPARE(_view()->scene(), network());
        QCOMPARE(_table()->model(), NetworkSimulation::instance()->capture());
        _shortcut(Qt::Key_Escape, Qt::NoModifier);
        _click(leftPlace);
        QVERIFY(_shows<TcpNodePropertiesWidget>());
    }

    void openWithASelectedItemShowsTheNetwork()
    {
        _placeNodes();
        DialogUser user({type(_path("net")), type(_path("net.ltvo"))});
        _shortcut(Qt::Key_S);
        _click(leftPlace);
        _choose("&File", "&Open Simulation...");
        QVERIFY(user.isDone());
        QVERIFY(_shows<NetworkPropertiesWidget>());
        QVERIFY(network()->selectedItems().isEmpty());
        QCOMPARE(itemsOf<TcpNode>().size(), 2);
    }

    void openShowsTheFlagsOfTheCapture()
    {
        NetworkSimulation::instance()->capture()->setEnabled(true);
        NetworkSimulation::instance()->capture()->setViewFollows(true);
        DialogUser user({type(_path("net")), type(_path("net.ltvo"))});
        _shortcut(Qt::Key_S);
        _shortcut(Qt::Key_N);
        _shortcut(Qt::Key_O);
        int checked = 0;
        const QList<QCheckBox*> boxes = _window->findChild<CaptureTableView*>()->findChildren<QCheckBox*>();
        for (const QCheckBox* box : boxes)
            checked += box->isChecked();
        QCOMPARE(checked, 2);
        QVERIFY(NetworkSimulation::instance()->capture()->isEnabled());
        QVERIFY(NetworkSimulation::instance()->capture()->doesViewFollows());
    }

    void aDamagedFileOpensAsAnEmptySimulationWithoutAMessage()
    {
        QFile file(QStringLiteral("bad.ltvo"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("this is no simulation");
        file.close();
        _placeNodes();
        DialogUser user({type(_path("bad.ltvo"))});
        _shortcut(Qt::Key_O);
        QTest::qWait(20);
        QVERIFY(user.isDone());
        QCOMPARE(user.shown.size(), 1);
        QCOMPARE(network()->items().size(), 0);
        QCOMPARE(_view()->scene(), network());
        QVERIFY(_shows<NetworkPropertiesWidget>());
    }

    void exportingWritesTheDumpUnderTheNameTyped()
    {
        DialogUser user({type(_path("dump"))});
        _choose("&File", "Export captured frames for Wireshark...");
        QVERIFY(user.isDone());
        QCOMPARE(user.shown, QStringList({"Export frame dump: pcap dump (*.pcapdump)"}));
        QCOMPARE(QDir().entryList(QDir::Files), QStringList({"dump"}));
        QCOMPARE(fileContents("dump").size(), dumpHeaderSize);
        QVERIFY(fileContents("dump").startsWith(hex("A1B2C3D4")));
    }

    void aDumpThatCannotBeWrittenIsReported()
    {
        DialogUser user({type(_path("missing/dump")), acknowledge});
        _choose("&File", "Export captured frames for Wireshark...");
        QVERIFY(user.isDone());
        QCOMPARE(user.shown.last(), QStringLiteral("Export frame dump: Could not export the frame dump!"));
    }

    void cancellingAFileDialogChangesNothing_data()
    {
        QTest::addColumn<QString>("entry");
        for (const char* entry :
             {"&Open Simulation...", "&Save Simulation as...", "Export captured frames for Wireshark..."})
            QTest::newRow(entry) << entry;
    }

    void cancellingAFileDialogChangesNothing()
    {
        QFETCH(QString, entry);
        _placeNodes();
        _click(leftPlace);
        const NetworkSimulation* before = NetworkSimulation::instance();
        const QWidget* form = _editor()->widget();
        DialogUser user({cancel});
        _choose("&File", entry);
        QVERIFY(user.isDone());
        QCOMPARE(user.shown.size(), 1);
        QCOMPARE(NetworkSimulation::instance(), before);
        QCOMPARE(_editor()->widget(), form);
        QCOMPARE(itemsOf<TcpNode>().size(), 2);
        QCOMPARE(QDir().entryList(QDir::Files), QStringList());
    }

private:
    /// Returns the whole path: a file dialog starts in the folder of the last one.
    QString _path(const QString& fileName) const { return _folder->filePath(fileName); }
};

QTEST_MAIN(TestMainWindowFiles)
#include "tst_mainwindowfiles.moc"
