#include "titlebar.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QMouseEvent>
#include <QWindow>

TitleBar::TitleBar(QWidget* parent)
    : QWidget(parent), titleLabel(new QLabel(this)), closeButton(new QToolButton(this))
{
    setMouseTracking(true);
    closeButton->setText(QStringLiteral("\u2715"));
    // A screen reader says what the button does, not the sign it shows.
    closeButton->setAccessibleName(tr("Close"));
    closeButton->setAutoRaise(true);
    // As in a system title bar: the close button is for the mouse, the keyboard has Escape.
    closeButton->setFocusPolicy(Qt::NoFocus);
    QFont font = titleLabel->font();
    font.setBold(true);
    titleLabel->setFont(font);
    // A shade darker than the window, so the bar reads as the window's title.
    QPalette shade = palette();
    shade.setColor(QPalette::Window, shade.color(QPalette::Window).darker(110));
    setPalette(shade);
    setAutoFillBackground(true);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(12, 4, 4, 4);
    layout->addWidget(titleLabel);
    layout->addWidget(closeButton);
    connect(closeButton, &QToolButton::clicked, this, &TitleBar::closeBtnClicked);
}

void TitleBar::setTitle(const QString& title)
{
    titleLabel->setText(title);
}

QString TitleBar::title() const
{
    return titleLabel->text();
}

void TitleBar::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange)
        closeButton->setAccessibleName(tr("Close"));
    QWidget::changeEvent(event);
}

// The bar takes the mouse's presses for itself: only a drag with the left button moves the window.
void TitleBar::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton)
        return;
    // Refused where the platform has no such move (no window manager on X, the offscreen
    // platform): then the bar reports the mouse's moves and the window follows them itself.
    QWindow* handle = window()->windowHandle();
    dragging = !(handle && handle->startSystemMove());
    dragOrigin = event->globalPosition().toPoint();
}

void TitleBar::mouseMoveEvent(QMouseEvent* event)
{
    if (dragging) {
        const QPoint now = event->globalPosition().toPoint();
        const QPoint delta = now - dragOrigin;
        dragOrigin = now;
        emit moveVectorEvent(QVector2D(float(delta.x()), float(delta.y())));
    }
}

void TitleBar::mouseReleaseEvent(QMouseEvent*)
{
    dragging = false;
}
