// Starting and stopping the pools, registering and counting.

#include "osa/common/export.h"

#include <algorithm>
#include <cstdio>
#include <mutex>

#include "osa/posix/pool.h"
#include "osa/posix/pool_table.h"
#include "osa/posix/report.h"

namespace osa
{

constinit Pool g_pools[kPoolLimit];
constinit std::atomic<uint32_t> g_pool_count{1};
constinit std::atomic<const char *> g_names[kIndexLimit] = {};
constinit std::atomic<uint32_t> g_taken_from[kIndexLimit] = {};
constinit std::atomic<uint32_t> g_given_to[kIndexLimit] = {};

namespace
{

constexpr uint32_t kChunkBytes = 64 << 10; // large blocks come in smaller magazines
constexpr uint32_t kLargestBlock = UINT32_MAX - kBlockStep;

// Serialises starting, stopping and registering.
constinit std::mutex g_mutex;
constinit bool g_started = false;

// A number for a size that has none, while there are numbers.
uint32_t add_pool(uint32_t block_size, const char *name)
{
    const uint32_t number = g_pool_count.load(std::memory_order_relaxed);
    Pool &pool = g_pools[number];
    pool.index = block_size <= kDirectLimit ? block_size : kDirectLimit + 1 + number;
    pool.block_size = block_size;
    pool.usable = (block_size + kBlockStep - 1) / kBlockStep * kBlockStep;
    pool.capacity = std::clamp(kChunkBytes / pool.usable, 1u, kMagazineCapacity);
    std::snprintf(g_stores[number].name, kPoolNameSize, "%s", name);
    g_given_to[pool.index].store(number, std::memory_order_release);
    g_pool_count.store(number + 1, std::memory_order_release);
    return number;
}

// Under the name it first had, which somebody may be reading.
void open_pool(uint32_t number)
{
    const size_t index = g_pools[number].index;
    g_taken_from[index].store(number, std::memory_order_release);
    g_names[index].store(g_stores[number].name, std::memory_order_release);
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
    release_stock(number);
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

size_t search_index(uint32_t block_size)
{
    const uint32_t count = g_pool_count.load(std::memory_order_acquire);
    for (uint32_t number = 1; number < count; ++number)
        if (g_pools[number].block_size == block_size)
            return g_pools[number].index;
    return 0;
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
    osa::open_pool(number != 0 ? number : osa::add_pool(block_size, name));
    return 0;
}

int32_t OSA_SMalloc_UnRegister(uint32_t block_size)
{
    const std::lock_guard lock(osa::g_mutex);
    return osa::with_index(block_size, osa::close_index) ? 0 : -1;
}

} // extern "C"
