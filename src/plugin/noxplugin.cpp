// The plugin record: creation, wiring, formats and events, destruction.

#include "noxplugin.h"

#include <cstdlib>

#include "internal/list_walk.h"
#include "nox.h"
#include "plugin/noxplugin_check.h"
#include "plugin/own_thread.h"

namespace
{

bool check_format(const NOXPlugin *plugin, const NOXStructure *format,
                  const char *function = __builtin_FUNCTION())
{
    if (plugin != nullptr && format != nullptr)
        return true;
    NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "Invalid arguments plg(%x) format(%x)\n",
                  nox::low32(plugin), nox::low32(format));
    return false;
}

void destroy_branches(NOXPlugin *plugin)
{
    if (plugin->nextlist == nullptr)
        return;
    nox::destroy_list(plugin->nextlist);
    plugin->nextlist = nullptr;
}

int32_t finalize_derived(NOXPlugin *plugin)
{
    if (plugin->finalize_func != nullptr)
        return plugin->finalize_func(plugin);
    NOX_TRACE_FOR("nox_plugin_finalize", OSA_TRACE_INFO,
                  "plugin name(%s) finalize function is not implement\n", nox::name_of(plugin));
    return 0;
}

void release_allocator(NOXPlugin *plugin)
{
    NOX_TRACE_FOR("nox_plugin_finalize", OSA_TRACE_INFO, "plugin(%s) has allocator (%x)\n",
                  nox::name_of(plugin), nox::low32(plugin->allocator));
    nox_object_delete(plugin->allocator);
    plugin->allocator = nullptr;
}

} // namespace

NOXPlugin *nox_plugin_new(const char *plgname, const char *name)
{
    NOXPlugin *plugin = nox_load_plugin(plgname, name);
    if (plugin == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "can't load plgname(%s), name(%s)\n", nox::text_or_null(plgname),
                  nox::text_or_null(name));
        return nullptr;
    }
    NOX_TRACE(OSA_TRACE_VERBOSE, "new plugin(%x) name(%s)\n", nox::low32(plugin),
              nox::name_of(plugin));
    // Whatever the plugin's init put there: its own clean-up has a slot of its own.
    plugin->object.finalize = nox_plugin_finalize;
    return plugin;
}

void nox_plugin_delete(NOXPlugin *plugin)
{
    if (check_plugin(plugin))
        NOX_TRACE(OSA_TRACE_VERBOSE, "Enter. name(%s)\n", nox::name_of(plugin));
}

int32_t nox_plugin_finalize(void *object)
{
    auto *plugin = static_cast<NOXPlugin *>(object);
    if (!check_plugin(plugin))
        return -1;
    NOX_TRACE(OSA_TRACE_INFO, " plg(%x) plugin(%s)\n", nox::low32(plugin), nox::name_of(plugin));
    // The thread uses the links until it has ended.
    if (!nox::end_own_thread(plugin))
        NOX_TRACE(OSA_TRACE_ERROR, "plugin(%s) is released on its own thread, which runs on\n",
                  nox::name_of(plugin));
    destroy_branches(plugin);
    const int32_t result = finalize_derived(plugin);
    release_allocator(plugin);
    if (plugin->state_event != nullptr) {
        OSA_EventDestroy(plugin->state_event);
        plugin->state_event = nullptr;
    }
    std::free(plugin->plgname);
    return result;
}

uint32_t nox_plugin_get_size(void)
{
    return sizeof(NOXPlugin);
}

int32_t nox_plugin_init(NOXPlugin *plugin)
{
    NOX_TRACE(OSA_TRACE_VERBOSE, "Enter.\n");
    if (!check_plugin(plugin))
        return -1;
    plugin->state_event = OSA_EventCreate(0);
    if (plugin->state_event == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "can not create state event\n");
        return -1;
    }
    NOX_TRACE(OSA_TRACE_VERBOSE, "Leave.\n");
    return 0;
}

int32_t nox_plugin_setformat(NOXPlugin *plugin, NOXStructure *format)
{
    if (!check_format(plugin, format))
        return -1;
    if (plugin->setformat_func != nullptr)
        return plugin->setformat_func(plugin, format);
    NOX_TRACE(OSA_TRACE_ERROR, "plugin name(%s) setformat function is not implement\n",
              nox::name_of(plugin));
    return -1;
}

int32_t nox_plugin_getformat(NOXPlugin *plugin, NOXStructure *format)
{
    if (!check_format(plugin, format))
        return -1;
    if (plugin->getformat_func != nullptr)
        return plugin->getformat_func(plugin, format);
    NOX_TRACE(OSA_TRACE_ERROR, "plugin name(%s) getformat function is not implement\n",
              nox::name_of(plugin));
    return -1;
}

int32_t nox_plugin_setevent(NOXPlugin *plugin, NOXEvent *event)
{
    if (plugin == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "Invalid plg(%x)\n", 0u);
        return -1;
    }
    return plugin->event_func != nullptr ? plugin->event_func(plugin, event) : 0;
}

int32_t nox_plugin_reset(NOXPlugin *plugin)
{
    plugin->prev = nullptr;
    plugin->next = nullptr;
    plugin->outallocator = nullptr;
    plugin->outallocator_set = 0;
    destroy_branches(plugin);
    return 0;
}

int32_t nox_plugin_set_bus(NOXPlugin *plugin, NOXBus *bus)
{
    if (plugin == nullptr || bus == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "Invalid arguments plg(%x) bus(%x)\n", nox::low32(plugin),
                  nox::low32(bus));
        return -1;
    }
    plugin->bus = bus;
    return 0;
}

int32_t nox_plugin_set_timer(NOXPlugin *plugin, NOXTimer *timer)
{
    if (plugin == nullptr || timer == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "Invalid arguments plg(%x) timer(%x)\n", nox::low32(plugin),
                  nox::low32(timer));
        return -1;
    }
    plugin->timer = timer;
    return 0;
}

int32_t nox_plugin_set_parent(NOXPlugin *plugin, void *parent)
{
    return nox_object_set_parent(plugin, parent);
}

void *nox_plugin_get_parent(NOXPlugin *plugin)
{
    return nox_object_get_parent(plugin);
}

void *nox_plugin_get_pipeline(NOXPlugin *plugin)
{
    if (plugin == nullptr)
        return nullptr;
    return plugin->bus != nullptr ? nox_bus_get_parent(plugin->bus) : nox_object_get_parent(plugin);
}

int32_t nox_plugin_error_post(NOXPlugin *plugin, int32_t code, const char *text)
{
    if (plugin->bus == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "plugin(%s) has no bus for code(%x)\n", nox::name_of(plugin),
                  static_cast<uint32_t>(code));
        return -1;
    }
    return nox_bus_post_error(plugin->bus, plugin->object.name, code, text);
}
