// Events: they latch, and each send releases one waiter.
//
// A send that finds a waiter not yet released releases the oldest such one, even
// though that thread has yet to run; any other send latches, for the next thread
// to come. So two sends release two waiters, however late these wake up, and no
// thread that comes after a send takes what released another.

#include "osa/common/export.h"

#include <new>

#include "osa/posix/monitor.h"
#include "osa/posix/report.h"
#include "osa/posix/thread_state.h"

namespace
{

// On the stack of the thread that waits.
struct Waiter {
    Waiter *next = nullptr;
    bool released = false;
};

} // namespace

struct OSA_Event {
    osa::Monitor monitor;
    bool latched = false;
    uint32_t waiting = 0;     // threads inside wait, released ones among them
    Waiter *oldest = nullptr; // of those not released, in the order they came
};

namespace
{

bool take_latched(OSA_Event &event)
{
    const bool was_latched = event.latched;
    event.latched = false;
    return was_latched;
}

void append(OSA_Event &event, Waiter &waiter)
{
    Waiter **place = &event.oldest;
    while (*place != nullptr)
        place = &(*place)->next;
    *place = &waiter;
}

void remove(OSA_Event &event, const Waiter &waiter)
{
    Waiter **place = &event.oldest;
    while (*place != &waiter)
        place = &(*place)->next;
    *place = waiter.next;
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
    if (event->oldest == nullptr) {
        event->latched = true;
        return 0;
    }
    event->oldest->released = true;
    event->oldest = event->oldest->next;
    event->monitor.signal_all();
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
    Waiter self;
    append(*event, self);
    ++event->waiting;
    const bool sent = event->monitor.wait(timeout_ms, [&] { return self.released; });
    --event->waiting;
    if (!sent)
        remove(*event, self);
    return sent ? 0 : -1;
}

} // extern "C"
