// The library on the real OS layer, for one run, and what the process holds meanwhile.
#ifndef SOAK_REAL_LIBRARY_H
#define SOAK_REAL_LIBRARY_H

#include <cstdint>
#include <functional>

#include "noxcore.h"
#include "osa/osa_ext.h"

namespace soak
{

// Initialised, without trace lines, from here to the end of the scope, at which nothing may
// be alive.
class RealLibrary
{
public:
    explicit RealLibrary(const char *cache_path = "/dev/null"); // a cache without plugins
    ~RealLibrary();
    RealLibrary(const RealLibrary &) = delete;
    RealLibrary &operator=(const RealLibrary &) = delete;
};

// What the OS layer counts.
OSA_Alive alive();

// Threads of the process, as the kernel counts them.
uint32_t thread_count();

// Bytes of memory that the process occupies.
uint64_t resident_bytes();

// Sleeps until the condition holds; false when it does not within `limit_ms`.
bool comes_true(const std::function<bool()> &condition, uint32_t limit_ms = 20'000);

} // namespace soak

#endif
