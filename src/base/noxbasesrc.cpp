// The base source, control side: start and stop of the source thread, and the
// pause handshake. The thread itself is in noxbasesrc_loop.cpp, the options are in
// noxbasesrc_format.cpp.
//
// Pausing. The control side raises `pausewait` and waits on `pauseevent`; the
// thread, at the top of its next pass, takes away what is latched in the plugin's
// `state_event`, looks again whether it is to park, answers on `pauseevent`, and
// waits on `state_event` until the plugin leaves PAUSE. Invariants:
//   1. when a pause returns, the thread is parked, or has ended;
//   2. a wake-up left over from an earlier pause never ends a later one;
//   3. a thread that ends stores `threadended_` before it looks at `pausewait`,
//      and a pause raises `pausewait` before it looks at `threadended_`, so a
//      pause never waits for a thread that is gone;
//   4. a thread stores `parked_` and takes away what is latched before it looks at
//      `state` and `started` once more, and who changes those looks at `parked_` or
//      wakes it afterwards, so a thread is never left parked by a change that did
//      not see it, or whose wake-up it took away;
//   5. a thread that is parked already, because the plugin went from PAUSE to READY
//      and back, is not asked to park: it would not answer. `held_`, the control
//      side's own note, tells it from one that is parked but has been woken. One
//      started in PAUSE parks by itself, and may have announced that (kParking) and
//      find READY at its second look: it counts once it waits (kParked).

#include "noxbasesrc.h"

#include "base/basesrc_internal.h"
#include "base/record_size.h"
#include "core/own_loop.h"
#include "internal/atomic_field.h"
#include "internal/trace.h"

