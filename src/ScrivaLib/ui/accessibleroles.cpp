#include "accessibleroles.h"

#include <QAccessibleWidget>
#include <QVariant>
#include <QWidget>

namespace {

constexpr char roleProperty[] = "scrivaAccessibleRole";

QAccessibleInterface* interfaceFor(const QString& className, QObject* object)
{
    auto* widget = qobject_cast<QWidget*>(object);
    if (!widget || widget->isWindow())
        return nullptr;
    const QVariant role = widget->property(roleProperty);
    if (role.isValid())
        return new QAccessibleWidget(widget, QAccessible::Role(role.toInt()));
    // A plain widget or frame only arranges others. As a panel without a name a screen reader
    // passes over it; as a frame it would be announced as a window of its own.
    if (className == QLatin1String("QWidget") || className == QLatin1String("QFrame"))
        return new QAccessibleWidget(widget, QAccessible::Pane);
    return nullptr;
}

} // namespace

void AccessibleRoles::install()
{
    QAccessible::installFactory(interfaceFor);
}

void AccessibleRoles::set(QWidget* widget, QAccessible::Role role)
{
    widget->setProperty(roleProperty, int(role));
}
