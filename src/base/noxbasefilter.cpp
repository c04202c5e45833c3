// The base filter: forwards each plugin operation to the derived filter, with a
// fixed answer where the derived filter has none.

#include "noxbasefilter.h"

#include "base/record_size.h"
#include "internal/atomic_field.h"
#include "internal/trace.h"

namespace
{

constexpr char kSource[] = "noxbasefilter";

NOXBaseFilter *filter_of(NOXPlugin *plugin)
{
    return reinterpret_cast<NOXBaseFilter *>(plugin);
}

int32_t fail_when_not_zero(const NOXBaseFilter *filter, int32_t result,
                           const char *function = __builtin_FUNCTION())
{
    if (result == 0)
        return 0;
    NOX_TRACE_OBJECT_FOR(function, filter, OSA_TRACE_ERROR, "plugin start failed\n");
    return -1;
}

} // namespace

int32_t nox_basefilter_init(NOXBaseFilter *filter)
{
    auto *plugin = reinterpret_cast<NOXPlugin *>(filter); // null stays null
    if (!nox::holds<NOXBaseFilter>(plugin, kSource))
        return -1;
    const int32_t result = nox_plugin_init(plugin);
    if (result != 0) {
        NOX_TRACE_OBJECT(plugin, OSA_TRACE_ERROR, "plugin init failed ret(%d)\n", result);
        return result;
    }
    nox::store_relaxed(plugin->started, uint8_t{0});
    plugin->setstate_func = nox_basefilter_setstate;
    plugin->finalize_func = nox_basefilter_finalize;
    plugin->event_func = nox_basefilter_event;
    plugin->start_func = nox_basefilter_start;
    plugin->stop_func = nox_basefilter_stop;
    plugin->chain_func = nox_basefilter_chain;
    plugin->setformat_func = nox_basefilter_setformat;
    plugin->getformat_func = nox_basefilter_getformat;
    plugin->getallocator_func = nox_basefilter_get_allocator;
    return 0;
}

uint32_t nox_basefilter_get_size(void)
{
    return sizeof(NOXBaseFilter);
}

int32_t nox_basefilter_setformat(NOXPlugin *plugin, NOXStructure *format)
{
    NOXBaseFilter *filter = filter_of(plugin);
    return filter->setformat_func != nullptr ? filter->setformat_func(filter, format) : 0;
}

int32_t nox_basefilter_getformat(NOXPlugin *plugin, NOXStructure *format)
{
    NOXBaseFilter *filter = filter_of(plugin);
    return filter->getformat_func != nullptr ? filter->getformat_func(filter, format) : 0;
}

int32_t nox_basefilter_start(NOXPlugin *plugin)
{
    NOXBaseFilter *filter = filter_of(plugin);
    const int32_t result = filter->start_func != nullptr ? filter->start_func(filter) : 0;
    return fail_when_not_zero(filter, result);
}

int32_t nox_basefilter_stop(NOXPlugin *plugin)
{
    NOXBaseFilter *filter = filter_of(plugin);
    const int32_t result = filter->stop_func != nullptr ? filter->stop_func(filter) : 0;
    if (result != 0)
        NOX_TRACE_OBJECT(filter, OSA_TRACE_ERROR, "pfilter(%s) stop error(%d)\n",
                         nox::name_of(filter), result);
    return result;
}

int32_t nox_basefilter_chain(NOXPlugin *plugin, NOXBuffer *buffer)
{
    NOXBaseFilter *filter = filter_of(plugin);
    return filter->chain_func != nullptr ? filter->chain_func(filter, buffer) : -1;
}

int32_t nox_basefilter_finalize(NOXPlugin *plugin)
{
    NOXBaseFilter *filter = filter_of(plugin);
    return filter->finalize_func != nullptr ? filter->finalize_func(filter) : -1;
}

NOXAllocator *nox_basefilter_get_allocator(NOXPlugin *plugin)
{
    NOXBaseFilter *filter = filter_of(plugin);
    NOX_TRACE(OSA_TRACE_VERBOSE, "plg(%x) alloca_func(%x)\n", nox::low32(filter),
              nox::low32(filter->alloca_func));
    return filter->alloca_func != nullptr ? filter->alloca_func(filter) : nullptr;
}

int32_t nox_basefilter_event(NOXPlugin *plugin, NOXEvent *event)
{
    NOXBaseFilter *filter = filter_of(plugin);
    const int32_t result = filter->event_func != nullptr ? filter->event_func(filter, event) : 0;
    return fail_when_not_zero(filter, result);
}

int32_t nox_basefilter_setstate(NOXPlugin *plugin, int32_t state)
{
    NOXBaseFilter *filter = filter_of(plugin);
    return filter->setstate_func != nullptr ? filter->setstate_func(filter, state) : -1;
}