namespace
{

constexpr char kSource[] = "noxbasesrc";
constexpr uint32_t kDefaultStackSize = 0x20000;
constexpr uint32_t kSecondLookPollMs = 1;

// A thread between its announcement and its second look waits or goes on in a moment. In
// READY it does not announce itself again.
bool is_parked(const NOXBaseSrc *source)
{
    uint8_t parked = nox::load_ordered(source->parked_);
    for (; parked == nox::kParking; parked = nox::load_ordered(source->parked_))
        OSA_ThreadSleep(kSecondLookPollMs);
    return parked == nox::kParked;
}

// Also one that may be about to park, see invariant 4.
void wake_when_parked(NOXBaseSrc *source)
{
    if (nox::load_ordered(source->parked_) && source->plugin.state_event != nullptr)
        OSA_EventSend(source->plugin.state_event);
}

int32_t start_thread(NOXBaseSrc *source)
{
    nox::store_ordered(source->threadended_, uint8_t{0});
    nox::store_ordered(source->parked_, uint8_t{0});
    source->thread =
        OSA_ThreadCreate(source->plugin.object.name, static_cast<int32_t>(source->priority),
                         source->stacksize, nox_basesrc_loop, source);
    source->plugin.hasthread_ = source->thread != nullptr;
    if (source->thread != nullptr)
        return 0;
    NOX_TRACE_OBJECT_FOR("nox_basesrc_start", source, OSA_TRACE_ERROR,
                         "base src thread create failed\n");
    return -1;
}

// Waits for the thread, waking it first when it is parked. False on the thread itself,
// which cannot wait for its own end: the handle is kept for a later stop.
bool join_thread(NOXBaseSrc *source, const char *function = __builtin_FUNCTION())
{
    if (source->thread == nullptr)
        return true;
    if (nox::OwnLoop::is_of(source)) {
        NOX_TRACE_OBJECT_FOR(function, source, OSA_TRACE_ERROR,
                             "src(%s) stopped on its own thread\n", nox::name_of(source));
        return false;
    }
    wake_when_parked(source);
    int32_t exit_value = 0;
    OSA_ThreadDelete(source->thread, &exit_value);
    source->thread = nullptr;
    source->plugin.hasthread_ = 0;
    return true;
}

// The derived source has been started all the same, and its stop is still due.
void take_started_back(NOXPlugin &plugin)
{
    if (nox::load_relaxed(plugin.started))
        nox::store_relaxed(plugin.tostop_, uint8_t{1});
    nox::store_ordered(plugin.started, uint8_t{0});
}

// A live source that cannot be paused must not run.
int32_t make_pause_event(NOXBaseSrc *source)
{
    if (source->pauseevent == nullptr)
        source->pauseevent = OSA_EventCreate(0);
    if (source->pauseevent == nullptr) {
        NOX_TRACE_OBJECT_FOR("nox_basesrc_start", source, OSA_TRACE_ERROR,
                             "pause event create failed\n");
        take_started_back(source->plugin);
        join_thread(source, "nox_basesrc_start");
        return -1;
    }
    nox::store_ordered(source->pausewait, uint8_t{0});
    return 0;
}

int32_t prepare_start(NOXBaseSrc *source)
{
    if (source->usethread && source->create_func == nullptr) {
        NOX_TRACE_OBJECT_FOR("nox_basesrc_start", source, OSA_TRACE_ERROR,
                             "must be declaration create function\n");
        return -1;
    }
    if (source->start_func != nullptr && source->start_func(source) != 0) {
        NOX_TRACE_OBJECT_FOR("nox_basesrc_start", source, OSA_TRACE_ERROR, "plugin start failed\n");
        return -1;
    }
    if (!nox_plugin_islink(&source->plugin)) {
        NOX_TRACE_OBJECT_FOR("nox_basesrc_start", source, OSA_TRACE_ERROR, "not linked\n");
        return -1;
    }
    return 0;
}

bool pipe_is_started(const NOXBaseSrc *source)
{
    // The pipe's record begins with a plugin record, and its flag is that one's.
    auto *pipe = static_cast<const NOXPlugin *>(source->plugin.object.parent);
    return pipe == nullptr || nox::load_acquire(pipe->started);
}

// Whether there is a thread that has to be asked, and has not been parked before. A
// source that produces in a context of its own has none; on the thread itself there
// is nothing to wait for: it parks with its next pass.
bool must_be_asked_to_park(const NOXBaseSrc *source)
{
    return nox::load_acquire(source->plugin.started) && source->usethread &&
           source->pauseevent != nullptr && !nox::OwnLoop::is_of(source) &&
           !(source->held_ && is_parked(source));
}

void pause(NOXBaseSrc *source)
{
    if (!pipe_is_started(source)) {
        take_started_back(source->plugin);
        return;
    }
    if (!must_be_asked_to_park(source))
        return;
    nox::store_ordered(source->pausewait, uint8_t{1});
    if (!nox::load_ordered(source->threadended_))
        OSA_EventWait(source->pauseevent, OSA_WAIT_FOREVER);
    nox::store_ordered(source->pausewait, uint8_t{0});
}

// Whether the change wakes a thread that is parked. From READY to PLAY it is the start that
// does; one that fails leaves it parked.
bool lets_go(const NOXPlugin *plugin, int32_t state)
{
    return state == NOX_STATE_NULL ||
           (state == NOX_STATE_PLAY && nox::load_relaxed(plugin->state) == NOX_STATE_PAUSE);
}

// In PAUSE a thread parks by itself, in any other state it is to run.
void note_start(NOXBaseSrc *source)
{
    source->held_ = nox::load_relaxed(source->plugin.state) == NOX_STATE_PAUSE;
}

} // namespace

int32_t nox_basesrc_init(NOXBaseSrc *source)
{
    auto *plugin = reinterpret_cast<NOXPlugin *>(source); // null stays null
    if (!nox::holds<NOXBaseSrc>(plugin, kSource))
        return -1;
    const int32_t result = nox_plugin_init(plugin);
    if (result != 0) {
        NOX_TRACE_OBJECT(plugin, OSA_TRACE_ERROR, "plugin init failed ret(%d)\n", result);
        return result;
    }
    nox::store_relaxed(plugin->started, uint8_t{0});
    plugin->issrc = 1;
    plugin->setstate_func = nox_basesrc_setstate;
    plugin->setformat_func = nox_basesrc_setformat;
    plugin->getformat_func = nox_basesrc_getformat;
    plugin->finalize_func = nox_basesrc_finalize;
    plugin->event_func = nox_basesrc_event;
    plugin->start_func = nox_basesrc_start;
    plugin->stop_func = nox_basesrc_stop;
    source->stacksize = kDefaultStackSize;
    source->priority = 0;
    source->waitallsrc = 1;
    source->islive = 1;
    source->usethread = 1;
    source->lastts = 0;
    source->maxframes = 0;
    source->privatets = 0;
    return 0;
}

