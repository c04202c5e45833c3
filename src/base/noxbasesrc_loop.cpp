// The base source, thread side: one pass after the other creates a buffer, stamps
// it and pushes it, and parks while the plugin is paused.
//
// What the control side changes under the thread (`started`, `state`, `pausewait`)
// is read at the points where a pass may turn; the pause handshake is described in
// noxbasesrc.cpp.

#include "base/basesrc_internal.h"
#include "base/source_thread.h"
#include "core/own_loop.h"
#include "internal/trace.h"
#include "noxpipe.h"

namespace
{

constexpr char kSource[] = "noxbasesrc";
constexpr uint32_t kOtherSourcesPollMs = 10;
constexpr uint64_t kLongIntervalMs = 2000;
constexpr uint64_t kSettledClockMs = 5000; // long intervals before that are start-up

// The source whose thread this is; null on every other thread.
constinit thread_local const NOXBaseSrc *t_own_source = nullptr;

// Releases a pause that waits for this thread; later ones see that it has ended.
void announce_end(NOXBaseSrc *source)
{
    nox::store_ordered(source->threadended_, uint8_t{1});
    if (nox::load_ordered(source->pausewait) == 1 && source->pauseevent != nullptr)
        OSA_EventSend(source->pauseevent);
}

void run_passes(NOXBaseSrc *source)
{
    const nox::OwnLoop loop(source);
    t_own_source = source;
    nox::SourceThread(source).run();
    announce_end(source);
    t_own_source = nullptr;
}

} // namespace

namespace nox
{

void SourceThread::run()
{
    Step step = Step::kNextPass;
    while (step != Step::kEnd && is_started()) {
        step = park_while_paused();
        if (step == Step::kProduce)
            step = produce();
    }
}

Step SourceThread::park_while_paused()
{
    if (!pause_is_asked_for())
        return Step::kProduce;
    Step step = Step::kNextPass;
    store_ordered(m_source->parked_, kParking);
    // Before what is latched goes: who waits for the answer sends nothing more.
    const bool awaited = pause_is_awaited();
    // What an earlier pause left latched must not end this one. It may belong to a
    // change that has just been made, too: that shows in the second look.
    OSA_EventWait(m_plugin->state_event, 0);
    if (must_park() && pause_is_awaited() == awaited) {
        store_ordered(m_source->parked_, kParked); // before who waits for it goes on
        if (awaited)
            OSA_EventSend(m_source->pauseevent);
        step = wait_parked();
    }
    store_ordered(m_source->parked_, uint8_t{0});
    return step;
}

Step SourceThread::wait_parked()
{
    int32_t state;
    do {
        if (OSA_EventWait(m_plugin->state_event, OSA_WAIT_FOREVER) != 0) {
            NOX_TRACE_OBJECT_FOR(kLoop, m_source, OSA_TRACE_ERROR, "event wait failed..\n");
            return Step::kNextPass;
        }
        state = load_acquire(m_plugin->state);
        NOX_TRACE_OBJECT_FOR(kLoop, m_source, OSA_TRACE_NOTICE,
                             "received event(%d) in paused stat\n", state);
    } while (state == NOX_STATE_PAUSE && is_started());
    return leave_pause(state);
}

Step SourceThread::leave_pause(int32_t state)
{
    if (state == NOX_STATE_NULL) {
        NOX_TRACE_OBJECT_FOR(kLoop, m_source, OSA_TRACE_NOTICE,
                             "cur state is null. will be exit\n");
        return Step::kEnd;
    }
    if (is_live())
        m_source->lastts = 0; // no interval is measured across a pause
    if (!is_started()) {
        NOX_TRACE_OBJECT_FOR(kLoop, m_source, OSA_TRACE_NOTICE, "plg state is NULL\n");
        return Step::kEnd;
    }
    return Step::kProduce;
}

// The create function gives a reference with each buffer. One that it gives twice may
// be gone when it comes again: its record, back in the pool, still says so until it is
// taken for another buffer. (Pools keep their blocks; a record of a size of its own goes
// back to the heap, and nothing can be told of it.)
bool SourceThread::is_released(const NOXBuffer *buffer)
{
    if (load_relaxed(buffer->object.refcount) != 0)
        return false;
    NOX_TRACE_OBJECT_FOR(kLoop, m_source, OSA_TRACE_ERROR,
                         "create function returned a released buffer(%p)\n", address(buffer));
    return true;
}

Step SourceThread::produce()
{
    NOXBuffer *buffer = nox_basesrc_buf_create(m_source);
    if (buffer == nullptr || is_released(buffer))
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
    store_release(m_source->eos, uint8_t{0});
    return true;
}

void SourceThread::stamp(NOXBuffer *buffer)
{
    if (!load_relaxed(m_source->privatets) && m_plugin->timer != nullptr)
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
        NOX_TRACE_OBJECT_FOR(
            kLoop, m_source, OSA_TRACE_ERROR, "Reversed timestamp prev(%llu) cur(%llu)\n",
            static_cast<unsigned long long>(last), static_cast<unsigned long long>(timestamp));
        timestamp = last + 1;
        nox_buffer_set_timestamp(buffer, timestamp);
    } else if (timestamp > kSettledClockMs && timestamp - last >= kLongIntervalMs) {
        NOX_TRACE_OBJECT_FOR(kLoop, m_source, OSA_TRACE_ERROR, "Too long interval (%llu ms)\n",
                             static_cast<unsigned long long>(timestamp - last));
    }
}

