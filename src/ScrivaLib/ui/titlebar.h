#pragma once

#include <QLabel>
#include <QPoint>
#include <QToolButton>
#include <QVector2D>
#include <QWidget>

// The title bar of the host's frameless windows: the title, a close button, and dragging. A drag
// is handed to the desktop where it moves windows itself (a Wayland compositor places every
// window; an X window manager), and reported as a move vector elsewhere.
class TitleBar : public QWidget
{
    Q_OBJECT

public:
    explicit TitleBar(QWidget* parent = nullptr);

    void setTitle(const QString& title);
    QString title() const;

signals:
    void moveVectorEvent(QVector2D vector);
    void closeBtnClicked();

protected:
    void changeEvent(QEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    QLabel* titleLabel;
    QToolButton* closeButton;
    QPoint dragOrigin;
    bool dragging = false;
};
