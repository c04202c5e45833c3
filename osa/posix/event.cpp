// Events: they latch, and each send releases one waiter.
//
// A send that finds a waiter not yet released releases it, even though that
// thread has yet to run; any other send latches, for the next thread to come.
// So two sends release two waiters, however late these wake up.

#include "osa/common/export.h"

#include <new>

#include "osa/posix/monitor.h"
#include "osa/posix/report.h"
#include "osa/posix/thread_state.h"

struct OSA_Event {
    osa::Monitor monitor;
    bool latched = false;
    uint32_t waiting = 0;  // threads inside wait
    uint32_t released = 0; // of these, how many may leave; never more than `waiting`
};

namespace
{

bool take_latched(OSA_Event &event)
{
    const bool was_latched = event.latched;
    event.latched = false;
    return was_latched;
}

bool is_waited_for(OSA_Event &event)
{
    const osa::Monitor::Lock lock(event.monitor);
    return event.waiting > 0;
}

} // namespace

extern "C" {

OSA_Event *OSA_EventCreate(int32_t)
{
    OSA_Event *event = new (std::nothrow) OSA_Event;
    if (event != nullptr)
        osa::count_alive(osa::Kind::event, 1);
    return event;
}

int32_t OSA_EventDestroy(OSA_Event *event)
{
    if (event == nullptr)
        return -1;
    if (is_waited_for(*event)) {
        OSA_REPORT(OSA_TRACE_ERROR, "event %p not destroyed: a thread waits for it\n",
                   static_cast<void *>(event));
        return -1;
    }
    delete event;
    osa::count_alive(osa::Kind::event, -1);
    return 0;
}

int32_t OSA_EventSend(OSA_Event *event)
{
    if (event == nullptr)
        return -1;
    const osa::Monitor::Lock lock(event->monitor);
    if (event->released == event->waiting) {
        event->latched = true;
        return 0;
    }
    ++event->released;
    event->monitor.signal();
    return 0;
}

int32_t OSA_EventWait(OSA_Event *event, uint32_t timeout_ms)
{
    if (event == nullptr)
        return -1;
    const osa::Monitor::Lock lock(event->monitor);
    if (take_latched(*event))
        return 0;
    if (timeout_ms == 0)
        return -1;
    ++event->waiting;
    const bool sent = event->monitor.wait(timeout_ms, [&] { return event->released > 0; });
    --event->waiting;
    if (!sent)
        return -1;
    --event->released;
    return 0;
}

} // extern "C"
