// The table of pools, which the parts of the pool allocator share.
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
#ifndef OSA_POSIX_POOL_TABLE_H
#define OSA_POSIX_POOL_TABLE_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "osa/posix/magazine.h"
#include "osa/posix/thread_state.h"

namespace osa
{

constexpr uint32_t kBlockStep = 16;     // bytes; blocks are multiples of it
constexpr uint32_t kDirectLimit = 1024; // sizes up to here are found by one look
constexpr size_t kPoolNameSize = 48;

struct Chunk {
    Chunk *next;
    alignas(kBlockStep) unsigned char blocks[kBlockStep]; // and on, one block after another
};

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
    char name[kPoolNameSize] = {};
};

// By number, from 1; that of 0 has no blocks.
extern constinit Pool g_pools[kPoolLimit];
extern constinit Store g_stores[kPoolLimit];
extern constinit std::atomic<uint32_t> g_pool_count; // numbers in use, 0 among them

// What every block's way reads of its size, found by an index: the size itself
// when it is small, else a place behind those. 0 for a size without a pool.
constexpr size_t kIndexLimit = kDirectLimit + 1 + kPoolLimit;
extern constinit std::atomic<const char *> g_names[kIndexLimit];  // null unless registered
extern constinit std::atomic<uint32_t> g_taken_from[kIndexLimit]; // 0 unless registered
extern constinit std::atomic<uint32_t> g_given_to[kIndexLimit];   // kept after unregistering

// The index of a size past the direct ones: these are few, and their blocks too
// large to be quick.
size_t search_index(uint32_t block_size);

template <typename Operation>
[[gnu::noinline]] auto with_searched_index(uint32_t block_size, Operation operation)
{
    return operation(search_index(block_size));
}

// Applies `operation` to the index of that size. The search stays out of line, so
// that the direct look folds into the operation and needs no stack.
template <typename Operation>
inline auto with_index(uint32_t block_size, Operation operation)
{
    if (block_size <= kDirectLimit) [[likely]]
        return operation(size_t{block_size});
    return with_searched_index(block_size, operation);
}

inline const char *name_at(size_t index)
{
    return g_names[index].load(std::memory_order_acquire);
}

inline uint32_t given_to_at(size_t index)
{
    return g_given_to[index].load(std::memory_order_acquire);
}

// Loads a magazine with blocks in place of an empty one or none; false without
// memory. Of the calling thread's slot.
bool restock(uint32_t number, PoolSlot &slot);

// Loads an empty magazine in place of a full one or none; false without memory.
bool make_room(uint32_t number, PoolSlot &slot);

// For a thread without a state: a block from, and to, a magazine of the depot.
// Null without memory, when a block given back lies idle until the pools stop.
void *take_from_depot(uint32_t number);
void give_to_depot(uint32_t number, void *block);

// Frees the chunks of a pool; while no thread uses it.
void release_stock(uint32_t number);

} // namespace osa

#endif
