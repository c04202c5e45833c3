// Blocks of ordinary memory: zero-filled, remembered with who took them, and
// large ones kept for reuse.
//
// Each block lies behind a header that links it into the list of live blocks,
// oldest first. Large blocks that come back move to the list of kept ones: the C
// library would unmap such a block, and map and fault every page of it again for
// the next frame. One mutex guards both lists; filling and freeing happen outside.

#include "osa/common/export.h"

#include "osa/posix/memory.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "osa/posix/poison.h"
#include "osa/posix/report.h"

namespace osa
{

namespace
{

// A block's header and a pool's red zones come on top of any 32-bit size, and a
// sum that wrapped would hand out a block far too small.
static_assert(sizeof(size_t) == 8);

constexpr uint32_t kLargeBlock = 64 << 10;     // bytes
constexpr uint64_t kKeptBytesLimit = 64 << 20; // of all kept blocks
constexpr uint32_t kKeptBlocksLimit = 16;
constexpr uintptr_t kLiveMark = 0x6f73616d;

struct alignas(16) Header {
    Header *prev;
    Header *next;
    const char *module;
    const char *function;
    int32_t line;
    uint32_t size;  // bytes of the block
    uintptr_t mark; // of a live block: kLiveMark and the header's own address
};

struct Blocks {
    Header *oldest = nullptr;
    Header *newest = nullptr;
    uint32_t count = 0;
    uint64_t bytes = 0;

    void append(Header &header);
    void remove(const Header &header);
};

constinit std::mutex g_mutex;
constinit Blocks g_live;
constinit Blocks g_kept;
constinit bool g_cache_is_open = false;

void Blocks::append(Header &header)
{
    header.prev = newest;
    header.next = nullptr;
    (newest != nullptr ? newest->next : oldest) = &header;
    newest = &header;
    ++count;
    bytes += header.size;
}

void Blocks::remove(const Header &header)
{
    (header.prev != nullptr ? header.prev->next : oldest) = header.next;
    (header.next != nullptr ? header.next->prev : newest) = header.prev;
    --count;
    bytes -= header.size;
}

uintptr_t live_mark(const Header *header)
{
    return reinterpret_cast<uintptr_t>(header) ^ kLiveMark;
}

// Under the mutex: a kept block of exactly that size, the warmest one.
Header *take_kept(uint32_t size)
{
    Header *header = g_kept.newest;
    while (header != nullptr && header->size != size)
        header = header->prev;
    if (header != nullptr)
        g_kept.remove(*header);
    return header;
}

Header *take_kept_block(uint32_t size)
{
    Header *header = nullptr;
    {
        const std::lock_guard lock(g_mutex);
        header = take_kept(size);
    }
    if (header != nullptr) {
        unpoison(header + 1, size);
        std::memset(header + 1, 0, size);
    }
    return header;
}

Header *obtain(uint32_t size)
{
    Header *header = size >= kLargeBlock ? take_kept_block(size) : nullptr;
    if (header == nullptr)
        header = static_cast<Header *>(std::calloc(1, sizeof(Header) + size));
    return header;
}

// Frees the kept blocks that are past the given limits, oldest first.
void trim_kept(uint32_t blocks_limit, uint64_t bytes_limit)
{
    for (;;) {
        Header *surplus = nullptr;
        {
            const std::lock_guard lock(g_mutex);
            if (g_kept.count <= blocks_limit && g_kept.bytes <= bytes_limit)
                return;
            surplus = g_kept.oldest;
            g_kept.remove(*surplus);
        }
        std::free(surplus);
    }
}

enum class Fate { foreign, to_be_freed, kept };

// Takes the block off the live ones, and keeps it where that serves.
Fate retire(Header &header)
{
    const std::lock_guard lock(g_mutex);
    if (header.mark != live_mark(&header))
        return Fate::foreign;
    header.mark = 0;
    g_live.remove(header);
    if (!g_cache_is_open || header.size < kLargeBlock || header.size > kKeptBytesLimit)
        return Fate::to_be_freed;
    poison(&header + 1, header.size);
    g_kept.append(header);
    return Fate::kept;
}

OSA_LiveBlock describe(const Header &header)
{
    return {&header + 1, header.size, header.module, header.line, header.function};
}

const char *text_or_dash(const char *text)
{
    return text != nullptr ? text : "-";
}

struct BlockList {
    OSA_LiveBlock *blocks;
    uint32_t room;
    uint32_t count;
};

void collect(void *user, const OSA_LiveBlock *block)
{
    BlockList &list = *static_cast<BlockList *>(user);
    if (list.count < list.room)
        list.blocks[list.count++] = *block;
}

} // namespace

MemoryCounts memory_counts()
{
    const std::lock_guard lock(g_mutex);
    return {g_live.count, g_live.bytes};
}

// Traced from a copy, so that whoever receives the lines may use memory.
void memory_report_alive()
{
    const uint32_t count = memory_counts().blocks;
    const std::unique_ptr<OSA_LiveBlock[]> blocks(new (std::nothrow) OSA_LiveBlock[count]);
    if (blocks == nullptr) {
        OSA_REPORT(OSA_TRACE_ERROR, "still alive: %u blocks\n", count);
        return;
    }
    BlockList list{blocks.get(), count, 0};
    OSA_MemoryVisit(collect, &list);
    for (uint32_t index = 0; index < list.count; ++index) {
        const OSA_LiveBlock &block = blocks[index];
        OSA_REPORT(OSA_TRACE_ERROR, "still alive: %u bytes at %p, taken by %s:%d %s\n", block.size,
                   block.block, text_or_dash(block.module), block.line,
                   text_or_dash(block.function));
    }
}

void memory_open_cache()
{
    const std::lock_guard lock(g_mutex);
    g_cache_is_open = true;
}

void memory_close_cache()
{
    {
        const std::lock_guard lock(g_mutex);
        g_cache_is_open = false;
    }
    trim_kept(0, 0);
}

} // namespace osa

extern "C" {

void *OSA_Malloc(uint32_t size, int32_t, int32_t, const char *module, int32_t line,
                 const char *function)
{
    osa::Header *header = osa::obtain(size);
    if (header == nullptr) {
        OSA_REPORT(OSA_TRACE_ERROR, "no memory for %u bytes asked for by %s:%d %s\n", size,
                   osa::text_or_dash(module), line, osa::text_or_dash(function));
        return nullptr;
    }
    header->module = module;
    header->function = function;
    header->line = line;
    header->size = size;
    header->mark = osa::live_mark(header);
    const std::lock_guard lock(osa::g_mutex);
    osa::g_live.append(*header);
    return header + 1;
}

void OSA_Free(void *block, int32_t)
{
    if (block == nullptr)
        return;
    osa::Header *header = static_cast<osa::Header *>(block) - 1;
    const osa::Fate fate = osa::retire(*header);
    if (fate == osa::Fate::foreign)
        OSA_REPORT(OSA_TRACE_ERROR, "%p is not a live block: freed already, or never taken here\n",
                   block);
    else if (fate == osa::Fate::kept)
        osa::trim_kept(osa::kKeptBlocksLimit, osa::kKeptBytesLimit);
    else
        std::free(header);
}

uint32_t OSA_MemoryVisit(void (*visit)(void *user, const OSA_LiveBlock *block), void *user)
{
    const std::lock_guard lock(osa::g_mutex);
    for (osa::Header *header = osa::g_live.oldest; header != nullptr; header = header->next) {
        const OSA_LiveBlock block = osa::describe(*header);
        if (visit != nullptr)
            visit(user, &block);
    }
    return osa::g_live.count;
}

} // extern "C"
