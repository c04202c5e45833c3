// A pipe's creation and destruction. Members, states, events and the control
// thread have files of their own beside this one.

#include "noxpipe.h"

#include "core/own_loop.h"
#include "internal/atomic_field.h"
#include "internal/guard.h"
#include "pipe/noxpipe_internal.h"
#include "plugin/own_thread.h"
#include "timing/bus_thread.h"

namespace
{

bool make_bus(NOXPipe *pipe)
{
    NOXBus *bus = nox_bus_new("bus");
    pipe->plugin.bus = bus;
    if (bus == nullptr) {
        NOX_TRACE_FOR("nox_pipe_new", OSA_TRACE_ERROR, "can not create new bus\n");
        return false;
    }
    pipe->busref = static_cast<NOXBus *>(nox_object_refer(bus));
    nox_bus_set_parent(bus, pipe);
    return true;
}

bool make_clock(NOXPipe *pipe)
{
    pipe->clock = nox_timer_new("default");
    if (pipe->clock == nullptr)
        NOX_TRACE_FOR("nox_pipe_new", OSA_TRACE_ERROR, "can not create new timer\n");
    return pipe->clock != nullptr;
}

bool make_member_list(NOXPipe *pipe)
{
    pipe->plugins = OSA_ListCreate();
    if (pipe->plugins == nullptr)
        NOX_TRACE_FOR("nox_pipe_new", OSA_TRACE_ERROR, "list create failed\n");
    return pipe->plugins != nullptr;
}

bool make_parts(NOXPipe *pipe)
{
    if (!make_bus(pipe) || !make_clock(pipe) || !make_member_list(pipe))
        return false;
    // A pipe needs no state event of its own, so it can do without.
    nox_plugin_init(&pipe->plugin);
    return nox::start_control_thread(pipe);
}

// Of a pipe that could not be completed: what exists, in reverse order.
void release_parts(NOXPipe *pipe)
{
    if (pipe->plugin.state_event != nullptr)
        OSA_EventDestroy(pipe->plugin.state_event);
    if (pipe->plugins != nullptr)
        OSA_ListDestroy(pipe->plugins);
    nox_object_delete(pipe->clock);
    nox_object_delete(pipe->busref);
    nox_object_delete(pipe->plugin.bus);
}

void tell_where_deleted(const NOXPipe *pipe)
{
    if (nox::OwnLoop::is_of(pipe))
        NOX_TRACE_FOR("nox_pipe_finalize", OSA_TRACE_ERROR,
                      "pipe(%s) deleted on its own control thread\n", nox::name_of(pipe));
    if (nox::OwnLoop::is_of(pipe->busref))
        NOX_TRACE_FOR("nox_pipe_finalize", OSA_TRACE_ERROR,
                      "pipe(%s) deleted in its own bus handler\n", nox::name_of(pipe));
    for (const NOXPlugin *member : members(pipe))
        if (nox::OwnLoop::is_of(member))
            NOX_TRACE_FOR("nox_pipe_finalize", OSA_TRACE_ERROR,
                          "pipe(%s) deleted on the thread of its source (%s)\n", nox::name_of(pipe),
                          nox::name_of(member));
}

// The application's handler may use the pipe at any message, and must not find it half
// gone. A bus that somebody else holds as well lives on, and so does its handler.
void silence_handler(const NOXPipe *pipe)
{
    if (nox_object_get_refcount(pipe->busref) == 2) // the pipe's own
        nox::end_deliveries(pipe->busref);
}

// All sources are asked before the first is waited for, or the waits would add up.
// False when one runs on, because its thread is the calling one.
bool end_sources(NOXPipe *pipe)
{
    for (NOXPlugin *member : members(pipe))
        if (member->hasthread_)
            nox::store_ordered(member->started, uint8_t{0});
    bool all_ended = true;
    for (NOXPlugin *member : members(pipe))
        all_ended &= nox::end_own_thread(member, "nox_pipe_finalize");
    return all_ended;
}

// Whether it was started and not stopped since.
bool is_to_be_stopped(const NOXPlugin *member)
{
    return nox::load_relaxed(member->started) || nox::load_relaxed(member->tostop_);
}

// Of a pipe that was not brought to NULL, what is left: first what pushes.
void stop_started(NOXPipe *pipe)
{
    for (const bool sources : {true, false})
        for (NOXPlugin *member : members(pipe))
            if ((member->issrc != 0) == sources && is_to_be_stopped(member))
                nox_plugin_stop(member);
}

// Whoever else holds the member must not find what goes with the pipe.
void forget_pipe(NOXPlugin *member)
{
    member->bus = nullptr;
    member->timer = nullptr;
    nox_plugin_set_parent(member, nullptr);
}

// Their code is on the calling thread's stack, and they are not released; the pipe,
// its bus and its clock go all the same.
void abandon_members(NOXPipe *pipe)
{
    NOX_TRACE_FOR("nox_pipe_finalize", OSA_TRACE_ERROR,
                  "a thread of pipe(%s) runs on. Its plugins are not released\n",
                  nox::name_of(pipe));
    while (auto *member = static_cast<NOXPlugin *>(nox::take_head(pipe->plugins)))
        forget_pipe(member);
}

void release_members(NOXPipe *pipe)
{
    while (OSA_ListNode *node = OSA_ListGetHead(pipe->plugins)) {
        auto *member = static_cast<NOXPlugin *>(node->data);
        NOX_TRACE_FOR("nox_pipe_finalize", OSA_TRACE_INFO, "deleting object (%s)\n",
                      nox::name_of(member));
        nox_plugin_reset(member);
        if (nox_object_get_refcount(member) > 1)
            forget_pipe(member);
        nox_object_delete(member);
        nox::remove_node(pipe->plugins, node);
    }
}

} // namespace

NOXPipe *nox_pipe_new(const char *name)
{
    nox::join_departed_threads(false);
    nox::ObjectReference<NOXPipe> pipe(
        static_cast<NOXPipe *>(nox_object_new(sizeof(NOXPipe), name, 1)));
    if (!pipe) {
        NOX_TRACE(OSA_TRACE_ERROR, "can not create new pipe\n");
        return nullptr;
    }
    if (!make_parts(pipe.get())) {
        release_parts(pipe.get());
        return nullptr;
    }
    // Only a complete pipe has the finalizer, which relies on every part.
    pipe->plugin.object.finalize = nox_pipe_finalize;
    return pipe.release();
}

uint32_t nox_pipe_get_size(void)
{
    return sizeof(NOXPipe);
}

int32_t nox_pipe_finalize(void *object)
{
    auto *pipe = static_cast<NOXPipe *>(object);
    nox::end_requests(pipe); // before the wait for a handler, which may take long
    tell_where_deleted(pipe);
    silence_handler(pipe);
    nox::stop_control_thread(pipe);
    if (end_sources(pipe)) {
        stop_started(pipe);
        release_members(pipe);
    } else {
        abandon_members(pipe);
    }
    OSA_ListDestroy(pipe->plugins);
    nox_bus_set_parent(pipe->busref, nullptr);
    nox_object_delete(pipe->busref);
    nox_object_delete(pipe->plugin.bus);
    nox_object_delete(pipe->clock);
    nox_plugin_finalize(&pipe->plugin);
    return 0;
}
