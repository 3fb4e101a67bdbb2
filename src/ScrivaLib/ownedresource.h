#pragma once

#include <memory>

// Owners for C resources: std::unique_ptr with the library's own release function, e.g.
//   Owned<X509, X509_free> cert(d2i_X509(...));
template<auto F>
struct Free
{
    template<typename T>
    void operator()(T* p) const
    {
        if (p)
            F(p);
    }
};

template<typename T, auto F>
using Owned = std::unique_ptr<T, Free<F>>;
