// The way of a pool block: taken from and given to the calling thread's loaded
// magazine. See pool_table.h for the pools as a whole.

#include "osa/common/export.h"

#include "osa/posix/pool.h"

#include <cstring>
#include <utility>

#include "osa/posix/poison.h"
#include "osa/posix/pool_table.h"
#include "osa/posix/report.h"

namespace osa
{

namespace
{

template <size_t... offsets>
inline void zero_pieces(unsigned char *memory, std::index_sequence<offsets...>)
{
    (std::memset(memory + offsets * kBlockStep, 0, kBlockStep), ...);
}

// Zeroes the first and the last `half` bytes, which cover the block.
template <size_t half>
inline void *zero_ends(void *block, size_t size)
{
    unsigned char *first = static_cast<unsigned char *>(block);
    zero_pieces(first, std::make_index_sequence<half / kBlockStep>());
    zero_pieces(first + size - half, std::make_index_sequence<half / kBlockStep>());
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
    return size > 32 ? zero_ends<32>(block, size) : zero_ends<kBlockStep>(block, size);
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

void *take_without_state(uint32_t number)
{
    void *block = take_from_depot(number);
    if (block == nullptr)
        return nullptr;
    count_out_without_state(number, 1);
    unpoison(block, g_pools[number].usable);
    return zero(block, g_pools[number].usable);
}

// The slow halves stay out of line, so that the quick ones need no stack.

[[gnu::noinline, gnu::cold]] void *take_slowly(uint32_t number)
{
    if (number == 0)
        return nullptr;
    ThreadState *state = thread_state();
    if (state == nullptr)
        return take_without_state(number);
    if (!restock(number, state->slots[number]))
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
        count_out_without_state(number, -1);
        give_to_depot(number, block);
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

} // namespace

void *pool_take(uint32_t block_size)
{
    return with_index(block_size, take);
}

void pool_give(void *block, uint32_t block_size)
{
    with_index(block_size, [=](size_t index) { give(index, block_size, block); });
}

} // namespace osa

extern "C" {

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
