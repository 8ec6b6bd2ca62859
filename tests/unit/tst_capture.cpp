#include "capture/capture.h"

#include "network/networksimulation.h"
#include "testaccess.h"

#include <QAbstractItemModelTester>
#include <QIcon>
#include <QIdentityProxyModel>
#include <QSignalSpy>
#include <QSize>
#include <QStyledItemDelegate>
#include <QtTest>

#include <limits>
#include <memory>

namespace {

constexpr int centred = Qt::AlignHCenter | Qt::AlignVCenter;
constexpr int leftAligned = Qt::AlignLeft | Qt::AlignVCenter;
constexpr int columnCount = 9;
constexpr int dataColumn = 8;

// A frame whose two addresses and one byte of data all differ
const QByteArray payload = QByteArray::fromHex("0A0B0C0D0E0F"
                                               "A1A2A3A4A5A6"
                                               "7F");

Frame frame(const QByteArray& bytes, quint64 sent, quint64 received, int flags = Frame::DeliveredInTime)
{
    return {bytes, sent, received, static_cast<Frame::FrameFlags>(flags)};
}

/// Tells whether the model answered with a null text: it is valid, but a table draws nothing of it.
bool isNothing(const QVariant& value)
{
    return value.isValid() && value.type() == QVariant::String && value.isNull()
        && value.toString() == QLatin1String("");
}

QImage imageOf(const QIcon& icon)
{
    return icon.pixmap(16, 16).toImage();
}

QImage imageOf(const QVariant& decoration)
{
    return imageOf(decoration.value<QIcon>());
}

QImage imageOf(const char* resource)
{
    return imageOf(QIcon(QLatin1String(resource)));
}

/// Shows the model as the model tester wants it, which refuses three things that are so on purpose:
/// indexes that name no cell have flags and rows too, and roles that are no texts get a null text.
class ModelForTester : public QIdentityProxyModel
{
public:
    explicit ModelForTester(QAbstractItemModel* capture) { setSourceModel(capture); }

    Qt::ItemFlags flags(const QModelIndex& index) const override
    {
        return index.isValid() ? QIdentityProxyModel::flags(index) : Qt::NoItemFlags;
    }
    int rowCount(const QModelIndex& parent) const override
    {
        return parent.isValid() ? 0 : QIdentityProxyModel::rowCount(parent);
    }
    int columnCount(const QModelIndex& parent) const override
    {
        return parent.isValid() ? 0 : QIdentityProxyModel::columnCount(parent);
    }
    QVariant data(const QModelIndex& index, int role) const override
    {
        const QVariant value = QIdentityProxyModel::data(index, role);
        return isNothing(value) ? QVariant() : value;
    }
};

}  // namespace

