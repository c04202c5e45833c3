// The pipeline clock. The reading is kept up to date step by step: each reading
// adds the scaled interval since the one before, so that single precision only
// ever scales short intervals.
//
// The object lock serialises every change of the clock fields. `rate`, `delay`
// and `streamts` are also read without it, hence atomically.

#include "noxtimer.h"

#include <cstdint>

#include "internal/atomic_field.h"
#include "internal/guard.h"
#include "internal/saturate.h"
#include "internal/trace.h"

namespace
{

constexpr char kSource[] = "noxtimer";
constexpr int64_t kNoStreamTimestamp = INT64_MAX;

using TimerReference = nox::ObjectReference<NOXTimer>;

uint64_t scaled(const NOXTimer *timer, uint64_t interval_ms)
{
    return nox::saturate<uint64_t>(static_cast<float>(interval_ms) * timer->rate);
}

unsigned long long printable(uint64_t value)
{
    return value;
}

// Counts the pause that this start ends; a clock that runs has none to count.
void count_pause(NOXTimer *timer)
{
    if (timer->stoptick == 0 || timer->running)
        return;
    timer->stoptick = OSA_GetSystemTick() - timer->stoptick;
    timer->pauseoffset += timer->stoptick;
    NOX_TRACE_FOR("nox_timer_start", OSA_TRACE_ERROR, "timeoffset (%llu)\n",
                  printable(timer->pauseoffset));
}

void trace_change(NOXTimer *timer, const char *function = __builtin_FUNCTION())
{
    const uint64_t reading = nox_timer_gettime(timer);
    NOX_TRACE_FOR(function, OSA_TRACE_NOTICE, "changed (%llu)\n", printable(reading));
}

} // namespace

NOXTimer *nox_timer_new(const char *name)
{
    TimerReference timer(static_cast<NOXTimer *>(nox_object_new(sizeof(NOXTimer), name, 1)));
    if (!timer)
        return nullptr;
    timer->startevent = OSA_EventCreate(0);
    if (timer->startevent == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "can not create start event\n");
        return nullptr;
    }
    timer->streamts = kNoStreamTimestamp;
    timer->rate = 1.0f;
    timer->object.finalize = nox_timer_finalize;
    return timer.release();
}

int32_t nox_timer_finalize(void *object)
{
    auto *timer = static_cast<NOXTimer *>(object);
    if (timer == nullptr)
        return -1;
    OSA_EventDestroy(timer->startevent);
    timer->startevent = nullptr;
    return 0;
}

int32_t nox_timer_start(NOXTimer *timer)
{
    nox::ObjectLock lock(timer);
    if (timer->starttick == 0) {
        timer->starttick = timer->basetick = OSA_GetSystemTick();
        OSA_EventSend(timer->startevent);
    }
    count_pause(timer);
    timer->lasttick = OSA_GetSystemTick();
    timer->running = 1;
    return 0;
}

int32_t nox_timer_stop(NOXTimer *timer)
{
    nox::ObjectLock lock(timer);
    timer->running = 0;
    timer->timeset = 0;
    timer->stoptick = OSA_GetSystemTick();
    nox::store_relaxed(timer->delay, int64_t{0});
    return 0;
}

int32_t nox_timer_reset(NOXTimer *timer)
{
    nox::ObjectLock lock(timer);
    timer->running = 1;
    timer->timeset = 0;
    nox::store_relaxed(timer->delay, int64_t{0});
    timer->starttick = timer->basetick = OSA_GetSystemTick();
    return 0;
}

uint64_t nox_timer_gettime(NOXTimer *timer)
{
    nox::ObjectLock lock(timer);
    if (!timer->running)
        return timer->time;
    const uint64_t now = OSA_GetSystemTick();
    if (now < timer->basetick) {
        NOX_TRACE(OSA_TRACE_ERROR, "timer wraparound. cur(%llu) offset(%llu) last(%llu)\n",
                  printable(now), printable(timer->basetick), printable(timer->time));
        timer->time = now - timer->time - 1;
        return timer->time;
    }
    if (timer->time == 0 && !timer->timeset)
        timer->time = scaled(timer, now - (timer->basetick + timer->pauseoffset));
    else
        timer->time += scaled(timer, now - timer->lasttick);
    timer->lasttick = now;
    return timer->time;
}

int32_t nox_timer_wait(NOXTimer *timer, uint32_t timeout_ms)
{
    return OSA_EventWait(timer->startevent, timeout_ms);
}

int32_t nox_timer_settime(NOXTimer *timer, uint64_t offset)
{
    {
        nox::ObjectLock lock(timer);
        const uint64_t now = OSA_GetSystemTick();
        timer->time += offset + scaled(timer, now - timer->lasttick);
        timer->lasttick = now;
        timer->timeset = 1;
    }
    trace_change(timer);
    return 0;
}

int32_t nox_timer_settime_absolute(NOXTimer *timer, uint64_t time)
{
    {
        nox::ObjectLock lock(timer);
        timer->lasttick = time;
        timer->time = time;
        timer->timeset = 1;
    }
    trace_change(timer);
    return 0;
}

int32_t nox_timer_adjustbasetime(NOXTimer *timer, uint64_t time)
{
    const uint64_t reading = nox_timer_gettime(timer);
    nox::ObjectLock lock(timer);
    timer->basetick += reading - time;
    return 0;
}

int32_t nox_timer_set_streamts(NOXTimer *timer, int64_t timestamp)
{
    auto lowest = nox::atomic_field(timer->streamts);
    int64_t current = lowest.load(std::memory_order_relaxed);
    // A clearing that races a report must not be lost to it, hence the exchange.
    while (timestamp == kNoStreamTimestamp || timestamp < current) {
        if (lowest.compare_exchange_weak(current, timestamp, std::memory_order_relaxed))
            break;
    }
    return 0;
}

int64_t nox_timer_get_streamts(NOXTimer *timer)
{
    const int64_t lowest = nox::load_relaxed(timer->streamts);
    return lowest != kNoStreamTimestamp ? lowest : -1;
}

int32_t nox_timer_set_rate(NOXTimer *timer, float rate)
{
    nox::ObjectLock lock(timer);
    NOX_TRACE(OSA_TRACE_INFO, "timer rate set to %f\n", static_cast<double>(rate));
    nox::store_relaxed(timer->rate, rate);
    return 0;
}

float nox_timer_get_rate(NOXTimer *timer)
{
    const float rate = nox::load_relaxed(timer->rate);
    NOX_TRACE(OSA_TRACE_INFO, "current timer rate %f\n", static_cast<double>(rate));
    return rate;
}

int32_t nox_timer_set_delay(NOXTimer *timer, int64_t delay)
{
    nox::ObjectLock lock(timer);
    NOX_TRACE(OSA_TRACE_INFO, "timer delay set to %lld\n", static_cast<long long>(delay));
    nox::store_relaxed(timer->delay, delay);
    return 0;
}

int64_t nox_timer_get_delay(NOXTimer *timer)
{
    return nox::load_relaxed(timer->delay);
}
