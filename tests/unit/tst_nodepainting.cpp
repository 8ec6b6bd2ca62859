#include "nodes/node.h"

#include "paintedpair.h"

#include <QImage>
#include <QPainter>
#include <QtTest>

#include <algorithm>
#include <cmath>
#include <memory>

using namespace Painting;
using namespace TestHelpers;

namespace {

/// Paints a node by hand, for comparison.
struct NodePicture {
    QColor base;
    double strokeWidth = 2.0;
    QString name;
    QString address;
    QString centre;
    bool isSelected = false;
    int textWidth = 0;

    void paint(QPainter* painter) const
    {
        QRadialGradient gradient(QPointF(0, 15), 30);
        gradient.setColorAt(0.0, base.lighter(120));
        gradient.setColorAt(1.0, base);
        painter->setPen(QPen(base.darker(200), strokeWidth));
        painter->setBrush(gradient);
        painter->drawEllipse(-20, -20, 40, 40);
        painter->drawText(QRectF(-textWidth / 2.0, -40, textWidth, 20), Qt::AlignCenter, name);
        painter->drawText(QRectF(-textWidth / 2.0, 20, textWidth, 20), Qt::AlignCenter, address);
        painter->drawText(QRectF(-23, -23, 46, 46), Qt::AlignCenter, centre);
        if (isSelected) {
            for (const QPoint& corner : {QPoint(-23, -23), QPoint(-23, 17), QPoint(17, -23), QPoint(17, 17)})
                painter->fillRect(QRect(corner, QSize(6, 6)), base.darker(200));
        }
        painter->setPen(Qt::NoPen);
        painter->setBrush(QColor(255, 255, 255, 75));
        painter->drawEllipse(-12, -16, 24, 16);
    }
};

const QPoint nodeOrigin(100, 50);  // in the pictures of single nodes

template <typename Paint> QImage nodeImage(Paint paint)
{
    QImage image(2 * nodeOrigin.x(), 2 * nodeOrigin.y(), QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(nodeOrigin);
    paint(&painter);
    return image;
}

QImage imageOf(Node& node)
{
    return nodeImage([&](QPainter* painter) { node.paint(painter, nullptr, nullptr); });
}

QImage imageOf(const NodePicture& picture)
{
    return nodeImage([&](QPainter* painter) { picture.paint(painter); });
}

}  // namespace

/// Tests what nodes look like, by pictures of them.
class TestNodePainting : public QObject
{
    Q_OBJECT

private slots:
    void init() { _pair = std::make_unique<LinkedPair>(); }
    void cleanup() { _pair.reset(); }

    // The disc

    void aNodeLooksAsDescribed_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("address");
        QTest::addColumn<bool>("isConnected");
        QTest::addColumn<bool>("isSelected");
        QTest::addColumn<double>("strokeWidth");
        const QByteArray address = QByteArray::fromHex("00ABcd000001");
        QTest::newRow("nothing known") << QString() << QByteArray() << false << false << -1.0;
        QTest::newRow("name") << QStringLiteral("Node") << QByteArray() << false << false << -1.0;
        QTest::newRow("address") << QString() << address << true << false << -1.0;
        QTest::newRow("all") << QStringLiteral("A long name of a node") << address << true << true << 1.0;
        QTest::newRow("thick") << QStringLiteral("Node") << address << false << true << 7.5;
        QTest::newRow("odd width") << QStringLiteral("i") << QByteArray() << true << true << 0.0;
    }

    /// Compares the node with a picture painted by hand.
    void aNodeLooksAsDescribed()
    {
        QFETCH(QString, name);
        QFETCH(QByteArray, address);
        QFETCH(bool, isConnected);
        QFETCH(bool, isSelected);
        QFETCH(double, strokeWidth);
        Node& node = *_pair->sender;
        node.setName(name);
        node.setAddress(address);
        node.setActive(isConnected, false);
        node.setSelected(isSelected);
        TestAccess::strokeWidth(node) = strokeWidth;

        NodePicture expected;
        expected.base = isConnected ? QColor(155, 155, 255) : QColor(Qt::lightGray);
        expected.strokeWidth = strokeWidth > 0 ? strokeWidth : 2.0;
        expected.name = name;
        expected.address = QString::fromLatin1(address.toHex().toUpper());
        expected.centre = isConnected ? QStringLiteral("1") : QStringLiteral("?");
        expected.isSelected = isSelected;
        const QFontMetrics metrics = QApplication::fontMetrics();
        expected.textWidth
            = std::max(metrics.horizontalAdvance(expected.name), metrics.horizontalAdvance(expected.address));
        QCOMPARE(imageOf(node), imageOf(expected));
    }

