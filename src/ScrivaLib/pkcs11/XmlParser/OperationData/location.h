#pragma once

#include <QString>

// One candidate PKCS#11 module of a request: its file and the process width it was built for.
class Location
{
public:
    enum class Architecture { both = 0, x86 = 1, x64 = 2 };

    Location() = default;
    Location(const QString& path, Architecture architecture);
    // Copies another location; refuses a null pointer.
    explicit Location(const Location* other);

    const QString& getPath() const { return path; }
    Architecture getArchitecture() const { return architecture; }

private:
    QString path;
    Architecture architecture = Architecture::both;
};
