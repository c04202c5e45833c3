// The member list of a pipe: plugins join and leave, and unused ones are found.

#include <cstdarg>

#include "internal/guard.h"
#include "pipe/noxpipe_internal.h"
#include "plugin/circle.h"

namespace
{

bool check_plugin(const NOXPlugin *plugin, const char *function = __builtin_FUNCTION())
{
    if (plugin != nullptr)
        return true;
    NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "invalid plugin (NULL)\n");
    return false;
}

int32_t add_member(NOXPipe *pipe, NOXPlugin *plugin, const char *function = __builtin_FUNCTION())
{
    nox::ListNode node(OSA_List_Node_new());
    if (!node) {
        NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "node create failed\n");
        return -1;
    }
    node->data = plugin;
    const int32_t result = OSA_ListAddTail(pipe->plugins, node.get());
    if (result < 0) {
        NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "node add failed\n");
        return -1;
    }
    node.release(); // the list's now, and with it the caller's reference to the plugin
    nox_plugin_set_bus(plugin, pipe->busref);
    nox_plugin_set_timer(plugin, pipe->clock);
    nox_plugin_set_parent(plugin, pipe);
    return result;
}

// The source of the plugin's chain, or null.
NOXPlugin *chain_source(NOXPlugin *plugin)
{
    if (plugin->issrc)
        return plugin;
    NOXPlugin *source = nox_plugin_get_source(plugin);
    NOX_TRACE_FOR("nox_pipe_del_linked_plugin", OSA_TRACE_ERROR, "Issrc(%s) in pipeline\n",
                  nox::name_of(source));
    return source;
}

// Only along the chain itself: what it branches to may be gone.
bool check_has_end(const NOXPlugin *source)
{
    nox::CircleWatch circle;
    for (const NOXPlugin *plugin = source; plugin != nullptr; plugin = plugin->next) {
        if (!circle.is_closed_by(plugin))
            continue;
        nox::trace_circle(plugin, "nox_pipe_del_linked_plugin");
        return false;
    }
    return true;
}

// What lies downstream must not point at a plugin that is released. Of its branches
// only members are looked at: any other may be gone, since links hold no references.
void forget_upstream(const NOXPipe *pipe, NOXPlugin *plugin)
{
    for (NOXPlugin *branch : nox::items<NOXPlugin>(plugin->nextlist))
        if (nox::find_node(pipe->plugins, branch) != nullptr && branch->prev == plugin)
            branch->prev = nullptr;
    if (plugin->next->prev == plugin)
        plugin->next->prev = nullptr;
}

bool is_unused(const NOXPlugin *plugin)
{
    if (plugin->issink)
        return plugin->prev == nullptr;
    return plugin->next == nullptr && plugin->nextlist == nullptr;
}

} // namespace

int32_t nox_pipe_add_plugin(NOXPipe *pipe, NOXPlugin *plugin)
{
    return check_plugin(plugin) ? add_member(pipe, plugin) : -1;
}

int32_t nox_pipe_add_plugin_many(NOXPipe *pipe, NOXPlugin *plugin, ...)
{
    if (!check_plugin(plugin))
        return -1;
    int32_t result = 0;
    va_list plugins;
    va_start(plugins, plugin);
    for (; plugin != nullptr && result >= 0; plugin = va_arg(plugins, NOXPlugin *))
        result = add_member(pipe, plugin);
    va_end(plugins);
    return result;
}

int32_t nox_pipe_del_plugin(NOXPipe *pipe, NOXPlugin *plugin)
{
    if (!check_plugin(plugin))
        return -1;
    if (OSA_ListNode *node = nox::find_node(pipe->plugins, plugin))
        nox::remove_node(pipe->plugins, node);
    return 0;
}

int32_t nox_pipe_del_linked_plugin(NOXPipe *pipe, NOXPlugin *plugin)
{
    if (!check_plugin(plugin))
        return -1;
    NOXPlugin *current = chain_source(plugin);
    if (current == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "can not find source plugin(%p:%s)\n", nox::address(plugin),
                  nox::name_of(plugin));
        return -1;
    }
    if (!check_has_end(current))
        return -1;
    for (;;) {
        if (OSA_ListNode *node = nox::find_node(pipe->plugins, current)) {
            NOX_TRACE(OSA_TRACE_NOTICE, "find plugin(%s) in pipeline\n", nox::name_of(current));
            nox::remove_node(pipe->plugins, node);
        }
        NOXPlugin *next = current->next;
        if (next == nullptr)
            return 0;
        forget_upstream(pipe, current);
        nox_object_delete(current);
        current = next;
    }
}

int32_t nox_pipe_set_option(NOXPipe *pipe, uint32_t bits)
{
    pipe->option = bits;
    return 0;
}

int32_t nox_pipe_set_bus_handler(NOXPipe *pipe, NoxBusHandler handler, void *handler_data)
{
    nox_bus_set_handler(pipe->busref, handler, handler_data);
    return 0;
}

int32_t nox_pipe_debug_unused_plugin(NOXPipe *pipe)
{
    int32_t unused = 0;
    for (const NOXPlugin *member : members(pipe)) {
        if (!is_unused(member))
            continue;
        NOX_TRACE(OSA_TRACE_ERROR, " =======> Found unused plugin (%s)\n", nox::name_of(member));
        ++unused;
    }
    if (unused == 0)
        NOX_TRACE(OSA_TRACE_INFO, "NOT Found unused plugins\n");
    return unused;
}
