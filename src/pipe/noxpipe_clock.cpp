// The application's hold on the pipeline clock.

#include "internal/atomic_field.h"
#include "pipe/noxpipe_internal.h"

NOXTimer *nox_pipe_get_timer(NOXPipe *pipe)
{
    return pipe->clock;
}

uint64_t nox_pipe_get_time(NOXPipe *pipe)
{
    return nox_timer_gettime(pipe->clock);
}

uint64_t nox_pipe_get_basereftime(NOXPipe *pipe)
{
    return nox::load_relaxed(pipe->basereftime);
}

uint64_t nox_pipe_set_basereftime(NOXPipe *pipe, uint64_t time)
{
    nox::store_relaxed(pipe->basereftime, time);
    return time;
}

int32_t nox_pipe_setclocksrc(NOXPipe *pipe, void *clocksrc)
{
    nox::store_relaxed(pipe->clocksrc, clocksrc);
    return 0;
}

int32_t nox_pipe_set_clockrate(NOXPipe *pipe, float rate)
{
    NOX_TRACE(OSA_TRACE_INFO, "pipeline clock rate set to %f\n", static_cast<double>(rate));
    NOXClockRateChange change{nox::load_relaxed(pipe->clockrate), rate};
    nox::store_relaxed(pipe->clockrate, rate);
    if (pipe->clock != nullptr)
        nox_timer_set_rate(pipe->clock, rate);
    NOXEvent event{};
    event.data = &change;
    event.type = NOX_EVENT_CLOCKRATE;
    const int32_t result = nox_pipe_set_event(pipe, &event);
    if (result != 0)
        NOX_TRACE(OSA_TRACE_ERROR, "nox_pipe_set_event fail.\n");
    return result;
}

float nox_pipe_get_clockrate(NOXPipe *pipe)
{
    return nox::load_relaxed(pipe->clockrate);
}