uint32_t nox_basesrc_get_size(void)
{
    return sizeof(NOXBaseSrc);
}

int32_t nox_basesrc_start(NOXPlugin *plugin)
{
    NOXBaseSrc *source = nox::source_of(plugin);
    if (prepare_start(source) != 0)
        return -1;
    note_start(source);
    if (source->thread != nullptr) {
        NOX_TRACE_OBJECT(source, OSA_TRACE_ERROR, "thread already started(%x)\n",
                         nox::low32(source->thread));
        // From PAUSE by way of READY the thread is still parked.
        if (!source->held_)
            wake_when_parked(source);
        return 0;
    }
    if (source->usethread && start_thread(source) != 0)
        return -1;
    return nox::load_relaxed(source->islive) ? make_pause_event(source) : 0;
}

int32_t nox_basesrc_stop(NOXPlugin *plugin)
{
    NOXBaseSrc *source = nox::source_of(plugin);
    int32_t result = 0;
    if (source->prestop_func != nullptr) {
        result = source->prestop_func(source);
        if (result != 0)
            NOX_TRACE_OBJECT(source, OSA_TRACE_ERROR, "src(%s) prestop error(%d)\n",
                             nox::name_of(source), result);
    }
    if (!join_thread(source))
        return -1; // the thread uses until its end what would be taken apart here
    if (source->stop_func != nullptr)
        result = source->stop_func(source);
    if (source->pauseevent != nullptr) {
        OSA_EventDestroy(source->pauseevent);
        source->pauseevent = nullptr;
    }
    if (result != 0)
        NOX_TRACE_OBJECT(source, OSA_TRACE_ERROR, "src(%s) stop error(%d)\n", nox::name_of(source),
                         result);
    return result;
}

int32_t nox_basesrc_setstate(NOXPlugin *plugin, int32_t state)
{
    NOXBaseSrc *source = nox::source_of(plugin);
    const int32_t result =
        source->setstate_func != nullptr ? source->setstate_func(source, state) : 0;
    if (lets_go(plugin, state))
        source->held_ = 0;
    if (state != NOX_STATE_PAUSE)
        return result;
    if (nox::load_relaxed(source->islive))
        pause(source);
    source->held_ = 1; // a thread that was not asked parks by itself
    return result;
}

int32_t nox_basesrc_event(NOXPlugin *plugin, NOXEvent *event)
{
    NOXBaseSrc *source = nox::source_of(plugin);
    if (source->event_func == nullptr)
        return 0;
    const int32_t result = source->event_func(source, event);
    if (result != 0 && !nox::load_relaxed(source->islive))
        nox_plugin_error_post(plugin, NOX_MSG_EOS, "EOS by event failure\n");
    return result;
}

int32_t nox_basesrc_finalize(NOXPlugin *plugin)
{
    NOXBaseSrc *source = nox::source_of(plugin);
    return source->finalize_func != nullptr ? source->finalize_func(source) : -1;
}

NOXBuffer *nox_basesrc_buf_create(NOXBaseSrc *source)
{
    return source->create_func(source);
}

uint8_t nox_basesrc_get_dataready(NOXPlugin *plugin)
{
    return nox::load_acquire(nox::source_of(plugin)->dataready);
}

uint8_t nox_basesrc_get_eos(NOXPlugin *plugin)
{
    return nox::load_acquire(nox::source_of(plugin)->eos);
}

uint8_t nox_basesrc_get_stopped(NOXPlugin *plugin)
{
    if (!nox::load_relaxed(nox::source_of(plugin)->islive))
        return nox_basesrc_get_eos(plugin);
    return !nox_basesrc_get_dataready(plugin);
}
