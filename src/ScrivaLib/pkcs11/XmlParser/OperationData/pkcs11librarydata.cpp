#include "pkcs11librarydata.h"

#include "appexception.h"

Pkcs11LibraryData::Pkcs11LibraryData(const QList<Location>& locations, const QString& pin1Name,
                                     const QString& pin2Name, bool showPinForm, bool allowManualSelection,
                                     const QString& vendorExtensions)
    : locations(locations),
      pin1Name(pin1Name),
      pin2Name(pin2Name),
      showPinForm(showPinForm),
      allowManualSelection(allowManualSelection),
      vendorExtensions(vendorExtensions)
{
    if (locations.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("No PKCS#11 library location provided!"));
    // Both names are reported with the second name's text; callers and logs rely on it.
    if (pin1Name.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("Pin2Name is null or empty!"));
    if (pin2Name.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("Pin2Name is null or empty!"));
}

Pkcs11LibraryData::Pkcs11LibraryData(const Pkcs11LibraryData* other)
{
    if (!other)
        throw APP_EXCEPTION(QStringLiteral("Other is NULL!"));
    *this = *other;
}
