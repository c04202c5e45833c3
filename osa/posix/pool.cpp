// Pools of fixed-size blocks, found by their exact size, with no mutex on the
// way of a block.
//
// A thread takes blocks from and gives them to the magazine that it has loaded
// in the pool's slot of its own state. When that runs empty or full it turns to
// its spare magazine, and then to the pool's depot, a lock-free stack of
// magazines with blocks; new blocks are made a chunk at a time, one magazine's
// worth. A block may come back on another thread than it left on: it simply
// joins that thread's magazine. A thread that ends puts its magazines into the
// depot.
//
// 1. A block is at any time with a user, in one thread's magazine, or in a
//    magazine of the depot.
// 2. A pool that was unregistered keeps its number and its memory: its blocks may
//    still come back, and registering the size again goes on with it.
// 3. Memory is freed when the pools stop with no block out. No thread may be
//    inside a pool operation then; what idle threads hold is made void.

#include "osa/common/export.h"

#include "osa/posix/pool.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "osa/posix/poison.h"
#include "osa/posix/report.h"
#include "osa/posix/thread_state.h"

namespace osa
{

namespace
{

constexpr uint32_t kSmallest = 16;       // bytes; the step of block sizes inside
constexpr uint32_t kDirectLimit = 1024;  // sizes up to here are found by one look
constexpr size_t kChunkBytes = 64 << 10; // large blocks come in smaller magazines
constexpr size_t kNameSize = 48;

struct Chunk {
    Chunk *next;
    alignas(kSmallest) unsigned char blocks[kSmallest]; // and on, one block after another
};

struct Pool {
    std::atomic<bool> registered{false};
    uint32_t block_size = 0;
    uint32_t capacity = 0; // blocks in a magazine and in a chunk
    size_t usable = 0;     // bytes of a block, rounded up; zeroed when handed out
    char name[kNameSize] = {};
    alignas(64) MagazineStack depot; // on its own cache line: threads meet here
    std::atomic<Chunk *> chunks{nullptr};
};

constinit Pool g_pools[kPoolLimit]; // number 0 is never registered
constinit std::atomic<uint32_t> g_pool_count{1};
constinit std::atomic<uint8_t> g_direct[kDirectLimit + 1] = {}; // size -> number

// Serialises starting, stopping and registering.
constinit std::mutex g_mutex;
constinit bool g_started = false;

uint32_t search_number(uint32_t block_size)
{
    const uint32_t count = g_pool_count.load(std::memory_order_acquire);
    for (uint32_t number = 1; number < count; ++number)
        if (g_pools[number].block_size == block_size)
            return number;
    return 0;
}

// The number of the pool of that size, registered or once registered, or 0.
inline uint32_t pool_number(uint32_t block_size)
{
    if (block_size <= kDirectLimit) [[likely]]
        return g_direct[block_size].load(std::memory_order_relaxed);
    return search_number(block_size);
}

inline bool is_registered(const Pool &pool)
{
    return pool.registered.load(std::memory_order_acquire);
}

// ---- chunks and magazines -------------------------------------------------------

// Fills an empty magazine with the blocks of a new chunk.
bool fill_from_new_chunk(Pool &pool, Magazine &magazine)
{
    const size_t stride = pool.usable + kRedZone;
    const size_t size = offsetof(Chunk, blocks) + pool.capacity * stride;
    Chunk *chunk = static_cast<Chunk *>(std::calloc(1, size));
    if (chunk == nullptr)
        return false;
    unsigned char *block = chunk->blocks;
    for (uint32_t index = 0; index < pool.capacity; ++index, block += stride)
        magazine.blocks[index] = block;
    magazine.count = pool.capacity;
    poison(chunk->blocks, pool.capacity * stride);
    chunk->next = pool.chunks.load(std::memory_order_relaxed);
    while (!pool.chunks.compare_exchange_weak(chunk->next, chunk, std::memory_order_release,
                                              std::memory_order_relaxed)) {
    }
    return true;
}

Magazine *make_stocked(Pool &pool)
{
    Magazine *magazine = magazine_take_empty();
    if (magazine == nullptr)
        return nullptr;
    if (fill_from_new_chunk(pool, *magazine))
        return magazine;
    magazine_keep_empty(magazine);
    return nullptr;
}

void put_away(Pool &pool, Magazine *magazine)
{
    if (magazine->count > 0)
        pool.depot.push(magazine);
    else
        magazine_keep_empty(magazine);
}

// After the pools stopped the pointers of the slot lead nowhere.
void open_slot(const Pool &pool, PoolSlot &slot)
{
    if (slot.capacity.get() != 0)
        return;
    slot.loaded = nullptr;
    slot.spare = nullptr;
    slot.capacity.set(pool.capacity);
}

// Puts the loaded magazine in the spare's place, and the spare away if need be.
void load(Pool &pool, PoolSlot &slot, Magazine *magazine)
{
    if (slot.loaded != nullptr) {
        slot.loaded->count = slot.count.get();
        if (slot.spare != nullptr && slot.spare != magazine)
            put_away(pool, slot.spare);
        slot.spare = slot.loaded;
    }
    slot.loaded = magazine;
    slot.count.set(magazine->count);
}

// Loads a magazine with blocks in place of an empty one or none.
bool restock(Pool &pool, PoolSlot &slot)
{
    open_slot(pool, slot);
    Magazine *stocked = slot.spare;
    if (stocked == nullptr || stocked->count == 0)
        stocked = pool.depot.pop();
    if (stocked == nullptr)
        stocked = make_stocked(pool);
    if (stocked == nullptr)
        return false;
    load(pool, slot, stocked);
    return true;
}

// Loads an empty magazine in place of a full one or none.
bool make_room(Pool &pool, PoolSlot &slot)
{
    open_slot(pool, slot);
    Magazine *empty = slot.spare;
    if (empty == nullptr || empty->count > 0)
        empty = magazine_take_empty();
    if (empty == nullptr)
        return false;
    load(pool, slot, empty);
    return true;
}

// ---- registering ----------------------------------------------------------------

void set_up(Pool &pool, uint32_t block_size)
{
    const size_t step = kSmallest;
    pool.block_size = block_size;
    pool.usable = std::max(step, (block_size + step - 1) / step * step);
    const size_t fitting = kChunkBytes / pool.usable;
    pool.capacity = static_cast<uint32_t>(std::clamp<size_t>(fitting, 1, kMagazineCapacity));
}

// Under the mutex: a number for a size that has none, or 0 when all are in use.
uint32_t add_pool(uint32_t block_size)
{
    const uint32_t number = g_pool_count.load(std::memory_order_relaxed);
    if (number == kPoolLimit)
        return 0;
    set_up(g_pools[number], block_size);
    g_pool_count.store(number + 1, std::memory_order_release);
    if (block_size <= kDirectLimit)
        g_direct[block_size].store(static_cast<uint8_t>(number), std::memory_order_release);
    return number;
}

void release_pool(Pool &pool)
{
    if (pool.block_size <= kDirectLimit)
        g_direct[pool.block_size].store(0, std::memory_order_relaxed);
    Chunk *chunk = pool.chunks.exchange(nullptr, std::memory_order_acquire);
    while (chunk != nullptr) {
        Chunk *next = chunk->next;
        std::free(chunk);
        chunk = next;
    }
    pool.depot.forget();
    pool.block_size = 0;
}

bool any_out(const AllThreads &threads)
{
    const uint32_t count = g_pool_count.load(std::memory_order_relaxed);
    for (uint32_t number = 1; number < count; ++number)
        if (threads.out(number) != 0)
            return true;
    return false;
}

} // namespace

void *pool_take(uint32_t block_size)
{
    const uint32_t number = pool_number(block_size);
    Pool &pool = g_pools[number];
    if (!is_registered(pool)) [[unlikely]]
        return nullptr;
    ThreadState *state = thread_state();
    if (state == nullptr) [[unlikely]]
        return nullptr;
    PoolSlot &slot = state->slots[number];
    if (slot.count.get() == 0 && !restock(pool, slot)) [[unlikely]]
        return nullptr;
    const uint32_t left = slot.count.get() - 1;
    slot.count.set(left);
    slot.out.add(1);
    void *block = slot.loaded->blocks[left];
    unpoison(block, pool.usable);
    return std::memset(block, 0, pool.usable);
}

void pool_give(void *block, uint32_t block_size)
{
    const uint32_t number = pool_number(block_size);
    if (number == 0) [[unlikely]] {
        OSA_REPORT(OSA_TRACE_ERROR,
                   "block %p given to a pool of %u-byte blocks, which is not there\n", block,
                   block_size);
        return;
    }
    touch(block);
    Pool &pool = g_pools[number];
    poison(block, pool.usable);
    ThreadState *state = thread_state();
    if (state == nullptr) [[unlikely]] {
        count_given_without_state(number);
        return;
    }
    PoolSlot &slot = state->slots[number];
    slot.out.add(-1);
    // Without memory for a magazine the block lies idle until the pools stop.
    if (slot.count.get() == slot.capacity.get() && !make_room(pool, slot)) [[unlikely]]
        return;
    const uint32_t count = slot.count.get();
    slot.loaded->blocks[count] = block;
    slot.count.set(count + 1);
}

void pools_hand_back(ThreadState &state)
{
    const uint32_t count = g_pool_count.load(std::memory_order_acquire);
    for (uint32_t number = 1; number < count; ++number) {
        PoolSlot &slot = state.slots[number];
        if (slot.capacity.get() == 0)
            continue;
        if (slot.loaded != nullptr) {
            slot.loaded->count = slot.count.get();
            put_away(g_pools[number], slot.loaded);
        }
        if (slot.spare != nullptr)
            put_away(g_pools[number], slot.spare);
    }
}

void pools_stop()
{
    const std::lock_guard lock(g_mutex);
    g_started = false;
    for (Pool &pool : g_pools)
        pool.registered.store(false, std::memory_order_release);
    const AllThreads threads;
    if (any_out(threads))
        return;
    threads.forget_magazines();
    const uint32_t count = g_pool_count.exchange(1, std::memory_order_relaxed);
    for (uint32_t number = 1; number < count; ++number)
        release_pool(g_pools[number]);
    magazines_release();
}

void pools_report_alive()
{
    const std::lock_guard lock(g_mutex);
    const uint32_t count = g_pool_count.load(std::memory_order_relaxed);
    for (uint32_t number = 1; number < count; ++number) {
        const int64_t out = AllThreads().out(number);
        if (out > 0)
            OSA_REPORT(OSA_TRACE_ERROR, "still alive: %lld blocks of %u bytes of the pool \"%s\"\n",
                       static_cast<long long>(out), g_pools[number].block_size,
                       g_pools[number].name);
    }
}

uint32_t pools_count_out()
{
    const AllThreads threads;
    int64_t sum = 0;
    for (uint32_t number = 1; number < kPoolLimit; ++number)
        sum += threads.out(number);
    return static_cast<uint32_t>(std::clamp<int64_t>(sum, 0, UINT32_MAX));
}

} // namespace osa

