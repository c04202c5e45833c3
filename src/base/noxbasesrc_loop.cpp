// The base source, thread side: one pass after the other creates a buffer, stamps
// it, pushes it, and applies the error policy when there was none to create.
//
// What the control side changes under the thread (`started`, `state`, `pausewait`)
// is read at the points where a pass may turn; the pause handshake is described in
// noxbasesrc.cpp.

#include "base/basesrc_thread.h"
#include "internal/atomic_field.h"
#include "internal/guard.h"
#include "internal/trace.h"
#include "noxpipe.h"

namespace
{

constexpr char kSource[] = "noxbasesrc";
constexpr uint32_t kOtherSourcesPollMs = 10;
constexpr uint32_t kFailurePauseMs = 100;
constexpr uint32_t kGroupPollMs = 100;
constexpr int kGroupPolls = 40;
constexpr uint64_t kLongIntervalMs = 2000;
constexpr uint64_t kSettledClockMs = 5000; // long intervals before that are start-up
constexpr char kCaptureFailed[] = "capture failed! (runtime)";

// The source whose thread this is; null on every other thread.
constinit thread_local const NOXBaseSrc *t_own_source = nullptr;

// What a pass does next.
enum class Step {
    kNextPass,
    kProduce,
    kEnd,
};

class SourceThread
{
public:
    explicit SourceThread(NOXBaseSrc *source) : m_source(source), m_plugin(&source->plugin) {}

    void run()
    {
        Step step = Step::kNextPass;
        while (step != Step::kEnd && is_started()) {
            step = park_while_paused();
            if (step == Step::kProduce)
                step = produce();
        }
    }

private:
    bool is_started() const
    {
        return nox::load_acquire(m_plugin->started);
    }

    bool is_live() const
    {
        return nox::load_relaxed(m_source->islive);
    }

    int32_t errhandle() const
    {
        return nox::load_relaxed(m_source->errhandle);
    }

    // Ordered, like the stores on the control side: see invariant 4.
    bool must_park() const
    {
        return nox::load_ordered(m_plugin->started) && pause_is_asked_for();
    }

    bool pause_is_asked_for() const
    {
        return nox::load_ordered(m_plugin->state) == NOX_STATE_PAUSE ||
               nox::load_ordered(m_source->pausewait) == 1;
    }

    void post(int32_t code, const char *text)
    {
        nox_plugin_error_post(m_plugin, code, text);
    }

    Step park_while_paused();
    bool acknowledge_pause();
    Step wait_parked();
    Step leave_pause(int32_t state);

    Step produce();
    Step push(NOXBuffer *buffer);
    Step refuse_push(int32_t result);
    Step count_frame();
    bool let_through(NOXBuffer *buffer);
    bool let_first_through(NOXBuffer *buffer);
    void stamp(NOXBuffer *buffer);
    void check_interval(NOXBuffer *buffer, uint64_t &timestamp);
    void end_stream();

    Step handle_failure();
    Step quit_after_failures();
    Step retry();
    void restart();
    void call_under_pipe_lock(NOXBaseSrcFunc function, const char *what);
    void wait_for_group(NOXPluginGroup *group);
    void ask_group_to_restart(NOXPluginGroup *group);
    Step pause_after_failure()
    {
        OSA_ThreadSleep(kFailurePauseMs);
        return Step::kNextPass;
    }

