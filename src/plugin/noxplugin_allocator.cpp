// Output buffers: which allocator they come from, and building one from the heap
// when no allocator delivers.

#include "internal/guard.h"
#include "plugin/circle.h"
#include "plugin/noxplugin_check.h"

namespace
{

using BufferReference = nox::ObjectReference<NOXBuffer>;

// The first plugin downstream, along branch 0, that answers which allocator it
// offers; null when nobody does.
NOXPlugin *first_that_answers(const NOXPlugin *plugin)
{
    nox::CircleWatch circle;
    NOXPlugin *next = plugin->next;
    while (next != nullptr && next->getallocator_func == nullptr)
        next = circle.is_closed_by(next) ? nullptr : next->next;
    return next;
}

NOXAllocator *own_offer(NOXPlugin *plugin)
{
    return plugin->getallocator_func != nullptr ? plugin->getallocator_func(plugin) : nullptr;
}

void choose(NOXPlugin *plugin, NOXAllocator *allocator, const char *function = __builtin_FUNCTION())
{
    plugin->outallocator = allocator;
    plugin->outallocator_set = 1;
    NOX_TRACE_FOR(function, OSA_TRACE_INFO, "Allocator(%p) of next plg(%p)\n",
                  nox::address(allocator), nox::address(plugin));
}

bool append_blocks(NOXBuffer *buffer, const NOXBufferRequest *request, const char *function)
{
    for (uint32_t i = 0; i < request->count; ++i) {
        NOXMemory *memory = nox_memory_new(request->sizes[i]);
        if (memory == nullptr) {
            NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "new mem is NULL..\n");
            return false;
        }
        nox_buffer_append_memory(buffer, memory); // takes over our reference
    }
    return true;
}

NOXBuffer *new_heap_buffer(const NOXBufferRequest *request, const char *function)
{
    if (request->count > NOX_BUFFER_MEMORIES) {
        NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "request for %u blocks; a buffer holds %d\n",
                      request->count, NOX_BUFFER_MEMORIES);
        return nullptr;
    }
    BufferReference buffer(nox_buffer_new(0));
    if (!buffer) {
        NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "new buffer is NULL..\n");
        return nullptr;
    }
    return append_blocks(buffer.get(), request, function) ? buffer.release() : nullptr;
}

NOXBuffer *make_buffer(NOXPlugin *plugin, NOXBufferRequest *request,
                       const char *function = __builtin_FUNCTION())
{
    NOXBuffer *buffer = nullptr;
    if (plugin->outallocator != nullptr)
        buffer = nox_allocator_alloc(plugin->outallocator, request);
    return buffer != nullptr ? buffer : new_heap_buffer(request, function);
}

} // namespace

int32_t nox_plugin_set_allocatorfunc(NOXPlugin *plugin, NOXPluginGetAllocatorFunc function)
{
    if (!check_plugin(plugin))
        return -1;
    plugin->getallocator_func = function;
    return 0;
}

int32_t nox_plugin_set_allocator(NOXPlugin *plugin, NOXAllocator *allocator)
{
    if (!check_plugin(plugin))
        return -1;
    if (plugin->allocator != nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "already has allocator (%x)\n", nox::low32(plugin->allocator));
        return -1;
    }
    plugin->allocator = allocator; // takes over the caller's reference
    if (plugin->getallocator_func == nullptr)
        plugin->getallocator_func = nox_plugin_default_getallocator;
    return 0;
}

NOXAllocator *nox_plugin_default_getallocator(NOXPlugin *plugin)
{
    if (!check_plugin(plugin))
        return reinterpret_cast<NOXAllocator *>(~uintptr_t{0});
    return plugin->allocator;
}

NOXAllocator *nox_plugin_get_next_allocator(NOXPlugin *plugin)
{
    if (!check_plugin(plugin))
        return nullptr;
    NOXPlugin *offering = first_that_answers(plugin);
    return offering != nullptr ? own_offer(offering) : nullptr;
}

NOXBuffer *nox_plugin_get_outbuffer(NOXPlugin *plugin, NOXBufferRequest *request)
{
    if (!plugin->outallocator_set) {
        NOXAllocator *offered = nox_plugin_get_next_allocator(plugin);
        choose(plugin, offered != nullptr ? offered : own_offer(plugin));
    }
    return make_buffer(plugin, request);
}

NOXBuffer *nox_plugin_get_outbuffer_self(NOXPlugin *plugin, NOXBufferRequest *request)
{
    choose(plugin, own_offer(plugin));
    return make_buffer(plugin, request);
}

int32_t nox_plugin_flush_outbuffer(NOXPlugin *plugin, NOXBuffer *buffer)
{
    NOX_TRACE(OSA_TRACE_VERBOSE, "plg(%x) allocator(%x) buffer(%p)\n", nox::low32(plugin),
              nox::low32(plugin->allocator), nox::address(buffer));
    return plugin->outallocator != nullptr ? nox_allocator_flush(plugin->outallocator, buffer) : 0;
}
