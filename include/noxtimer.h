/**
 * @file
 * noxtimer: the pipeline clock. It counts milliseconds of the system tick while
 * it runs, stands still while it is stopped, and can run faster or slower. Every
 * pipe owns one; sources stamp their buffers with its reading and sinks wait
 * until it reaches a buffer's timestamp.
 *
 * Any thread may call any function; `timer` must not be null unless said.
 */
#ifndef NOX_NOXTIMER_H
#define NOX_NOXTIMER_H

#include "noxobject.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct NOXTimer {
    NOXObject object;
    uint8_t running;       /**< 1 while the clock runs */
    uint64_t starttick;    /**< tick of the first start; 0: never started */
    uint64_t basetick;     /**< tick that the first reading counts from */
    uint64_t lasttick;     /**< tick at which `time` was last brought up to date */
    uint64_t time;         /**< the reading, ms */
    uint64_t stoptick;     /**< tick of the last stop; 0: never stopped. After a start
                              that counted a pause: the length of that pause */
    uint64_t pauseoffset;  /**< pauses counted by start, ms */
    int64_t streamts;      /**< lowest stream timestamp reported, ms; INT64_MAX: none */
    uint8_t timeset;       /**< the reading was set since the last stop or reset */
    OSA_Event *startevent; /**< signalled once, at the first start */
    float rate;            /**< speed; 1.0 is real time */
    int64_t delay;         /**< for the clock's users; not part of the reading */
} NOXTimer;

/** A new clock with one reference, reading 0, stopped, at rate 1.0. Null, after
 * a level-1 trace, on failure. */
NOX_API NOXTimer *nox_timer_new(const char *name);

/** The object finalizer of a clock (a NOXTimer); -1 for null. Not for
 * applications: release a clock with nox_object_delete. */
NOX_API int32_t nox_timer_finalize(void *timer);

/** Lets the clock run on from its reading; time spent stopped is not counted.
 * 0. Starting a running clock changes nothing but the moment from which the
 * next reading counts. */
NOX_API int32_t nox_timer_start(NOXTimer *timer);

/** Freezes the reading at the value last read, and clears the delay; 0. */
NOX_API int32_t nox_timer_stop(NOXTimer *timer);

/** Makes the clock run, counted from this moment if it never read anything but
 * 0, and clears the delay; 0. */
NOX_API int32_t nox_timer_reset(NOXTimer *timer);

/** The reading in ms; 0 until the clock has been started. */
NOX_API uint64_t nox_timer_gettime(NOXTimer *timer);

/** Waits at most `timeout_ms` for the first start. 0 when it came, non-zero
 * otherwise; one start ends one wait, so read the clock again in between. */
NOX_API int32_t nox_timer_wait(NOXTimer *timer, uint32_t timeout_ms);

/** Moves the reading on by `offset` ms; 0. */
NOX_API int32_t nox_timer_settime(NOXTimer *timer, uint64_t offset);

/** Sets reading and last tick to `time`; 0. The next reading of a running clock
 * is `time` plus the ticks from `time` to now. */
NOX_API int32_t nox_timer_settime_absolute(NOXTimer *timer, uint64_t time);

/** Shifts the base of the first reading by the present reading less `time`; 0. */
NOX_API int32_t nox_timer_adjustbasetime(NOXTimer *timer, uint64_t time);

/** Keeps the lowest timestamp reported; INT64_MAX clears it; 0. */
NOX_API int32_t nox_timer_set_streamts(NOXTimer *timer, int64_t timestamp);

/** The lowest timestamp reported, or -1 when there is none. */
NOX_API int64_t nox_timer_get_streamts(NOXTimer *timer);

/** The speed from the next reading on, for the whole interval since the last; 0. */
NOX_API int32_t nox_timer_set_rate(NOXTimer *timer, float rate);
NOX_API float nox_timer_get_rate(NOXTimer *timer);

/** A value in ms for the clock's users; stop and reset clear it; 0. */
NOX_API int32_t nox_timer_set_delay(NOXTimer *timer, int64_t delay);
NOX_API int64_t nox_timer_get_delay(NOXTimer *timer);

#ifdef __cplusplus
}
#endif

#endif