    NOXBaseSrc *m_source;
    NOXPlugin *m_plugin;
    int32_t m_failures = 0; // consecutive, of a live source
    bool m_running = false; // the first buffer of this thread has been let through
};

// ---- pausing ------------------------------------------------------------------

Step SourceThread::park_while_paused()
{
    if (!pause_is_asked_for())
        return Step::kProduce;
    nox::store_ordered(m_source->parked_, uint8_t{1});
    const Step step = must_park() && acknowledge_pause() ? wait_parked() : Step::kNextPass;
    nox::store_ordered(m_source->parked_, uint8_t{0});
    return step;
}

// False when the source was stopped meanwhile.
bool SourceThread::acknowledge_pause()
{
    if (nox::load_ordered(m_source->pausewait) != 1 || m_source->pauseevent == nullptr)
        return true;
    // What an earlier pause left latched must not end this one. It may be a stop's
    // wake-up, too, whose reason then shows in `started`.
    OSA_EventWait(m_plugin->state_event, 0);
    if (!nox::load_ordered(m_plugin->started))
        return false;
    OSA_EventSend(m_source->pauseevent);
    return true;
}

Step SourceThread::wait_parked()
{
    int32_t state;
    do {
        if (OSA_EventWait(m_plugin->state_event, OSA_WAIT_FOREVER) != 0) {
            NOX_TRACE_OBJECT(m_source, OSA_TRACE_ERROR, "event wait failed..\n");
            return Step::kNextPass;
        }
        state = nox::load_acquire(m_plugin->state);
        NOX_TRACE_OBJECT(m_source, OSA_TRACE_NOTICE, "received event(%d) in paused stat\n", state);
    } while (state == NOX_STATE_PAUSE && is_started());
    return leave_pause(state);
}

Step SourceThread::leave_pause(int32_t state)
{
    if (state == NOX_STATE_NULL) {
        NOX_TRACE_OBJECT(m_source, OSA_TRACE_NOTICE, "cur state is null. will be exit\n");
        return Step::kEnd;
    }
    if (is_live())
        m_source->lastts = 0; // no interval is measured across a pause
    if (!is_started()) {
        NOX_TRACE_OBJECT(m_source, OSA_TRACE_NOTICE, "plg state is NULL\n");
        return Step::kEnd;
    }
    return Step::kProduce;
}

// ---- producing ----------------------------------------------------------------

Step SourceThread::produce()
{
    NOXBuffer *buffer = nox_basesrc_buf_create(m_source);
    if (buffer == nullptr)
        return handle_failure();
    if (is_live() && !let_through(buffer)) {
        nox_object_delete(buffer);
        OSA_ThreadSleep(kOtherSourcesPollMs);
        return Step::kNextPass;
    }
    return push(buffer);
}

// Stamps a live buffer; false when it is dropped because other sources of the
// pipe have no data yet.
bool SourceThread::let_through(NOXBuffer *buffer)
{
    stamp(buffer);
    if (!m_running && !let_first_through(buffer))
        return false;
    if (m_failures > 0)
        post(NOX_MSG_STARTED, "Recovered from error");
    m_failures = 0;
    m_running = true;
    nox::store_release(m_source->eos, uint8_t{0});
    return true;
}

void SourceThread::stamp(NOXBuffer *buffer)
{
    if (!nox::load_relaxed(m_source->privatets) && m_plugin->timer != nullptr)
        nox_buffer_set_timestamp(buffer, nox_timer_gettime(m_plugin->timer));
    uint64_t timestamp = nox_buffer_get_timestamp(buffer);
    if (m_source->lastts != 0)
        check_interval(buffer, timestamp);
    m_source->lastts = timestamp;
}

void SourceThread::check_interval(NOXBuffer *buffer, uint64_t &timestamp)
{
    const uint64_t last = m_source->lastts;
    if (timestamp < last) {
        NOX_TRACE_OBJECT(m_source, OSA_TRACE_ERROR, "Reversed timestamp prev(%llu) cur(%llu)\n",
                         static_cast<unsigned long long>(last),
                         static_cast<unsigned long long>(timestamp));
        timestamp = last + 1;
        nox_buffer_set_timestamp(buffer, timestamp);
    } else if (timestamp > kSettledClockMs && timestamp - last >= kLongIntervalMs) {
        NOX_TRACE_OBJECT(m_source, OSA_TRACE_ERROR, "Too long interval (%llu ms)\n",
                         static_cast<unsigned long long>(timestamp - last));
    }
}

bool SourceThread::let_first_through(NOXBuffer *buffer)
{
    nox::store_release(m_source->dataready, uint8_t{1});
    auto *pipe = static_cast<NOXPipe *>(nox_plugin_get_pipeline(m_plugin));
    if (nox::load_relaxed(m_source->waitallsrc) == 1 && pipe != nullptr &&
        !nox_pipe_get_allsrc_started(pipe))
        return false;
    nox::store_relaxed(m_source->waitallsrc, uint8_t{0});
    post(NOX_MSG_STARTED, "Successfully started");
    NOX_TRACE_OBJECT(m_source, OSA_TRACE_NOTICE, "[%s] DATA Started (my timestamp: %llu\n",
                     nox::name_of(m_source),
                     static_cast<unsigned long long>(nox_buffer_get_timestamp(buffer)));
    return true;
}

Step SourceThread::push(NOXBuffer *buffer)
{
    const int32_t result = nox_plugin_push_buffer(m_plugin, buffer);
    nox_object_delete(buffer);
    if (nox::load_acquire(m_plugin->state) == NOX_STATE_NULL || !is_started())
        return Step::kEnd;
    if (result != 0)
        return refuse_push(result);
    const Step step = count_frame();
    if (step != Step::kEnd && m_source->postpush_func != nullptr)
        m_source->postpush_func(m_source);
    return step;
}

Step SourceThread::refuse_push(int32_t result)
{
    NOX_TRACE_OBJECT(m_source, OSA_TRACE_ERROR, "cannot push to [%s] ret(%d)",
                     nox::name_of(m_plugin->next), result);
    if (is_live())
        post(NOX_MSG_PUSH_ERROR, "cannot push data");
    else
        post(NOX_MSG_EOS, "EOS (internal pushing error)\n");
    return Step::kEnd;
}

Step SourceThread::count_frame()
{
    const uint32_t limit = nox::load_relaxed(m_source->maxframes);
    if (limit == 0 || ++m_source->framecount < limit)
        return Step::kNextPass;
    end_stream();
    return Step::kEnd;
}

// Once: a source that has ended says so to its sinks a single time.
void SourceThread::end_stream()
{
    if (nox::load_relaxed(m_source->eos))
        return;
    nox::store_release(m_source->eos, uint8_t{1});
    nox_plugin_push_eos(m_plugin);
}

// ---- failing ------------------------------------------------------------------

Step SourceThread::handle_failure()
{
    if (!is_started())
        return Step::kEnd;
    if (!is_live()) {
        end_stream();
        return errhandle() == NOX_ERRHANDLE_RETRY ? Step::kNextPass : pause_after_failure();
    }
    ++m_failures;
    switch (errhandle()) {
    case NOX_ERRHANDLE_RESTART:
        restart();
        return pause_after_failure();
    case NOX_ERRHANDLE_DONT_CARE:
        m_failures = 0;
        return pause_after_failure();
    case NOX_ERRHANDLE_RETRY:
        return retry();
    default:
        return quit_after_failures();
    }
}

Step SourceThread::retry()
{
    NOX_TRACE_OBJECT(m_source, OSA_TRACE_ERROR, "capture failed! (runtime), just keep going...\n");
    if (m_failures > nox::load_relaxed(m_source->errcount))
        post(NOX_MSG_CAPTURE_ERROR, kCaptureFailed);
    return Step::kNextPass;
}

Step SourceThread::quit_after_failures()
{
    NOX_TRACE_OBJECT(m_source, OSA_TRACE_ERROR, "capture failed! (runtime) QUIT (%d > 3)...\n",
                     m_failures);
    post(NOX_MSG_CAPTURE_ERROR, kCaptureFailed);
    if (m_failures <= nox::load_relaxed(m_source->errcount))
        return pause_after_failure();
    nox::store_release(m_source->eos, uint8_t{1});
    return Step::kEnd;
}

// ---- restarting ---------------------------------------------------------------

void SourceThread::restart()
{
    NOX_TRACE_OBJECT(m_source, OSA_TRACE_ERROR, "capture failed! (runtime) RESTART...\n");
    post(NOX_MSG_CAPTURE_ERROR, kCaptureFailed);
    call_under_pipe_lock(m_source->stop_func, "stop");
    NOXPluginGroup *group = nox_plugin_group_get(m_plugin);
    if (group != nullptr)
        nox_plugin_group_attend(group, m_plugin, 1);
    wait_for_group(group);
    call_under_pipe_lock(m_source->start_func, "start");
    if (group != nullptr)
        nox_plugin_group_attend(group, m_plugin, 0);
}

// Under the pipe's lock, so that no two sources of a pipe restart a device at
// the same time. The result is not looked at: the next create tells.
void SourceThread::call_under_pipe_lock(NOXBaseSrcFunc function, const char *what)
{
    nox::ObjectLock lock(nox_plugin_get_parent(m_plugin));
    NOX_TRACE_OBJECT(m_source, OSA_TRACE_ERROR, "[%s] %s ++\n", nox::name_of(m_source), what);
    if (function != nullptr)
        function(m_source);
    NOX_TRACE_OBJECT(m_source, OSA_TRACE_ERROR, "[%s] %s --\n", nox::name_of(m_source), what);
}

void SourceThread::wait_for_group(NOXPluginGroup *group)
{
    for (int poll = 0; poll < kGroupPolls; ++poll) {
        if (nox_plugin_group_is_all_attended(group))
            return;
        ask_group_to_restart(group);
        OSA_ThreadSleep(kGroupPollMs);
    }
    if (!nox_plugin_group_is_all_attended(group))
        NOX_TRACE_OBJECT(m_source, OSA_TRACE_ERROR, "other source has no problem, keep going..\n");
}

void SourceThread::ask_group_to_restart(NOXPluginGroup *group)
{
    const uint32_t count = nox_plugin_group_members(group);
    for (uint32_t i = 0; i < count; ++i) {
        NOXPlugin *member = nox_plugin_group_get_member(group, i);
        if (member != nullptr && member != m_plugin && member->issrc)
            nox::store_release(reinterpret_cast<NOXBaseSrc *>(member)->restartreq, uint8_t{1});
    }
}

// Releases a pause that waits for this thread; later ones see that it has ended.
void announce_end(NOXBaseSrc *source)
{
    nox::store_ordered(source->threadended_, uint8_t{1});
    if (nox::load_ordered(source->pausewait) == 1 && source->pauseevent != nullptr)
        OSA_EventSend(source->pauseevent);
}

} // namespace

namespace nox
{

bool is_thread_of(const NOXBaseSrc *source)
{
    return t_own_source == source;
}

bool pushing_source_is_stopped()
{
    return t_own_source != nullptr && !load_acquire(t_own_source->plugin.started);
}

} // namespace nox

int32_t nox_basesrc_loop(void *argument)
{
    auto *source = static_cast<NOXBaseSrc *>(argument);
    t_own_source = source;
    SourceThread(source).run();
    announce_end(source);
    t_own_source = nullptr;
    OSA_ThreadExit(0);
    return 0;
}
