// The graph: links between plugins and questions about them. Links hold no
// references, and they change only while no buffers flow.

#include <cstdarg>

#include "internal/guard.h"
#include "internal/list_walk.h"
#include "plugin/circle.h"
#include "plugin/noxplugin_check.h"

namespace
{

NOXPlugin *all_ones()
{
    return reinterpret_cast<NOXPlugin *>(~uintptr_t{0});
}

void trace_linked(const NOXPlugin *plugin, const NOXPlugin *next,
                  const char *function = __builtin_FUNCTION())
{
    NOX_TRACE_FOR(function, OSA_TRACE_VERBOSE, "Plugin linked previous(%x:%s) next(%x:%s)\n",
                  nox::low32(plugin), nox::name_of(plugin), nox::low32(next), nox::name_of(next));
}

int32_t add_to_branch_list(NOXPlugin *plugin, NOXPlugin *next)
{
    if (plugin->nextlist == nullptr)
        plugin->nextlist = OSA_ListCreate();
    if (plugin->nextlist == nullptr) {
        NOX_TRACE_FOR("nox_plugin_link", OSA_TRACE_ERROR, "create next list. out of memory\n");
        return -1;
    }
    nox::ListNode node(OSA_List_Node_new());
    if (node)
        node->data = next;
    if (!node || OSA_ListAddTail(plugin->nextlist, node.get()) < 0) {
        NOX_TRACE_FOR("nox_plugin_link", OSA_TRACE_ERROR, "can not create newnode\n");
        return -1;
    }
    node.release(); // the list's now
    return 0;
}

int32_t add_branch(NOXPlugin *plugin, NOXPlugin *next)
{
    if (plugin->next != nullptr)
        return add_to_branch_list(plugin, next);
    plugin->next = next;
    return 0;
}

// Those that a walk takes: without a first branch it does not look for further ones.
NOXPlugin *find_circle_in_branches(NOXPlugin *plugin)
{
    NOXPlugin *found = nullptr;
    OSA_ListNode *node = plugin->next != nullptr ? nox::head_of(plugin->nextlist) : nullptr;
    for (; node != nullptr && found == nullptr; node = node->next)
        if (node->data != nullptr)
            found = nox::find_circle(static_cast<NOXPlugin *>(node->data));
    return found;
}

} // namespace

namespace nox
{

// Along a chain in a loop, and into its branches by a call: a chain may be long, and this runs
// on threads with small stacks. A mark stands while its plugin is on the way to the one
// looked at, so that branches that meet again further down are no circle.
NOXPlugin *find_circle(NOXPlugin *plugin)
{
    NOXPlugin *found = nullptr;
    uint32_t marked = 0;
    for (NOXPlugin *at = plugin; at != nullptr && found == nullptr; at = at->next) {
        if (at->onroad_) {
            found = at;
            break;
        }
        at->onroad_ = 1;
        ++marked;
        found = find_circle_in_branches(at);
    }
    for (NOXPlugin *at = plugin; marked > 0; at = at->next, --marked)
        at->onroad_ = 0;
    return found;
}

void trace_circle(const NOXPlugin *closing, const char *function)
{
    NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "links run in a circle at (%s)\n", name_of(closing));
}

bool runs_in_circle(NOXPlugin *plugin, const char *function)
{
    const NOXPlugin *closing = find_circle(plugin);
    if (closing != nullptr)
        trace_circle(closing, function);
    return closing != nullptr;
}

} // namespace nox

int32_t nox_plugin_link(NOXPlugin *plugin, NOXPlugin *next)
{
    if (plugin == nullptr || next == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "Invalid plg(%x:%s) next(%x:%s)\n", nox::low32(plugin),
                  nox::name_of(plugin), nox::low32(next), nox::name_of(next));
        return -1;
    }
    const int32_t hook_result = plugin->link_func != nullptr ? plugin->link_func(plugin, next) : 0;
    trace_linked(plugin, next);
    if (add_branch(plugin, next) != 0)
        return -1;
    next->prev = plugin;
    return hook_result;
}

