#pragma once

#include <QAccessible>

class QWidget;

// The roles a screen reader announces for the host's widgets where their classes say nothing of
// their meaning: plain containers only arrange others, and a widget may be given the role it plays.
namespace AccessibleRoles {

// Lets the roles count for every widget whose accessible side is first asked for afterwards;
// installing again changes nothing.
void install();
// The role a screen reader announces for the widget, in place of its class's (before it is shown).
void set(QWidget* widget, QAccessible::Role role);

} // namespace AccessibleRoles
