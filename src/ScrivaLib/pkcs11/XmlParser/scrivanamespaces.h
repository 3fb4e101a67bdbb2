#pragma once

#include <QString>

// The two request document versions. The same strings are the schemas' target namespaces, the keys
// by which a request's schema is chosen and the namespace of the answer document.
namespace ScrivaNamespaces {

inline const QString& version20221229()
{
    static const QString uri = QStringLiteral("http://www.corvant.com/Scriva/Pkcs11Operation/2022/12/29");
    return uri;
}

inline const QString& version20260204()
{
    static const QString uri = QStringLiteral("http://www.corvant.com/Scriva/Pkcs11Operation/2026/02/04");
    return uri;
}

} // namespace ScrivaNamespaces
