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
#include <utility>

#include "osa/posix/poison.h"
#include "osa/posix/report.h"
#include "osa/posix/thread_state.h"

namespace osa
{

namespace
{

constexpr uint32_t kStep = 16;             // bytes; the step of block sizes inside
constexpr uint32_t kDirectLimit = 1024;    // sizes up to here are found by one look
constexpr uint32_t kChunkBytes = 64 << 10; // large blocks come in smaller magazines
constexpr uint32_t kLargestBlock = UINT32_MAX - kStep;
constexpr size_t kNameSize = 48;

struct Chunk {
    Chunk *next;
    alignas(kStep) unsigned char blocks[kStep]; // and on, one block after another
};

// What every block's way reads of its size, found by an index: the size itself
// when it is small, else a place behind those. 0 for a size without a pool.
constexpr size_t kIndexLimit = kDirectLimit + 1 + kPoolLimit;
constinit std::atomic<const char *> g_names[kIndexLimit] = {};  // null unless registered
constinit std::atomic<uint32_t> g_taken_from[kIndexLimit] = {}; // the pool; 0 unless registered
constinit std::atomic<uint32_t> g_given_to[kIndexLimit] = {};   // kept after unregistering

struct Pool {
    size_t index = 0;
    uint32_t block_size = 0; // bytes
    uint32_t usable = 0;     // the same rounded up; zeroed when handed out
    uint32_t capacity = 0;   // blocks in a magazine and in a chunk
};

// What whole magazines meet; on cache lines of its own.
struct alignas(64) Store {
    MagazineStack depot;
    std::atomic<Chunk *> chunks{nullptr};
    char name[kNameSize] = {};
};

constinit Pool g_pools[kPoolLimit]; // by number; that of 0 has no blocks
constinit Store g_stores[kPoolLimit];
constinit std::atomic<uint32_t> g_pool_count{1};

// Serialises starting, stopping and registering.
constinit std::mutex g_mutex;
constinit bool g_started = false;

// Sizes past the direct ones are few, and their blocks too large to be quick.
[[gnu::noinline]] size_t search_index(uint32_t block_size)
{
    const uint32_t count = g_pool_count.load(std::memory_order_acquire);
    for (uint32_t number = 1; number < count; ++number)
        if (g_pools[number].block_size == block_size)
            return g_pools[number].index;
    return 0;
}

// Applies `operation` to the index of that size. Two calls, so that the compiler
// folds the direct look into the operation.
template <typename Operation>
inline auto with_index(uint32_t block_size, Operation operation)
{
    if (block_size <= kDirectLimit) [[likely]]
        return operation(size_t{block_size});
    return operation(search_index(block_size));
}

inline const char *name_at(size_t index)
{
    return g_names[index].load(std::memory_order_acquire);
}

inline uint32_t given_to_at(size_t index)
{
    return g_given_to[index].load(std::memory_order_acquire);
}

// ---- chunks and magazines -------------------------------------------------------

// Fills an empty magazine with the blocks of a new chunk.
bool fill_from_new_chunk(uint32_t number, Magazine &magazine)
{
    const Pool &pool = g_pools[number];
    const size_t stride = size_t{pool.usable} + kRedZone;
    const size_t size = offsetof(Chunk, blocks) + pool.capacity * stride;
    Chunk *chunk = static_cast<Chunk *>(std::calloc(1, size));
    if (chunk == nullptr)
        return false;
    unsigned char *block = chunk->blocks;
    for (uint32_t index = 0; index < pool.capacity; ++index, block += stride)
        magazine.blocks[index] = block;
    magazine.count = pool.capacity;
    poison(chunk->blocks, pool.capacity * stride);
    std::atomic<Chunk *> &chunks = g_stores[number].chunks;
    chunk->next = chunks.load(std::memory_order_relaxed);
    while (!chunks.compare_exchange_weak(chunk->next, chunk, std::memory_order_release,
                                         std::memory_order_relaxed)) {
    }
    return true;
}

Magazine *make_stocked(uint32_t number)
{
    Magazine *magazine = magazine_take_empty();
    if (magazine == nullptr)
        return nullptr;
    if (fill_from_new_chunk(number, *magazine))
        return magazine;
    magazine_keep_empty(magazine);
    return nullptr;
}

void put_away(uint32_t number, Magazine *magazine)
{
    if (magazine->count > 0)
        g_stores[number].depot.push(magazine);
    else
        magazine_keep_empty(magazine);
}

// After the pools stopped the pointers of the slot lead nowhere.
void open_slot(uint32_t number, PoolSlot &slot)
{
    if (slot.capacity.get() != 0)
        return;
    slot.loaded = nullptr;
    slot.spare = nullptr;
    slot.capacity.set(g_pools[number].capacity);
}

void unload_count(PoolSlot &slot)
{
    slot.loaded->count = slot.count.get();
    slot.balance.set(slot.out());
    slot.count.set(0);
}

// Puts the loaded magazine in the spare's place, and the spare away if need be.
void load(uint32_t number, PoolSlot &slot, Magazine *magazine)
{
    if (slot.loaded != nullptr) {
        unload_count(slot);
        if (slot.spare != nullptr && slot.spare != magazine)
            put_away(number, slot.spare);
        slot.spare = slot.loaded;
    }
    magazine->usable = g_pools[number].usable;
    slot.loaded = magazine;
    slot.balance.add(magazine->count);
    slot.count.set(magazine->count);
}

// Loads a magazine with blocks in place of an empty one or none.
bool restock(uint32_t number, PoolSlot &slot)
{
    open_slot(number, slot);
    Magazine *stocked = slot.spare;
    if (stocked == nullptr || stocked->count == 0)
        stocked = g_stores[number].depot.pop();
    if (stocked == nullptr)
        stocked = make_stocked(number);
    if (stocked == nullptr)
        return false;
    load(number, slot, stocked);
    return true;
}

// Loads an empty magazine in place of a full one or none.
bool make_room(uint32_t number, PoolSlot &slot)
{
    open_slot(number, slot);
    Magazine *empty = slot.spare;
    if (empty == nullptr || empty->count > 0)
        empty = magazine_take_empty();
    if (empty == nullptr)
        return false;
    load(number, slot, empty);
    return true;
}

// ---- the way of a block ---------------------------------------------------------

template <size_t... offsets>
inline void zero_pieces(unsigned char *memory, std::index_sequence<offsets...>)
{
    (std::memset(memory + offsets * kStep, 0, kStep), ...);
}

// Zeroes the first and the last `half` bytes, which cover the block.
template <size_t half>
inline void *zero_ends(void *block, size_t size)
{
    unsigned char *first = static_cast<unsigned char *>(block);
    zero_pieces(first, std::make_index_sequence<half / kStep>());
    zero_pieces(first + size - half, std::make_index_sequence<half / kStep>());
    return block;
}

// Records are small: a few plain stores beat the call of a general memset.
inline void *zero(void *block, size_t size)
{
    if (size > 256)
        return std::memset(block, 0, size);
    if (size > 128)
        return zero_ends<128>(block, size);
    if (size > 64)
        return zero_ends<64>(block, size);
    return size > 32 ? zero_ends<32>(block, size) : zero_ends<kStep>(block, size);
}

inline void *take_from(PoolSlot &slot, uint32_t count)
{
    const Magazine &magazine = *slot.loaded;
    slot.count.set(count - 1);
    void *block = magazine.blocks[count - 1];
    unpoison(block, magazine.usable);
    return zero(block, magazine.usable);
}

inline void give_to(PoolSlot &slot, uint32_t count, void *block)
{
    slot.loaded->blocks[count] = block;
    slot.count.set(count + 1);
}

// The slow halves stay out of line, so that the quick ones need no stack.

[[gnu::noinline, gnu::cold]] void *take_slowly(uint32_t number)
{
    ThreadState *state = number != 0 ? thread_state() : nullptr;
    if (state == nullptr || !restock(number, state->slots[number]))
        return nullptr;
    PoolSlot &slot = state->slots[number];
    return take_from(slot, slot.count.get());
}

[[gnu::noinline, gnu::cold]] void give_slowly(uint32_t number, uint32_t block_size, void *block)
{
    if (number == 0) {
        OSA_REPORT(OSA_TRACE_ERROR, "there is no pool of %u-byte blocks to give %p to\n",
                   block_size, block);
        return;
    }
    // Without memory for a magazine the block lies idle until the pools stop.
    ThreadState *state = thread_state();
    if (state == nullptr) {
        count_given_without_state(number);
        return;
    }
    PoolSlot &slot = state->slots[number];
    if (make_room(number, slot))
        give_to(slot, slot.count.get(), block);
    else
        slot.balance.add(-1);
}

inline void *take(size_t index)
{
    const uint32_t number = g_taken_from[index].load(std::memory_order_acquire);
    PoolSlot &slot = t_state->slots[number];
    const uint32_t count = slot.count.get();
    if (count > 0) [[likely]]
        return take_from(slot, count);
    return take_slowly(number);
}

inline void give(size_t index, uint32_t block_size, void *block)
{
    const uint32_t number = given_to_at(index);
    touch(block);
    poison(block, g_pools[number].usable);
    PoolSlot &slot = t_state->slots[number];
    const uint32_t count = slot.count.get();
    if (count != slot.capacity.get()) [[likely]]
        return give_to(slot, count, block);
    give_slowly(number, block_size, block);
}

// ---- registering, under the mutex
// ----------------------------------------------------------------

// A number for a size that has none, while there are numbers.
uint32_t add_pool(uint32_t block_size)
{
    const uint32_t number = g_pool_count.load(std::memory_order_relaxed);
    Pool &pool = g_pools[number];
    pool.index = block_size <= kDirectLimit ? block_size : kDirectLimit + 1 + number;
    pool.block_size = block_size;
    pool.usable = (block_size + kStep - 1) / kStep * kStep;
    pool.capacity = std::clamp(kChunkBytes / pool.usable, 1u, kMagazineCapacity);
    g_given_to[pool.index].store(number, std::memory_order_release);
    g_pool_count.store(number + 1, std::memory_order_release);
    return number;
}

void open_pool(uint32_t number, const char *name)
{
    const size_t index = g_pools[number].index;
    char *own_name = g_stores[number].name;
    std::snprintf(own_name, kNameSize, "%s", name);
    g_taken_from[index].store(number, std::memory_order_release);
    g_names[index].store(own_name, std::memory_order_release);
}

// False when nothing was open there.
bool close_index(size_t index)
{
    g_taken_from[index].store(0, std::memory_order_release);
    return g_names[index].exchange(nullptr, std::memory_order_acq_rel) != nullptr;
}

void release_pool(uint32_t number)
{
    g_given_to[g_pools[number].index].store(0, std::memory_order_release);
    Chunk *chunk = g_stores[number].chunks.exchange(nullptr, std::memory_order_acquire);
    while (chunk != nullptr) {
        Chunk *next = chunk->next;
        std::free(chunk);
        chunk = next;
    }
    g_stores[number].depot.forget();
}

// What stands against registering, or null.
const char *fault_in_pool(uint32_t block_size, const char *name)
{
    if (!g_started)
        return "the pools are not started";
    if (block_size == 0 || block_size > kLargestBlock || name == nullptr)
        return "it needs a size and a name";
    const bool is_new = with_index(block_size, given_to_at) == 0;
    if (is_new && g_pool_count.load(std::memory_order_relaxed) == kPoolLimit)
        return "there are too many pools";
    return nullptr;
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
    return with_index(block_size, take);
}

void pool_give(void *block, uint32_t block_size)
{
    with_index(block_size, [=](size_t index) { give(index, block_size, block); });
}

void pools_hand_back(ThreadState &state)
{
    const uint32_t count = g_pool_count.load(std::memory_order_acquire);
    for (uint32_t number = 1; number < count; ++number) {
        PoolSlot &slot = state.slots[number];
        if (slot.capacity.get() == 0)
            continue;
        if (slot.loaded != nullptr) {
            unload_count(slot);
            put_away(number, slot.loaded);
        }
        if (slot.spare != nullptr)
            put_away(number, slot.spare);
    }
}

void pools_stop()
{
    const std::lock_guard lock(g_mutex);
    g_started = false;
    const uint32_t count = g_pool_count.load(std::memory_order_relaxed);
    for (uint32_t number = 1; number < count; ++number)
        close_index(g_pools[number].index);
    const AllThreads threads;
    if (any_out(threads))
        return;
    threads.forget_magazines();
    for (uint32_t number = 1; number < count; ++number)
        release_pool(number);
    g_pool_count.store(1, std::memory_order_relaxed);
    magazines_release();
}

void pools_report_alive()
{
    const uint32_t count = g_pool_count.load(std::memory_order_acquire);
    for (uint32_t number = 1; number < count; ++number) {
        const int64_t out = AllThreads().out(number);
        if (out > 0)
            OSA_REPORT(OSA_TRACE_ERROR, "still alive: %lld blocks of %u bytes of the pool \"%s\"\n",
                       static_cast<long long>(out), g_pools[number].block_size,
                       g_stores[number].name);
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
    const char *fault = osa::fault_in_pool(block_size, name);
    if (fault != nullptr) {
        OSA_REPORT(OSA_TRACE_ERROR, "pool \"%s\" of %u-byte blocks refused: %s\n",
                   name != nullptr ? name : "null", block_size, fault);
        return -1;
    }
    if (OSA_SMemIsReg(block_size))
        return 0;
    const uint32_t number = osa::with_index(block_size, osa::given_to_at);
    osa::open_pool(number != 0 ? number : osa::add_pool(block_size), name);
    return 0;
}

int32_t OSA_SMalloc_UnRegister(uint32_t block_size)
{
    const std::lock_guard lock(osa::g_mutex);
    return osa::with_index(block_size, osa::close_index) ? 0 : -1;
}

uint8_t OSA_SMemIsReg(uint32_t block_size)
{
    return osa::with_index(block_size, osa::name_at) != nullptr;
}

const char *OSA_SMemGetName(uint32_t block_size)
{
    return osa::with_index(block_size, osa::name_at);
}

void *OSA_SMalloc(uint32_t block_size)
{
    return osa::with_index(block_size, osa::take);
}

void OSA_SFree(void *block, uint32_t block_size)
{
    if (block == nullptr) [[unlikely]]
        return;
    osa::with_index(block_size, [=](size_t index) { osa::give(index, block_size, block); });
}

} // extern "C"
