/*
 * The default host functions: version texts for the start-up banners, and the
 * environment of the traces. In C, so that a C program that links them needs
 * nothing of the C++ library.
 */

#include "osa/host.h"

#include <stdlib.h>

#include "osa/osa_ext.h"

/* NOX_TRACE=0..4 sets the trace level; anything else is said and ignored. */
static int32_t set_trace_level_from_environment(void)
{
    const char *text = getenv("NOX_TRACE");
    if (text == NULL || *text == '\0')
        return 0;
    char *end = NULL;
    const long level = strtol(text, &end, 10);
    if (*end != '\0' || level < 0 || level > OSA_TRACE_VERBOSE) {
        OSA_Trace("host", OSA_TRACE_ERROR, "host", __LINE__, __func__,
                  "NOX_TRACE is \"%s\"; expected a level from 0 to 4\n", text);
        return -1;
    }
    OSA_TraceSetLevel((int32_t)level);
    return 0;
}

const char *core_version_osa_string(void)
{
    return NOX_VERSION_STRING;
}

uint32_t core_version_osa(void)
{
    return NOX_VERSION_NUMBER;
}

const char *core_version_nox_string(void)
{
    return NOX_VERSION_STRING;
}

uint32_t core_version_nox(void)
{
    return NOX_VERSION_NUMBER;
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
