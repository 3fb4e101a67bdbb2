#pragma once

#include <p11-kit/pkcs11.h>

class Pkcs11Library;

// Closes its session when it goes out of scope, whichever way the scope is left.
class Pkcs11SessionGuard
{
public:
    Pkcs11SessionGuard(Pkcs11Library* library, CK_SESSION_HANDLE session) : library(library), session(session) {}
    ~Pkcs11SessionGuard();
    Pkcs11SessionGuard(const Pkcs11SessionGuard&) = delete;
    Pkcs11SessionGuard& operator=(const Pkcs11SessionGuard&) = delete;

    CK_SESSION_HANDLE handle() const { return session; }
    // Closes now; a failure raises. The guard no longer owns the session either way.
    void close();

private:
    Pkcs11Library* library;
    CK_SESSION_HANDLE session;
    bool open = true;
};
