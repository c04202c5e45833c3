// The road of a buffer through the base sink, on the pushing thread: throughput
// accounting, the wait for the clock, and the derived render function.

#include <cmath>

#include "base/basesrc_internal.h"
#include "internal/atomic_field.h"
#include "internal/saturate.h"
#include "internal/trace.h"
#include "noxbasesink.h"
#include "plugin/circle.h"

namespace
{

constexpr char kSource[] = "noxbasesink";
constexpr uint64_t kReportPeriodMs = 5000;
constexpr uint32_t kClockPollMs = 10;
constexpr int32_t kMega = 1000000;
constexpr char kHighRate[] = "\033[33m (HIGH FPS)\033[0m";
constexpr char kHighBitRate[] = "\033[33m (HIGH BITRATE)\033[0m";

void post_first_data(NOXBaseSink *sink, const char *text)
{
    if (nox::load_relaxed(sink->report) != 1)
        return;
    nox_plugin_error_post(&sink->plugin, NOX_MSG_SINK, text);
    nox::store_relaxed(sink->report, uint8_t{0});
}

// ---- throughput ---------------------------------------------------------------

struct Throughput {
    float fps;
    int32_t bps;
};

Throughput measure(const NOXBaseSink *sink, uint64_t elapsed_ms)
{
    const float frame_ms = static_cast<float>(elapsed_ms) / static_cast<float>(sink->frames);
    // The bit rate wraps in its low 32 bits by definition.
    const auto bytes_per_second = static_cast<uint32_t>(sink->bytes * 1000 / elapsed_ms);
    return {1000.0f / frame_ms, static_cast<int32_t>(bytes_per_second * 8u)};
}

// Half above the target. In 64 bits: three times a target may not fit 32.
bool is_high(int64_t measured, int32_t target)
{
    return target != 0 && measured >= int64_t{target} * 3 / 2;
}

void print(const NOXBaseSink *sink, const Throughput &rate)
{
    const bool mega = rate.bps > kMega;
    const float scaled = static_cast<float>(rate.bps) / (mega ? 1000000.0f : 1000.0f);
    const bool high_rate =
        is_high(nox::saturate<int32_t>(rate.fps), nox::load_relaxed(sink->targetfps));
    OSA_Traces("%011llu : [%s] %05.02f fps, %05.01f %cbps %s %s\n",
               static_cast<unsigned long long>(OSA_GetSystemTick()), nox::name_of(sink),
               static_cast<double>(rate.fps), static_cast<double>(scaled), mega ? 'M' : 'K',
               high_rate ? kHighRate : "",
               is_high(rate.bps, nox::load_relaxed(sink->targetbps)) ? kHighBitRate : "");
}

void report_period(NOXBaseSink *sink, uint64_t timestamp)
{
    const Throughput rate = measure(sink, timestamp - sink->firstts);
    print(sink, rate);
    sink->frames = 0;
    sink->firstts = timestamp;
    sink->bytes = 0;
    post_first_data(sink, "sink running");
    if (int32_t *rateoutvar = nox::load_relaxed(sink->rateoutvar))
        nox::store_relaxed(*rateoutvar, nox::saturate<int32_t>(nearbyintf(rate.fps)));
}

void account(NOXBaseSink *sink, NOXBuffer *buffer)
{
    const uint64_t timestamp = nox_buffer_get_timestamp(buffer);
    sink->frames += 1;
    sink->bytes += nox_buffer_get_datasize(buffer);
    if (sink->firstts == 0)
        sink->firstts = timestamp;
    else if (timestamp - sink->firstts >= kReportPeriodMs)
        report_period(sink, timestamp);
}

// ---- the clock ----------------------------------------------------------------

// Tells a pusher that has waited long enough: its source is stopped or paused, or a plugin
// on its way is stopped, and that may be waiting for this very thread. A source or filter
// that pushes on a thread of its own is found by the links. A source that was not started
// when the wait began tells only of a stop under way, which another branch of the push may
// have noticed before.
class CallBack
{
public:
    explicit CallBack(const NOXPlugin *sink) : m_sink(sink)
    {
        m_was_started = nox::load_acquire(look_upstream().source->started);
    }

