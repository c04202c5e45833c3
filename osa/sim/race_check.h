/*
 * What ThreadSanitizer is told of the simulator: nothing of its inside, and of
 * its operations exactly the order that the layer promises. Passing the turn
 * from thread to thread would otherwise order everything and hide every race.
 */
#ifndef OSA_SIM_RACE_CHECK_H
#define OSA_SIM_RACE_CHECK_H

#if defined(__SANITIZE_THREAD__)
#define SIM_RACE_CHECK 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SIM_RACE_CHECK 1
#endif
#endif

#ifdef SIM_RACE_CHECK
#include <sanitizer/tsan_interface.h>

extern "C" {
void AnnotateIgnoreReadsBegin(const char *file, int line);
void AnnotateIgnoreReadsEnd(const char *file, int line);
void AnnotateIgnoreWritesBegin(const char *file, int line);
void AnnotateIgnoreWritesEnd(const char *file, int line);
void AnnotateIgnoreSyncBegin(const char *file, int line);
void AnnotateIgnoreSyncEnd(const char *file, int line);
}
#endif

namespace sim
{

#ifdef SIM_RACE_CHECK

/* While one exists, the calling thread's accesses and synchronisation are unseen. */
class Unwatched
{
public:
    Unwatched()
    {
        AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
        AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
        AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
    }
    ~Unwatched()
    {
        AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
        AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
        AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
    }
    Unwatched(const Unwatched &) = delete;
    Unwatched &operator=(const Unwatched &) = delete;
};

/* What the caller did before comes before what follows an order_acquire of the
 * same address. Both are called with exactly one Unwatched in existence. */
inline void order_release(void *address)
{
    AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
    __tsan_release(address);
    AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
}

inline void order_acquire(void *address)
{
    AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
    __tsan_acquire(address);
    AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
}

#else

class Unwatched
{
public:
    Unwatched() {} // not defaulted: an unused guard must not warn
    ~Unwatched() {}
    Unwatched(const Unwatched &) = delete;
    Unwatched &operator=(const Unwatched &) = delete;
};

inline void order_release(void *) {}

inline void order_acquire(void *) {}

#endif

} // namespace sim

#endif
