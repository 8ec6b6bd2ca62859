#include "connections/connection.h"
#include "nodes/node.h"

#include "connections/connectionpropertieswidget.h"
#include "network/network.h"
#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "sockethelpers.h"
#include "testaccess.h"
#include "testhelpers.h"

#include <QDoubleSpinBox>
#include <QGraphicsSceneHelpEvent>
#include <QGraphicsView>
#include <QImage>
#include <QMouseEvent>
#include <QPaintEvent>
#include <QPainter>
#include <QRegion>
#include <QScreen>
#include <QSignalSpy>
#include <QTextDocument>
#include <QTextDocumentFragment>
#include <QToolTip>
#include <QWindow>
#include <QtTest>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>

using TestHelpers::LinkedPair;

namespace {

constexpr int never = 600000;    // ms, longer than any test takes
const QPointF middle(200, 400);  // of the links; the background is plain white there
const QSize viewSize(400, 500);
const QColor arrivingDot(Qt::darkGreen);
const QColor lostDot(Qt::darkRed);
const QColor white(Qt::white);

QColor pixel(const QImage& image, const QPointF& position)
{
    return image.pixelColor(qRound(std::floor(position.x())), qRound(std::floor(position.y())));
}

bool isNear(const QColor& one, const QColor& other, int tolerance = 2)
{
    return std::abs(one.red() - other.red()) <= tolerance
        && std::abs(one.green() - other.green()) <= tolerance
        && std::abs(one.blue() - other.blue()) <= tolerance;
}

QColor mixed(const QColor& over, const QColor& ground, double opacity)
{
    const auto channel
        = [opacity](int top, int bottom) { return qRound(opacity * top + (1.0 - opacity) * bottom); };
    return QColor(channel(over.red(), ground.red()), channel(over.green(), ground.green()),
                  channel(over.blue(), ground.blue()));
}

/// Of the pixels that are not white.
QRect inkRect(const QImage& image)
{
    QRegion ink;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            if (image.pixelColor(x, y) != white)
                ink += QRect(x, y, 1, 1);
        }
    }
    return ink.boundingRect();
}

/// But for the rounding of antialiased edges, which depends on the region that is painted.
bool areAlike(const QImage& one, const QImage& other)
{
    constexpr int tolerance = 8;
    if (one.isNull() || one.size() != other.size())
        return false;
    const auto isAlike
        = [](QRgb left, QRgb right) { return left == right || isNear(left, right, tolerance); };
    for (int y = 0; y < one.height(); ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(one.constScanLine(y));
        if (!std::equal(line, line + one.width(), reinterpret_cast<const QRgb*>(other.constScanLine(y)),
                        isAlike))
            return false;
    }
    return true;
}

/// Changes from anything else to \a color along the way from \a begin to \a end.
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

/// Remembers what was repainted of it.
class RecordingView : public QGraphicsView
{
public:
    using QGraphicsView::QGraphicsView;

    QRegion painted;
    int paintEvents = 0;

protected:
    void paintEvent(QPaintEvent* event) override
    {
        painted += event->region();
        ++paintEvents;
        QGraphicsView::paintEvent(event);
    }
};

/// What a node should look like; painted by hand for comparison.
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

/// What links and nodes look like, read from pictures of the scene and from the windows of views.
class TestPainting : public QObject
{
    Q_OBJECT

private:
    Network& network() { return *TestHelpers::network(); }
    Connection& link() { return *_pair->link; }

    /// The link's ends lie around the middle.
    void span(const QPointF& difference)
    {
        _pair->sender->setPos(middle - difference / 2);
        _pair->receiver->setPos(middle + difference / 2);
    }

    /// So many that Qt would divide the scene into small places.
    static void addOthers()
    {
        for (int i = 0; i < 200; ++i)
            TestHelpers::addNode(3)->setPos(2 * i, 3 * i);
    }

