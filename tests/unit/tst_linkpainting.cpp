#include "connections/connection.h"

#include "paintedpair.h"

#include <QImage>
#include <QPainter>
#include <QtTest>

#include <cmath>
#include <limits>
#include <utility>

using namespace Painting;

namespace {

QColor mixed(const QColor& over, const QColor& ground, double opacity)
{
    const auto channel
        = [opacity](int top, int bottom) { return qRound(opacity * top + (1.0 - opacity) * bottom); };
    return QColor(channel(over.red(), ground.red()), channel(over.green(), ground.green()),
                  channel(over.blue(), ground.blue()));
}

/// Counts the changes from anything else to \a color along the way from \a begin to \a end.
int runsOf(const QColor& color, const QImage& image, const QPointF& begin, const QPointF& end)
{
    const double length = std::hypot(end.x() - begin.x(), end.y() - begin.y());
    int runs = 0;
    bool isInside = false;
    for (double way = 0; way <= length; way += 0.5) {
        const bool wasInside
            = std::exchange(isInside, isNear(pixel(image, begin + (end - begin) * way / length), color));
        if (isInside && !wasInside)
            ++runs;
    }
    return runs;
}

}  // namespace

/// Tests what links look like, by pictures of the scene.
class TestLinkPainting : public QObject, protected PaintedPair
{
    Q_OBJECT

private:
    /// Paints the scene as an unscrolled view shows it, with the nodes hidden and a white background.
    QImage image()
    {
        _pair->sender->hide();
        _pair->receiver->hide();
        network().setBackgroundBrush(Qt::white);
        QImage image(viewSize, QImage::Format_RGB32);
        QPainter painter(&image);
        network().render(&painter, image.rect(), image.rect());
        return image;
    }

private slots:
    void init() { beginPair(); }
    void cleanup() { endPair(); }

    // The line

    void theLineIsPaintedInTheDefaultColorAndWidth()
    {
        QCOMPARE(link().boundingRect().height(), -2.0);
        const QImage picture = image();
        for (double x = 101; x < 299; x += 1) {
            QCOMPARE(pixel(picture, QPointF(x, 399)), QColor(Qt::darkBlue));
            QCOMPARE(pixel(picture, QPointF(x, 400)), QColor(Qt::darkBlue));
            QCOMPARE(pixel(picture, QPointF(x, 398)), white);
            QCOMPARE(pixel(picture, QPointF(x, 401)), white);
        }

        TestAccess::color(*network().defaultConnection()) = Qt::magenta;
        TestAccess::strokeWidth(*network().defaultConnection()) = 6.0;
        const QImage other = image();
        QCOMPARE(pixel(other, QPointF(200, 397)), QColor(Qt::magenta));
        QCOMPARE(pixel(other, QPointF(200, 402)), QColor(Qt::magenta));
        QCOMPARE(pixel(other, QPointF(200, 396)), white);
        QCOMPARE(pixel(other, QPointF(200, 403)), white);
    }

    void ownColorAndWidthWin()
    {
        TestAccess::color(link()) = Qt::red;
        TestAccess::strokeWidth(link()) = 10.0;
        const QImage picture = image();
        QCOMPARE(pixel(picture, QPointF(150, 395)), QColor(Qt::red));
        QCOMPARE(pixel(picture, QPointF(150, 404)), QColor(Qt::red));
        QCOMPARE(pixel(picture, QPointF(150, 394)), white);
        QCOMPARE(pixel(picture, QPointF(150, 405)), white);
        QCOMPARE(inkRect(picture), QRect(95, 395, 210, 10));  // square caps: half the width further on
    }

    /// Counts on Qt, which paints a line without a width as thin as it can.
    void aWidthOfZeroIsOnesOwn()
    {
        TestAccess::strokeWidth(link()) = 0.0;
        TestAccess::strokeWidth(*network().defaultConnection()) = 6.0;
        QCOMPARE(inkRect(image()).height(), 1);
    }