    void theStateChoosesTheColor_data()
    {
        QTest::addColumn<int>("flags");
        QTest::addColumn<QColor>("color");
        const QColor inactive(Qt::lightGray);
        enum { Connected = 1, Disabled = 2, Transmitting = 4, Receiving = 8 };
        QTest::newRow("no program") << 0 << inactive;
        QTest::newRow("no program, flashing") << int(Transmitting | Receiving) << inactive;
        QTest::newRow("disabled") << int(Connected | Disabled | Transmitting) << inactive;
        QTest::newRow("active") << int(Connected) << QColor(155, 155, 255);
        QTest::newRow("transmitting") << int(Connected | Transmitting) << QColor(155, 255, 155);
        QTest::newRow("receiving") << int(Connected | Receiving) << QColor(255, 255, 155);
        QTest::newRow("both") << int(Connected | Transmitting | Receiving) << QColor(0xCD, 0xFF, 0x9A);
    }

    /// Looks above the highlight, where the gradient is all base colour, and below the middle, where it is
    /// lighter.
    void theStateChoosesTheColor()
    {
        QFETCH(int, flags);
        QFETCH(QColor, color);
        TestAccess::flags(*_pair->sender) = flags;
        const QImage picture = imageOf(*_pair->sender);
        QVERIFY(isNear(pixel(picture, nodeOrigin + QPointF(0, -18)), color));
        QVERIFY(isNear(pixel(picture, nodeOrigin + QPointF(0, 15)), color.lighter(120)));
        QVERIFY(isNear(pixel(picture, nodeOrigin + QPointF(-20, 0)), color.darker(200), 4));
    }

    void ownColorsWin_data()
    {
        QTest::addColumn<int>("flags");
        QTest::addColumn<int>("which");
        enum { Connected = 1, Transmitting = 4, Receiving = 8 };
        QTest::newRow("inactive") << 0 << 0;
        QTest::newRow("active") << int(Connected) << 1;
        QTest::newRow("transmitting") << int(Connected | Transmitting) << 2;
        QTest::newRow("receiving") << int(Connected | Receiving) << 3;
    }

    void ownColorsWin()
    {
        QFETCH(int, flags);
        QFETCH(int, which);
        Node& node = *_pair->sender;
        Node& defaults = *network()->defaultNode();
        TestAccess::flags(node) = flags;
        QColor* const own[] = {&TestAccess::inactiveColor(node), &TestAccess::activeColor(node),
                               &TestAccess::txColor(node), &TestAccess::rxColor(node)};
        QColor* const inherited[] = {&TestAccess::inactiveColor(defaults), &TestAccess::activeColor(defaults),
                                     &TestAccess::txColor(defaults), &TestAccess::rxColor(defaults)};
        const QPointF spot = nodeOrigin + QPointF(0, -18);
        *inherited[which] = QColor(10, 120, 200);
        QVERIFY(isNear(pixel(imageOf(node), spot), QColor(10, 120, 200)));
        *own[which] = QColor(200, 20, 90);
        QVERIFY(isNear(pixel(imageOf(node), spot), QColor(200, 20, 90)));
    }

    void theBlendIsOneOfPackedWords()
    {
        Node& node = *_pair->sender;
        node.setActive(true, false);
        TestAccess::flags(node) |= 4 | 8;
        TestAccess::txColor(node) = QColor(1, 0, 0);
        TestAccess::rxColor(node) = QColor(0, 101, 0);
        // 7F808000 + 7F803280; the means of the channels would be 0, 50 and 0
        QVERIFY(isNear(pixel(imageOf(node), nodeOrigin + QPointF(0, -18)), QColor(0x00, 0xB2, 0x80)));
    }

    void theOwnStrokeWidthWins_data()
    {
        QTest::addColumn<double>("own");
        QTest::addColumn<double>("width");
        QTest::newRow("own") << 1.0 << 1.0;
        QTest::newRow("none") << 0.0 << 8.0;
        QTest::newRow("undecided") << -1.0 << 8.0;
    }

    void theOwnStrokeWidthWins()
    {
        QFETCH(double, own);
        QFETCH(double, width);
        Node& node = *_pair->sender;
        node.setActive(false, false);
        node.setAddress(QByteArray());
        TestAccess::strokeWidth(node) = own;
        TestAccess::strokeWidth(*network()->defaultNode()) = 8.0;
        const int diameter = inkRect(imageOf(node)).width();
        QVERIFY(std::abs(diameter - (40 + width)) <= 1);
    }

    // Labels