    /// A place where something has not forgotten it would be read after its end.
    void takeLinkOut()
    {
        link().setSelected(true);
        network().deleteSelectedNetworkItem();
        for (int x = 0; x < viewSize.width(); x += 10) {
            for (int y = 0; y < viewSize.height(); y += 10) {
                const QList<QGraphicsItem*> found = network().items(QRectF(x, y, 10, 10));
                for (QGraphicsItem* item : found)
                    QVERIFY(dynamic_cast<Node*>(item));
            }
        }
    }

    void showEnds(bool visible)
    {
        _pair->sender->setVisible(visible);
        _pair->receiver->setVisible(visible);
    }

    void send(const QByteArray& frame) { _pair->sender->dataRequest(frame); }
    void sendArriving() { send(_pair->unicast()); }
    void sendLost() { send(_pair->toNobody()); }

    /// The scene at the places of a view without scrolling; the nodes hidden, the background white.
    QImage image()
    {
        showEnds(false);
        network().setBackgroundBrush(Qt::white);
        QImage image(viewSize, QImage::Format_RGB32);
        QPainter painter(&image);
        network().render(&painter, image.rect(), image.rect());
        return image;
    }

    void showView()
    {
        _view = std::make_unique<RecordingView>(&network());
        _view->setRenderHint(QPainter::Antialiasing);
        _view->setFrameShape(QFrame::NoFrame);
        _view->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        _view->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        _view->setSceneRect(QRectF(QPointF(), viewSize));
        _view->resize(viewSize);
        for (Node* node : {_pair->sender, _pair->receiver}) {
            node->setTxColor(QColor(155, 155, 255));  // no flash is to end between two pictures
            node->setRxColor(QColor(155, 155, 255));
            TestAccess::flags(*node) &= ~(4 | 8);
        }
        _view->show();
        QVERIFY(QTest::qWaitForWindowExposed(_view.get()));
        QElapsedTimer timer;
        timer.start();
        _view->viewport()->repaint();
        _paintingTime = static_cast<int>(timer.elapsed());
        QVERIFY(waitForPaint());
    }

    /// Until all repaints that have been asked for are done, those that traffic may still be waiting for too:
    /// twice as long as painting takes, on a busy machine.
    bool waitForPaint()
    {
        constexpr int picturePeriod = 16;  // ms, of traffic
        constexpr int windowPeriod = 10;   // ms, of the window system at least
        if (!TestHelpers::passTimeouts(picturePeriod + 4 * _paintingTime))
            return false;
        QTest::qWait(windowPeriod);
        _view->painted = QRegion();
        _view->paintEvents = 0;
        return true;
    }

    /// As the window system has it: nothing is painted anew for it.
    QImage screen()
    {
        const QPixmap pixmap = _view->screen()->grabWindow(_view->winId());
        return pixmap.toImage().convertToFormat(QImage::Format_RGB32);
    }

    /// Whether a repaint of all changes nothing.
    bool isShownTruly()
    {
        if (!waitForPaint())
            return false;
        const QImage before = screen();
        _view->viewport()->repaint();
        return areAlike(before, screen());
    }

    QColor shown(const QPointF& position) { return pixel(screen(), position); }

    void mouse(QEvent::Type type, const QPointF& position, Qt::MouseButton button = Qt::LeftButton,
               Qt::KeyboardModifiers modifiers = Qt::NoModifier)
    {
        const QPoint local = _view->mapFromScene(position);
        const QPoint global = _view->viewport()->mapToGlobal(local);
        const bool isHeld = type != QEvent::MouseButtonRelease;
        QMouseEvent event(type, local, global, type == QEvent::MouseMove ? Qt::NoButton : button,
                          isHeld ? button : Qt::NoButton, modifiers);
        QCoreApplication::sendEvent(_view->viewport(), &event);
    }

