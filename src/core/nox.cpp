// Start-up and shut-down: banners, OS layer, record pools, plugin registry.

#include "nox.h"

#include "core/own_loop.h"
#include "core/plugin_cache.h"
#include "internal/trace.h"
#include "noxbuffer.h"
#include "osa/host.h"

namespace
{

constexpr char kSource[] = "nox";
constexpr char kYellow[] = "\x1b[33m";
constexpr char kPlain[] = "\x1b[0m";

struct Pool {
    uint32_t block_size;
    const char *name;
};

// The records made for every frame, and the layer's own nodes.
constexpr Pool kPools[] = {
    {sizeof(NOXBuffer), "NOXBuffer"},
    {sizeof(NOXMemory), "NOXMemory"},
    {sizeof(OSA_ListNode), "OSAListNode"},
    {OSA_QUEUE_NODE_SIZE, "OSAQueueNode"},
};

void print_banners()
{
    OSA_Traces("%s[OSA] %s (%u)%s\n", kYellow, core_version_osa_string(), core_version_osa(),
               kPlain);
    OSA_Traces("%s[NOX] %s (%u) - Build (%s - %s)%s\n", kYellow, core_version_nox_string(),
               core_version_nox(), core_build_date(), core_build_time(), kPlain);
}

// A pool that is missing costs speed only: its records then come from the heap.
void register_pools()
{
    for (const Pool &pool : kPools)
        OSA_SMalloc_Register(pool.block_size, pool.name);
    for (const Pool &pool : kPools)
        if (!OSA_SMemIsReg(pool.block_size))
            NOX_TRACE_FOR("nox_init", OSA_TRACE_ERROR, "no pool (%s)\n", pool.name);
}

} // namespace

int32_t nox_init(const char *cache_path)
{
    NOX_TRACE(OSA_TRACE_INFO, "cache path (%s)\n", nox::text_or_null(cache_path));
    print_banners();
    if (nox::plugin_cache_exists()) {
        NOX_TRACE(OSA_TRACE_NOTICE, "already init\n");
        return 0;
    }
    OSA_SystemInit(sysenv_load);
    OSA_SMalloc_Init();
    register_pools();
    return nox::plugin_cache_load(cache_path);
}

int32_t nox_deinit(void)
{
    nox::join_departed_threads(true);
    if (!nox::plugin_cache_exists()) {
        NOX_TRACE(OSA_TRACE_INFO, "can not deinit\n");
        return -1;
    }
    nox::plugin_cache_discard();
    for (const Pool &pool : kPools)
        OSA_SMalloc_UnRegister(pool.block_size);
    OSA_SMalloc_Deinit();
    OSA_SystemUnInit(sysenv_unload);
    return 0;
}
