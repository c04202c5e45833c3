// From a plugin's name to a live plugin object: its library, its descriptor, its
// record.

#include "internal/atomic_field.h"
#include "internal/guard.h"
#include "internal/trace.h"
#include "nox.h"
#include "noxplugin.h"

namespace
{

constexpr char kSource[] = "nox";
constexpr char kDescFunction[] = "plugin_desc";

void trace_descriptor(const NOXPluginDesc &desc, const char *function)
{
    NOX_TRACE_FOR(function, OSA_TRACE_INFO, "plugin name (%s)\n", nox::text_or_null(desc.name));
    NOX_TRACE_FOR(function, OSA_TRACE_INFO, "plugin author (%s)\n", nox::text_or_null(desc.author));
    NOX_TRACE_FOR(function, OSA_TRACE_INFO, "plugin size (%d)\n", desc.size);
    NOX_TRACE_FOR(function, OSA_TRACE_INFO, "plugin init function (0x%08x)\n",
                  nox::low32(desc.init));
}

// The library, loaded, with its descriptor in `desc`; null when there is none.
nox::LoadedLibrary load_described(const char *path, NOXPluginDesc &desc,
                                  const char *function = __builtin_FUNCTION())
{
    nox::LoadedLibrary library(path != nullptr ? OSA_LibraryLoad(path) : nullptr);
    if (!library) {
        NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "can not load library (%s)\n",
                      nox::text_or_null(path));
        return nullptr;
    }
    auto describe =
        reinterpret_cast<NOXPluginDescFunc>(OSA_LibraryGetFunc(library.get(), kDescFunction));
    if (describe == nullptr) {
        NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "can not load function (%s) from (%s)\n",
                      kDescFunction, path);
        return nullptr;
    }
    describe(&desc);
    trace_descriptor(desc, function);
    return library;
}

// A record too small for NOXPlugin would be written past its end.
bool is_usable(const NOXPluginDesc &desc, const char *path)
{
    if (desc.size < static_cast<int32_t>(sizeof(NOXPlugin))) {
        NOX_TRACE_FOR("nox_load_plugin", OSA_TRACE_ERROR, "record size (%d) below (%d) in (%s)\n",
                      desc.size, static_cast<int>(sizeof(NOXPlugin)), path);
        NOX_TRACE_FOR("nox_load_plugin", OSA_TRACE_ERROR, "can not create object size (%d)\n",
                      desc.size);
        return false;
    }
    if (desc.init == nullptr) {
        NOX_TRACE_FOR("nox_load_plugin", OSA_TRACE_ERROR, "no init function in (%s)\n", path);
        return false;
    }
    return true;
}

nox::ObjectReference<NOXPlugin> new_plugin_record(int32_t size, const char *plugin_name,
                                                  const char *instance_name)
{
    nox::ObjectReference<NOXPlugin> plugin(
        static_cast<NOXPlugin *>(nox_object_new(static_cast<uint32_t>(size), instance_name, 1)));
    if (!plugin)
        return nullptr;
    plugin->plgname = nox::copy_text(plugin_name).release();
    return plugin->plgname != nullptr ? std::move(plugin) : nullptr;
}

} // namespace

NOXPlugin *nox_load_plugin(const char *plugin_name, const char *instance_name)
{
    const char *path = nox_plugin_lookup(plugin_name);
    if (path == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "can not find plugin (%s)\n", nox::text_or_null(plugin_name));
        return nullptr;
    }
    NOXPluginDesc desc{};
    nox::LoadedLibrary library = load_described(path, desc);
    if (!library || !is_usable(desc, path))
        return nullptr;
    auto plugin = new_plugin_record(desc.size, plugin_name, instance_name);
    if (!plugin) {
        NOX_TRACE(OSA_TRACE_ERROR, "can not create object size (%d)\n", desc.size);
        return nullptr;
    }
    desc.init(plugin.get());
    // Only now: the init function has the whole record to itself and may write any
    // field of it.
    plugin->object.library = library.release();
    nox::store_relaxed(plugin->state, int32_t{NOX_STATE_NULL});
    return plugin.release();
}

char *nox_plugin_getname(const char *path)
{
    NOX_TRACE(OSA_TRACE_VERBOSE, "filepath (%s)\n", nox::text_or_null(path));
    NOXPluginDesc desc{};
    nox::LoadedLibrary library = load_described(path, desc);
    if (!library)
        return nullptr;
    return nox::copy_text(desc.name).release(); // before the library goes
}
