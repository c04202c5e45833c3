// The pipe's state changes: which plugins change, and in which order.
//
//   upward     the plugins downstream of the sources, then the sources
//   downward   the sources, then the plugins downstream of them
//
// so that nobody gets a buffer before it is ready, and nobody pushes into what is
// gone. The pipe's own state holds the target from the start of a change, whether
// or not the change succeeds; there is no rollback.

#include "internal/atomic_field.h"
#include "internal/guard.h"
#include "pipe/branch_stack.h"
#include "pipe/noxpipe_internal.h"
#include "plugin/circle.h"

namespace
{

// To NULL by member position, last to first, instead of along the links.
bool goes_backwards(const NOXPipe *pipe, int32_t state)
{
    return state == NOX_STATE_NULL && (pipe->option & NOX_PIPE_OPT_REVERSE_NULL) != 0;
}

OSA_ListNode *first_node(NOXPipe *pipe, bool backwards)
{
    return backwards ? OSA_ListGetTail(pipe->plugins) : OSA_ListGetHead(pipe->plugins);
}

OSA_ListNode *next_node(OSA_ListNode *node, bool backwards)
{
    return backwards ? OSA_ListGetPrev(node) : node->next;
}

void trace_refusal(const NOXPlugin *plugin, const char *function = __builtin_FUNCTION())
{
    NOX_TRACE_FOR(function, OSA_TRACE_ERROR, "nox_plugin_setstate failed (%s)\n",
                  nox::name_of(plugin));
}

int32_t set_non_sources_backwards(NOXPipe *pipe)
{
    int32_t result = 0;
    for (OSA_ListNode *node = first_node(pipe, true); node; node = next_node(node, true)) {
        auto *member = static_cast<NOXPlugin *>(node->data);
        if (member->issrc)
            continue;
        const int32_t member_result = nox_plugin_setstate(member, NOX_STATE_NULL);
        if (member_result != 0)
            trace_refusal(member, "pipe_iterate_set_state");
        result |= member_result;
    }
    return result;
}

int32_t set_downstream_plugin(NOXPlugin *plugin, int32_t state)
{
    const int32_t result = nox_plugin_setstate(plugin, state);
    if (result != 0)
        NOX_TRACE_FOR("pipe_iterate_set_state", OSA_TRACE_ERROR,
                      "nox_plugin_setstate(%d) failed (%s)\n", state, nox::name_of(plugin));
    return result;
}

// Depth first from one source: along branch 0 to the end of the chain, then the
// branches of the most recently passed plugin that has any.
int32_t walk_from(NOXPlugin *source, int32_t state, BranchStack &stack)
{
    int32_t result = 0;
    for (NOXPlugin *current = source;;) {
        uint32_t branches = 0;
        NOXPlugin *next = nox_plugin_get_next(current, 0, &branches);
        if (next == nullptr)
            next = stack.take_next_branch();
        if (next == nullptr)
            break;
        NOX_TRACE_FOR("pipe_iterate_set_state", OSA_TRACE_INFO, "plg (%s) state to %s. depth(%d)\n",
                      nox::name_of(next), nox_plugin_state_str(state), branches);
        if (branches > 0 && !stack.push(current, branches))
            result |= -1;
        result |= set_downstream_plugin(next, state);
        current = next;
    }
    NOX_TRACE_FOR("pipe_iterate_set_state", OSA_TRACE_INFO, "pnext is null\n");
    return result;
}

bool change_sources(NOXPipe *pipe, int32_t state)
{
    const int32_t result = pipe_src_set_state(pipe, state);
    if (result != 0)
        NOX_TRACE_FOR("nox_pipe_set_state", OSA_TRACE_ERROR, "pipe_src_set_state failed (%d)\n",
                      result);
    return result == 0;
}

bool change_downstream(NOXPipe *pipe, int32_t state)
{
    const int32_t result = pipe_iterate_set_state(pipe, state);
    if (result != 0)
        NOX_TRACE_FOR("nox_pipe_set_state", OSA_TRACE_ERROR, "pipe_iterate_set_state failed (%d)\n",
                      result);
    return result == 0;
}

bool change_upward(NOXPipe *pipe, int32_t state)
{
    nox::store_release(pipe->plugin.state, state);
    return change_downstream(pipe, state) && change_sources(pipe, state);
}

bool change_downward(NOXPipe *pipe, int32_t state)
{
    nox::store_release(pipe->plugin.state, state);
    return change_sources(pipe, state) && change_downstream(pipe, state);
}

// What sinks refuse is of no consequence here: the stop goes on.
void announce_stop(NOXPipe *pipe)
{
    NOXEvent stopping{nullptr, NOX_EVENT_STOPPING};
    nox_pipe_set_event(pipe, &stopping);
    NOXEvent stopped{nullptr, NOX_EVENT_STOPPED};
    nox_pipe_set_event(pipe, &stopped);
}

bool change_plugins(NOXPipe *pipe, int32_t current, int32_t state)
{
    const bool from_null_to_play = current == NOX_STATE_NULL && state == NOX_STATE_PLAY;
    if (from_null_to_play && (pipe->option & NOX_PIPE_OPT_PLAY_VIA_READY) != 0)
        return change_upward(pipe, NOX_STATE_READY) && change_upward(pipe, NOX_STATE_PLAY);
    if (current < state)
        return change_upward(pipe, state);
    if (current == NOX_STATE_PAUSE && state == NOX_STATE_NULL) {
        nox::store_release(pipe->plugin.state, state);
        announce_stop(pipe);
    }
    return change_downward(pipe, state);
}

void enter_play(NOXPipe *pipe)
{
    NOX_TRACE_FOR("nox_pipe_set_state", OSA_TRACE_VERBOSE, "state to PLAY\n");
    nox_timer_start(pipe->clock);
    nox::store_relaxed(pipe->basereftime, nox_timer_gettime(pipe->clock));
    nox::store_release(pipe->plugin.started, uint8_t{1});
}

void follow_with_clock(NOXPipe *pipe, int32_t state)
{
    if (state == NOX_STATE_PLAY) {
        enter_play(pipe);
    } else if (state == NOX_STATE_PAUSE) {
        NOX_TRACE_FOR("nox_pipe_set_state", OSA_TRACE_VERBOSE, "state to PAUSE\n");
        nox::stop_clock(pipe);
    } else if (state == NOX_STATE_NULL) {
        NOX_TRACE_FOR("nox_pipe_set_state", OSA_TRACE_VERBOSE, "state to NULL\n");
        nox::stop_clock(pipe);
        nox::store_release(pipe->plugin.started, uint8_t{0});
    }
}

} // namespace

