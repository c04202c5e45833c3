// The states of the threads that use the layer.

#include "osa/posix/thread_state.h"

#include <algorithm>
#include <new>
#include <optional>

#include <pthread.h>

#include "osa/posix/pool.h"

namespace osa
{

namespace
{

constinit ThreadState g_no_state;

constinit std::mutex g_mutex;
constinit ThreadState *g_states = nullptr;

// What threads that have ended, or that got no state, add to the sums.
constinit std::atomic<int64_t> g_alive_of_others[kKindCount] = {};
constinit std::atomic<int64_t> g_out_of_others[kPoolLimit] = {};

void link_state(ThreadState &state)
{
    state.next = g_states;
    if (g_states != nullptr)
        g_states->prev = &state;
    g_states = &state;
}

void unlink_state(const ThreadState &state)
{
    (state.prev != nullptr ? state.prev->next : g_states) = state.next;
    if (state.next != nullptr)
        state.next->prev = state.prev;
}

void keep_counts(const ThreadState &state)
{
    for (uint32_t kind = 0; kind < kKindCount; ++kind)
        g_alive_of_others[kind].fetch_add(state.alive[kind].get(), std::memory_order_relaxed);
    for (uint32_t pool = 0; pool < kPoolLimit; ++pool)
        g_out_of_others[pool].fetch_add(state.slots[pool].out(), std::memory_order_relaxed);
}

void end_state(void *argument)
{
    ThreadState *state = static_cast<ThreadState *>(argument);
    {
        const std::lock_guard lock(g_mutex);
        pools_hand_back(*state);
        keep_counts(*state);
        unlink_state(*state);
    }
    t_state = &g_no_state;
    delete state;
}

// The key's only use is its destructor, which runs as a thread ends. None where
// the program has used up the system's keys.
const std::optional<pthread_key_t> &end_of_thread()
{
    static const std::optional<pthread_key_t> key = []() -> std::optional<pthread_key_t> {
        pthread_key_t created = 0;
        if (pthread_key_create(&created, end_state) != 0)
            return std::nullopt;
        return created;
    }();
    return key;
}

ThreadState *make_state()
{
    const std::optional<pthread_key_t> &key = end_of_thread();
    ThreadState *state = key ? new (std::nothrow) ThreadState : nullptr;
    if (state == nullptr)
        return nullptr;
    if (pthread_setspecific(*key, state) != 0) {
        delete state;
        return nullptr;
    }
    const std::lock_guard lock(g_mutex);
    link_state(*state);
    t_state = state;
    return state;
}

} // namespace

constinit thread_local ThreadState *t_state = &g_no_state;

ThreadState *thread_state()
{
    ThreadState *state = t_state;
    return state != &g_no_state ? state : make_state();
}

void count_alive(Kind kind, int64_t difference)
{
    const uint32_t index = static_cast<uint32_t>(kind);
    if (ThreadState *state = thread_state(); state != nullptr)
        state->alive[index].add(difference);
    else
        g_alive_of_others[index].fetch_add(difference, std::memory_order_relaxed);
}

void count_out_without_state(uint32_t pool, int64_t difference)
{
    g_out_of_others[pool].fetch_add(difference, std::memory_order_relaxed);
}

AllThreads::AllThreads() : m_lock(g_mutex) {}

uint32_t AllThreads::alive(Kind kind) const
{
    const uint32_t index = static_cast<uint32_t>(kind);
    int64_t sum = g_alive_of_others[index].load(std::memory_order_relaxed);
    for (const ThreadState *state = g_states; state != nullptr; state = state->next)
        sum += state->alive[index].get();
    // Another thread may be caught between its two halves of a change.
    return static_cast<uint32_t>(std::clamp<int64_t>(sum, 0, UINT32_MAX));
}

int64_t AllThreads::out(uint32_t pool) const
{
    int64_t sum = g_out_of_others[pool].load(std::memory_order_relaxed);
    for (const ThreadState *state = g_states; state != nullptr; state = state->next)
        sum += state->slots[pool].out();
    return sum;
}

void AllThreads::forget_magazines() const
{
    for (ThreadState *state = g_states; state != nullptr; state = state->next) {
        for (PoolSlot &slot : state->slots) {
            slot.balance.set(slot.out());
            slot.count.set(0);
            slot.capacity.set(0);
        }
    }
}

} // namespace osa
