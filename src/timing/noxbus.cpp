// The message bus: posting, the thread that hands messages to the application's
// handler, and its end.
//
// Any thread posts; the queue carries the messages to the bus thread. Two fields
// cross threads beside it: `running`, cleared by the finalizer only, and the
// handler with its argument, which the bus thread must see as a pair. A lock for
// that would be held by nobody but the setter and be taken for every message, so
// the pair is guarded by a sequence number instead: odd while it changes.

#include "noxbus.h"

#include "core/own_loop.h"
#include "internal/atomic_field.h"
#include "internal/guard.h"
#include "internal/trace.h"
#include "timing/bus_thread.h"

namespace
{

constexpr char kSource[] = "noxbus";
constexpr uint32_t kPopTimeoutMs = 1000;
constexpr uint32_t kStackSize = 0x20000;

using nox::text_or_null;

struct Handler {
    NoxBusHandler function;
    void *data;
};

Handler current_handler(const NOXBus *bus)
{
    for (;;) {
        const uint32_t before = nox::load_acquire(bus->handlerseq_);
        // Acquire on both: whoever sees a new value also sees the odd number that
        // was stored before it, and tries again.
        const Handler handler{nox::load_acquire(bus->handler),
                              nox::load_acquire(bus->handler_data)};
        if (before % 2 == 0 && nox::load_relaxed(bus->handlerseq_) == before)
            return handler;
    }
}

void free_message(NOXBusMsg *message)
{
    std::free(message->name);
    std::free(message->text);
    OSA_Free(message, 0);
}

using Message = std::unique_ptr<NOXBusMsg, nox::ReleaseWith<free_message>>;

Message new_message(int32_t code)
{
    Message message(static_cast<NOXBusMsg *>(NOX_MALLOC(sizeof(NOXBusMsg))));
    if (message)
        message->code = code;
    return message;
}

bool copy_into(char *&field, const char *text)
{
    field = nox::copy_text(text).release();
    return text == nullptr || field != nullptr;
}

bool push(NOXBus *bus, Message message)
{
    if (OSA_QueuePush(bus->queue, message.get(), sizeof(NOXBusMsg)) != 0)
        return false;
    message.release(); // the queue's now
    return true;
}

Message pop(NOXBus *bus, uint32_t *size, uint32_t timeout_ms)
{
    return Message(static_cast<NOXBusMsg *>(OSA_QueuePop(bus->queue, size, timeout_ms)));
}

void call_handler(NOXBus *bus, const char *name, int32_t code, const char *text)
{
    const Handler handler = current_handler(bus);
    if (handler.function != nullptr)
        handler.function(bus, handler.data, name, code, text);
}

// False when the thread is to end.
bool handle(NOXBus *bus, const NOXBusMsg *message, uint32_t size)
{
    NOX_TRACE_FOR("nox_bus_loop", OSA_TRACE_VERBOSE, "get message(%x) name(%s)code(%x)size(%d)\n",
                  nox::low32(message), text_or_null(message->name),
                  static_cast<uint32_t>(message->code), size);
    if (size != sizeof(NOXBusMsg)) {
        call_handler(bus, "bus", NOX_MSG_BUS_CRITICAL, "message bus critical error");
        return false;
    }
    if (message->code == NOX_MSG_BUS_EXIT) {
        NOX_TRACE_FOR("nox_bus_loop", OSA_TRACE_VERBOSE, "get bus exit message\n");
        return false;
    }
    call_handler(bus, message->name, message->code, message->text);
    return true;
}

void deliver_messages(NOXBus *bus)
{
    const nox::OwnLoop loop(bus);
    bool goes_on = true;
    while (goes_on && nox::load_acquire(bus->running)) {
        uint32_t size = 0;
        const Message message = pop(bus, &size, kPopTimeoutMs);
        if (message)
            goes_on = handle(bus, message.get(), size) && !loop.lost_its_record();
    }
}

// All parts of the bus, or false; a part that was made is in its field.
bool make_parts(NOXBus *bus, const char *name)
{
    bus->queue = OSA_QueueCreate(name, 0);
    if (bus->queue == nullptr) {
        NOX_TRACE_FOR("nox_bus_new", OSA_TRACE_ERROR, "bus msg queue create failed\n");
        return false;
    }
    bus->running = 1;
    bus->thread = OSA_ThreadCreate("bus", 0, kStackSize, nox_bus_loop, bus);
    if (bus->thread == nullptr) {
        NOX_TRACE_FOR("nox_bus_new", OSA_TRACE_ERROR, "bus msg loop thread create failed\n");
        OSA_QueueDestroy(bus->queue);
        return false;
    }
    return true;
}

} // namespace

