// A lock with a condition to wait for under it, measured on the monotonic clock.
#ifndef OSA_POSIX_MONITOR_H
#define OSA_POSIX_MONITOR_H

#include <cstdint>
#include <ctime>
#include <mutex>

#include <pthread.h>

#include "osa/osa.h"

namespace osa
{

constexpr uint32_t kMillisecondsPerSecond = 1000;
constexpr long kNanosecondsPerMillisecond = 1000000;

inline timespec deadline_after(uint32_t timeout_ms)
{
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeout_ms / kMillisecondsPerSecond);
    deadline.tv_nsec +=
        static_cast<long>(timeout_ms % kMillisecondsPerSecond) * kNanosecondsPerMillisecond;
    const long second = kMillisecondsPerSecond * kNanosecondsPerMillisecond;
    if (deadline.tv_nsec >= second) {
        ++deadline.tv_sec;
        deadline.tv_nsec -= second;
    }
    return deadline;
}

class Monitor
{
public:
    using Lock = std::lock_guard<Monitor>;

    Monitor()
    {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&m_condition, &attributes);
        pthread_condattr_destroy(&attributes);
    }
    ~Monitor()
    {
        pthread_cond_destroy(&m_condition);
        pthread_mutex_destroy(&m_mutex);
    }
    Monitor(const Monitor &) = delete;
    Monitor &operator=(const Monitor &) = delete;

    void lock()
    {
        pthread_mutex_lock(&m_mutex);
    }
    void unlock()
    {
        pthread_mutex_unlock(&m_mutex);
    }

    // Under the lock, which a waiter that returns may destroy with the monitor.
    void signal()
    {
        pthread_cond_signal(&m_condition);
    }

    // Under the lock: lets every waiter look again.
    void signal_all()
    {
        pthread_cond_broadcast(&m_condition);
    }

    // Under the lock: waits until ready() or the time-out; what ready() says then.
    template <typename Ready>
    bool wait(uint32_t timeout_ms, Ready ready)
    {
        if (ready())
            return true;
        if (timeout_ms == 0)
            return false;
        if (timeout_ms == OSA_WAIT_FOREVER) {
            while (!ready())
                pthread_cond_wait(&m_condition, &m_mutex);
            return true;
        }
        return wait_until(deadline_after(timeout_ms), ready);
    }

    // The same with the monotonic time at which it ends.
    template <typename Ready>
    bool wait_until(const timespec &deadline, Ready ready)
    {
        while (!ready())
            if (pthread_cond_timedwait(&m_condition, &m_mutex, &deadline) != 0)
                return ready();
        return true;
    }

private:
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t m_condition;
};

} // namespace osa

#endif