    void click(const QPointF& position, Qt::MouseButton button = Qt::LeftButton,
               Qt::KeyboardModifiers modifiers = Qt::NoModifier)
    {
        mouse(QEvent::MouseButtonPress, position, button, modifiers);
        mouse(QEvent::MouseButtonRelease, position, button, modifiers);
    }

    /// Long enough for a tool tip.
    void hover(const QPointF& position)
    {
        const QPoint local = _view->mapFromScene(position);
        QHelpEvent event(QEvent::ToolTip, local, _view->viewport()->mapToGlobal(local));
        QCoreApplication::sendEvent(_view->viewport(), &event);
    }

    static void directions()
    {
        QTest::addColumn<QPointF>("difference");
        QTest::newRow("level") << QPointF(200, 0);
        QTest::newRow("level, backwards") << QPointF(-200, 0);
        QTest::newRow("upright") << QPointF(0, 140);
        QTest::newRow("upright, backwards") << QPointF(0, -140);
        QTest::newRow("nearly level") << QPointF(200, 3);
        QTest::newRow("nearly upright") << QPointF(-5, 140);
        QTest::newRow("flat") << QPointF(200, -16);
        QTest::newRow("half units") << QPointF(199, 1);
        QTest::newRow("slanting") << QPointF(150, 110);
        QTest::newRow("slanting, upwards") << QPointF(150, -110);
    }

    /// One unit to the side of a line.
    static QPointF across(const QPointF& difference)
    {
        return QPointF(-difference.y(), difference.x()) / std::hypot(difference.x(), difference.y());
    }

private slots:
    void init()
    {
        _pair = std::make_unique<LinkedPair>();
        TestAccess::delay(link()) = never;
        span(QPointF(200, 0));
    }

    void cleanup()
    {
        _view.reset();
        _pair.reset();
    }

    // Links, painted into an image

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

    /// The toolkit paints a line without a width as thin as it can.
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

    // Nodes, painted into an image

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

    /// Compared with a picture painted by hand.
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

