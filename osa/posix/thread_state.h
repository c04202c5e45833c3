// What the layer keeps for each thread that uses it: its magazines of pool
// blocks, and its share of the counts of what is alive. A thread writes its own
// state only, without locked instructions; sums are taken over all states.
//
// The states hang in a list under one mutex, which is taken when a thread uses
// the layer for the first time, when it ends, and by whoever sums up, never on
// the way of a block.
#ifndef OSA_POSIX_THREAD_STATE_H
#define OSA_POSIX_THREAD_STATE_H

#include <atomic>
#include <cstdint>
#include <mutex>

#include "osa/posix/magazine.h"

namespace osa
{

// Pools are numbered from 1; number 0 is the pool of no size.
constexpr uint32_t kPoolLimit = 64;

enum class Kind : uint32_t {
    list_node,
    pool_backed, // nodes among the blocks that are out of the pools
    list,
    queue,
    event,
    mutex,
    thread,
    library,
    file,
    end,
};

constexpr uint32_t kKindCount = static_cast<uint32_t>(Kind::end);

// A number that one thread changes and others may read.
template <typename Number>
class OwnedNumber
{
public:
    Number get() const
    {
        return m_value.load(std::memory_order_relaxed);
    }
    void set(Number value)
    {
        m_value.store(value, std::memory_order_relaxed);
    }
    void add(Number difference)
    {
        set(get() + difference);
    }

private:
    std::atomic<Number> m_value{0};
};

struct PoolSlot {
    OwnedNumber<uint32_t> count;    // blocks in the loaded magazine
    OwnedNumber<uint32_t> capacity; // 0: no magazine; what the pointers say is void
    Magazine *loaded = nullptr;
    Magazine *spare = nullptr;
    OwnedNumber<int64_t> balance; // blocks that came with magazines loaded less those that left

    // Blocks that this thread took less those it gave back: what came with its
    // magazines and is not in them, so that no block has to be counted.
    int64_t out() const
    {
        return balance.get() - count.get();
    }
};

struct ThreadState {
    ThreadState *next = nullptr;
    ThreadState *prev = nullptr;
    OwnedNumber<int64_t> alive[kKindCount]; // made less released, by this thread
    PoolSlot slots[kPoolLimit];
};

// The calling thread's state; before it has one, the state of no thread, in which
// every slot is without a magazine and nothing is ever written.
extern constinit thread_local ThreadState *t_state __attribute__((tls_model("initial-exec")));

// The calling thread's state, made if need be; null without memory or a key of
// the system for it.
ThreadState *thread_state();

void count_alive(Kind kind, int64_t difference);

// Blocks taken (negative: given back) by a thread that could get no state.
void count_out_without_state(uint32_t pool, int64_t difference);

// Holds the list of states still, and sums over it.
class AllThreads
{
public:
    AllThreads();

    uint32_t alive(Kind kind) const;  // things of that kind
    int64_t out(uint32_t pool) const; // blocks out of that pool

    // Makes every thread forget its magazines.
    void forget_magazines() const;

private:
    std::lock_guard<std::mutex> m_lock;
};

} // namespace osa

#endif