    void theOpacityIsTheReliability_data()
    {
        QTest::addColumn<double>("own");
        QTest::addColumn<double>("inherited");
        QTest::addColumn<double>("opacity");
        QTest::newRow("full") << 1.0 << 0.5 << 1.0;
        QTest::newRow("half") << 0.5 << 1.0 << 0.5;
        QTest::newRow("just above the faintest") << 0.2 << 1.0 << 0.2;
        QTest::newRow("below the faintest") << 0.05 << 1.0 << 0.1;
        QTest::newRow("none") << 0.0 << 1.0 << 0.1;
        QTest::newRow("undecided") << -1.0 << 0.7 << 0.7;
        QTest::newRow("undecided, none") << -1.0 << 0.0 << 0.1;
        QTest::newRow("undecided everywhere") << -1.0 << -1.0 << 0.1;
        QTest::newRow("infinite") << std::numeric_limits<double>::infinity() << 0.5 << 1.0;
    }

    void theOpacityIsTheReliability()
    {
        QFETCH(double, own);
        QFETCH(double, inherited);
        QFETCH(double, opacity);
        TestAccess::reliability(link()) = own;
        TestAccess::reliability(*network().defaultConnection()) = inherited;
        QVERIFY(isNear(pixel(image(), middle), mixed(Qt::darkBlue, white, opacity)));
    }

    void aBrokenLinkIsDotted()
    {
        constexpr int dotsAtLeast = 20;
        const QPointF end(150, 0);
        QCOMPARE(runsOf(Qt::darkBlue, image(), middle - end / 2, middle + end / 2), 1);
        TestAccess::broken(link()) = true;
        QVERIFY(runsOf(Qt::darkBlue, image(), middle - end / 2, middle + end / 2) > dotsAtLeast);
    }

    void aBrokenLinkOfNoReliabilityIsFaintAndItsFramesAreNot()
    {
        sendArriving();
        TestAccess::broken(link()) = true;
        TestAccess::reliability(link()) = 0.0;
        const QImage picture = image();
        const QColor faint = mixed(Qt::darkBlue, white, 0.1);
        QVERIFY(runsOf(faint, picture, QPointF(110, 400), QPointF(180, 400)) > 10);
        QCOMPARE(runsOf(Qt::darkBlue, picture, QPointF(110, 400), QPointF(180, 400)), 0);
        QCOMPARE(pixel(picture, middle), arrivingDot);
        QVERIFY(isNear(pixel(picture, middle - QPointF(0, 7)), Qt::darkBlue));
    }

    // Frames

    void framesShowInACapsule_data()
    {
        QTest::addColumn<int>("frames");
        QTest::newRow("one") << 1;
        QTest::newRow("two") << 2;
        QTest::newRow("seven") << 7;
        QTest::newRow("twenty") << 20;
    }

    void framesShowInACapsule()
    {
        QFETCH(int, frames);
        TestAccess::reliability(*network().defaultConnection()) = 0.0;  // the line is out of the way
        for (int i = 0; i < frames; ++i)
            sendLost();
        const QImage picture = image();
        const QPointF edge(4 * frames + 3, 0);
        QVERIFY(isNear(pixel(picture, middle - edge), Qt::darkBlue));
        QVERIFY(isNear(pixel(picture, middle + edge), Qt::darkBlue));
        QCOMPARE(pixel(picture, middle - edge + QPointF(2, 0)), white);
        QCOMPARE(pixel(picture, middle + edge - QPointF(3, 0)), white);
        QVERIFY(!isNear(pixel(picture, middle - edge - QPointF(3, 0)), Qt::darkBlue));
        QVERIFY(isNear(pixel(picture, middle - QPointF(0, 7)), Qt::darkBlue));
        QVERIFY(isNear(pixel(picture, middle + QPointF(0, 7)), Qt::darkBlue));
        QCOMPARE(pixel(picture, middle - QPointF(0, 9)), white);
        QCOMPARE(runsOf(lostDot, picture, middle - edge, middle + edge), frames);
        QCOMPARE(runsOf(arrivingDot, picture, middle - edge, middle + edge), 0);
    }

