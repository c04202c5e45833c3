// The base sink: options, plugin operations and events around the derived sink.
// What happens to each buffer is in noxbasesink_chain.cpp.

#include "noxbasesink.h"

#include "base/option.h"
#include "base/record_size.h"
#include "internal/trace.h"
#include "noxpipe.h"

namespace
{

constexpr char kSource[] = "noxbasesink";
constexpr char kSetFormat[] = "nox_basesink_setformat"; // whose options these are

NOXBaseSink *sink_of(NOXPlugin *plugin)
{
    return reinterpret_cast<NOXBaseSink *>(plugin);
}

// Targets that make no sense are left out.
void read_target(NOXStructure *format, const char *key, int32_t &field)
{
    int32_t value;
    if (nox_structure_getvar_int32(format, key, &value) == 0 && value > 0)
        nox::store_relaxed(field, value);
}

void read_options(NOXBaseSink *sink, NOXStructure *format)
{
    nox::read_option(format, "verbose", sink->verbose);
    nox::read_option(format, "sync", sink->sync);
    nox::read_option(format, "clock", sink->clock);
    nox::read_option(format, "report", sink->report);
    uint32_t size = 0;
    void *rate = nox_structure_getvar_void(format, "rateoutvar", &size);
    if (rate != nullptr && size > 0)
        nox::store_relaxed(sink->rateoutvar, static_cast<int32_t *>(rate));
    read_target(format, "targetbps", sink->targetbps);
    read_target(format, "targetfps", sink->targetfps);
}

void trace_options(const NOXBaseSink *sink)
{
    NOX_TRACE_OBJECT_FOR(kSetFormat, sink, OSA_TRACE_NOTICE, "sync (%d)\n", sink->sync);
    NOX_TRACE_OBJECT_FOR(kSetFormat, sink, OSA_TRACE_NOTICE, "clock (%d)\n", sink->clock);
    NOX_TRACE_OBJECT_FOR(kSetFormat, sink, OSA_TRACE_NOTICE, "throughput (%d)\n", sink->verbose);
    NOX_TRACE_OBJECT_FOR(kSetFormat, sink, OSA_TRACE_NOTICE, "report (%d)\n",
                         nox::load_relaxed(sink->report));
}

// Of two sinks that reach end of stream at once on two threads, at least one must
// see both flags; hence the ordered store before the pipe asks for all of them.
void end_stream(NOXPlugin *plugin)
{
    nox::store_ordered(sink_of(plugin)->eos, uint8_t{1});
    // The one place where a base class reaches up to its pipe.
    if (void *pipe = nox_plugin_get_pipeline(plugin))
        nox_pipe_set_eos(static_cast<NOXPipe *>(pipe));
}

} // namespace

int32_t nox_basesink_init(NOXBaseSink *sink)
{
    auto *plugin = reinterpret_cast<NOXPlugin *>(sink); // null stays null
    if (!nox::holds<NOXBaseSink>(plugin, kSource))
        return -1;
    const int32_t result = nox_plugin_init(plugin);
    if (plugin == nullptr)
        return result;
    plugin->issink = 1;
    plugin->start_func = nox_basesink_start;
    plugin->stop_func = nox_basesink_stop;
    plugin->chain_func = nox_basesink_chain;
    plugin->setformat_func = nox_basesink_setformat;
    plugin->getformat_func = nox_basesink_getformat;
    plugin->setstate_func = nox_basesink_setstate;
    plugin->finalize_func = nox_basesink_finalize;
    plugin->event_func = nox_basesink_event;
    sink->sync = 0;
    sink->verbose = 0;
    sink->report = 0;
    return result;
}

uint32_t nox_basesink_get_size(void)
{
    return sizeof(NOXBaseSink);
}

int32_t nox_basesink_setformat(NOXPlugin *plugin, NOXStructure *format)
{
    NOXBaseSink *sink = sink_of(plugin);
    read_options(sink, format);
    const int32_t result = sink->setformat_func != nullptr ? sink->setformat_func(sink, format) : 0;
    trace_options(sink);
    return result;
}

int32_t nox_basesink_getformat(NOXPlugin *plugin, NOXStructure *format)
{
    NOXBaseSink *sink = sink_of(plugin);
    return sink->getformat_func != nullptr ? sink->getformat_func(sink, format) : 0;
}

int32_t nox_basesink_setstate(NOXPlugin *plugin, int32_t state)
{
    NOXBaseSink *sink = sink_of(plugin);
    return sink->setstate_func != nullptr ? sink->setstate_func(sink, state) : 0;
}

int32_t nox_basesink_start(NOXPlugin *plugin)
{
    NOXBaseSink *sink = sink_of(plugin);
    if (sink->render_func == nullptr) {
        NOX_TRACE_OBJECT(sink, OSA_TRACE_ERROR, "must be declaration render function\n");
        return -1;
    }
    if (sink->start_func != nullptr)
        sink->start_func(sink);
    return 0;
}

int32_t nox_basesink_stop(NOXPlugin *plugin)
{
    NOXBaseSink *sink = sink_of(plugin);
    if (sink->stop_func != nullptr)
        sink->stop_func(sink);
    return 0;
}

int32_t nox_basesink_finalize(NOXPlugin *plugin)
{
    NOXBaseSink *sink = sink_of(plugin);
    return sink->finalize_func != nullptr ? sink->finalize_func(sink) : 0;
}

int32_t nox_basesink_event(NOXPlugin *plugin, NOXEvent *event)
{
    NOXBaseSink *sink = sink_of(plugin);
    const int32_t result = sink->event_func != nullptr ? sink->event_func(sink, event) : 0;
    const int32_t type = event->type; // as the derived sink leaves it
    if (type == NOX_EVENT_EOS)
        end_stream(plugin);
    if (type == NOX_EVENT_STOPPING)
        nox::store_release(sink->dataready, uint8_t{0});
    if (type == NOX_EVENT_STOPPING || type == NOX_EVENT_STOPPED)
        nox::store_relaxed(sink->discont, uint8_t{1});
    return result;
}

uint8_t nox_basesink_get_dataready(NOXPlugin *plugin)
{
    return nox::load_acquire(sink_of(plugin)->dataready);
}

uint8_t nox_basesink_get_eos(NOXPlugin *plugin)
{
    return nox::load_ordered(sink_of(plugin)->eos);
}
