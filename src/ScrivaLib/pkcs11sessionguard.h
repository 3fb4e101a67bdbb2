#pragma once

#include <p11-kit/pkcs11.h>

#include <functional>

// Closes its session when it goes out of scope, whichever way the scope is left. It knows only how
// to close: the module wrapper hands it that (Pkcs11Library::guard).
class Pkcs11SessionGuard
{
public:
    using Closer = std::function<void(CK_SESSION_HANDLE)>;

    Pkcs11SessionGuard(CK_SESSION_HANDLE session, Closer closer) : session(session), closer(std::move(closer)) {}
    ~Pkcs11SessionGuard();
    Pkcs11SessionGuard(const Pkcs11SessionGuard&) = delete;
    Pkcs11SessionGuard& operator=(const Pkcs11SessionGuard&) = delete;

    CK_SESSION_HANDLE handle() const { return session; }
    // Closes now; a failure raises. The guard no longer owns the session either way.
    void close();

private:
    CK_SESSION_HANDLE session;
    Closer closer;
    bool open = true;
};
