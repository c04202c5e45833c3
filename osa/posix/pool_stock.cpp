// The stock of the pools: chunks, and the magazines that carry their blocks
// between threads and depot.

#include <cstdlib>

#include "osa/posix/poison.h"
#include "osa/posix/pool.h"
#include "osa/posix/pool_table.h"

namespace osa
{

constinit Store g_stores[kPoolLimit];

namespace
{

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

Magazine *find_stocked(uint32_t number)
{
    Magazine *stocked = g_stores[number].depot.pop();
    return stocked != nullptr ? stocked : make_stocked(number);
}

void put_away(uint32_t number, Magazine *magazine)
{
    if (magazine->count > 0)
        g_stores[number].depot.push(magazine);
    else
        magazine_keep_empty(magazine);
}

// After the pools stopped the pointers of the slot lead nowhere.
void forget_void_magazines(PoolSlot &slot)
{
    if (slot.capacity.get() == 0) {
        slot.loaded = nullptr;
        slot.spare = nullptr;
    }
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
    slot.capacity.set(g_pools[number].capacity);
    slot.balance.add(magazine->count);
    slot.count.set(magazine->count);
}

} // namespace

bool restock(uint32_t number, PoolSlot &slot)
{
    forget_void_magazines(slot);
    Magazine *stocked = slot.spare;
    if (stocked == nullptr || stocked->count == 0)
        stocked = find_stocked(number);
    if (stocked == nullptr)
        return false;
    load(number, slot, stocked);
    return true;
}

bool make_room(uint32_t number, PoolSlot &slot)
{
    forget_void_magazines(slot);
    Magazine *empty = slot.spare;
    if (empty == nullptr || empty->count > 0)
        empty = magazine_take_empty();
    if (empty == nullptr)
        return false;
    load(number, slot, empty);
    return true;
}

void *take_from_depot(uint32_t number)
{
    Magazine *stocked = find_stocked(number);
    if (stocked == nullptr)
        return nullptr;
    void *block = stocked->blocks[--stocked->count];
    put_away(number, stocked);
    return block;
}

void give_to_depot(uint32_t number, void *block)
{
    Magazine *magazine = g_stores[number].depot.pop();
    if (magazine != nullptr && magazine->count == g_pools[number].capacity) {
        put_away(number, magazine);
        magazine = nullptr;
    }
    if (magazine == nullptr)
        magazine = magazine_take_empty();
    if (magazine == nullptr)
        return;
    magazine->blocks[magazine->count++] = block;
    put_away(number, magazine);
}

void pools_hand_back(ThreadState &state)
{
    const uint32_t count = g_pool_count.load(std::memory_order_acquire);
    for (uint32_t number = 1; number < count; ++number) {
        PoolSlot &slot = state.slots[number];
        if (slot.capacity.get() == 0)
            continue;
        unload_count(slot);
        put_away(number, slot.loaded);
        if (slot.spare != nullptr)
            put_away(number, slot.spare);
    }
}

void release_stock(uint32_t number)
{
    Chunk *chunk = g_stores[number].chunks.exchange(nullptr, std::memory_order_acquire);
    while (chunk != nullptr) {
        Chunk *next = chunk->next;
        std::free(chunk);
        chunk = next;
    }
    g_stores[number].depot.forget();
}

} // namespace osa
