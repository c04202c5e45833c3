// What this process holds on the heap, and whether it has lost some of it.
#ifndef SOAK_HEAP_H
#define SOAK_HEAP_H

#include <cstdint>

namespace soak
{

// Bytes in use: of the whole process, as its allocator counts them.
uint64_t heap_bytes();

// Looks for leaks, which takes milliseconds, and prints them. Always false in a build that
// cannot.
bool has_leaked();

} // namespace soak

#endif
