#pragma once

#include "testhelpers.h"

#include <QColor>
#include <QImage>
#include <QPointF>
#include <QRegion>
#include <QSize>

#include <cmath>
#include <cstdlib>
#include <memory>

/// Reads pictures of nodes and links.
namespace Painting {

constexpr int never = 600000;           // ms, longer than any test takes
inline const QPointF middle(200, 400);  // of the links, where the background is plain white
inline const QSize viewSize(400, 500);
inline const QColor arrivingDot(Qt::darkGreen);
inline const QColor lostDot(Qt::darkRed);
inline const QColor white(Qt::white);

inline QColor pixel(const QImage& image, const QPointF& position)
{
    return image.pixelColor(qRound(std::floor(position.x())), qRound(std::floor(position.y())));
}

inline bool isNear(const QColor& one, const QColor& other, int tolerance = 2)
{
    return std::abs(one.red() - other.red()) <= tolerance
        && std::abs(one.green() - other.green()) <= tolerance
        && std::abs(one.blue() - other.blue()) <= tolerance;
}

/// Returns the rectangle around all pixels that are not white.
inline QRect inkRect(const QImage& image)
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

}  // namespace Painting

/// Two nodes and the link between them, for tests that look at pictures of it.
class PaintedPair
{
protected:
    void beginPair()
    {
        _pair = std::make_unique<TestHelpers::LinkedPair>();
        TestAccess::delay(link()) = Painting::never;
        span(QPointF(200, 0));
    }

    void endPair() { _pair.reset(); }

    static Network& network() { return *TestHelpers::network(); }
    Connection& link() { return *_pair->link; }

    /// Puts the link's ends around the middle.
    void span(const QPointF& difference)
    {
        _pair->sender->setPos(Painting::middle - difference / 2);
        _pair->receiver->setPos(Painting::middle + difference / 2);
    }

    void sendArriving() { _pair->sender->dataRequest(_pair->unicast()); }
    void sendLost() { _pair->sender->dataRequest(_pair->toNobody()); }

    /// Adds a row for each way in which a link can lie.
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

    /// Returns one unit to the side of a line.
    static QPointF across(const QPointF& difference)
    {
        return QPointF(-difference.y(), difference.x()) / std::hypot(difference.x(), difference.y());
    }

    std::unique_ptr<TestHelpers::LinkedPair> _pair;
};
