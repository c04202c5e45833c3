// Bringing the layer up and taking it down. Every operation works while it is
// down, too; only then nothing is kept for reuse.

#include "osa/common/export.h"

#include <mutex>

#include "osa/posix/memory.h"
#include "osa/posix/pool.h"
#include "osa/posix/report.h"

namespace
{

constinit std::mutex g_mutex;
constinit bool g_is_up = false;

// True when this call changed it.
bool set_up(bool up)
{
    const std::lock_guard lock(g_mutex);
    const bool changed = g_is_up != up;
    g_is_up = up;
    return changed;
}

void call_environment(OSA_EnvironmentCallback callback, const char *what)
{
    const int32_t result = callback != nullptr ? callback() : 0;
    if (result != 0)
        OSA_REPORT(OSA_TRACE_NOTICE, "%s the environment failed: %d\n", what, result);
}

} // namespace

extern "C" {

int32_t OSA_SystemInit(OSA_EnvironmentCallback load)
{
    if (!set_up(true))
        return 0;
    osa::memory_open_cache();
    call_environment(load, "loading");
    return 0;
}

int32_t OSA_SystemUnInit(OSA_EnvironmentCallback unload)
{
    if (!set_up(false))
        return 0;
    call_environment(unload, "unloading");
    osa::memory_report_alive();
    osa::pools_report_alive();
    osa::pools_stop();
    osa::memory_close_cache();
    return 0;
}

} // extern "C"
