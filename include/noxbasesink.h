/**
 * @file
 * noxbasesink: what a sink plugin is built on. The plugin supplies a function that
 * consumes one buffer; the base sink holds each buffer back until the pipeline clock
 * reaches its timestamp, measures the throughput, and tells the pipe when end of stream
 * has arrived.
 *
 *     static int32_t display_init(NOXPlugin *plugin)
 *     {
 *         NOXBaseSink *sink = (NOXBaseSink *)plugin;
 *         if (nox_basesink_init(sink) != 0)
 *             return -1;
 *         sink->render_func = display_render;
 *         return 0;
 *     }
 *
 * Options (see nox_basesink_setformat): "verbose", "sync", "clock", "report",
 * "rateoutvar", "targetbps", "targetfps".
 *
 * In the functions that take a NOXPlugin, the record behind it is a NOXBaseSink.
 * sync_func and render_func run on the pushing thread, start_func, stop_func and
 * setstate_func on the controlling one, setformat_func and getformat_func on the
 * caller's. event_func runs on the pushing thread for what is pushed (end of stream), on
 * the controlling one for what the pipe hands out, which may be while a buffer is
 * rendered. A sink that two sources push to is entered on two threads.
 */
#ifndef NOX_NOXBASESINK_H
#define NOX_NOXBASESINK_H

#include "noxplugin.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct NOXBaseSink NOXBaseSink;

/** The sink's functions: as the plugin's slots of the same names (NOXPluginFunc,
 * NOXPluginFormatFunc, ...), but they get the sink's record. 0 is success. @{ */
typedef int32_t (*NOXBaseSinkFunc)(NOXBaseSink *sink);
typedef int32_t (*NOXBaseSinkSetStateFunc)(NOXBaseSink *sink, int32_t state);
typedef int32_t (*NOXBaseSinkFormatFunc)(NOXBaseSink *sink, NOXStructure *format);
typedef int32_t (*NOXBaseSinkEventFunc)(NOXBaseSink *sink, NOXEvent *event);
/** @} */

/** Consumes one buffer, lent for the call, on the pushing thread. Non-zero makes the push
 * fail, which ends its source. */
typedef int32_t (*NOXBaseSinkRenderFunc)(NOXBaseSink *sink, NOXBuffer *buffer);

/** Holds the buffer, lent for the call, back by a policy of the sink's own, on the pushing
 * thread. A stop and a pause wait for it. */
typedef void (*NOXBaseSinkSyncFunc)(NOXBaseSink *sink, NOXBuffer *buffer);

/** The record that a sink's own record begins with. The sink's init function fills the
 * functions. */
struct NOXBaseSink {
    NOXPlugin plugin; /**< its slots are the base sink's */
    uint8_t sync;     /**< hold each buffer until the clock reaches its timestamp; 0 */
    uint8_t clock;    /**< value of the option, for the derived sink */
    NOXBaseSinkFormatFunc setformat_func;  /**< optional; the derived sink's own options */
    NOXBaseSinkFormatFunc getformat_func;  /**< optional */
    NOXBaseSinkSetStateFunc setstate_func; /**< optional */
    NOXBaseSinkFunc start_func;            /**< optional; its result is ignored */
    NOXBaseSinkFunc stop_func;             /**< optional; its result is ignored */
    NOXBaseSinkRenderFunc render_func;     /**< required; the buffer is lent for the call */
    NOXBaseSinkSyncFunc sync_func;         /**< optional; with `sync`, instead of the clock wait */
    NOXBaseSinkFunc finalize_func;         /**< optional */
    NOXBaseSinkEventFunc event_func;       /**< optional */
    uint8_t verbose;                       /**< measure and print throughput; 0 at first */
    uint32_t frames;                       /**< buffers in the current period */
    uint64_t firstts;    /**< ms: timestamp at which the period began; 0: none yet */
    uint64_t bytes;      /**< bytes of data in the current period */
    int32_t *rateoutvar; /**< the application's: receives frames/s, rounded, at every report; or
                            null */
    int32_t targetbps;   /**< expected bit/s; 0: none */
    int32_t targetfps;   /**< expected frames/s; 0: none */
    uint8_t dataready;   /**< 1: a buffer has arrived since the last NOX_EVENT_STOPPING */
    uint8_t report;      /**< post one first-data message; 0 at first and after it */
    uint8_t eos;         /**< end of stream has arrived; never cleared */
    uint8_t discont;     /**< 1: NOX_EVENT_STOPPING or STOPPED has come since the last buffer that
                            waited for the clock (none does with sync_func, which may clear
                            this itself); for the derived sink */
};

