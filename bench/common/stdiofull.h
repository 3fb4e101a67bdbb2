#pragma once

// Whole reads and writes on stdin/stdout for the minimal echo hosts the benchmarks compare with.
#include <cstddef>
#include <unistd.h>

inline bool readAll(void* buffer, size_t size)
{
    auto* p = static_cast<char*>(buffer);
    while (size > 0) {
        const ssize_t n = read(0, p, size);
        if (n <= 0)
            return false;
        p += n;
        size -= size_t(n);
    }
    return true;
}

inline bool writeAll(const void* buffer, size_t size)
{
    auto* p = static_cast<const char*>(buffer);
    while (size > 0) {
        const ssize_t n = write(1, p, size);
        if (n <= 0)
            return false;
        p += n;
        size -= size_t(n);
    }
    return true;
}
