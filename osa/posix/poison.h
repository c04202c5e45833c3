// Memory that the layer keeps for later use, made untouchable in a build with
// AddressSanitizer so that a use after giving back is found; nothing otherwise.
#ifndef OSA_POSIX_POISON_H
#define OSA_POSIX_POISON_H

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define OSA_WITH_POISON 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OSA_WITH_POISON 1
#endif
#endif

#ifdef OSA_WITH_POISON
#include <sanitizer/asan_interface.h>
#endif

namespace osa
{

#ifdef OSA_WITH_POISON

constexpr size_t kRedZone = 16; // untouchable bytes behind each pool block

inline void poison(void *memory, size_t size)
{
    __asan_poison_memory_region(memory, size);
}

inline void unpoison(void *memory, size_t size)
{
    __asan_unpoison_memory_region(memory, size);
}

// Giving a block back twice touches one that is kept already.
inline void touch(const void *memory)
{
    static_cast<void>(*static_cast<const volatile char *>(memory));
}

#else

constexpr size_t kRedZone = 0;

inline void poison(void *, size_t) {}

inline void unpoison(void *, size_t) {}

inline void touch(const void *) {}

#endif

} // namespace osa

#endif
