// The default host functions: version texts for the start-up banners, and the
// environment of the traces.

#include "osa/host.h"

#include <cerrno>
#include <cstdlib>

#include "osa/osa_ext.h"

namespace
{

constexpr uint32_t kVersionNumber =
    NOX_VERSION_MAJOR * 10000 + NOX_VERSION_MINOR * 100 + NOX_VERSION_PATCH;

// NOX_TRACE=0..4 sets the trace level; anything else is said and ignored.
int32_t set_trace_level_from_environment()
{
    const char *text = std::getenv("NOX_TRACE");
    if (text == nullptr || *text == '\0')
        return 0;
    char *end = nullptr;
    const long level = std::strtol(text, &end, 10);
    if (*end != '\0' || level < 0 || level > OSA_TRACE_VERBOSE) {
        OSA_Trace("host", OSA_TRACE_ERROR, "host", __LINE__, __func__,
                  "NOX_TRACE is \"%s\"; expected a level from 0 to 4\n", text);
        return -1;
    }
    OSA_TraceSetLevel(static_cast<int32_t>(level));
    return 0;
}

} // namespace

extern "C" {

const char *core_version_osa_string(void)
{
    return NOX_VERSION_STRING;
}

uint32_t core_version_osa(void)
{
    return kVersionNumber;
}

const char *core_version_nox_string(void)
{
    return NOX_VERSION_STRING;
}

uint32_t core_version_nox(void)
{
    return kVersionNumber;
}

const char *core_build_date(void)
{
    return __DATE__;
}

const char *core_build_time(void)
{
    return __TIME__;
}

int32_t sysenv_load(void)
{
    return set_trace_level_from_environment();
}

int32_t sysenv_unload(void)
{
    return 0;
}

} // extern "C"
