// What threads wait for: mutexes, events and queues.

#include <deque>
#include <utility>

#include "osa/sim/world.h"

using sim::Entry;
using sim::Kind;

struct OSA_Mutex : sim::Object {
    OSA_Mutex() : Object(Kind::mutex) {}
    bool ready() const override
    {
        return owner == nullptr;
    }
    std::string wait_text() const override
    {
        return owner == nullptr ? text() : text() + " held by " + owner->text();
    }

    OSA_Thread *owner = nullptr;
    uint32_t depth = 0;
};

struct OSA_Event : sim::Object {
    OSA_Event() : Object(Kind::event) {}

    bool is_latched = false;
    std::deque<bool *> waiters; // those not released, in the order they came
};

struct OSA_Queue : sim::Object {
    struct Item {
        void *item;
        uint32_t size;
    };

    OSA_Queue() : Object(Kind::queue) {}
    bool ready() const override
    {
        return !items.empty();
    }

    std::deque<Item> items;
};

namespace
{

template <typename Handle>
Handle *make(const char *operation, const void *caller, const char *name = nullptr)
{
    Entry layer;
    layer->scheduler.point();
    if (layer.must_fail(operation, caller))
        return nullptr;
    return layer->handles.make<Handle>(caller, name);
}

template <typename Handle>
int32_t destroy(Handle *handle, Kind kind, const char *operation)
{
    Entry layer;
    layer->scheduler.point();
    return layer.destroy(handle, kind, operation) ? 0 : -1;
}

// Whether the object became ready, or this thread was granted to go on, in time.
bool wait_for(Entry &layer, const sim::Object *object, uint32_t timeout_ms,
              const bool *granted = nullptr)
{
    sim::Wait wait;
    wait.object = object;
    wait.granted = granted;
    if (timeout_ms != OSA_WAIT_FOREVER)
        wait.deadline = layer->scheduler.deadline_in(timeout_ms);
    return layer->scheduler.wait(wait);
}

// Whether a send was there for this thread, or came in time.
bool take_send(Entry &layer, OSA_Event *event, uint32_t timeout_ms)
{
    if (std::exchange(event->is_latched, false))
        return true;
    bool released = false;
    event->waiters.push_back(&released);
    if (!wait_for(layer, event, timeout_ms, &released))
        std::erase(event->waiters, &released);
    return released;
}

} // namespace

OSA_Mutex *OSA_MutexCreate(void)
{
    return make<OSA_Mutex>("OSA_MutexCreate", SIM_CALLER);
}

int32_t OSA_MutexDestroy(OSA_Mutex *mutex)
{
    Entry layer;
    layer->scheduler.point();
    if (!layer.check(mutex, Kind::mutex, "OSA_MutexDestroy"))
        return -1;
    if (mutex->owner != nullptr) {
        layer.misuse("OSA_MutexDestroy", mutex->wait_text());
        return -1;
    }
    return layer.destroy(mutex, Kind::mutex, "OSA_MutexDestroy") ? 0 : -1;
}

int32_t OSA_MutexLock(OSA_Mutex *mutex, uint32_t timeout_ms)
{
    Entry layer;
    layer->scheduler.point();
    if (!layer.check(mutex, Kind::mutex, "OSA_MutexLock"))
        return -1;
    OSA_Thread &self = layer->scheduler.running();
    if (mutex->owner != &self) {
        if (!wait_for(layer, mutex, timeout_ms))
            return -1;
        mutex->owner = &self;
        self.locks_held++;
        sim::order_acquire(mutex);
    }
    mutex->depth++;
    return 0;
}

int32_t OSA_MutexUnLock(OSA_Mutex *mutex)
{
    Entry layer;
    layer->scheduler.point();
    if (!layer.check(mutex, Kind::mutex, "OSA_MutexUnLock"))
        return -1;
    OSA_Thread &self = layer->scheduler.running();
    if (mutex->owner != &self) {
        layer.misuse("OSA_MutexUnLock", "not locked by this thread: " + mutex->wait_text());
        return -1;
    }
    if (--mutex->depth == 0) {
        sim::order_release(mutex);
        mutex->owner = nullptr;
        self.locks_held--;
    }
    return 0;
}

OSA_Event *OSA_EventCreate(int32_t)
{
    return make<OSA_Event>("OSA_EventCreate", SIM_CALLER);
}

int32_t OSA_EventDestroy(OSA_Event *event)
{
    return destroy(event, Kind::event, "OSA_EventDestroy");
}

int32_t OSA_EventSend(OSA_Event *event)
{
    Entry layer;
    layer->scheduler.point();
    if (!layer.check(event, Kind::event, "OSA_EventSend"))
        return -1;
    sim::order_release(event);
    if (event->waiters.empty()) {
        event->is_latched = true;
        return 0;
    }
    *event->waiters.front() = true;
    event->waiters.pop_front();
    return 0;
}

int32_t OSA_EventWait(OSA_Event *event, uint32_t timeout_ms)
{
    Entry layer;
    layer->scheduler.point();
    if (!layer.check(event, Kind::event, "OSA_EventWait") || !take_send(layer, event, timeout_ms))
        return -1;
    sim::order_acquire(event);
    return 0;
}

OSA_Queue *OSA_QueueCreate(const char *name, int32_t)
{
    return make<OSA_Queue>("OSA_QueueCreate", SIM_CALLER, name);
}

int32_t OSA_QueueDestroy(OSA_Queue *queue)
{
    return destroy(queue, Kind::queue, "OSA_QueueDestroy");
}

int32_t OSA_QueuePush(OSA_Queue *queue, void *item, uint32_t size)
{
    Entry layer;
    layer->scheduler.point();
    if (layer.must_fail("OSA_QueuePush", SIM_CALLER) ||
        !layer.check(queue, Kind::queue, "OSA_QueuePush"))
        return -1;
    if (item == nullptr) {
        layer.misuse("OSA_QueuePush", "null, which means that nothing came, to " + queue->text());
        return -1;
    }
    sim::order_release(queue);
    queue->items.push_back({item, size});
    return 0;
}

void *OSA_QueuePop(OSA_Queue *queue, uint32_t *size, uint32_t timeout_ms)
{
    Entry layer;
    layer->scheduler.point();
    if (!layer.check(queue, Kind::queue, "OSA_QueuePop") || !wait_for(layer, queue, timeout_ms))
        return nullptr;
    const OSA_Queue::Item oldest = queue->items.front();
    queue->items.pop_front();
    if (size != nullptr)
        *size = oldest.size;
    sim::order_acquire(queue);
    return oldest.item;
}
