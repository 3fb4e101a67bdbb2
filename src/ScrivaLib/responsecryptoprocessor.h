#pragma once

#include "trustanchors.h"
#include "x509certificate2ultra.h"

#include <QByteArray>
#include <QList>
#include <QString>

typedef struct CMS_ContentInfo_st CMS_ContentInfo;

// Opens a server-signed request: a CMS SignedData whose encapsulated content is the request XML.
// The signature must be valid, there must be exactly one signer, and the signer's certificate must
// chain to one of the built-in trust anchors, carry the server policy and be valid now. Anything
// else is refused, trust failures with the single word "CommunicationMismatchUnstrustedServer".
// One short-lived object per request, used on one thread.
class ResponseCryptoProcessor
{
public:
    ResponseCryptoProcessor();

    // Base64 text of the DER CMS -> verified content (see getCmsContent).
    void processBase64CmsSignedData(const QString& text);
    // Parses the CMS, checks its signature and keeps its content and its signer certificate.
    void processCmsSignedData(const QByteArray& der);
    X509Certificate2Ultra verifyCmsSignature(CMS_ContentInfo* cms);
    // Trust checks of the kept signer certificate.
    void verifyServerCertificate();

    QString getCmsContent() const { return cmsContent; }
    // The signer of the last processed CMS; trusted once verifyServerCertificate has returned.
    const X509Certificate2Ultra& getServerCertificate() const { return serverCertificate; }
    // The built-in chain that accepted the signer; empty until then.
    const QList<X509Certificate2Ultra>& getIssuerChain() const { return issuerChain; }

private:
    // Everything in this thread's OpenSSL error queue as text; empties the queue.
    static QString getOpenSslErrors();

    QList<TrustAnchors::LabelledChain> trustedChains;
    QString policyOid;
    QString cmsContent;
    X509Certificate2Ultra serverCertificate;
    QList<X509Certificate2Ultra> issuerChain;
};
