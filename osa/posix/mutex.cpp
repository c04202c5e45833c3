// Recursive mutexes.

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
    pthread_mutex_t handle;
    std::atomic<uint32_t> waiting{0}; // threads that found it locked
};

namespace
{

class RecursiveAttributes
{
public:
    RecursiveAttributes()
    {
        pthread_mutexattr_init(&m_attributes);
        pthread_mutexattr_settype(&m_attributes, PTHREAD_MUTEX_RECURSIVE);
    }
    ~RecursiveAttributes()
    {
        pthread_mutexattr_destroy(&m_attributes);
    }
    RecursiveAttributes(const RecursiveAttributes &) = delete;
    RecursiveAttributes &operator=(const RecursiveAttributes &) = delete;

    const pthread_mutexattr_t *get() const
    {
        return &m_attributes;
    }

private:
    pthread_mutexattr_t m_attributes;
};

// ThreadSanitizer does not know pthread_mutex_clocklock, so it is told.
int lock_until(pthread_mutex_t *mutex, const timespec &deadline)
{
#ifdef OSA_WITH_TSAN
    const unsigned flags = __tsan_mutex_try_lock | __tsan_mutex_write_reentrant;
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

} // namespace

extern "C" {

OSA_Mutex *OSA_MutexCreate(void)
{
    OSA_Mutex *mutex = new (std::nothrow) OSA_Mutex;
    if (mutex == nullptr)
        return nullptr;
    if (pthread_mutex_init(&mutex->handle, RecursiveAttributes().get()) != 0) {
        delete mutex;
        return nullptr;
    }
    osa::count_alive(osa::Kind::mutex, 1);
    return mutex;
}

int32_t OSA_MutexDestroy(OSA_Mutex *mutex)
{
    if (mutex == nullptr)
        return -1;
    // The system says that it is held, not that a thread waits for its turn.
    if (mutex->waiting.load(std::memory_order_acquire) != 0 ||
        pthread_mutex_destroy(&mutex->handle) != 0) {
        OSA_REPORT(OSA_TRACE_ERROR, "mutex %p not destroyed: a thread holds it or waits for it\n",
                   static_cast<void *>(mutex));
        return -1;
    }
    delete mutex;
    osa::count_alive(osa::Kind::mutex, -1);
    return 0;
}

int32_t OSA_MutexLock(OSA_Mutex *mutex, uint32_t timeout_ms)
{
    return mutex != nullptr && lock(*mutex, timeout_ms) == 0 ? 0 : -1;
}

int32_t OSA_MutexUnLock(OSA_Mutex *mutex)
{
    return mutex != nullptr && pthread_mutex_unlock(&mutex->handle) == 0 ? 0 : -1;
}

} // extern "C"
