// Threads, sleeping and the tick.

#include <pthread.h>
#include <unistd.h>

#include <algorithm>

#include "osa/sim/world.h"

using sim::Entry;
using sim::Kind;

namespace
{

constexpr uint64_t first_warning_ms = 1000;
constexpr uint64_t next_warning_ms = 10'000;

void trace_refused(const OSA_Thread &thread)
{
    OSA_Trace("osa", OSA_TRACE_ERROR, "osa", __LINE__, "OSA_ThreadDelete",
              "thread \"%s\" cannot delete itself\n", thread.name.c_str());
}

void trace_slow_end(const OSA_Thread &thread, uint64_t waited_ms)
{
    OSA_Trace("osa", OSA_TRACE_ERROR, "osa", __LINE__, "OSA_ThreadDelete",
              "thread \"%s\" does not end: waited %u s, waiting on\n", thread.name.c_str(),
              static_cast<uint32_t>(waited_ms / 1000));
}

void end_thread(int32_t status)
{
    Entry layer;
    OSA_Thread &self = layer->scheduler.running();
    if (self.locks_held > 0)
        layer.misuse("thread", self.text() + " ends while it holds a mutex");
    self.status = status;
    sim::order_release(&self);
    layer->scheduler.finish();
}

void *run_thread(void *argument)
{
    auto *self = static_cast<OSA_Thread *>(argument);
    {
        const sim::Unwatched unwatched;
        sim::Scheduler::enter(*self);
        sim::order_acquire(self);
    }
    if (setjmp(self->exit_point) == 0)
        end_thread(self->entry(self->argument));
    return nullptr;
}

bool start(OSA_Thread &thread, uint32_t stack_size)
{
    // Sanitizers and debug builds need more stack than a product does.
    constexpr size_t spare = 256 * 1024;
    const auto minimum = static_cast<size_t>(sysconf(_SC_THREAD_STACK_MIN));
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return false;
    bool is_running =
        pthread_attr_setstacksize(&attributes, std::max<size_t>(stack_size, minimum) + spare) == 0;
    is_running =
        is_running && pthread_create(&thread.system_thread, &attributes, run_thread, &thread) == 0;
    pthread_attr_destroy(&attributes);
    return is_running;
}

// Whether the thread may be waited for by the caller, who is then its only waiter.
bool claim(OSA_Thread *thread)
{
    Entry layer;
    layer->scheduler.point();
    if (!layer.check(thread, Kind::thread, "OSA_ThreadDelete"))
        return false;
    if (thread == &layer->scheduler.running())
        return true;
    if (thread->is_joined) {
        layer.misuse("OSA_ThreadDelete", thread->text() + " is being deleted already");
        return false;
    }
    thread->is_joined = true;
    return true;
}

bool ends_by(const OSA_Thread &thread, uint64_t deadline)
{
    Entry layer;
    sim::Wait wait;
    wait.object = &thread;
    wait.deadline = deadline;
    wait.is_patient = true;
    return layer->scheduler.wait(wait);
}

} // namespace

OSA_Thread *OSA_ThreadCreate(const char *name, int32_t, uint32_t stack_size, OSA_ThreadEntry entry,
                             void *argument)
{
    Entry layer;
    layer->scheduler.point();
    if (layer.must_fail("OSA_ThreadCreate", SIM_CALLER) || entry == nullptr)
        return nullptr;
    auto *thread = layer->handles.make<OSA_Thread>(SIM_CALLER, name);
    thread->entry = entry;
    thread->argument = argument;
    sim::order_release(thread);
    if (!layer->processor)
        layer->processor.emplace();
    if (!start(*thread, stack_size)) {
        layer->handles.bury(thread);
        return nullptr;
    }
    layer->scheduler.add(*thread);
    return thread;
}

void OSA_ThreadExit(int32_t status)
{
    OSA_Thread *self = sim::Scheduler::calling();
    {
        Entry layer;
        layer->scheduler.point();
        if (!layer->handles.is_alive(self, Kind::thread)) {
            layer.misuse("OSA_ThreadExit", "called on the thread \"main\"");
            return;
        }
    }
    end_thread(status);
    std::longjmp(self->exit_point, 1);
}

int32_t OSA_ThreadDelete(OSA_Thread *thread, int32_t *status)
{
    if (!claim(thread))
        return -1;
    if (thread == sim::Scheduler::calling()) {
        trace_refused(*thread);
        return -1;
    }
    const uint64_t start = Entry()->scheduler.now();
    for (uint64_t waited_ms = first_warning_ms; !ends_by(*thread, start + waited_ms);
         waited_ms += next_warning_ms)
        trace_slow_end(*thread, waited_ms);
    Entry layer;
    sim::order_acquire(thread);
    pthread_join(thread->system_thread, nullptr);
    if (status != nullptr)
        *status = thread->status;
    layer->handles.bury(thread);
    return 0;
}

void OSA_ThreadSleep(uint32_t duration_ms)
{
    Entry layer;
    layer->scheduler.point();
    sim::Wait sleep;
    sleep.deadline = layer->scheduler.deadline_in(duration_ms);
    layer->scheduler.wait(sleep);
}

uint64_t OSA_GetSystemTick(void)
{
    Entry layer;
    layer->scheduler.point();
    return layer->scheduler.tick();
}