int32_t nox_plugin_linkexch(NOXPlugin *plugin, NOXPlugin *old_next, NOXPlugin *new_next)
{
    if (plugin == nullptr || new_next == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "Invalid plg(%x) next(%x)\n", nox::low32(plugin),
                  nox::low32(new_next));
        return -1;
    }
    if (plugin->link_func != nullptr)
        plugin->link_func(plugin, new_next);
    trace_linked(plugin, new_next);
    if (plugin->next == old_next) {
        plugin->next = new_next;
        return 0;
    }
    if (plugin->nextlist == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "invalid next list. use plugin_link\n");
        return -1;
    }
    for (OSA_ListNode *node = OSA_ListGetHead(plugin->nextlist); node; node = node->next) {
        if (node->data == old_next) {
            node->data = new_next;
            return 0;
        }
    }
    return -1;
}

int32_t nox_plugin_link_many(NOXPlugin *plugin, NOXPlugin *next, ...)
{
    if (plugin == nullptr || next == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "Invalid plg(%x) next(%x)\n", nox::low32(plugin),
                  nox::low32(next));
        return -1;
    }
    int32_t hook_result = 0;
    va_list plugins;
    va_start(plugins, next);
    for (; next != nullptr; plugin = next, next = va_arg(plugins, NOXPlugin *)) {
        NOX_TRACE(OSA_TRACE_VERBOSE, "plg(%s) next(%s)\n", nox::name_of(plugin),
                  nox::name_of(next));
        // A plugin with a hook makes its own downstream link from inside it.
        if (plugin->link_func != nullptr)
            hook_result = plugin->link_func(plugin, next);
        else
            plugin->next = next;
        next->prev = plugin;
    }
    va_end(plugins);
    return hook_result;
}

uint8_t nox_plugin_islink(NOXPlugin *plugin)
{
    if (plugin == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "Invalid plg(%p)\n", nox::address(plugin));
        return 0;
    }
    if (plugin->next != nullptr)
        return 1;
    if (plugin->issink) {
        NOX_TRACE(OSA_TRACE_INFO, "plg(%p:%s) is sink plg\n", nox::address(plugin),
                  nox::name_of(plugin));
        return 1;
    }
    NOX_TRACE(OSA_TRACE_ERROR, "plg(%p:%s) is not linked\n", nox::address(plugin),
              nox::name_of(plugin));
    return 0;
}

uint8_t nox_plugin_issink(NOXPlugin *plugin)
{
    if (plugin == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "Invalid plg(%p)\n", nox::address(plugin));
        return 0;
    }
    return plugin->issink;
}

NOXPlugin *nox_plugin_get_next(NOXPlugin *plugin, int32_t idx, uint32_t *count)
{
    if (plugin == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "Invalid plg(%x)\n", 0u);
        return all_ones();
    }
    if (plugin->nextlist != nullptr && count != nullptr)
        *count = OSA_ListGetNum(plugin->nextlist);
    if (idx == 0 && plugin->next != nullptr)
        return plugin->next;
    if (idx <= 0 || plugin->nextlist == nullptr)
        return nullptr;
    OSA_ListNode *node = OSA_List_GetNthList(plugin->nextlist, static_cast<uint32_t>(idx - 1));
    return node != nullptr ? static_cast<NOXPlugin *>(node->data) : nullptr;
}

NOXPlugin *nox_plugin_get_source(NOXPlugin *plugin)
{
    if (plugin == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "Invalid plg(%x)\n", 0u);
        return all_ones();
    }
    nox::CircleWatch circle;
    while (plugin->prev != nullptr && !circle.is_closed_by(plugin))
        plugin = plugin->prev;
    if (plugin->issrc && plugin->prev == nullptr)
        return plugin;
    NOX_TRACE(OSA_TRACE_ERROR, "abnormal case. plg(%x):%s issrc(%d) issink(%d)\n",
              nox::low32(plugin), nox::name_of(plugin), 0, plugin->issink);
    return nullptr;
}
