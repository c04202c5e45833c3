// Questions over all members: end of stream, and whether sources and sinks have
// data. The status queries of the base source and sink that are asked here are
// the only calls from the pipe up into the base classes.

#include "noxbasesink.h"
#include "noxbasesrc.h"
#include "pipe/noxpipe_internal.h"

namespace
{

using Query = uint8_t (*)(NOXPlugin *plugin);

uint8_t every_source(const NOXPipe *pipe, Query query)
{
    for (NOXPlugin *member : members(pipe))
        if (member->issrc && !query(member))
            return 0;
    return 1;
}

} // namespace

int32_t nox_pipe_set_eos(NOXPipe *pipe)
{
    bool has_sink = false;
    NOXPlugin *last = nullptr;
    for (NOXPlugin *member : members(pipe)) {
        last = member;
        if (!member->issink)
            continue;
        if (!nox_basesink_get_eos(member))
            return 0;
        has_sink = true;
    }
    if (has_sink)
        nox_plugin_error_post(last, NOX_MSG_EOS, "EOS.\n");
    return 0;
}

uint8_t nox_pipe_get_allsink_start(NOXPipe *pipe)
{
    uint8_t all_started = 1;
    for (NOXPlugin *member : members(pipe))
        if (member->issink && !nox_basesink_get_dataready(member))
            all_started = 0;
    return all_started;
}

uint8_t nox_pipe_get_allsrc_started(NOXPipe *pipe)
{
    return every_source(pipe, nox_basesrc_get_dataready);
}

uint8_t nox_pipe_get_allsrc_stopped(NOXPipe *pipe)
{
    return every_source(pipe, nox_basesrc_get_stopped);
}