bool SourceThread::let_first_through(NOXBuffer *buffer)
{
    store_release(m_source->dataready, uint8_t{1});
    auto *pipe = static_cast<NOXPipe *>(nox_plugin_get_pipeline(m_plugin));
    if (load_relaxed(m_source->waitallsrc) == 1 && pipe != nullptr &&
        !nox_pipe_get_allsrc_started(pipe))
        return false;
    store_relaxed(m_source->waitallsrc, uint8_t{0});
    post(NOX_MSG_STARTED, "Successfully started");
    NOX_TRACE_OBJECT_FOR(kLoop, m_source, OSA_TRACE_NOTICE,
                         "[%s] DATA Started (my timestamp: %llu\n", name_of(m_source),
                         static_cast<unsigned long long>(nox_buffer_get_timestamp(buffer)));
    return true;
}

Step SourceThread::push(NOXBuffer *buffer)
{
    const int32_t result = nox_plugin_push_buffer(m_plugin, buffer);
    nox_object_delete(buffer);
    if (load_acquire(m_plugin->state) == NOX_STATE_NULL || !is_started())
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
    NOX_TRACE_OBJECT_FOR(kLoop, m_source, OSA_TRACE_ERROR, "cannot push to [%s] ret(%d)",
                         name_of(m_plugin->next), result);
    if (is_live())
        post(NOX_MSG_PUSH_ERROR, "cannot push data");
    else
        post(NOX_MSG_EOS, "EOS (internal pushing error)\n");
    return Step::kEnd;
}

Step SourceThread::count_frame()
{
    const uint32_t limit = load_relaxed(m_source->maxframes);
    if (limit == 0 || ++m_source->framecount < limit)
        return Step::kNextPass;
    end_stream();
    return Step::kEnd;
}

// Once: a source that has ended says so to its sinks a single time.
void SourceThread::end_stream()
{
    if (load_relaxed(m_source->eos))
        return;
    store_release(m_source->eos, uint8_t{1});
    nox_plugin_push_eos(m_plugin);
}

bool pushing_source_is_called_back()
{
    return t_own_source != nullptr && (!load_acquire(t_own_source->plugin.started) ||
                                       load_acquire(t_own_source->pausewait) == 1);
}

} // namespace nox

int32_t nox_basesrc_loop(void *argument)
{
    run_passes(static_cast<NOXBaseSrc *>(argument));
    OSA_ThreadExit(0);
    return 0;
}
