// Pushing: buffers and events go downstream by direct calls, on the pusher's
// thread. There is no queue between plugins and no lock around a call.
//
// This is the road of every frame. Handing a buffer over costs the documented
// checks, two byte stores and one indirect call.

#include "internal/atomic_field.h"
#include "internal/list_walk.h"
#include "plugin/noxplugin_check.h"

namespace
{

bool check_linked(const NOXPlugin *plugin, const char *function = __builtin_FUNCTION())
{
    if (plugin->next != nullptr)
        return true;
    NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "Not linked plg(%x)\n", nox::low32(plugin));
    return false;
}

int32_t refuse_without_chain(const NOXPlugin *plugin, const char *function)
{
    NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "plg(%x:%s) has no chain function\n",
                  nox::low32(plugin), nox::name_of(plugin));
    return -1;
}

// `busy` is what nox_plugin_stop looks at. Released when cleared, so that the
// stopping thread sees what the chain function did. Always inline, so that a name
// that only a refusal needs costs nothing on the good road.
[[gnu::always_inline]] inline int32_t hand_buffer(NOXPlugin *plugin, NOXBuffer *buffer,
                                                  const char *function = __builtin_FUNCTION())
{
    if (plugin->chain_func == nullptr)
        return refuse_without_chain(plugin, function);
    nox::store_relaxed(plugin->busy, uint8_t{1});
    const int32_t result = plugin->chain_func(plugin, buffer);
    nox::store_release(plugin->busy, uint8_t{0});
    return result;
}

void trace_no_plugin(const NOXPlugin *plugin, const char *function = __builtin_FUNCTION())
{
    NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "invalid next plg(%p) or next of plg(%p)\n",
                  nox::address(plugin), nox::address(plugin->next));
}

int32_t trace_branch_failure(const NOXBuffer *buffer, const NOXPlugin *branch, int32_t result)
{
    NOX_TRACE_FOR("nox_plugin_push_buffer", OSA_TRACE_ERROR,
                  "buffer(%p) push error to plg(%X:%s)\n", nox::address(buffer), nox::low32(branch),
                  nox::name_of(branch));
    return result;
}

// What is left of a push when the first branch has answered `result`: telling
// its failure, and the further branches. Apart from the road of the good single
// branch, which would pay for the registers that this needs.
[[gnu::noinline]] int32_t finish_push(NOXPlugin *plugin, NOXBuffer *buffer, int32_t result)
{
    if (result != 0)
        NOX_TRACE_FOR("nox_plugin_push_buffer", OSA_TRACE_ERROR,
                      "Pushing (%s) --> (%s) failed! (ret:%d)\n", nox::name_of(plugin),
                      nox::name_of(plugin->next), result);
    OSA_ListNode *node = nox::head_of(plugin->nextlist);
    if (node == nullptr)
        return result;
    for (; node != nullptr; node = node->next) {
        auto *branch = static_cast<NOXPlugin *>(node->data);
        if (branch == nullptr)
            trace_no_plugin(plugin, "nox_plugin_push_buffer");
        else
            result = hand_buffer(branch, buffer, "nox_plugin_push_buffer");
        if (result != 0)
            return trace_branch_failure(buffer, branch, result);
    }
    return 0;
}

int32_t trace_event_failure(const NOXPlugin *next, int32_t result)
{
    NOX_TRACE_FOR("nox_plugin_push_event", OSA_TRACE_ERROR,
                  "event pushing to plg(%s) failed! (ret:%d)\n", nox::name_of(next), result);
    return result;
}

int32_t trace_event_failure(const NOXEvent *event, const NOXPlugin *branch, int32_t result)
{
    NOX_TRACE_FOR("nox_plugin_push_event", OSA_TRACE_ERROR, "event(%p) push error to plg(%X:%s)\n",
                  nox::address(event), nox::low32(branch), nox::name_of(branch));
    return result;
}

int32_t push_event_to_first(NOXPlugin *next, NOXEvent *event)
{
    int32_t result = next->event_func != nullptr ? next->event_func(next, event) : 0;
    if (result == 0)
        result = nox_plugin_push_event(next, event);
    return result != 0 ? trace_event_failure(next, result) : 0;
}

int32_t push_event_to_branch(NOXPlugin *branch, NOXEvent *event)
{
    int32_t result = 0;
    if (branch->event_func == nullptr)
        NOX_TRACE_FOR("nox_plugin_push_event", OSA_TRACE_ERROR, "%s has no 'event_func'\n",
                      nox::name_of(branch));
    else
        result = branch->event_func(branch, event);
    if (result == 0)
        result = nox_plugin_push_event(branch, event);
    return result != 0 ? trace_event_failure(event, branch, result) : 0;
}

} // namespace

int32_t nox_plugin_push_prepare(NOXPlugin *plugin, void *argument)
{
    if (!check_linked(plugin))
        return -1;
    NOXPlugin *next = plugin->next;
    return next->prepare_func != nullptr ? next->prepare_func(next, argument) : 0;
}

int32_t nox_plugin_push_buffer(NOXPlugin *plugin, NOXBuffer *buffer)
{
    if (!check_linked(plugin))
        return -1;
    NOXPlugin *next = plugin->next;
    if (nox::load_acquire(next->state) == NOX_STATE_NULL)
        return 0;
    const int32_t result = hand_buffer(next, buffer);
    if (result == 0 && plugin->nextlist == nullptr)
        return 0;
    return finish_push(plugin, buffer, result);
}

int32_t nox_plugin_push_buffer_idx(NOXPlugin *plugin, int32_t idx, NOXBuffer *buffer)
{
    if (!check_linked(plugin))
        return -1;
    if (nox::load_acquire(plugin->next->state) == NOX_STATE_NULL)
        return 0;
    if (idx == 0)
        return hand_buffer(plugin->next, buffer);
    if (idx < 0 || plugin->nextlist == nullptr)
        return -1;
    OSA_ListNode *node = OSA_List_GetNthList(plugin->nextlist, static_cast<uint32_t>(idx - 1));
    if (node == nullptr)
        return -1;
    auto *branch = static_cast<NOXPlugin *>(node->data);
    if (branch == nullptr)
        trace_no_plugin(plugin);
    const int32_t result = branch != nullptr ? hand_buffer(branch, buffer) : -1;
    if (result != 0)
        NOX_TRACE(OSA_TRACE_ERROR, "buffer(%p) push error to plg(%p:%s)\n", nox::address(buffer),
                  nox::address(branch), nox::name_of(branch));
    return result;
}

int32_t nox_plugin_push_event(NOXPlugin *plugin, NOXEvent *event)
{
    if (!nox_plugin_islink(plugin))
        return 0;
    if (plugin->next == nullptr) {
        NOX_TRACE(OSA_TRACE_NOTICE, "end of this pipeline (%x: %s)\n", nox::low32(plugin),
                  nox::name_of(plugin));
        return 0;
    }
    int32_t result = push_event_to_first(plugin->next, event);
    OSA_ListNode *node = nox::head_of(plugin->nextlist);
    for (; node != nullptr && result == 0; node = node->next) {
        auto *branch = static_cast<NOXPlugin *>(node->data);
        if (branch == nullptr)
            trace_no_plugin(plugin);
        else
            result = push_event_to_branch(branch, event);
    }
    return result;
}

int32_t nox_plugin_push_eos(NOXPlugin *plugin)
{
    NOXEvent event{nullptr, NOX_EVENT_EOS};
    const int32_t result = nox_plugin_push_event(plugin, &event);
    if (result != 0)
        NOX_TRACE(OSA_TRACE_ERROR, "nox_plugin_push_event fail.\n");
    return result;
}
