// Recursive mutexes, on plain ones of the system: who holds one is known here, so
// that the destruction of a mutex in use is refused before the system sees it,
// where it would be undefined.

#include "osa/common/export.h"

#include <atomic>
#include <cerrno>
#include <new>

#include <pthread.h>

#include "osa/posix/monitor.h"
#include "osa/posix/report.h"
#include "osa/posix/thread_state.h"

#if defined(__SANITIZE_THREAD__)
#define OSA_WITH_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OSA_WITH_TSAN 1
#endif
#endif

#ifdef OSA_WITH_TSAN
#include <sanitizer/tsan_interface.h>
#endif

struct OSA_Mutex {
    pthread_mutex_t handle = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<const void *> holder{nullptr}; // a thread, by an address of its own
    uint32_t depth = 0;                        // locks of the holder, which alone looks
    std::atomic<uint32_t> waiting{0};          // threads that found it locked
};

namespace
{

constinit thread_local char t_self __attribute__((tls_model("initial-exec"))) = 0;

// Relaxed, since a thread only asks whether it holds the mutex itself.
bool is_mine(const OSA_Mutex &mutex)
{
    return mutex.holder.load(std::memory_order_relaxed) == &t_self;
}

// ThreadSanitizer does not know pthread_mutex_clocklock, so it is told.
int lock_until(pthread_mutex_t *mutex, const timespec &deadline)
{
#ifdef OSA_WITH_TSAN
    const unsigned flags = __tsan_mutex_try_lock;
    __tsan_mutex_pre_lock(mutex, flags);
    const int result = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &deadline);
    __tsan_mutex_post_lock(mutex, result == 0 ? flags : flags | __tsan_mutex_try_lock_failed, 0);
    return result;
#else
    return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &deadline);
#endif
}

int lock(OSA_Mutex &mutex, uint32_t timeout_ms)
{
    const int result = pthread_mutex_trylock(&mutex.handle);
    if (result != EBUSY || timeout_ms == 0)
        return result;
    mutex.waiting.fetch_add(1, std::memory_order_relaxed);
    const int waited = timeout_ms == OSA_WAIT_FOREVER
                           ? pthread_mutex_lock(&mutex.handle)
                           : lock_until(&mutex.handle, osa::deadline_after(timeout_ms));
    mutex.waiting.fetch_sub(1, std::memory_order_release);
    return waited;
}

// Whoever gets the lock at once knows of no holder, and comes after all that the last
// one did.
bool is_in_use(OSA_Mutex &mutex)
{
    if (pthread_mutex_trylock(&mutex.handle) != 0)
        return true;
    const bool waited_for = mutex.waiting.load(std::memory_order_acquire) != 0;
    pthread_mutex_unlock(&mutex.handle);
    return waited_for;
}

} // namespace

extern "C" {

OSA_Mutex *OSA_MutexCreate(void)
{
    OSA_Mutex *mutex = new (std::nothrow) OSA_Mutex;
    if (mutex != nullptr)
        osa::count_alive(osa::Kind::mutex, 1);
    return mutex;
}

int32_t OSA_MutexDestroy(OSA_Mutex *mutex)
{
    if (mutex == nullptr)
        return -1;
    if (is_in_use(*mutex)) {
        OSA_REPORT(OSA_TRACE_ERROR, "mutex %p not destroyed: a thread holds it or waits for it\n",
                   static_cast<void *>(mutex));
        return -1;
    }
    pthread_mutex_destroy(&mutex->handle);
    delete mutex;
    osa::count_alive(osa::Kind::mutex, -1);
    return 0;
}

int32_t OSA_MutexLock(OSA_Mutex *mutex, uint32_t timeout_ms)
{
    if (mutex == nullptr)
        return -1;
    if (!is_mine(*mutex)) {
        if (lock(*mutex, timeout_ms) != 0)
            return -1;
        mutex->holder.store(&t_self, std::memory_order_relaxed);
    }
    ++mutex->depth;
    return 0;
}

int32_t OSA_MutexUnLock(OSA_Mutex *mutex)
{
    if (mutex == nullptr || !is_mine(*mutex))
        return -1;
    if (--mutex->depth == 0) {
        mutex->holder.store(nullptr, std::memory_order_relaxed);
        pthread_mutex_unlock(&mutex->handle);
    }
    return 0;
}

} // extern "C"
