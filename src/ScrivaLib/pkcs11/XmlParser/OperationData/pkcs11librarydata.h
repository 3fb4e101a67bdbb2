#pragma once

#include "location.h"

#include <QList>
#include <QString>

// Which PKCS#11 module a request wants loaded and how the user is asked for PINs.
class Pkcs11LibraryData
{
public:
    Pkcs11LibraryData(const QList<Location>& locations, const QString& pin1Name, const QString& pin2Name,
                      bool showPinForm, bool allowManualSelection, const QString& vendorExtensions);
    // Copies another record; refuses a null pointer.
    explicit Pkcs11LibraryData(const Pkcs11LibraryData* other);

    const QList<Location>& getLocations() const { return locations; }
    const QString& getPin1Name() const { return pin1Name; }
    const QString& getPin2Name() const { return pin2Name; }
    bool getShowPinForm() const { return showPinForm; }
    bool getAllowManualSelection() const { return allowManualSelection; }
    const QString& getVendorExtensions() const { return vendorExtensions; }

private:
    QList<Location> locations;
    QString pin1Name;
    QString pin2Name;
    bool showPinForm = false;
    bool allowManualSelection = false;
    QString vendorExtensions;
};