class TestCapture : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        NetworkSimulation::newNetworkSimulation();
        _capture = std::make_unique<Capture>();
        _capture->setEnabled(true);
    }

    void cleanup() { _capture.reset(); }

    void cleanupTestCase() { NetworkSimulation::deleteNetworkSimulation(); }

    // Recording
    void aNewCaptureIsOffAndEmpty()
    {
        const Capture capture;
        QVERIFY(!capture.isEnabled());
        QVERIFY(!capture.doesViewFollows());
        QCOMPARE(capture.rowCount(), 0);
        QCOMPARE(capture.columnCount(), columnCount);
        QVERIFY(!capture.parent());
    }

    void theSwitchesAreStoredWithoutSignals()
    {
        add(frame(payload, 1, 2));
        QSignalSpy changed(_capture.get(), SIGNAL(dataChanged(QModelIndex,QModelIndex,QVector<int>)));
        QSignalSpy reset(_capture.get(), SIGNAL(modelReset()));
        _capture->setEnabled(false);
        _capture->setViewFollows(true);
        QVERIFY(!_capture->isEnabled());
        QVERIFY(_capture->doesViewFollows());
        _capture->setEnabled(true);
        _capture->setViewFollows(false);
        QVERIFY(_capture->isEnabled());
        QVERIFY(!_capture->doesViewFollows());
        QCOMPARE(_capture->rowCount(), 1);
        QCOMPARE(changed.size() + reset.size(), 0);
    }

    void aDisabledCaptureDropsFramesSilently()
    {
        _capture->setEnabled(false);
        QSignalSpy aboutToInsert(_capture.get(), SIGNAL(rowsAboutToBeInserted(QModelIndex,int,int)));
        QSignalSpy inserted(_capture.get(), SIGNAL(rowsInserted(QModelIndex,int,int)));
        add(frame(payload, 1, 2));
        QCOMPARE(_capture->rowCount(), 0);
        QCOMPARE(aboutToInsert.size() + inserted.size(), 0);
    }

    void aFrameBecomesTheLastRow()
    {
        QSignalSpy aboutToInsert(_capture.get(), SIGNAL(rowsAboutToBeInserted(QModelIndex,int,int)));
        QSignalSpy inserted(_capture.get(), SIGNAL(rowsInserted(QModelIndex,int,int)));
        for (int row = 0; row < 3; ++row) {
            add(frame(QByteArray(1, static_cast<char>(row)), 1, 2));
            QCOMPARE(_capture->rowCount(), row + 1);
            QCOMPARE(cell(row, 0, Qt::UserRole).toByteArray(), QByteArray(1, static_cast<char>(row)));
            QCOMPARE(aboutToInsert.size(), row + 1);
            QCOMPARE(inserted.size(), row + 1);
            const QList<QVariant> arguments = inserted.last();
            QVERIFY(!arguments.at(0).value<QModelIndex>().isValid());
            QCOMPARE(arguments.at(1).toInt(), row);
            QCOMPARE(arguments.at(2).toInt(), row);
        }
        QCOMPARE(_capture->rowCount(_capture->index(0, 0)), 3);  // with any parent
        QCOMPARE(_capture->columnCount(_capture->index(0, 0)), columnCount);
    }

    void aFrameIsCopied()
    {
        Frame original = frame(payload, 1, 2);
        _capture->addFrame(original);
        TestAccess::flags(original) = Frame::CRCError;
        QVERIFY(_capture->capturedFrames().first().isCRCCorrect());
        QVERIFY(_capture->capturedFrames().first().wasDelivered(true));
    }

    void rowsStayWhenTheCaptureIsSwitchedOff()
    {
        add(frame(payload, 1, 2));
        _capture->setEnabled(false);
        add(frame(payload, 1, 2));
        _capture->setEnabled(true);
        QCOMPARE(_capture->rowCount(), 1);
    }

    void clearingEmptiesTheModelByAReset()
    {
        add(frame(payload, 1, 2));
        QSignalSpy aboutToReset(_capture.get(), SIGNAL(modelAboutToBeReset()));
        QSignalSpy reset(_capture.get(), SIGNAL(modelReset()));
        _capture->clear();
        QCOMPARE(_capture->rowCount(), 0);
        QCOMPARE(aboutToReset.size(), 1);
        QCOMPARE(reset.size(), 1);
    }

    void clearingAnEmptyModelResetsItToo()
    {
        QSignalSpy aboutToReset(_capture.get(), SIGNAL(modelAboutToBeReset()));
        QSignalSpy reset(_capture.get(), SIGNAL(modelReset()));
        _capture->clear();
        QCOMPARE(aboutToReset.size(), 1);
        QCOMPARE(reset.size(), 1);
    }

    void clearingKeepsTheSwitches()
    {
        _capture->setViewFollows(true);
        _capture->clear();
        QVERIFY(_capture->isEnabled());
        QVERIFY(_capture->doesViewFollows());
    }

    void theModelKeepsTheRulesOfModels()
    {
        ModelForTester model(_capture.get());
        const QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::QtTest);
        add(frame(payload, 1, 2));
        add(frame(QByteArray(), 1, 2, 0));
        add(frame(payload, 5, 9, Frame::Broadcast | Frame::CRCError));
        _capture->clear();
        add(frame(payload, 1, 2));
        QCOMPARE(_capture->rowCount(), 1);
    }

    // Cells
    void cellsAreNeverEditable()
    {
        add(frame(payload, 1, 2));
        const Qt::ItemFlags wanted = Qt::ItemIsSelectable | Qt::ItemIsEnabled;
        for (int column = 0; column < columnCount; ++column)
            QCOMPARE(_capture->flags(_capture->index(0, column)), wanted);
        QCOMPARE(_capture->flags(QModelIndex()), wanted);
    }

    void theTextOfEachColumn_data()
    {
        QTest::addColumn<int>("column");
        QTest::addColumn<QVariant>("text");
        QTest::newRow("delta time") << 0 << QVariant(QStringLiteral("    1.500 s"));
        QTest::newRow("size") << 4 << QVariant(13);
        QTest::newRow("time on network") << 5 << QVariant(QStringLiteral("    1.234 s"));
        QTest::newRow("destination") << 6 << QVariant(QByteArray("0A0B0C0D0E0F"));
        QTest::newRow("source") << 7 << QVariant(QByteArray("A1A2A3A4A5A6"));
        QTest::newRow("data") << 8 << QVariant(QByteArray("0A0B0C0D0E0FA1A2A3A4A5A67F"));
    }

    void theTextOfEachColumn()
    {
        QFETCH(int, column);
        QFETCH(QVariant, text);
        add(frame(payload, 0, 1000));
        add(frame(payload, 1266, 2500));
        QCOMPARE(cell(1, column).type(), text.type());
        QCOMPARE(cell(1, column), text);
    }

    void theFirstDeltaTimeIsANumber()
    {
        add(frame(payload, 1000, 2500));
        QCOMPARE(cell(0, 0).type(), QVariant::Int);
        QCOMPARE(cell(0, 0).toInt(), 0);
    }

    void deltaTimesCountFromTheRowBefore_data()
    {
        QTest::addColumn<quint64>("difference");
        QTest::addColumn<QString>("text");
        QTest::newRow("none") << quint64(0) << "    0.000 s";
        QTest::newRow("5 ms") << quint64(5) << "    0.005 s";
        QTest::newRow("999 ms") << quint64(999) << "    0.999 s";
        QTest::newRow("1 s") << quint64(1000) << "    1.000 s";
        QTest::newRow("1.234 s") << quint64(1234) << "    1.234 s";
        QTest::newRow("five digits") << quint64(12345678) << "12345.678 s";
        QTest::newRow("six digits") << quint64(123456789) << "123456.789 s";
        QTest::newRow("backwards by 2 s") << quint64(-2000) << "   -2.000 s";
    }

    void deltaTimesCountFromTheRowBefore()
    {
        QFETCH(quint64, difference);
        QFETCH(QString, text);
        const quint64 first = 7000;
        add(frame(payload, 1, first));
        add(frame(payload, 1, first + difference));
        QCOMPARE(cell(1, 0).type(), QVariant::String);
        QCOMPARE(cell(1, 0).toString(), text);
    }

    void theTimeOnTheNetworkIsFromSendingToReception_data() { deltaTimesCountFromTheRowBefore_data(); }

    void theTimeOnTheNetworkIsFromSendingToReception()
    {
        QFETCH(quint64, difference);
        QFETCH(QString, text);
        const quint64 sent = 7000;
        add(frame(payload, sent, sent + difference));
        QCOMPARE(cell(0, 5).type(), QVariant::String);
        QCOMPARE(cell(0, 5).toString(), text);
    }

    void aFrameThatWasNotDeliveredHasNoTimeOnTheNetwork()
    {
        add(frame(payload, 1000, 2000, Frame::CRCError));
        QCOMPARE(cell(0, 5).type(), QVariant::String);
        QCOMPARE(cell(0, 5).toString(), QStringLiteral("-"));
        QCOMPARE(imageOf(cell(0, 1, Qt::DecorationRole)), imageOf(":NotDelivered.png"));
    }

    void aLateFrameCountsAsDelivered()
    {
        add(frame(payload, 1000, 2000, Frame::DeliveredLate));
        QCOMPARE(cell(0, 5).toString(), QStringLiteral("    1.000 s"));
        QCOMPARE(imageOf(cell(0, 1, Qt::DecorationRole)), imageOf(":Delivered.png"));
    }

    void theFrameSizeIsANumber()
    {
        add(frame(QByteArray(), 1, 2));
        add(frame(QByteArray(300, 'x'), 1, 2));
        QCOMPARE(cell(0, 4), QVariant(0));
        QCOMPARE(cell(1, 4), QVariant(300));
        QCOMPARE(cell(1, 4).type(), QVariant::Int);
    }

    void hexadecimalCellsAreByteArrays()
    {
        add(frame(payload, 1, 2));
        for (const int column : {6, 7, 8})
            QCOMPARE(cell(0, column).type(), QVariant::ByteArray);
    }

    void aFrameWithoutAddressesHasEmptyAddressCells()
    {
        add(frame(QByteArray::fromHex("01AB"), 1, 2));
        for (const int column : {6, 7}) {
            QCOMPARE(cell(0, column).type(), QVariant::ByteArray);
            QCOMPARE(cell(0, column).toByteArray(), QByteArray());
        }
        add(frame(payload.left(11), 1, 2));  // one byte short of the source address
        QCOMPARE(cell(1, 6).toByteArray(), QByteArray("0A0B0C0D0E0F"));
        QCOMPARE(cell(1, 7).toByteArray(), QByteArray());
    }

    void aPayloadIsShownInUpperCaseHexadecimal()
    {
        add(frame(QByteArray::fromHex("01AB"), 1, 2));
        QCOMPARE(cell(0, 8).toByteArray(), QByteArray("01AB"));
    }

    void addressesFollowTheNetworksParameters()
    {
        add(frame(payload, 1, 2));
        auto& parameters = TestAccess::parameters(*NetworkSimulation::instance()->network());
        parameters.addressLength = 2;
        parameters.destinationAddressOffset = 11;
        parameters.sourceAddressOffset = 1;
        QCOMPARE(cell(0, 6).toByteArray(), QByteArray("A67F"));
        QCOMPARE(cell(0, 7).toByteArray(), QByteArray("0B0C"));
    }

    void theIconsTellTheFate_data()
    {
        QTest::addColumn<int>("column");
        QTest::addColumn<int>("flags");
        QTest::addColumn<QByteArray>("image");
        QTest::newRow("delivered in time")
            << 1 << int(Frame::DeliveredInTime) << QByteArray(":Delivered.png");
        QTest::newRow("delivered late") << 1 << int(Frame::DeliveredLate) << QByteArray(":Delivered.png");
        QTest::newRow("lost") << 1 << 0 << QByteArray(":NotDelivered.png");
        QTest::newRow("broadcast") << 2 << int(Frame::Broadcast) << QByteArray(":Broadcast.png");
        QTest::newRow("intact") << 3 << 0 << QByteArray(":CrcOk.png");
        QTest::newRow("corrupted") << 3 << int(Frame::CRCError | Frame::DeliveredInTime)
                                   << QByteArray(":CrcBad.png");
    }

    void theIconsTellTheFate()
    {
        QFETCH(int, column);
        QFETCH(int, flags);
        QFETCH(QByteArray, image);
        add(frame(payload, 1, 2, flags));
        const QVariant decoration = cell(0, column, Qt::DecorationRole);
        QCOMPARE(decoration.type(), QVariant::Icon);
        QVERIFY(!imageOf(decoration).isNull());
        QCOMPARE(imageOf(decoration), imageOf(image.constData()));
    }

    void aFrameThatIsNoBroadcastHasAnEmptyIcon()
    {
        add(frame(payload, 1, 2));
        const QVariant decoration = cell(0, 2, Qt::DecorationRole);
        QCOMPARE(decoration.type(), QVariant::Icon);
        QVERIFY(decoration.value<QIcon>().isNull());
    }

    void theImagesOfTheIconsDiffer()
    {
        const char* names[]
            = {":Broadcast.png", ":CrcOk.png", ":CrcBad.png", ":Delivered.png", ":NotDelivered.png"};
        for (const char* one : names) {
            QVERIFY2(!imageOf(one).isNull(), one);
            for (const char* other : names)
                QCOMPARE(imageOf(one) == imageOf(other), one == other);
        }
    }

    /// A box would fill the upper left corner of the icon; a tick leaves it free.
    void theSignOfACorrectCheckSumIsNoBox()
    {
        const QImage sign = imageOf(":CrcOk.png").copy(0, 0, 4, 4);
        for (int i = 0; i < 16; ++i)
            QCOMPARE(sign.pixelColor(i % 4, i / 4).alpha(), 0);
    }

    void onlyTheDataColumnIsLeftAligned()
    {
        add(frame(payload, 1, 2));
        for (int column = 0; column < columnCount; ++column) {
            const QVariant alignment = cell(0, column, Qt::TextAlignmentRole);
            QCOMPARE(alignment.type(), QVariant::Int);
            QCOMPARE(alignment.toInt(), column == dataColumn ? leftAligned : centred);
        }
    }

    void theUserRoleIsTheRawPayloadInEveryColumn()
    {
        add(frame(payload, 1, 2));
        for (int column = 0; column < columnCount; ++column) {
            QCOMPARE(cell(0, column, Qt::UserRole).type(), QVariant::ByteArray);
            QCOMPARE(cell(0, column, Qt::UserRole).toByteArray(), payload);
        }
    }

    void cellsWithoutAnswerHoldANullText()
    {
        add(frame(payload, 1, 2));
        for (const int column : {1, 2, 3})
            QVERIFY(isNothing(cell(0, column)));
        for (const int column : {0, 4, 5, 6, 7, 8})
            QVERIFY(isNothing(cell(0, column, Qt::DecorationRole)));
    }

    void noColumnAnswersRolesOfItsOwn_data()
    {
        QTest::addColumn<int>("role");
        QTest::newRow("edit") << int(Qt::EditRole);
        QTest::newRow("tool tip") << int(Qt::ToolTipRole);
        QTest::newRow("status tip") << int(Qt::StatusTipRole);
        QTest::newRow("font") << int(Qt::FontRole);
        QTest::newRow("background") << int(Qt::BackgroundRole);
        QTest::newRow("foreground") << int(Qt::ForegroundRole);
        QTest::newRow("check state") << int(Qt::CheckStateRole);
        QTest::newRow("size hint") << int(Qt::SizeHintRole);
        QTest::newRow("user role + 1") << int(Qt::UserRole) + 1;
        QTest::newRow("negative") << -1;
    }

    void noColumnAnswersRolesOfItsOwn()
    {
        QFETCH(int, role);
        add(frame(payload, 1, 2));
        for (int column = 0; column < columnCount; ++column)
            QVERIFY(isNothing(cell(0, column, role)));
    }

    void rowsOutsideTheModelHoldANullText()
    {
        add(frame(payload, 1, 2));
        add(frame(payload, 1, 2));
        for (const int role : {int(Qt::DisplayRole), int(Qt::DecorationRole), int(Qt::TextAlignmentRole),
                               int(Qt::UserRole), int(Qt::CheckStateRole)})
            QVERIFY(isNothing(_capture->data(QModelIndex(), role)));  // row -1

        const QModelIndex first = _capture->index(0, 0);
        const QModelIndex second = _capture->index(1, 0);
        _capture->clear();
        QVERIFY(isNothing(_capture->data(first, Qt::DisplayRole)));  // its row is the number of rows now
        QVERIFY(isNothing(_capture->data(second, Qt::TextAlignmentRole)));
        add(frame(payload, 1, 2));
        QVERIFY(isNothing(_capture->data(second, Qt::UserRole)));
        QVERIFY(!isNothing(_capture->data(first, Qt::UserRole)));
    }

    /// Asks for what the delegate of a table draws of a cell.
    void aTableDrawsNoCheckBoxes()
    {
        class Delegate : public QStyledItemDelegate
        {
        public:
            using QStyledItemDelegate::initStyleOption;
        };
        const Delegate delegate;
        add(frame(QByteArray(), 1, 2, 0));
        for (int column = 0; column < columnCount; ++column) {
            QStyleOptionViewItem option;
            delegate.initStyleOption(&option, _capture->index(0, column));
            QVERIFY(!(option.features & QStyleOptionViewItem::HasCheckIndicator));
        }
    }

    // Headers
    void theTitlesOfTheColumns()
    {
        const QStringList titles
            = {"Delta Time",     "",          "", "", "Framesize", "Time on Network", "Destination address",
               "Source address", "Frame data"};
        for (int section = 0; section < columnCount; ++section) {
            const QVariant title = _capture->headerData(section, Qt::Horizontal, Qt::DisplayRole);
            QCOMPARE(title.type(), QVariant::String);
            QCOMPARE(title.toString(), titles.at(section));
            QCOMPARE(isNothing(title), titles.at(section).isEmpty());
        }
        for (const int section :
             {-1, 9, 1000, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()})
            QVERIFY(isNothing(_capture->headerData(section, Qt::Horizontal, Qt::DisplayRole)));
    }

    void theSizesOfTheHeader()
    {
        for (int section = -1; section <= columnCount; ++section) {
            const QVariant size = _capture->headerData(section, Qt::Horizontal, Qt::SizeHintRole);
            QCOMPARE(size.type(), QVariant::Size);
            QCOMPARE(size.toSize(), section >= 1 && section <= 3 ? QSize(12, 16) : QSize(120, 16));
        }
    }

    void theAlignmentOfTheHeaders_data()
    {
        QTest::addColumn<int>("orientation");
        QTest::newRow("horizontal") << int(Qt::Horizontal);
        QTest::newRow("vertical") << int(Qt::Vertical);
    }

    void theAlignmentOfTheHeaders()
    {
        QFETCH(int, orientation);
        for (int section = -1; section <= columnCount; ++section) {
            const QVariant alignment = _capture->headerData(
                section, static_cast<Qt::Orientation>(orientation), Qt::TextAlignmentRole);
            QCOMPARE(alignment.type(), QVariant::Int);
            QCOMPARE(alignment.toInt(), section == dataColumn ? leftAligned : centred);
        }
    }

    void otherHeaderRolesHoldANullText()
    {
        for (const int role : {int(Qt::DecorationRole), int(Qt::EditRole), int(Qt::ToolTipRole),
                               int(Qt::FontRole), int(Qt::CheckStateRole), int(Qt::UserRole), -1}) {
            for (int section = -1; section <= columnCount; ++section)
                QVERIFY(isNothing(_capture->headerData(section, Qt::Horizontal, role)));
        }
    }

    void theVerticalHeaderHoldsANullText()
    {
        add(frame(payload, 1, 2));
        for (const int role :
             {int(Qt::DisplayRole), int(Qt::SizeHintRole), int(Qt::DecorationRole), int(Qt::ToolTipRole)}) {
            for (int section = -1; section <= columnCount; ++section)
                QVERIFY(isNothing(_capture->headerData(section, Qt::Vertical, role)));
        }
    }

private:
    void add(const Frame& frame)
    {
        Frame copy = frame;
        _capture->addFrame(copy);
    }

    QVariant cell(int row, int column, int role = Qt::DisplayRole) const
    {
        return _capture->data(_capture->index(row, column), role);
    }

    std::unique_ptr<Capture> _capture;
};

QTEST_MAIN(TestCapture)
#include "tst_capture.moc"
