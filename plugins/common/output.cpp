// Gets output buffers, and looks at them.

#include "common/output.h"

#include "common/report.h"

namespace noxplugins
{

namespace
{

bool is_laid_out_as(NOXBuffer *buffer, const NOXBufferRequest &request)
{
    if (static_cast<uint32_t>(nox_buffer_get_memcnt(buffer)) != request.count)
        return false;
    for (uint32_t slot = 0; slot < request.count; ++slot) {
        NOXMemory *memory = nox_buffer_get_memory(buffer, static_cast<int32_t>(slot));
        if (memory == nullptr || nox_memory_get_datasize(memory) != request.sizes[slot])
            return false;
    }
    return true;
}

} // namespace

NOXBuffer *take_outbuffer(void *plugin, NOXBufferRequest request)
{
    const NOXBufferRequest asked = request; // the allocator may write to the one it is lent
    NOXBuffer *buffer = nox_plugin_get_outbuffer(static_cast<NOXPlugin *>(plugin), &request);
    if (buffer == nullptr) {
        report(plugin, PLUGIN_MSG_MEMORY, "no memory for a buffer");
        return nullptr;
    }
    if (is_laid_out_as(buffer, asked))
        return buffer;
    report(plugin, PLUGIN_MSG_MEMORY, "got an output buffer that is not of the size asked for");
    nox_object_delete(buffer);
    return nullptr;
}

} // namespace noxplugins
