// The 16-bit samples that a buffer carries.
#ifndef NOX_PLUGINS_COMMON_SAMPLES_H
#define NOX_PLUGINS_COMMON_SAMPLES_H

#include <cstring>

#include "noxbuffer.h"

namespace noxplugins
{

// False, after a report, when a block of the buffer does not hold whole frames.
bool holds_whole_frames(void *plugin, NOXBuffer *buffer, uint32_t frame_size);

// Calls visit(memory) for each block of the buffer, whichever slots they are in,
// until one returns non-zero; returns that, or 0.
template <typename Visit>
int32_t for_each_block(NOXBuffer *buffer, Visit visit)
{
    for (int32_t slot = 0; slot < NOX_BUFFER_MEMORIES; ++slot) {
        NOXMemory *memory = nox_buffer_get_memory(buffer, slot);
        if (memory == nullptr)
            continue;
        if (const int32_t result = visit(memory); result != 0)
            return result;
    }
    return 0;
}

// Samples are copied in and out: bytes of a driver need not be aligned.
inline int16_t load_sample(const uint8_t *bytes)
{
    int16_t sample;
    std::memcpy(&sample, bytes, sizeof sample);
    return sample;
}

inline void store_sample(uint8_t *bytes, int16_t sample)
{
    std::memcpy(bytes, &sample, sizeof sample);
}

} // namespace noxplugins

#endif
