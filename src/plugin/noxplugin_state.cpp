// The plugin's state machine: start, stop, and the changes between the states.
//
// One thread drives the changes; a plugin's own thread runs beside it and reads
// `state` and `started`. What the two agree on:
//   1. `started` is cleared before the wait for `busy` and before stop_func;
//   2. `state` is stored before `state_event` is sent, so that a thread woken
//      from its pause reads the new state;
//   3. both are stored in the one order that all threads agree on, because a
//      thread that is about to park announces that first and then looks at them
//      again, while a start or stop stores first and then looks for parked
//      threads: at least one side must see the other.

#include "internal/atomic_field.h"
#include "plugin/noxplugin_check.h"
#include "plugin/own_thread.h"

namespace
{

constexpr int kBusyPolls = 100;
constexpr uint32_t kBusyPollMs = 3;

// Bounded: a chain call that never returns must not keep its plugin from stopping.
void wait_while_busy(const NOXPlugin *plugin)
{
    for (int poll = 0; poll < kBusyPolls && nox::load_acquire(plugin->busy); ++poll)
        OSA_ThreadSleep(kBusyPollMs);
}

// Says that a stop is under way: stop_func may wait for a thread that pushes.
class Stopping
{
public:
    explicit Stopping(NOXPlugin *plugin) : m_plugin(plugin)
    {
        nox::store_release(plugin->stopping_, uint8_t{1});
    }
    ~Stopping()
    {
        nox::store_release(m_plugin->stopping_, uint8_t{0});
    }
    Stopping(const Stopping &) = delete;
    Stopping &operator=(const Stopping &) = delete;

private:
    NOXPlugin *m_plugin;
};

void wake_from_pause(NOXPlugin *plugin)
{
    if (plugin->state_event != nullptr)
        OSA_EventSend(plugin->state_event);
}

int32_t enter_state(NOXPlugin *plugin, int32_t previous, int32_t state, int32_t hook_result)
{
    const bool leaves_pause = previous == NOX_STATE_PAUSE;
    if (state == NOX_STATE_NULL) {
        if (leaves_pause)
            wake_from_pause(plugin);
        return nox_plugin_stop(plugin);
    }
    if (state != NOX_STATE_PLAY)
        return hook_result;
    if (!leaves_pause)
        return nox_plugin_start(plugin);
    wake_from_pause(plugin);
    return hook_result;
}

} // namespace

namespace nox
{

bool end_own_thread(NOXPlugin *plugin, const char *function)
{
    if (!plugin->hasthread_)
        return true;
    NOX_TRACE_FOR(function, OSA_TRACE_ERROR,
                  "plugin(%s) is released before its thread was joined\n", name_of(plugin));
    nox_plugin_stop(plugin);
    return !plugin->hasthread_;
}

} // namespace nox

int32_t nox_plugin_start(NOXPlugin *plugin)
{
    if (!check_plugin(plugin))
        return -1;
    nox::store_ordered(plugin->started, uint8_t{1});
    if (plugin->start_func != nullptr)
        return plugin->start_func(plugin);
    NOX_TRACE(OSA_TRACE_NOTICE, "plugin name(%s) start function is not implement\n",
              nox::name_of(plugin));
    return 0;
}

int32_t nox_plugin_stop(NOXPlugin *plugin)
{
    if (!check_plugin(plugin))
        return -1;
    nox::store_ordered(plugin->started, uint8_t{0});
    nox::store_relaxed(plugin->tostop_, uint8_t{0});
    const Stopping stopping(plugin);
    wait_while_busy(plugin);
    if (plugin->stop_func != nullptr)
        return plugin->stop_func(plugin);
    NOX_TRACE(OSA_TRACE_ERROR, "plugin name(%s) stop function is not implement\n",
              nox::name_of(plugin));
    return 0;
}

int32_t nox_plugin_setstate(NOXPlugin *plugin, int32_t state)
{
    if (plugin == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "Invalid plg(%x)\n", 0u);
        return -1;
    }
    const int32_t previous = nox::load_relaxed(plugin->state);
    NOX_TRACE(OSA_TRACE_VERBOSE, "Enter. name(%s) cur(%d) next(%d)\n", nox::name_of(plugin),
              previous, state);
    if (state == previous) {
        NOX_TRACE(OSA_TRACE_INFO, "name(%s) plg already state(%d)\n", nox::name_of(plugin), state);
        return 0;
    }
    const int32_t hook_result =
        plugin->setstate_func != nullptr ? plugin->setstate_func(plugin, state) : 0;
    nox::store_ordered(plugin->state, state);
    return enter_state(plugin, previous, state, hook_result);
}

int32_t nox_plugin_get_state(NOXPlugin *plugin)
{
    return nox::load_acquire(plugin->state);
}

const char *nox_plugin_state_str(int32_t state)
{
    static constexpr const char *kNames[] = {"NULL", "READY", "PAUSE", "PLAY"};
    return state >= NOX_STATE_NULL && state <= NOX_STATE_PLAY ? kNames[state] : "??";
}