    /// The gradient is all base colour above the highlight, and lightened below the middle.
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
        Node& defaults = *network().defaultNode();
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
        TestAccess::strokeWidth(*network().defaultNode()) = 8.0;
        const int diameter = inkRect(imageOf(node)).width();
        QVERIFY(std::abs(diameter - (40 + width)) <= 1);
    }

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
        Node& defaults = *network().defaultNode();
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

    void theLaterOfTwoNodesOnOneSpotIsOnTop()
    {
        span(QPointF());
        _pair->sender->setActiveColor(Qt::red);
        _pair->receiver->setActiveColor(Qt::green);
        showView();
        QVERIFY(isNear(shown(middle - QPointF(0, 18)), Qt::green));
        QVERIFY(isShownTruly());
        click(middle);
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->receiver});
    }

    // What a view's window really holds

    void framesAppearAndVanishAtOnce_data() { directions(); }

    void framesAppearAndVanishAtOnce()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        const QPointF edge = across(difference) * 7;
        QCOMPARE(shown(middle + edge), white);

        sendArriving();
        QVERIFY(isShownTruly());
        QVERIFY(isNear(shown(middle), arrivingDot, 8));
        QVERIFY(shown(middle + edge) != white);
        QVERIFY(shown(middle - edge) != white);
        sendLost();
        QVERIFY(isShownTruly());

        link().deliverFrame();
        QVERIFY(isShownTruly());
        QVERIFY(isNear(shown(middle), lostDot, 8));
        link().deliverFrame();
        QVERIFY(isShownTruly());
        QCOMPARE(shown(middle + edge), white);
        QCOMPARE(shown(middle - edge), white);
    }

    void aFrameRepaintsOnlyLinkAndNodes_data() { directions(); }

    void aFrameRepaintsOnlyLinkAndNodes()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        sendArriving();
        QTRY_VERIFY(_view->painted.contains(middle.toPoint()));
        QRegion expected = link().boundingRect().normalized().adjusted(-12, -12, 12, 12).toAlignedRect();
        for (Node* node : {_pair->sender, _pair->receiver})
            expected += node->sceneBoundingRect().adjusted(-3, -3, 3, 3).toAlignedRect();
        QVERIFY(_view->painted.subtracted(expected).isEmpty());
    }

    void trafficRepaintsSixtyTimesASecond()
    {
        constexpr int time = 500;         // ms
        constexpr int mostPictures = 40;  // 500 / 16 and some
        constexpr int leastPictures = 5;  // on a machine with other things to do
        TestAccess::delay(link()) = 0;
        showView();
        QElapsedTimer timer;
        timer.start();
        int frames = 0;
        while (!timer.hasExpired(time)) {
            sendArriving();
            ++frames;
            QCoreApplication::processEvents();
        }
        QVERIFY(frames > 2 * mostPictures);
        QVERIFY2(_view->paintEvents <= mostPictures, qPrintable(QString::number(_view->paintEvents)));
        QVERIFY(_view->paintEvents >= leastPictures);
        QVERIFY(isShownTruly());
    }

    void messagesOfAProgramRepaintSixtyTimesASecond_data()
    {
        QTest::addColumn<QByteArray>("even");
        QTest::addColumn<QByteArray>("odd");
        QTest::newRow("disable and enable") << control(3, "") << control(2, "");
        QTest::newRow("color") << control(4, hex("FF0000")) << control(4, hex("0000FF"));
        QTest::newRow("address") << control(1, hex("111111111111")) << control(1, hex("AAAAAAAAAAAA"));
        QTest::newRow("name") << control(5, "one") << control(5, "a name much wider than its node");
    }

    void messagesOfAProgramRepaintSixtyTimesASecond()
    {
        QFETCH(QByteArray, even);
        QFETCH(QByteArray, odd);
        constexpr int time = 500;         // ms
        constexpr int mostPictures = 40;  // 500 / 16 and some
        constexpr int leastPictures = 5;  // on a machine with other things to do
        SocketPair pair;
        auto* node = new TcpNode(TestHelpers::nodeAddress(3), pair.nodeEnd);
        network().addItem(node);
        node->setPos(middle);
        showView();
        QElapsedTimer timer;
        timer.start();
        int messages = 0;
        while (!timer.hasExpired(time)) {
            pair.program.send(messages++ % 2 == 0 ? even : odd);
            QCoreApplication::processEvents();
        }
        QVERIFY(messages > 2 * mostPictures);
        QVERIFY2(_view->paintEvents <= mostPictures, qPrintable(QString::number(_view->paintEvents)));
        QVERIFY(_view->paintEvents >= leastPictures);
        QVERIFY(node->socket());
        QVERIFY(isShownTruly());
    }

    void whatTheUserChangesIsPaintedAtOnce()
    {
        showView();
        Node& node = *_pair->sender;
        const std::function<void()> changes[] = {
            [&] { node.setName(QStringLiteral("a new name, and a long one")); },
            [&] { node.setAddress(TestHelpers::nodeAddress(77)); },
            [&] { node.setActive(false, true); },
            [&] { node.setInactiveColor(Qt::red); },
            [&] { node.setActive(true, true); },
            [&] { node.setActiveColor(Qt::green); },
        };
        for (const auto& change : changes) {
            sendArriving();  // the pictures for traffic have to wait for their time
            QCoreApplication::processEvents();
            _view->painted = QRegion();
            change();
            QCoreApplication::processEvents();
            QVERIFY(_view->painted.contains(node.pos().toPoint()));
        }
    }

    void theSelectionSquareAppearsAndVanishes_data() { directions(); }

    void theSelectionSquareAppearsAndVanishes()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        const QPointF spot = middle - QPointF(3, 3);
        const QColor before = shown(spot);
        link().setSelected(true);
        QVERIFY(isShownTruly());
        QVERIFY(isNear(shown(spot), Qt::darkBlue));
        link().setSelected(false);
        QVERIFY(isShownTruly());
        QCOMPARE(shown(spot), before);
    }

    void aCapsuleUncoveredInPartIsPaintedWhole_data() { directions(); }

    /// Only a strip beside the line is repainted, as when a window lets go of it.
    void aCapsuleUncoveredInPartIsPaintedWhole()
    {
        QFETCH(QPointF, difference);
        span(difference);
        sendArriving();
        showView();
        for (const double side : {-1.0, 1.0}) {
            const QPoint spot = (middle + across(difference) * side * 7).toPoint();
            const QColor before = shown(spot);
            QVERIFY(before != white);
            _view->viewport()->repaint(QRect(spot - QPoint(1, 1), QSize(2, 2)));
            QCOMPARE(shown(spot), before);
            QVERIFY(isShownTruly());
        }
    }

    void aDraggedNodeLeavesNoTraces_data() { directions(); }

    void aDraggedNodeLeavesNoTraces()
    {
        QFETCH(QPointF, difference);
        span(difference);
        sendArriving();
        sendLost();
        link().setSelected(true);
        showView();
        const QPointF start = _pair->receiver->pos();
        mouse(QEvent::MouseButtonPress, start);
        for (const QPointF& move : {QPointF(0, 1), QPointF(1, 7), QPointF(-30, -40), QPointF(20, 0),
                                    QPointF(0, 60), QPointF(-300, -200), QPointF(0, 0)}) {
            mouse(QEvent::MouseMove, start + move);
            QCOMPARE(_pair->receiver->pos(),
                     QPointF(_view->mapFromScene(start + move) - _view->mapFromScene(start)) + start);
            QVERIFY(isShownTruly());
        }
        mouse(QEvent::MouseButtonRelease, start);
        QVERIFY(isShownTruly());
    }

    void aDeletedLinkLeavesNoTraces_data() { directions(); }

    void aDeletedLinkLeavesNoTraces()
    {
        QFETCH(QPointF, difference);
        span(difference);
        sendArriving();
        link().setSelected(true);
        showView();
        QVERIFY(shown(middle) != white);
        network().deleteSelectedNetworkItem();
        QVERIFY(isShownTruly());
        QCOMPARE(shown(middle), white);
        QCOMPARE(shown(middle + across(difference) * 7), white);
    }

    void changedWidthsLeaveNoTraces_data() { directions(); }

    void changedWidthsLeaveNoTraces()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        const QPointF edge = middle + across(difference) * 8;
        for (Connection* edited : {network().defaultConnection(), _pair->link}) {
            const std::unique_ptr<QWidget> form(edited->propertiesWidget());
            const QList<QDoubleSpinBox*> boxes = form->findChildren<QDoubleSpinBox*>();
            QDoubleSpinBox* width = boxes.last();  // behind the two reliabilities
            width->setMaximum(50.0);
            for (const double wide : {20.0, 45.0, 1.0}) {
                width->setValue(wide);
                QVERIFY(isShownTruly());
                QCOMPARE(shown(edge) != white, wide > 1.0);
                sendArriving();
                QVERIFY(isShownTruly());
                link().deliverFrame();
                QVERIFY(isShownTruly());
            }
        }
    }

    void aScaledOrScrolledViewShowsTheTruth_data()
    {
        QTest::addColumn<QPointF>("difference");
        QTest::addColumn<double>("scale");
        for (const double scale : {0.5, 1.0, 1.5, 2.0}) {
            const QByteArray name = QByteArray::number(scale);
            QTest::newRow("level, " + name) << QPointF(160, 0) << scale;
            QTest::newRow("upright, " + name) << QPointF(0, 140) << scale;
            QTest::newRow("slanting, " + name) << QPointF(150, 110) << scale;
        }
    }

    void aScaledOrScrolledViewShowsTheTruth()
    {
        QFETCH(QPointF, difference);
        QFETCH(double, scale);
        span(difference);
        showView();
        _view->setSceneRect(QRectF(-500, -500, 1500, 1500));
        _view->scale(scale, scale);
        for (const QPointF& shift : {QPointF(0, 0), QPointF(17, -31)}) {
            _view->centerOn(middle + shift);
            QVERIFY(isShownTruly());
            sendArriving();
            QVERIFY(isShownTruly());
            link().setSelected(true);
            QVERIFY(isShownTruly());
            _view->viewport()->scroll(0, 0);
            link().deliverFrame();
            link().setSelected(false);
            QVERIFY(isShownTruly());
            _pair->sender->moveBy(3, 4);
            QVERIFY(isShownTruly());
        }
    }

    void aLinkThatIsTakenOutIsForgotten_data() { directions(); }

    void aLinkThatIsTakenOutIsForgotten()
    {
        QFETCH(QPointF, difference);
        span(difference);
        addOthers();
        showView();
        QVERIFY(!network().items(QRectF(QPointF(), viewSize)).isEmpty());
        _pair->sender->moveBy(-0.25, 0.5);
        QVERIFY(network().items(QRectF(QPointF(), viewSize)).contains(_pair->link));
        _view->setScene(nullptr);
        takeLinkOut();
    }

    void aLinkTakenOutAfterTheViewWasScaledIsForgotten_data() { directions(); }

    /// An index that Qt keeps would look for the link where the view's scale puts it now, and miss it
    /// elsewhere.
    void aLinkTakenOutAfterTheViewWasScaledIsForgotten()
    {
        QFETCH(QPointF, difference);
        span(difference);
        addOthers();
        showView();
        _view->scale(0.07, 0.07);
        _pair->sender->moveBy(-0.25, 0.5);
        QVERIFY(network().items(QRectF(QPointF(), viewSize)).contains(_pair->link));
        _view->resetTransform();
        takeLinkOut();
    }

    void changesOfANodeAreShown()
    {
        showView();
        Node& node = *_pair->sender;
        const QPointF spot = node.pos() - QPointF(0, 18);
        node.setName(QStringLiteral("A rather long name of a node"));
        QVERIFY(isShownTruly());
        node.setName(QStringLiteral("Short"));
        QVERIFY(isShownTruly());
        node.setAddress(QByteArray(12, '\xAB'));
        QVERIFY(isShownTruly());
        node.setAddress(QByteArray());
        QVERIFY(isShownTruly());
        node.setSelected(true);
        QVERIFY(isShownTruly());
        QVERIFY(isNear(shown(node.pos() + QPointF(19, 19)), QColor(155, 155, 255).darker(200)));
        node.setActiveColor(Qt::red);
        QVERIFY(isShownTruly());
        QVERIFY(isNear(shown(spot), Qt::red));
        node.setTxColor(Qt::green);
        sendArriving();
        QTRY_VERIFY(isNear(shown(spot), Qt::green));
        QTRY_VERIFY(!(TestAccess::flags(node) & 4));
        QVERIFY(isShownTruly());
        QVERIFY(isNear(shown(spot), Qt::red));
        node.setActive(false, true);
        QVERIFY(isShownTruly());
        QVERIFY(isNear(shown(spot), Qt::lightGray));
        TestHelpers::addLink(&node, TestHelpers::addNode(3));
        QVERIFY(isShownTruly());
    }

    // The mouse

    void aClickWithinTheBandSelects_data() { directions(); }

    void aClickWithinTheBandSelects()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        for (const double side : {-8.0, -5.0, -2.0, 0.0, 2.0, 5.0, 8.0}) {
            for (const double along : {-0.3, 0.0, 0.3}) {
                const QPointF position = middle + difference * along + across(difference) * side;
                network().clearSelection();
                click(position);
                QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->link});
                QVERIFY(!network().mouseGrabberItem());
            }
        }
        QVERIFY(isShownTruly());
    }

    void aClickBesideTheBandClearsTheSelection_data() { directions(); }

    void aClickBesideTheBandClearsTheSelection()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        for (const double side : {-13.0, 13.0}) {
            link().setSelected(true);
            click(middle + across(difference) * side);
            QVERIFY(network().selectedItems().isEmpty());
        }
        link().setSelected(true);
        click(middle + difference * 0.9);  // beyond the end
        QVERIFY(network().selectedItems().isEmpty());
    }

    void aClickReplacesTheSelectionInOneStep()
    {
        showView();
        _pair->sender->setSelected(true);
        QSignalSpy changed(&network(), SIGNAL(selectionChanged()));
        click(middle + QPointF(0, 6));
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->link});
        QCOMPARE(changed.size(), 1);
        click(middle + QPointF(5, -6));
        QCOMPARE(changed.size(), 1);
        QVERIFY(isShownTruly());
    }

    void aCtrlClickTogglesAndKeepsTheOthers_data() { directions(); }

    void aCtrlClickTogglesAndKeepsTheOthers()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        _pair->sender->setSelected(true);
        for (const double side : {0.0, 2.0, -6.0, 7.0}) {
            const bool wasSelected = link().isSelected();
            const QPointF position = middle + across(difference) * side;
            mouse(QEvent::MouseButtonPress, position, Qt::LeftButton, Qt::ControlModifier);
            QCOMPARE(link().isSelected(), wasSelected);
            mouse(QEvent::MouseMove, position, Qt::LeftButton, Qt::ControlModifier);
            mouse(QEvent::MouseButtonRelease, position, Qt::LeftButton, Qt::ControlModifier);
            QCOMPARE(link().isSelected(), !wasSelected);
            QVERIFY(_pair->sender->isSelected());
        }
    }

    void aClickOnOneOfSeveralLeavesItAloneSelected_data() { directions(); }

    /// With the release, as the press may begin a drag of all.
    void aClickOnOneOfSeveralLeavesItAloneSelected()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        for (const double side : {0.0, 2.0, -6.0, 7.0}) {
            const QPointF position = middle + across(difference) * side;
            _pair->sender->setSelected(true);
            link().setSelected(true);
            mouse(QEvent::MouseButtonPress, position);
            QCOMPARE(network().selectedItems().size(), 2);
            mouse(QEvent::MouseButtonRelease, position);
            QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->link});
        }
    }

    void anotherButtonSelectsNoLink()
    {
        showView();
        click(middle + QPointF(0, 6), Qt::RightButton);
        QVERIFY(network().selectedItems().isEmpty());
        QVERIFY(!network().mouseGrabberItem());
    }

    void aNodeWithinTheBandHasPrecedence()
    {
        Node* between = TestHelpers::addNode(3);
        between->setPos(middle + QPointF(0, 25));  // its disc reaches into the band of the link
        showView();
        click(middle + QPointF(0, 7));
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{between});
        click(middle + QPointF(0, -7));
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->link});
        click(_pair->sender->pos() + QPointF(18, 0));
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->sender});
    }

    void theUpperOfTwoCrossingLinksIsPicked()
    {
        span(QPointF(200, 200));
        Node* left = TestHelpers::addNode(3);
        Node* right = TestHelpers::addNode(4);
        left->setPos(middle - QPointF(100, 0));
        right->setPos(middle + QPointF(100, 0));
        auto* level = new Connection(left, right);
        network().addItem(level);
        level->setToolTip(QStringLiteral("above"));
        link().setToolTip(QStringLiteral("below"));
        showView();
        click(middle + QPointF(0, 5));  // within the bands of both
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{level});
        click(middle + QPointF(25, 20));  // within that of the lower one only
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->link});

        link().setZValue(level->zValue() + 0.1);
        click(middle + QPointF(0, 5));
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->link});
    }

    void theToolTipShowsWithinTheBand()
    {
        link().setToolTip(QStringLiteral("the trunk"));
        showView();
        hover(middle + QPointF(0, 6));
        QTRY_COMPARE(QToolTip::text(), QStringLiteral("the trunk"));
        hover(middle + QPointF(0, 30));
        QTRY_VERIFY(!QToolTip::isVisible());
        link().setToolTip(QString());
        hover(middle + QPointF(0, 6));
        QVERIFY(!QToolTip::isVisible());
    }

    void theToolTipShowsTheCommentAsTyped_data()
    {
        QTest::addColumn<QString>("comment");
        QTest::newRow("plain") << "a plain one";
        QTest::newRow("a tag") << "<b>bold</b> & 2 < 3";
        QTest::newRow("a picture") << "<img src=\"no.png\">";
        QTest::newRow("an entity") << "&lt;\nis a sign";
        QTest::newRow("lines and spaces") << "<i>one</i>\n  two   spaces\n\nfour";
        QTest::newRow("the end of the paragraph") << "</p><h1>large</h1>";
    }

    void theToolTipShowsTheCommentAsTyped()
    {
        QFETCH(QString, comment);
        showView();
        const std::pair<QGraphicsItem*, QPointF> places[] = {{_pair->sender, _pair->sender->pos()},
                                                             {_pair->link, middle},
                                                             {_pair->link, middle + QPointF(0, 6)}};
        for (const auto& place : places) {
            place.first->setToolTip(comment);
            hover(place.second);
            QTRY_VERIFY(QToolTip::isVisible());
            const QString text = QToolTip::text();
            const bool isMarkup = Qt::mightBeRichText(text);
            QCOMPARE(isMarkup ? QTextDocumentFragment::fromHtml(text).toPlainText() : text, comment);
            QCOMPARE(place.first->toolTip(), comment);
            place.first->setToolTip(QString());
            hover(place.second);
            QTRY_VERIFY(!QToolTip::isVisible());
        }
    }

    void theMouseIsNotKeptAfterTheRelease_data()
    {
        QTest::addColumn<bool>("isNode");
        QTest::newRow("node") << true;
        QTest::newRow("link") << false;
    }

    /// Nor when the mode changes in between.
    void theMouseIsNotKeptAfterTheRelease()
    {
        QFETCH(bool, isNode);
        const QPointF spot = isNode ? _pair->sender->pos() : middle + QPointF(0, 6);
        showView();
        for (const auto mode : {Network::Selection, Network::ConnectionDrawing, Network::NodePlacement}) {
            mouse(QEvent::MouseButtonPress, spot);
            QVERIFY(network().mouseGrabberItem());
            network().setEditorMode(mode);
            mouse(QEvent::MouseButtonRelease, spot);
            QVERIFY(!network().mouseGrabberItem());
            network().setEditorMode(Network::Selection);
            click(QPointF(20, 20));
            QVERIFY(network().selectedItems().isEmpty());
        }
    }

    void aLinkDeletedWhilePressedIsForgotten()
    {
        showView();
        mouse(QEvent::MouseButtonPress, middle + QPointF(0, 6));
        QVERIFY(link().isSelected());
        network().deleteSelectedNetworkItem();
        mouse(QEvent::MouseMove, middle + QPointF(0, 8));
        mouse(QEvent::MouseButtonRelease, middle + QPointF(0, 8));
        QCOMPARE(network().items().size(), 2);
        QVERIFY(!network().mouseGrabberItem());
    }

    void theSceneHoldsNothingButNodesAndLinks()
    {
        showView();
        sendArriving();
        click(middle + QPointF(0, 6));
        QVERIFY(isShownTruly());
        QCOMPARE(network().items().size(), 3);
    }

private:
    std::unique_ptr<LinkedPair> _pair;
    std::unique_ptr<RecordingView> _view;
    int _paintingTime = 0;  // ms, of the whole view
};

QTEST_MAIN(TestPainting)
#include "tst_painting.moc"
