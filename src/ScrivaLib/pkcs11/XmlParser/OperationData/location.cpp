#include "location.h"

#include "appexception.h"

Location::Location(const QString& path, Architecture architecture) : path(path), architecture(architecture) {}

Location::Location(const Location* other)
{
    if (!other)
        throw APP_EXCEPTION(QStringLiteral("Other is NULL!"));
    path = other->path;
    architecture = other->architecture;
}