/** Initialises the plugin part, marks it a sink, installs the base operations in the
 * plugin's slots. Called by the plugin's init function, before it fills the sink's
 * functions. The result is that of the plugin part: 0; -1, after a level-1 trace, for
 * null, for a record made too small for a NOXBaseSink, and when its state event cannot be
 * made, though the rest is done then. */
NOX_API int32_t nox_basesink_init(NOXBaseSink *sink);

/** Size in bytes of NOXBaseSink. */
NOX_API uint32_t nox_basesink_get_size(void);

/** Reads the options that are present in the format (a missing one changes nothing, nor
 * does one of another type), then calls setformat_func, whose result it returns (0
 * without one). Any thread, also while data flows:
 *
 *     verbose    bool   print frame and bit rate every 5 s of stream time
 *     sync       bool   hold buffers until the clock reaches their timestamp
 *     clock      bool   kept for the derived sink
 *     report     bool   post NOX_MSG_SINK once: before the first buffer that went through
 *                       "sync" is rendered, or at the first line of "verbose"; with
 *                       neither nothing is posted
 *     rateoutvar void   an int32_t that receives frames/s with "verbose" (byte count above
 *                       0); it stays the caller's, must live as long as the sink, as it
 *                       cannot be taken back, and is written on the pushing thread: read
 *                       it atomically
 *     targetbps  int32  above 0: mark bit rates half above it
 *     targetfps  int32  above 0: mark frame rates half above it
 */
NOX_API int32_t nox_basesink_setformat(NOXPlugin *sink, NOXStructure *format);

/** A slot operation: what the sink's function of that name answers, 0 without one. @{ */
NOX_API int32_t nox_basesink_getformat(NOXPlugin *sink, NOXStructure *format);
NOX_API int32_t nox_basesink_setstate(NOXPlugin *sink, int32_t state);
NOX_API int32_t nox_basesink_finalize(NOXPlugin *sink);
/** @} */

/** Slot operation: calls start_func, whose result is dropped; 0. -1, after a level-1
 * trace, without render_func. */
NOX_API int32_t nox_basesink_start(NOXPlugin *sink);

/** Slot operation: calls stop_func, whose result is dropped; 0. */
NOX_API int32_t nox_basesink_stop(NOXPlugin *sink);

/** Slot operation, on the thread that pushes or sends the event: what event_func answers,
 * 0 without one. Whatever that is, the type that the event has after event_func counts:
 * at NOX_EVENT_EOS the sink is at its end and tells its pipe, at NOX_EVENT_STOPPING it
 * has no data any more, at that and NOX_EVENT_STOPPED `discont` is set. */
NOX_API int32_t nox_basesink_event(NOXPlugin *sink, NOXEvent *event);

/** Slot operation, on the pushing thread: measures, waits for the clock (`sync`), and
 * returns what render_func answers. It waits first until the clock reads more than 0, or
 * until the source on whose thread it runs is stopped or asked to pause, when it waits no
 * further; then until the buffer's timestamp. A timestamp of 0, or one that has passed,
 * is not waited for, and no buffer is dropped. The wait for the timestamp is one sleep
 * that nothing cuts short: a change to PAUSE or NULL waits for it. -1, after a level-1
 * trace, without render_func. */
NOX_API int32_t nox_basesink_chain(NOXPlugin *sink, NOXBuffer *buffer);

/** 1 when a buffer has arrived since the last NOX_EVENT_STOPPING. Any thread. */
NOX_API uint8_t nox_basesink_get_dataready(NOXPlugin *sink);

/** 1 once end of stream has arrived. Any thread. */
NOX_API uint8_t nox_basesink_get_eos(NOXPlugin *sink);

#ifdef __cplusplus
}
#endif

#endif
