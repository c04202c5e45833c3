// Checks that a buffer is what its stream promises.

#include "common/samples.h"

#include "common/report.h"

namespace noxplugins
{

bool holds_whole_frames(void *plugin, NOXBuffer *buffer, uint32_t frame_size)
{
    const int32_t odd = for_each_block(buffer, [&](NOXMemory *memory) -> int32_t {
        const uint32_t size = nox_memory_get_datasize(memory);
        if (size % frame_size == 0)
            return 0;
        return report(plugin, PLUGIN_MSG_FORMAT,
                      "got %u bytes, which are no whole frames of %u bytes", size, frame_size);
    });
    return odd == 0;
}

} // namespace noxplugins
