// Events for the whole graph: from each sink up towards its source, the sources
// last.

#include "pipe/noxpipe_internal.h"
#include "plugin/circle.h"

namespace
{

bool deliver(NOXPlugin *plugin, NOXEvent *event)
{
    if (nox_plugin_setevent(plugin, event) == 0)
        return true;
    NOX_TRACE_FOR("nox_pipe_set_event", OSA_TRACE_ERROR, "nox_plugin_setstate failed (%s)\n",
                  nox::name_of(plugin));
    return false;
}

bool check_has_head(const NOXPlugin *sink)
{
    nox::CircleWatch circle;
    for (const NOXPlugin *plugin = sink; plugin != nullptr && !plugin->issrc; plugin = plugin->prev)
        if (circle.is_closed_by(plugin)) {
            nox::trace_circle(plugin, "nox_pipe_set_event");
            return false;
        }
    return true;
}

// The sink and what lies above it, up to its source, which is not told here.
bool deliver_upward(NOXPlugin *sink, NOXEvent *event)
{
    if (!check_has_head(sink) || !deliver(sink, event))
        return false;
    for (NOXPlugin *plugin = sink->prev; plugin != nullptr && !plugin->issrc; plugin = plugin->prev)
        if (!deliver(plugin, event))
            return false;
    return true;
}

} // namespace

int32_t nox_pipe_set_event(NOXPipe *pipe, NOXEvent *event)
{
    NOX_TRACE(OSA_TRACE_INFO, "Enter. pipe(%x)\n", nox::low32(pipe));
    for (NOXPlugin *member : members(pipe))
        if (member->issink && !deliver_upward(member, event))
            return -1;
    for (NOXPlugin *member : members(pipe))
        if (member->issrc && !deliver(member, event))
            return -1;
    return 0;
}

int32_t nox_pipe_reset(NOXPipe *pipe)
{
    NOX_TRACE(OSA_TRACE_NOTICE, "pipeline reset\n");
    NOXEvent event{nullptr, NOX_EVENT_RESET};
    const int32_t result = nox_pipe_set_event(pipe, &event);
    if (result != 0)
        NOX_TRACE(OSA_TRACE_ERROR, "nox_pipe_set_event fail.\n");
    nox::stop_clock(pipe);
    return result;
}
