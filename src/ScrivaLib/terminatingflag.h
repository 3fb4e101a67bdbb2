#pragma once

// Set once the host is shutting down. A worker blocked in a PIN dialogue reads it before and
// after every PIN request, so it ends instead of calling the token.
class TerminatingFlag
{
public:
    static void set();
    static bool isSet();
    // For tests that run several hosts' worth of work in one process.
    static void reset();
};