namespace nox
{

void stop_clock(NOXPipe *pipe)
{
    const ObjectLock lock(pipe->clock);
    // A clock that was started at tick 0 has no start tick, but runs.
    if (pipe->clock->starttick != 0 || pipe->clock->running)
        nox_timer_stop(pipe->clock);
}

bool has_circle(const NOXPipe *pipe, const char *function)
{
    for (NOXPlugin *member : members(pipe))
        if (member->issrc && runs_in_circle(member, function))
            return true;
    return false;
}

} // namespace nox

int32_t pipe_src_set_state(NOXPipe *pipe, int32_t state)
{
    const bool backwards = goes_backwards(pipe, state);
    bool has_source = false;
    for (OSA_ListNode *node = first_node(pipe, backwards); node != nullptr;
         node = next_node(node, backwards)) {
        auto *source = static_cast<NOXPlugin *>(node->data);
        if (!source->issrc)
            continue;
        NOX_TRACE(OSA_TRACE_NOTICE, "src (%s) to (%s)\n", nox::name_of(source),
                  nox_plugin_state_str(state));
        if (nox_plugin_setstate(source, state) != 0) {
            trace_refusal(source);
            return -1;
        }
        has_source = true;
    }
    return has_source ? 0 : -1;
}

int32_t pipe_iterate_set_state(NOXPipe *pipe, int32_t state)
{
    if (goes_backwards(pipe, state))
        return set_non_sources_backwards(pipe);
    // Round in a circle no buffer must go, and no walk. But what runs must be stopped.
    if (nox::has_circle(pipe, "pipe_iterate_set_state"))
        return state == NOX_STATE_NULL ? set_non_sources_backwards(pipe) : -1;
    BranchStack stack;
    int32_t result = 0;
    for (NOXPlugin *member : members(pipe))
        if (member->issrc)
            result |= walk_from(member, state, stack);
    NOX_TRACE(OSA_TRACE_INFO, "pnode is null\n");
    return result;
}

int32_t nox_pipe_set_state(NOXPipe *pipe, int32_t state)
{
    const int32_t current = nox_pipe_get_state(pipe);
    if (state == current)
        return 0;
    NOX_TRACE(OSA_TRACE_INFO, "Enter. pipe(%x) cur(%d) nextstate(%d) dir(%d)\n", nox::low32(pipe),
              current, state, current < state ? 1 : 0);
    if (!change_plugins(pipe, current, state))
        return -1;
    follow_with_clock(pipe, state);
    return 0;
}

int32_t nox_pipe_get_state(NOXPipe *pipe)
{
    return pipe != nullptr ? nox::load_acquire(pipe->plugin.state) : NOX_STATE_NULL;
}
