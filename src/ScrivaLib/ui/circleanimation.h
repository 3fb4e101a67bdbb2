#pragma once

#include <QGraphicsObject>
#include <QVariantAnimation>

// The wait animation of the host window: an arc that turns while an operation runs.
class CircleAnimation : public QGraphicsObject
{
    Q_OBJECT

public:
    explicit CircleAnimation(qreal diameter = 64, QGraphicsItem* parent = nullptr);

    QRectF boundingRect() const override;
    void paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* widget) override;

    void start();
    void stop();

private:
    qreal diameter;
    int angle = 0;
    QVariantAnimation animation;
};