    void labelsAreShownAsSet_data()
    {
        QTest::addColumn<int>("own");
        QTest::addColumn<int>("inherited");
        QTest::addColumn<bool>("isShown");
        QTest::newRow("on") << int(Qt::Checked) << int(Qt::Unchecked) << true;
        QTest::newRow("off") << int(Qt::Unchecked) << int(Qt::Checked) << false;
        QTest::newRow("undecided, on") << int(Qt::PartiallyChecked) << int(Qt::Checked) << true;
        QTest::newRow("undecided, off") << int(Qt::PartiallyChecked) << int(Qt::Unchecked) << false;
        QTest::newRow("undecided both") << int(Qt::PartiallyChecked) << int(Qt::PartiallyChecked) << false;
    }

    void labelsAreShownAsSet()
    {
        QFETCH(int, own);
        QFETCH(int, inherited);
        QFETCH(bool, isShown);
        Node& node = *_pair->sender;
        Node& defaults = *network()->defaultNode();
        node.setName(QStringLiteral("Name"));
        const QRect nameRect(nodeOrigin - QPoint(60, 40), QSize(120, 18));
        const QRect addressRect(nodeOrigin + QPoint(-60, 22), QSize(120, 18));
        const QRect countRect(nodeOrigin - QPoint(6, 8), QSize(12, 16));
        const auto set = [&](auto& setting, auto& inheritedSetting) {
            setting = static_cast<Qt::CheckState>(own);
            inheritedSetting = static_cast<Qt::CheckState>(inherited);
        };
        set(TestAccess::showName(node), TestAccess::showName(defaults));
        set(TestAccess::showAddress(node), TestAccess::showAddress(defaults));
        set(TestAccess::showConnectionCount(node), TestAccess::showConnectionCount(defaults));
        const QImage picture = imageOf(node);
        NodePicture bare;
        bare.base = QColor(155, 155, 255);
        const QImage without = imageOf(bare);
        QCOMPARE(picture.copy(nameRect) != without.copy(nameRect), isShown);
        QCOMPARE(picture.copy(addressRect) != without.copy(addressRect), isShown);
        QCOMPARE(picture.copy(countRect) != without.copy(countRect), isShown);
    }

    void aPlainNodeShowsAQuestionMarkWhateverIsSet_data()
    {
        QTest::addColumn<int>("own");
        QTest::newRow("on") << int(Qt::Checked);
        QTest::newRow("off") << int(Qt::Unchecked);
        QTest::newRow("undecided") << int(Qt::PartiallyChecked);
    }

    void aPlainNodeShowsAQuestionMarkWhateverIsSet()
    {
        QFETCH(int, own);
        Node node{QByteArray()};
        TestAccess::showConnectionCount(node) = static_cast<Qt::CheckState>(own);
        NodePicture expected;
        expected.base = Qt::lightGray;
        expected.centre = QStringLiteral("?");
        QCOMPARE(imageOf(node), imageOf(expected));
    }

    void anEmptyNameIsNotDrawn()
    {
        Node node{QByteArray()};
        TestAccess::showName(node) = Qt::Checked;
        const QRect upperEdge(0, 0, 2 * nodeOrigin.x(), 2 * nodeOrigin.y() - 71);
        QVERIFY(inkRect(imageOf(node).copy(upperEdge)).isEmpty());
        node.setName(QStringLiteral("Name"));
        QVERIFY(!inkRect(imageOf(node).copy(upperEdge)).isEmpty());
    }

    // Bounds

    void theBoundsHoldDiscAndTexts()
    {
        Node node{QByteArray()};
        QCOMPARE(node.boundingRect(), QRectF(-24, -40, 48, 80));
        node.setName(QStringLiteral("A name that is a good deal wider than the disc of its node"));
        const int width = QApplication::fontMetrics().horizontalAdvance(node.name());
        QVERIFY(width > 48);
        QCOMPARE(node.boundingRect(), QRectF(-(width / 2), -40, width, 80));
        node.setName(QString());
        node.setAddress(QByteArray(20, '\xAB'));
        const int addressWidth
            = QApplication::fontMetrics().horizontalAdvance(QStringLiteral("AB").repeated(20));
        QCOMPARE(node.boundingRect(), QRectF(-(addressWidth / 2), -40, addressWidth, 80));
    }

    void theShapeIsTheDisc()
    {
        const QPainterPath shape = _pair->sender->shape();
        QCOMPARE(shape.boundingRect(), QRectF(-20, -20, 40, 40));
        QVERIFY(shape.contains(QPointF(0, -19.5)));
        QVERIFY(!shape.contains(QPointF(-15, -15)));
    }

private:
    std::unique_ptr<LinkedPair> _pair;
};

QTEST_MAIN(TestNodePainting)
#include "tst_nodepainting.moc"
