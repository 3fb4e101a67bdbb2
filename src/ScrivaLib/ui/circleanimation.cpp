#include "circleanimation.h"

#include <QPainter>
#include <QPen>

CircleAnimation::CircleAnimation(qreal diameter, QGraphicsItem* parent)
    : QGraphicsObject(parent), diameter(diameter)
{
    animation.setStartValue(0);
    animation.setEndValue(360);
    animation.setDuration(1200);
    animation.setLoopCount(-1);
    connect(&animation, &QVariantAnimation::valueChanged, this, [this](const QVariant& value) {
        const int now = value.toInt();
        // A start shows the arc where the window's first paint draws it anyway: no second paint.
        if (now == angle)
            return;
        angle = now;
        update();
    });
}

QRectF CircleAnimation::boundingRect() const
{
    return QRectF(0, 0, diameter, diameter);
}

// Drawn smooth by the window's view, which antialiases its items.
void CircleAnimation::paint(QPainter* painter, const QStyleOptionGraphicsItem*, QWidget*)
{
    const qreal width = diameter / 10;
    const QRectF arc = boundingRect().adjusted(width, width, -width, -width);
    painter->setPen(QPen(QColor(220, 220, 220), width));
    painter->drawEllipse(arc);
    painter->setPen(QPen(QColor(0, 94, 170), width, Qt::SolidLine, Qt::RoundCap));
    // Qt angles are in sixteenths of a degree, counter-clockwise.
    painter->drawArc(arc, -angle * 16, 100 * 16);
}

void CircleAnimation::start()
{
    // A running animation goes on where it is.
    animation.start();
}

void CircleAnimation::stop()
{
    animation.stop();
    // Every start begins at the start value; the hidden window is drawn that way when shown again.
    angle = animation.startValue().toInt();
}