    void aLinkHasRoomForADotEveryTenUnits_data()
    {
        QTest::addColumn<QPointF>("difference");
        QTest::addColumn<int>("dots");
        QTest::newRow("300, level") << QPointF(300, 0) << 30;
        QTest::newRow("309, level") << QPointF(309, 0) << 30;
        QTest::newRow("310, level") << QPointF(310, 0) << 31;
        QTest::newRow("180, upright") << QPointF(0, 180) << 18;
        QTest::newRow("25") << QPointF(25, 0) << 2;
        QTest::newRow("10") << QPointF(10, 0) << 1;
        QTest::newRow("9") << QPointF(9, 0) << 0;
        QTest::newRow("slanting, 50") << QPointF(30, 40) << 5;
    }

    void aLinkHasRoomForADotEveryTenUnits()
    {
        QFETCH(QPointF, difference);
        QFETCH(int, dots);
        span(difference);
        for (int i = 0; i < 100; ++i)
            sendArriving();
        const QPointF unit = difference / std::hypot(difference.x(), difference.y());
        const QPointF reach = unit * (4 * dots + 3);
        const QImage picture = image();
        QCOMPARE(runsOf(arrivingDot, picture, middle - reach, middle + reach), dots);
        if (dots == 0)
            QCOMPARE(pixel(picture, middle), white);  // an empty capsule
    }

    void theOldestFrameIsTheFirstDot()
    {
        sendLost();
        sendArriving();
        sendArriving();
        const QImage picture = image();
        QCOMPARE(pixel(picture, middle - QPointF(8, 0)), lostDot);
        QCOMPARE(pixel(picture, middle), arrivingDot);
        QCOMPARE(pixel(picture, middle + QPointF(8, 0)), arrivingDot);
        link().deliverFrame();
        const QImage later = image();
        QCOMPARE(pixel(later, middle - QPointF(4, 0)), arrivingDot);
        QCOMPARE(pixel(later, middle + QPointF(4, 0)), arrivingDot);
    }

    void theCapsuleHasTheColorOfTheLink()
    {
        sendArriving();
        TestAccess::color(link()) = Qt::magenta;
        QVERIFY(isNear(pixel(image(), middle - QPointF(0, 7)), Qt::magenta));
    }

    void theCapsuleFollowsTheLine_data() { directions(); }

    void theCapsuleFollowsTheLine()
    {
        QFETCH(QPointF, difference);
        span(difference);
        for (int i = 0; i < 5; ++i)
            sendArriving();
        const QImage picture = image();
        const QPointF unit = difference / std::hypot(difference.x(), difference.y());
        QCOMPARE(runsOf(arrivingDot, picture, middle - unit * 23, middle + unit * 23), 5);
        QCOMPARE(pixel(picture, middle + across(difference) * 5), white);
        QVERIFY(pixel(picture, middle + across(difference) * 7.2) != white);
        QVERIFY(pixel(picture, middle - across(difference) * 7.2) != white);
        QCOMPARE(pixel(picture, middle + across(difference) * 10), white);
    }

    void aLateFrameIsAnArrivingOne()
    {
        TestHelpers::requestConfirmations(_pair->sender, 1);  // ms, the link needs longer
        sendArriving();
        QVERIFY(!TestAccess::framesInFlight(link()).first().wasDelivered(true));
        QCOMPARE(pixel(image(), middle), arrivingDot);
    }

    // Selection

    void aSelectedLinkHasASquareOverTheCapsule()
    {
        TestAccess::reliability(link()) = 0.3;
        TestAccess::color(link()) = Qt::magenta;
        sendLost();
        link().setSelected(true);
        const QImage picture = image();
        for (const QPointF& inside :
             {QPointF(-4, -4), QPointF(3, -4), QPointF(-4, 3), QPointF(3, 3), QPointF(0, 0)})
            QCOMPARE(pixel(picture, middle + inside), QColor(Qt::magenta));
        for (const QPointF& outside : {QPointF(-5, -3), QPointF(4, 2), QPointF(-2, 4), QPointF(-2, -5)})
            QVERIFY(pixel(picture, middle + outside) != QColor(Qt::magenta));
    }

