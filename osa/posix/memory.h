// Blocks of ordinary memory. See memory.cpp.
#ifndef OSA_POSIX_MEMORY_H
#define OSA_POSIX_MEMORY_H

#include <cstdint>

namespace osa
{

struct MemoryCounts {
    uint32_t blocks;
    uint64_t bytes;
};

MemoryCounts memory_counts();

// One error line for each live block.
void memory_report_alive();

// While open, large blocks that come back are kept for the next to ask; closing
// frees what is kept.
void memory_open_cache();
void memory_close_cache();

} // namespace osa

#endif
