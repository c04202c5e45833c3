// tee: hands every buffer to all its branches, in the order they were linked.
// The branches share the buffer and only read it.

#include "common/stream.h"
#include "nox.h"
#include "noxbasefilter.h"

using namespace noxplugins;

namespace
{

int32_t tee_getformat(NOXBaseFilter *filter, NOXStructure *format)
{
    return forward_upstream_format(filter, format);
}

// The base filter answers every change of state with -1 unless this is set.
int32_t tee_setstate(NOXBaseFilter *, int32_t)
{
    return 0;
}

// The push gives the buffer to every branch. One that fails has reported why; the
// push ends there unless it was the first, and its answer goes upstream.
int32_t tee_chain(NOXBaseFilter *filter, NOXBuffer *buffer)
{
    return nox_plugin_push_buffer(&filter->plugin, buffer);
}

// The first branch's allocator serves the whole tee: what is upstream fills the
// buffer where that branch wants it, and the other branches read it there.
NOXAllocator *tee_allocator(NOXBaseFilter *filter)
{
    return nox_plugin_get_next_allocator(&filter->plugin);
}

int32_t tee_finalize(NOXBaseFilter *)
{
    return 0;
}

int32_t tee_init(NOXPlugin *plugin)
{
    auto *filter = reinterpret_cast<NOXBaseFilter *>(plugin);
    if (nox_basefilter_init(filter) != 0)
        return -1;
    filter->getformat_func = tee_getformat;
    filter->setstate_func = tee_setstate;
    filter->chain_func = tee_chain;
    filter->alloca_func = tee_allocator;
    filter->finalize_func = tee_finalize;
    return 0;
}

} // namespace

void plugin_desc(NOXPluginDesc *desc)
{
    *desc = {"tee", "libnoxcore", sizeof(NOXBaseFilter), tee_init};
}