    void anUnselectedLinkHasNoSquare()
    {
        QCOMPARE(pixel(image(), middle - QPointF(0, 3)), white);
        link().setSelected(true);
        QCOMPARE(pixel(image(), middle - QPointF(0, 3)), QColor(Qt::darkBlue));
        link().setSelected(false);
        QCOMPARE(pixel(image(), middle - QPointF(0, 3)), white);
    }

    // Odd ends

    void aLinkWithoutAnEndPaintsNothing()
    {
        sendArriving();
        link().setSelected(true);
        Node* receiver = link().node(1);
        link().setNode(1, nullptr);
        const QRect ink = inkRect(image());
        const QRectF bounds = link().boundingRect();
        const QPainterPath shape = link().shape();
        link().setNode(1, receiver);  // its list still holds the link
        QVERIFY(ink.isEmpty());
        QVERIFY(bounds.isNull());
        QVERIFY(shape.isEmpty());
        QVERIFY(!inkRect(image()).isEmpty());
    }

    void nodesOnOneSpotShowAnEmptyCapsule()
    {
        span(QPointF());
        sendArriving();
        const QImage picture = image();
        QCOMPARE(pixel(picture, middle), white);
        const QRect capsule = inkRect(picture);
        QVERIFY(capsule.width() <= 10);  // 6 and the stroke
        QVERIFY(capsule.height() >= 14 && capsule.height() <= 17);
        QVERIFY(capsule.contains(middle.toPoint()));
    }

    // Bounds and order

    void theBoundsFollowTheOwnWidth_data()
    {
        QTest::addColumn<double>("width");
        QTest::addColumn<QPointF>("difference");
        QTest::addColumn<QRectF>("bounds");
        QTest::newRow("undecided, level") << -1.0 << QPointF(200, 0) << QRectF(101, 401, 198, -2);
        QTest::newRow("undecided, upright") << -1.0 << QPointF(0, 200) << QRectF(201, 301, -2, 198);
        QTest::newRow("undecided, slanting") << -1.0 << QPointF(-200, 100) << QRectF(101, 351, 198, 98);
        QTest::newRow("own, level") << 3.0 << QPointF(200, 0) << QRectF(97, 397, 206, 6);
        QTest::newRow("none, level") << 0.0 << QPointF(200, 0) << QRectF(100, 400, 200, 0);
    }

    void theBoundsFollowTheOwnWidth()
    {
        QFETCH(double, width);
        QFETCH(QPointF, difference);
        QFETCH(QRectF, bounds);
        TestAccess::strokeWidth(link()) = width;
        TestAccess::strokeWidth(*network().defaultConnection()) = 9.0;
        span(difference);
        sendArriving();
        link().setSelected(true);
        QCOMPARE(link().boundingRect(), bounds);
        QCOMPARE(link().sceneBoundingRect(), bounds);
    }

    void theBandOfAnUprightLinkIsLevel()
    {
        span(QPointF(0, 200));
        const QRectF band = link().shape().boundingRect();
        QCOMPARE(band, QRectF(190, 300, 20, 200));
        span(QPointF(200, 0));
        QCOMPARE(link().shape().boundingRect(), QRectF(100, 390, 200, 20));
    }

    void linksLieAboveTheGroundAndBelowNodes()
    {
        QImage picture(viewSize, QImage::Format_RGB32);
        QPainter painter(&picture);
        network().render(&painter, picture.rect(), picture.rect());
        QCOMPARE(pixel(picture, middle), QColor(Qt::darkBlue));
        for (Node* node : {_pair->sender, _pair->receiver}) {
            const QPointF underTheDisc = node->pos() + (middle - node->pos()) * 0.14;
            QVERIFY(!isNear(pixel(picture, underTheDisc), Qt::darkBlue, 30));
        }
    }
};

QTEST_MAIN(TestLinkPainting)
#include "tst_linkpainting.moc"