using osa::g_pools;

extern "C" {

int32_t OSA_SMalloc_Init(void)
{
    const std::lock_guard lock(osa::g_mutex);
    osa::g_started = true;
    return 0;
}

int32_t OSA_SMalloc_Deinit(void)
{
    osa::pools_stop();
    return 0;
}

int32_t OSA_SMalloc_Register(uint32_t block_size, const char *name)
{
    const std::lock_guard lock(osa::g_mutex);
    if (block_size == 0 || name == nullptr || !osa::g_started) {
        OSA_REPORT(OSA_TRACE_ERROR, "pool \"%s\" of %u-byte blocks refused: %s\n",
                   name != nullptr ? name : "null", block_size,
                   osa::g_started ? "it needs a size and a name" : "the pools are not started");
        return -1;
    }
    uint32_t number = osa::pool_number(block_size);
    if (is_registered(g_pools[number]))
        return 0;
    if (number == 0)
        number = osa::add_pool(block_size);
    if (number == 0) {
        OSA_REPORT(OSA_TRACE_ERROR, "pool \"%s\" of %u-byte blocks refused: there are %u already\n",
                   name, block_size, osa::kPoolLimit - 1);
        return -1;
    }
    std::snprintf(g_pools[number].name, osa::kNameSize, "%s", name);
    g_pools[number].registered.store(true, std::memory_order_release);
    return 0;
}

int32_t OSA_SMalloc_UnRegister(uint32_t block_size)
{
    const std::lock_guard lock(osa::g_mutex);
    osa::Pool &pool = g_pools[osa::pool_number(block_size)];
    return pool.registered.exchange(false, std::memory_order_acq_rel) ? 0 : -1;
}

uint8_t OSA_SMemIsReg(uint32_t block_size)
{
    return is_registered(g_pools[osa::pool_number(block_size)]);
}

const char *OSA_SMemGetName(uint32_t block_size)
{
    const osa::Pool &pool = g_pools[osa::pool_number(block_size)];
    return is_registered(pool) ? pool.name : nullptr;
}

void *OSA_SMalloc(uint32_t block_size)
{
    return osa::pool_take(block_size);
}

void OSA_SFree(void *block, uint32_t block_size)
{
    if (block != nullptr)
        osa::pool_give(block, block_size);
}

} // extern "C"
