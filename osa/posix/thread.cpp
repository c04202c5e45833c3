// Threads, sleeping, and the tick.

#include "osa/common/export.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <new>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include "osa/posix/monitor.h"
#include "osa/posix/report.h"
#include "osa/posix/thread_state.h"

namespace
{

constexpr size_t kNameSize = 16; // what the kernel takes, the closing zero included
constexpr size_t kSmallestStack = 128 << 10;
constexpr uint32_t kFirstReport = 1;  // seconds that a thread to be deleted may take
constexpr uint32_t kNextReports = 10; // seconds between further reports

} // namespace

struct OSA_Thread {
    OSA_ThreadEntry entry = nullptr;
    void *argument = nullptr;
    char name[kNameSize] = {};
    pthread_t id = {};
    std::jmp_buf exit_point; // where OSA_ThreadExit goes
    osa::Monitor monitor;
    bool ended = false;
    int32_t status = 0;
};

namespace
{

constinit thread_local OSA_Thread *t_self = nullptr;

// Runs as the thread ends, whichever way it takes.
class EndNotice
{
public:
    explicit EndNotice(OSA_Thread &thread) : m_thread(thread) {}
    ~EndNotice()
    {
        const osa::Monitor::Lock lock(m_thread.monitor);
        m_thread.ended = true;
        m_thread.monitor.signal();
    }
    EndNotice(const EndNotice &) = delete;
    EndNotice &operator=(const EndNotice &) = delete;

private:
    OSA_Thread &m_thread;
};

// A jump ends the entry from any depth: unwinding would run destructors, and end
// the process at the first frame that may not throw.
void run_entry(OSA_Thread &thread)
{
    if (setjmp(thread.exit_point) == 0)
        thread.status = thread.entry(thread.argument);
}

void *thread_main(void *argument)
{
    OSA_Thread &thread = *static_cast<OSA_Thread *>(argument);
    const EndNotice notice(thread);
    t_self = &thread;
    pthread_setname_np(pthread_self(), thread.name);
    run_entry(thread);
    return nullptr;
}

size_t stack_bytes(size_t asked)
{
    const long system_minimum = sysconf(_SC_THREAD_STACK_MIN);
    const size_t minimum = system_minimum > 0 ? static_cast<size_t>(system_minimum) : 0;
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (std::max({asked, minimum, kSmallestStack}) + page - 1) / page * page;
}

class Attributes
{
public:
    explicit Attributes(size_t stack_size)
    {
        pthread_attr_init(&m_attributes);
        pthread_attr_setstacksize(&m_attributes, stack_size);
    }
    ~Attributes()
    {
        pthread_attr_destroy(&m_attributes);
    }
    Attributes(const Attributes &) = delete;
    Attributes &operator=(const Attributes &) = delete;

    // Without it a thread inherits the scheduling of its creator.
    void schedule(int policy, int priority)
    {
        sched_param parameters = {};
        parameters.sched_priority = priority;
        pthread_attr_setinheritsched(&m_attributes, PTHREAD_EXPLICIT_SCHED);
        pthread_attr_setschedpolicy(&m_attributes, policy);
        pthread_attr_setschedparam(&m_attributes, &parameters);
    }

    int start(OSA_Thread &thread) const
    {
        return pthread_create(&thread.id, &m_attributes, thread_main, &thread);
    }

private:
    pthread_attr_t m_attributes;
};

int start_in_real_time(OSA_Thread &thread, int32_t priority, size_t stack_size)
{
    Attributes attributes(stack_size);
    attributes.schedule(SCHED_RR, std::min(priority, sched_get_priority_max(SCHED_RR)));
    const int result = attributes.start(thread);
    if (result == EPERM)
        OSA_REPORT(OSA_TRACE_NOTICE,
                   "real-time priority %d is not permitted: thread \"%s\" has the default one\n",
                   priority, thread.name);
    return result;
}

int start_by_default(OSA_Thread &thread, size_t stack_size)
{
    Attributes attributes(stack_size);
    attributes.schedule(SCHED_OTHER, 0);
    const int result = attributes.start(thread);
    return result == EPERM ? Attributes(stack_size).start(thread) : result;
}

int start(OSA_Thread &thread, int32_t priority, size_t stack_size)
{
    const int result = priority > 0 ? start_in_real_time(thread, priority, stack_size) : EPERM;
    return result == EPERM ? start_by_default(thread, stack_size) : result;
}

bool ends_by(OSA_Thread &thread, const timespec &deadline)
{
    const osa::Monitor::Lock lock(thread.monitor);
    return thread.monitor.wait_until(deadline, [&] { return thread.ended; });
}

} // namespace

extern "C" {

OSA_Thread *OSA_ThreadCreate(const char *name, int32_t priority, uint32_t stack_size,
                             OSA_ThreadEntry entry, void *argument)
{
    OSA_Thread *thread = entry != nullptr ? new (std::nothrow) OSA_Thread : nullptr;
    if (thread == nullptr)
        return nullptr;
    thread->entry = entry;
    thread->argument = argument;
    std::snprintf(thread->name, kNameSize, "%s", name != nullptr ? name : "");
    const int result = start(*thread, priority, stack_bytes(stack_size));
    if (result != 0) {
        OSA_REPORT(OSA_TRACE_ERROR, "thread \"%s\" cannot be started: %s\n", thread->name,
                   std::strerror(result));
        delete thread;
        return nullptr;
    }
    osa::count_alive(osa::Kind::thread, 1);
    return thread;
}

void OSA_ThreadExit(int32_t status)
{
    if (t_self == nullptr) {
        OSA_REPORT(OSA_TRACE_ERROR, "a thread that this layer did not create goes on: it cannot be "
                                    "ended from here\n");
        return;
    }
    t_self->status = status;
    std::longjmp(t_self->exit_point, 1);
}

int32_t OSA_ThreadDelete(OSA_Thread *thread, int32_t *status)
{
    if (thread == nullptr)
        return -1;
    if (thread == t_self) {
        OSA_REPORT(OSA_TRACE_ERROR, "thread \"%s\" cannot delete itself\n", thread->name);
        return -1;
    }
    // Counted from here on, so that a line that is slow to write puts off none.
    timespec report_at = osa::deadline_after(kFirstReport * osa::kMillisecondsPerSecond);
    for (uint32_t waited = kFirstReport; !ends_by(*thread, report_at); waited += kNextReports) {
        OSA_REPORT(OSA_TRACE_ERROR, "thread \"%s\" does not end: waited %u s, waiting on\n",
                   thread->name, waited);
        report_at.tv_sec += kNextReports;
    }
    pthread_join(thread->id, nullptr);
    if (status != nullptr)
        *status = thread->status;
    delete thread;
    osa::count_alive(osa::Kind::thread, -1);
    return 0;
}

void OSA_ThreadSleep(uint32_t duration_ms)
{
    const timespec deadline = osa::deadline_after(duration_ms);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

uint64_t OSA_GetSystemTick(void)
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * osa::kMillisecondsPerSecond +
           static_cast<uint64_t>(now.tv_nsec / osa::kNanosecondsPerMillisecond);
}

} // extern "C"
