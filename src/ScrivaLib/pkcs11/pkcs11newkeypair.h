#pragma once

#include <p11-kit/pkcs11.h>

class Pkcs11Library;

// The key pair a certificate request has just made on the token. Unless the request succeeds and
// keeps it (release), both keys are destroyed when this goes out of scope, in the session that
// made them, so an enrolment that fails half-way leaves no keys behind to fill the token. Must go
// before the session closes. A key that cannot be destroyed is logged; the failure that is being
// reported stays the one reported.
class Pkcs11NewKeyPair
{
public:
    Pkcs11NewKeyPair(Pkcs11Library* library, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE publicKey,
                     CK_OBJECT_HANDLE privateKey)
        : library(library), session(session), publicKey(publicKey), privateKey(privateKey)
    {
    }
    ~Pkcs11NewKeyPair();
    Pkcs11NewKeyPair(const Pkcs11NewKeyPair&) = delete;
    Pkcs11NewKeyPair& operator=(const Pkcs11NewKeyPair&) = delete;

    // The request succeeded: the keys stay on the token.
    void release() { kept = true; }

private:
    void destroy(CK_OBJECT_HANDLE key) noexcept;

    Pkcs11Library* library;
    CK_SESSION_HANDLE session;
    CK_OBJECT_HANDLE publicKey;
    CK_OBJECT_HANDLE privateKey;
    bool kept = false;
};