    bool has_come() const
    {
        if (nox::pushing_source_is_called_back())
            return true;
        const Upstream upstream = look_upstream();
        return upstream.is_stopped ||
               (m_was_started && !nox::load_acquire(upstream.source->started));
    }

private:
    struct Upstream {
        const NOXPlugin *source;
        bool is_stopped; // one of all, at this moment
    };

    static bool is_stopped(const NOXPlugin *plugin)
    {
        return nox::load_acquire(plugin->stopping_) != 0;
    }

    Upstream look_upstream() const
    {
        nox::CircleWatch circle;
        Upstream upstream{m_sink, m_sink->prev == nullptr && is_stopped(m_sink)};
        while (upstream.source->prev != nullptr && !circle.is_closed_by(upstream.source)) {
            upstream.source = upstream.source->prev;
            upstream.is_stopped |= is_stopped(upstream.source);
        }
        return upstream;
    }

    const NOXPlugin *m_sink;
    bool m_was_started;
};

// The first reading of a clock that runs. While the clock stands at 0 only a call back
// ends the wait, with `waited` cleared.
uint64_t wait_until_running(NOXBaseSink *sink, NOXTimer *timer, bool &waited)
{
    const CallBack call_back(&sink->plugin);
    waited = true;
    for (;;) {
        const uint64_t reading = nox_timer_gettime(timer);
        if (reading != 0 || nox_timer_wait(timer, kClockPollMs) == 0)
            return reading;
        if (call_back.has_come()) {
            waited = false;
            return reading;
        }
    }
}

// Sleeps what is left until the timestamp: by a fresh reading, but never longer
// than the reading that asked for the sleep, whatever was done to the clock since.
void sleep_until(NOXTimer *timer, uint64_t timestamp, uint64_t reading)
{
    const uint64_t now = nox_timer_gettime(timer);
    if (now >= timestamp)
        return;
    const uint64_t longest = timestamp - reading;
    const uint64_t left = timestamp - now;
    const uint64_t duration = left < longest ? left : longest;
    OSA_ThreadSleep(duration < UINT32_MAX ? static_cast<uint32_t>(duration) : UINT32_MAX);
}

void wait_for_clock(NOXBaseSink *sink, NOXBuffer *buffer)
{
    NOXTimer *timer = sink->plugin.timer;
    if (timer == nullptr)
        return;
    bool waited;
    const uint64_t reading = wait_until_running(sink, timer, waited);
    nox::store_relaxed(sink->discont, uint8_t{0});
    const uint64_t timestamp = nox_buffer_get_timestamp(buffer);
    if (waited && timestamp != 0 && timestamp > reading + 1)
        sleep_until(timer, timestamp, reading);
}

void synchronise(NOXBaseSink *sink, NOXBuffer *buffer)
{
    if (sink->sync_func != nullptr)
        sink->sync_func(sink, buffer);
    else
        wait_for_clock(sink, buffer);
    post_first_data(sink, "sink rendered");
}

} // namespace

int32_t nox_basesink_chain(NOXPlugin *plugin, NOXBuffer *buffer)
{
    auto *sink = reinterpret_cast<NOXBaseSink *>(plugin);
    if (sink->render_func == nullptr) { // its start was refused, and a push came all the same
        NOX_TRACE_OBJECT(sink, OSA_TRACE_ERROR, "must be declaration render function\n");
        return -1;
    }
    nox::store_release(sink->dataready, uint8_t{1});
    if (nox::load_relaxed(sink->verbose) == 1)
        account(sink, buffer);
    if (nox::load_relaxed(sink->sync) == 1)
        synchronise(sink, buffer);
    return sink->render_func(sink, buffer);
}
