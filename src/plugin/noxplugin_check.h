// The null check that the plugin operations share.
#ifndef NOX_PLUGIN_NOXPLUGIN_CHECK_H
#define NOX_PLUGIN_NOXPLUGIN_CHECK_H

#include "internal/trace.h"
#include "noxplugin.h"

namespace
{

constexpr char kSource[] = "noxplugin";

// Told under the name of the operation that was called with a null plugin.
inline bool check_plugin(const NOXPlugin *plugin, const char *function = __builtin_FUNCTION())
{
    if (plugin != nullptr)
        return true;
    NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "Invalid arguments plg(%x)\n", 0u);
    return false;
}

} // namespace

#endif
