// Threads that outlived their record, until somebody can join them.
//
// Each has a block on a list that any thread may push to, and that is only ever
// taken as a whole, so that the list needs no lock. `ended` is the last thing that
// the thread itself writes to its block.

#include "core/own_loop.h"

#include <atomic>

#include "internal/atomic_field.h"
#include "internal/guard.h"
#include "internal/trace.h"

namespace nox
{

struct DepartedThread {
    DepartedThread *next;
    OSA_Thread *thread;
    uint8_t ended;
};

} // namespace nox

namespace
{

constexpr char kSource[] = "noxobject";

using nox::DepartedThread;

constinit std::atomic<DepartedThread *> g_departed{nullptr};
constinit thread_local nox::OwnLoop *t_loop = nullptr; // null on every other thread

// For a thread that departs when there is no memory; one at a time.
constinit DepartedThread g_spare{};
constinit std::atomic<bool> g_spare_taken{false};

DepartedThread *new_block()
{
    auto *departed = static_cast<DepartedThread *>(NOX_MALLOC(sizeof(DepartedThread)));
    if (departed == nullptr && !g_spare_taken.exchange(true, std::memory_order_acquire)) {
        g_spare = {};
        departed = &g_spare;
    }
    return departed;
}

void release_block(DepartedThread *departed)
{
    if (departed == &g_spare)
        g_spare_taken.store(false, std::memory_order_release);
    else
        OSA_Free(departed, 0);
}

void push(DepartedThread *departed)
{
    departed->next = g_departed.load(std::memory_order_relaxed);
    while (!g_departed.compare_exchange_weak(departed->next, departed, std::memory_order_release,
                                             std::memory_order_relaxed)) {
        // Another thread was first, and `next` is its block now.
    }
}

void join(DepartedThread *departed)
{
    int32_t exit_value = 0;
    OSA_ThreadDelete(departed->thread, &exit_value);
    release_block(departed);
}

} // namespace

namespace nox
{

OwnLoop::OwnLoop(const void *record) : m_record(record)
{
    t_loop = this;
}

OwnLoop::~OwnLoop()
{
    t_loop = nullptr;
    if (m_departed != nullptr)
        store_release(m_departed->ended, uint8_t{1});
}

bool OwnLoop::is_of(const void *record)
{
    return t_loop != nullptr && t_loop->m_record == record;
}

void OwnLoop::lose_record(OSA_Thread *thread)
{
    DepartedThread *departed = new_block();
    t_loop->m_record = nullptr;
    t_loop->m_departed = departed;
    if (departed == nullptr) {
        NOX_TRACE_FOR("nox_object_delete", OSA_TRACE_ERROR,
                      "no memory. thread(%x) is never joined\n", low32(thread));
        return;
    }
    departed->thread = thread;
    push(departed);
}

void join_departed_threads(bool also_running)
{
    DepartedThread *departed = g_departed.exchange(nullptr, std::memory_order_acquire);
    while (departed != nullptr) {
        DepartedThread *next = departed->next;
        const bool is_own = t_loop != nullptr && t_loop->m_departed == departed;
        if (!is_own && (also_running || load_acquire(departed->ended)))
            join(departed);
        else
            push(departed);
        departed = next;
    }
}

} // namespace nox
