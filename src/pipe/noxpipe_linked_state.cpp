// Changing one linked chain, and starting and stopping all members, without a
// change of the pipe's own state.

#include "internal/atomic_field.h"
#include "internal/guard.h"
#include "pipe/noxpipe_internal.h"
#include "plugin/circle.h"

namespace
{

void set_chain_member(NOXPlugin *plugin, int32_t state)
{
    const int32_t current = nox_plugin_get_state(plugin);
    NOX_TRACE_FOR("pipe_iterate_linked_plugin_set_state", OSA_TRACE_NOTICE,
                  "nox_plugin_setstate cur(%d:%s) -> set(%d:%s) (%s)\n", current,
                  nox_plugin_state_str(current), state, nox_plugin_state_str(state),
                  nox::name_of(plugin));
    if (nox_plugin_setstate(plugin, state) != 0)
        NOX_TRACE_FOR("pipe_iterate_linked_plugin_set_state", OSA_TRACE_ERROR,
                      "nox_plugin_setstate failed (%s)\n", nox::name_of(plugin));
}

void trace_member(const char *which, const OSA_ListNode *node)
{
    NOX_TRACE_FOR("nox_pipe_stop", OSA_TRACE_ERROR, "%s node(%x) plg(%x) name(%s)\n", which,
                  nox::low32(node), nox::low32(node->data), nox::name_of(node->data));
}

// So that the clock reads in the range of the system tick. In one step: a sink that
// waits for the clock must not read what it shows before.
void start_clock(NOXTimer *clock)
{
    const nox::ObjectLock lock(clock);
    nox_timer_start(clock);
    nox_timer_settime(clock, OSA_GetSystemTick());
}

} // namespace

int32_t pipe_iterate_linked_plugin_set_state(NOXPlugin *plugin, int32_t state)
{
    for (; plugin != nullptr; plugin = plugin->next) {
        set_chain_member(plugin, state);
        OSA_ListNode *node = nox::head_of(plugin->nextlist);
        for (; node != nullptr; node = node->next)
            pipe_iterate_linked_plugin_set_state(static_cast<NOXPlugin *>(node->data), state);
    }
    return 0;
}

int32_t nox_pipe_linked_plugins_set_state(NOXPipe *pipe, NOXPlugin *plugin, int32_t state)
{
    const int32_t current = nox_pipe_get_state(pipe);
    if (state == current) {
        NOX_TRACE(OSA_TRACE_ERROR, "warning state is same as current.state(%d)\n", current);
        return 0;
    }
    if (plugin == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "invalid plugin (NULL)\n");
        return -1;
    }
    NOXPlugin *source = plugin->issrc ? plugin : nox_plugin_get_source(plugin);
    if (source == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "can not find source plugin(%p:%s)\n", nox::address(plugin),
                  nox::name_of(plugin));
        return -1;
    }
    if (nox::runs_in_circle(source)) {
        if (state == NOX_STATE_NULL) // what runs must be stopped
            set_chain_member(source, state);
        return -1;
    }
    pipe_iterate_linked_plugin_set_state(source, state);
    return 0;
}

int32_t nox_pipe_start(NOXPipe *pipe)
{
    if (nox::has_circle(pipe, "nox_pipe_start"))
        return -1;
    start_clock(pipe->clock);
    int32_t result = 0;
    for (NOXPlugin *member : members(pipe)) {
        result = nox_plugin_start(member);
        if (result < 0)
            return result;
    }
    if (result == 0)
        nox::store_release(pipe->plugin.started, uint8_t{1});
    return result;
}

int32_t nox_pipe_stop(NOXPipe *pipe)
{
    NOX_TRACE(OSA_TRACE_ERROR, "Enter.\n");
    OSA_ListNode *node = OSA_ListGetHead(pipe->plugins);
    if (node != nullptr)
        trace_member("head", node);
    for (; node != nullptr && node->data != nullptr; node = node->next) {
        trace_member("next", node);
        nox_plugin_stop(static_cast<NOXPlugin *>(node->data));
    }
    nox::store_release(pipe->plugin.started, uint8_t{0});
    NOX_TRACE(OSA_TRACE_ERROR, "Leave.\n");
    return 0;
}
