#pragma once

#include "x509certificate2ultra.h"

#include <QList>
#include <QPair>
#include <QString>

// The certificate chains the host trusts for server-signed requests and the policy the server's
// signing certificate must carry. Each chain starts with its trusted self-signed root; further
// certificates are intermediates offered for path building. A chain is labelled with the subject
// of its last certificate in OpenSSL's one-line form ("C = CZ, O = ..., CN = ...").
class TrustAnchors
{
public:
    using LabelledChain = QPair<QString, QList<X509Certificate2Ultra>>;

    TrustAnchors(const QList<QByteArray>& chainPemTexts, const QString& policyOid);

    // The anchors compiled into the program, read once per process.
    static const TrustAnchors& builtIn();

    const QList<LabelledChain>& chains() const { return labelledChains; }
    const QString& policyOid() const { return serverPolicyOid; }

    static QString oneLineSubject(const X509Certificate2Ultra& certificate);

private:
    QList<LabelledChain> labelledChains;
    QString serverPolicyOid;
};
