/**
 * @file
 * noxtimer: the pipeline clock. It counts milliseconds of the system tick while
 * it runs, stands still while it is stopped, and can run faster or slower. Every
 * pipe owns one; sources stamp their buffers with its reading and sinks wait
 * until it reaches a buffer's timestamp. A clock can also be used by itself:
 *
 *     NOXTimer *clock = nox_timer_new("recording");
 *     nox_timer_start(clock);
 *     ...
 *     uint64_t recorded_ms = nox_timer_gettime(clock);
 *     nox_object_delete(clock);
 *
 * Any thread may call any function; `timer` must not be null unless said.
 */
#ifndef NOX_NOXTIMER_H
#define NOX_NOXTIMER_H

#include "noxobject.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The clock. Its object lock guards the fields: read them through the operations.
 * Ticks are milliseconds of OSA_GetSystemTick. */
typedef struct NOXTimer {
    NOXObject object;      /**< lockable */
    uint8_t running;       /**< 1 while the clock runs */
    uint64_t starttick;    /**< tick of the first start or the last reset; 0: neither yet */
    uint64_t basetick;     /**< tick that the first reading counts from */
    uint64_t lasttick;     /**< tick at which `time` was last brought up to date */
    uint64_t time;         /**< the reading, ms */
    uint64_t stoptick;     /**< tick of the last stop; 0: never stopped. After a start
                              that counted a pause: the length of that pause */
    uint64_t pauseoffset;  /**< pauses counted by start, ms */
    int64_t streamts;      /**< lowest stream timestamp reported, ms; INT64_MAX: none */
    uint8_t timeset;       /**< the reading was set since the last stop or reset */
    OSA_Event *startevent; /**< signalled once, at the first start */
    float rate;            /**< clock ms in one of the tick; 1.0: real time; 0 or less: stands */
    int64_t delay;         /**< ms, for the clock's users; not part of the reading */
} NOXTimer;

/** A new clock with one reference, the caller's, reading 0, stopped, at rate 1.0.
 * `name` is copied; null names it "unknown". Null, after a level-1 trace, on failure. */
NOX_API NOXTimer *nox_timer_new(const char *name);

/** The object finalizer of a clock (a NOXTimer); -1 for null. Not for
 * applications: release a clock with nox_object_delete. */
NOX_API int32_t nox_timer_finalize(void *timer);

/** Lets the clock run on from its reading; time spent stopped is not counted. The
 * first start ends a wait (nox_timer_wait). A running clock that has read above 0 loses
 * what has passed since its last reading; otherwise starting it again changes nothing.
 * 0. */
NOX_API int32_t nox_timer_start(NOXTimer *timer);

/** Freezes the reading at the value last read, and clears the delay; 0. */
NOX_API int32_t nox_timer_stop(NOXTimer *timer);

/** Makes the clock run, counted from this moment if it never read anything but 0, and
 * clears the delay. A reading above 0 goes on from where it was, with what has passed
 * since it was last read, stopped or not. 0. */
NOX_API int32_t nox_timer_reset(NOXTimer *timer);

/** The reading in ms; 0 on a clock that was neither started nor reset nor set. When the
 * system tick lies before the base tick of a running clock (nox_timer_adjustbasetime),
 * the tick less the last reading less 1, after a level-1 trace. Takes the clock's lock. */
NOX_API uint64_t nox_timer_gettime(NOXTimer *timer);

/** Waits at most `timeout_ms` (OSA_WAIT_FOREVER: without limit) for the first start. 0
 * when it came, non-zero otherwise. The start ends one wait only, and on a clock that
 * was reset before it none: wait for a short time and read the clock in between. */
NOX_API int32_t nox_timer_wait(NOXTimer *timer, uint32_t timeout_ms);

/** Moves the reading on by `offset` ms, and by what has passed since the last reading,
 * also on a clock that stands (one never started: since tick 0). 0. */
NOX_API int32_t nox_timer_settime(NOXTimer *timer, uint64_t offset);

/** Sets the reading to `time` ms and takes that for the tick of the last reading as
 * well: the next reading of a running clock is `time` plus the ticks from `time` to
 * now. So `time` must not lie after the tick, and the clock must read in its range. 0. */
NOX_API int32_t nox_timer_settime_absolute(NOXTimer *timer, uint64_t time);

/** Shifts the base tick that the first reading counts from by the present reading less
 * `time` ms; 0. A clock that has read more than 0 keeps its reading. Keep the base, with
 * the pauses counted so far, between 0 and the present tick, which is not checked: where
 * `time` exceeds reading and base tick together, or the reading exceeds `time` by more
 * than the ticks since the base, a running clock reads nonsense (nox_timer_gettime). */
NOX_API int32_t nox_timer_adjustbasetime(NOXTimer *timer, uint64_t time);

/** Reports a stream timestamp in ms, of which the lowest is kept; INT64_MAX clears it.
 * Takes no lock. 0. */
NOX_API int32_t nox_timer_set_streamts(NOXTimer *timer, int64_t timestamp);

/** The lowest timestamp reported, ms, or -1 when there is none. Takes no lock. */
NOX_API int64_t nox_timer_get_streamts(NOXTimer *timer);

/** Stores the speed, unchecked: 1.0 is real time, 2.0 twice as fast; at 0, below it and
 * for not-a-number the clock stands still. It holds from the next reading on, for the
 * whole interval since the last; read the clock first to have it exact. 0. */
NOX_API int32_t nox_timer_set_rate(NOXTimer *timer, float rate);

/** The speed last stored; 1.0 at first. */
NOX_API float nox_timer_get_rate(NOXTimer *timer);

/** Stores a value in ms for the clock's users, which the reading does not use; stop and
 * reset clear it. 0. */
NOX_API int32_t nox_timer_set_delay(NOXTimer *timer, int64_t delay);

/** The delay last stored, ms, or 0. */
NOX_API int64_t nox_timer_get_delay(NOXTimer *timer);

#ifdef __cplusplus
}
#endif

#endif
