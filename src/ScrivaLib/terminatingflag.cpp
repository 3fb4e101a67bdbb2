#include "terminatingflag.h"

#include <atomic>

namespace {
std::atomic<bool> terminating{false};
}

void TerminatingFlag::set()
{
    terminating.store(true);
}

bool TerminatingFlag::isSet()
{
    return terminating.load();
}

void TerminatingFlag::reset()
{
    terminating.store(false);
}