namespace nox
{

void end_deliveries(NOXBus *bus)
{
    if (bus->thread == nullptr || OwnLoop::is_of(bus))
        return;
    Message exit_message = new_message(NOX_MSG_BUS_EXIT);
    store_release(bus->running, uint8_t{0});
    // Without the message the thread sees `running` when its wait ends.
    if (!exit_message || !push(bus, std::move(exit_message)))
        NOX_TRACE_FOR("nox_bus_finalize", OSA_TRACE_ERROR, "no exit message. bus(%x)\n",
                      low32(bus));
    int32_t exit_value = 0;
    OSA_ThreadDelete(bus->thread, &exit_value);
    bus->thread = nullptr;
}

} // namespace nox

NOXBus *nox_bus_new(const char *name)
{
    nox::ObjectReference<NOXBus> bus(
        static_cast<NOXBus *>(nox_object_new(sizeof(NOXBus), name, 1)));
    if (!bus || !make_parts(bus.get(), name))
        return nullptr;
    // Only a complete bus has the finalizer, which relies on thread and queue.
    bus->object.finalize = nox_bus_finalize;
    return bus.release();
}

int32_t nox_bus_set_parent(NOXBus *bus, void *parent)
{
    nox::store_release(bus->parent, parent);
    return 0;
}

void *nox_bus_get_parent(NOXBus *bus)
{
    return nox::load_acquire(bus->parent);
}

int32_t nox_bus_set_handler(NOXBus *bus, NoxBusHandler handler, void *handler_data)
{
    auto sequence = nox::atomic_field(bus->handlerseq_);
    uint32_t even = sequence.load(std::memory_order_relaxed) & ~1u;
    // Another setter in its few instructions makes this one try again.
    while (!sequence.compare_exchange_weak(even, even + 1, std::memory_order_acquire))
        even &= ~1u;
    nox::store_release(bus->handler, handler);
    nox::store_release(bus->handler_data, handler_data);
    sequence.store(even + 2, std::memory_order_release);
    return 0;
}

int32_t nox_bus_post_error(NOXBus *bus, const char *name, int32_t code, const char *text)
{
    Message message = new_message(code);
    if (!message || !copy_into(message->name, name) || !copy_into(message->text, text) ||
        !push(bus, std::move(message))) {
        NOX_TRACE(OSA_TRACE_ERROR, "message lost. name(%s)code(%x)\n", text_or_null(name),
                  static_cast<uint32_t>(code));
        return -1;
    }
    return 0;
}

int32_t nox_bus_loop(void *argument)
{
    deliver_messages(static_cast<NOXBus *>(argument));
    OSA_ThreadExit(0);
    return 0;
}

int32_t nox_bus_finalize(void *object)
{
    auto *bus = static_cast<NOXBus *>(object);
    NOX_TRACE(OSA_TRACE_INFO, "bus(%x)\n", nox::low32(bus));
    nox::end_deliveries(bus);
    if (nox::OwnLoop::is_of(bus)) {
        NOX_TRACE(OSA_TRACE_ERROR, "bus(%x) deleted in its own handler\n", nox::low32(bus));
        nox::OwnLoop::lose_record(bus->thread);
    }
    uint32_t size = 0;
    while (pop(bus, &size, 0) != nullptr) {
        // Posted too late for the handler: freed as it is taken off.
    }
    OSA_QueueDestroy(bus->queue);
    return 0;
}
