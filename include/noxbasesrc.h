/**
 * @file
 * noxbasesrc: what a source plugin is built on. The plugin supplies a function that
 * returns one buffer each time; the base source runs a thread that calls it, stamps live
 * buffers with the pipeline clock, pushes them downstream, parks while the pipe is in
 * PAUSE, and recovers or ends by the source's error policy.
 *
 *     typedef struct CameraSource {
 *         NOXBaseSrc base;
 *         int device;
 *     } CameraSource;
 *
 *     static int32_t camera_init(NOXPlugin *plugin)
 *     {
 *         NOXBaseSrc *source = (NOXBaseSrc *)plugin;
 *         if (nox_basesrc_init(source) != 0)
 *             return -1;
 *         source->create_func = camera_create;
 *         source->finalize_func = camera_finalize;
 *         return 0;
 *     }
 *
 * Options (see nox_basesrc_setformat): "priority", "maxframes", "islive", "errhandle",
 * "errcount", "errcallback", "asyncstart", "privatets".
 *
 * In the functions that take a NOXPlugin, the record behind it is a NOXBaseSrc.
 * create_func and postpush_func run on the source thread, start_func, prestop_func,
 * stop_func and setstate_func on the controlling one, setformat_func, getformat_func and
 * event_func on the caller's. Policy RESTART (below) calls stop_func and start_func, not
 * prestop_func, on the source thread, each under the pipe's object lock.
 */
#ifndef NOX_NOXBASESRC_H
#define NOX_NOXBASESRC_H

#include "noxplugin.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Error policies (option "errhandle"; any other value is QUIT): what a live source does
 * when create_func returns null. The failures in a row are counted against `errcount`;
 * NOX_MSG_CAPTURE_ERROR is what is posted. */
enum {
    NOX_ERRHANDLE_QUIT = 0,      /**< post each; up to `errcount` go on after 100 ms, past it set
                                    `eos`, which is not pushed, and end the thread */
    NOX_ERRHANDLE_RETRY = 1,     /**< go on at once; post those past `errcount` */
    NOX_ERRHANDLE_RESTART = 2,   /**< post each, whatever `errcount`; stop_func, wait up to 4 s for
                                    the group (always 4 s in none), start_func, whose result is
                                    not looked at; go on after 100 ms */
    NOX_ERRHANDLE_DONT_CARE = -1 /**< count anew, post nothing; go on after 100 ms */
};

typedef struct NOXBaseSrc NOXBaseSrc;

/** The source's functions: as the plugin's slots of the same names (NOXPluginFunc,
 * NOXPluginFormatFunc, ...), but they get the source's record. 0 is success. @{ */
typedef int32_t (*NOXBaseSrcFunc)(NOXBaseSrc *source);
typedef int32_t (*NOXBaseSrcSetStateFunc)(NOXBaseSrc *source, int32_t state);
typedef int32_t (*NOXBaseSrcFormatFunc)(NOXBaseSrc *source, NOXStructure *format);
typedef int32_t (*NOXBaseSrcEventFunc)(NOXBaseSrc *source, NOXEvent *event);
/** @} */

/** The next buffer, whose one reference passes to the base source, or null when nothing
 * was captured. Of a live source that is a failure. Of one that is not live it is end of
 * stream: that is pushed the first time, and the function is called again every 100 ms
 * (with policy RETRY at once) until the source is stopped. It may wait for data, but a
 * stop and a pause wait for it in turn: return, with null, soon after the field `started`
 * of the plugin is cleared. A buffer that has been released, which one returned twice
 * without a further reference is sooner or later, counts as none where it can be told,
 * with a level-1 trace; of a source that is not live that ends the stream. On the source
 * thread. */
typedef NOXBuffer *(*NOXBaseSrcCreateFunc)(NOXBaseSrc *source);

/** Told after each buffer that was pushed with success, but for the one that reaches
 * `maxframes`, on the source thread. */
typedef void (*NOXBaseSrcPostPushFunc)(NOXBaseSrc *source);

/** The record that a source's own record begins with. The source's init function fills
 * the functions. */
struct NOXBaseSrc {
    NOXPlugin plugin;    /**< its slots are the base source's */
    OSA_Thread *thread;  /**< the source thread; null when none runs */
    uint32_t stacksize;  /**< bytes of the thread's stack; 0x20000 unless init sets another */
    uint32_t priority;   /**< of the thread; 0: default scheduling */
    uint8_t dataready;   /**< live: has produced its first buffer; never cleared */
    uint8_t waitallsrc;  /**< hold the first buffer back until every source has data; 1 */
    uint8_t islive;      /**< stamp with the clock, apply the error policy; 1 */
    uint8_t usethread;   /**< 1; a source that produces in a context of its own clears it */
    uint64_t lastts;     /**< ms: timestamp of the previous buffer; 0: none */
    uint32_t maxframes;  /**< end of stream after so many buffers; 0: no limit */
    uint32_t framecount; /**< buffers pushed while there is a limit; start and stop leave it, so a
                            source started again after its limit ends with its next buffer */
    uint8_t eos;         /**< end of stream reached, or quit; cleared by each live buffer, never of
                            a source that is not live */
    uint8_t restartreq;  /**< set by a restarting member of its group; the derived source reads
                            and clears it */
    int32_t errhandle;   /**< NOX_ERRHANDLE_; QUIT at first */
    int32_t errcount;    /**< failures in a row that the policy tolerates; 0 at first */
    void *errcallback;   /**< value of the option, for the derived source */
    uint8_t pausewait;   /**< 1 while a pause waits for the thread's acknowledgement */
    OSA_Event *pauseevent;       /**< that acknowledgement; live sources, between start and stop */
    NOXBaseSrcFunc start_func;   /**< optional; 0 is success */
    NOXBaseSrcFunc prestop_func; /**< optional; on stop, before the thread is waited for: wakes
                                    a create_func that waits */
    NOXBaseSrcFunc stop_func;    /**< optional; on stop, after the thread has ended */
    NOXBaseSrcSetStateFunc setstate_func; /**< optional */
    NOXBaseSrcCreateFunc create_func;     /**< required with a thread: the next buffer, one
                                             reference handed over; null: nothing captured */
    NOXBaseSrcPostPushFunc postpush_func; /**< optional; after each buffer pushed */
    NOXBaseSrcFunc finalize_func;         /**< optional, but without it finalize is -1 */
    NOXBaseSrcFormatFunc setformat_func;  /**< optional; the derived source's own options */
    NOXBaseSrcFormatFunc getformat_func;  /**< optional */
    NOXBaseSrcEventFunc event_func;       /**< optional */
    uint8_t privatets;                    /**< live: create_func stamps its buffers itself */
    uint8_t threadended_; /**< internal: the thread will acknowledge no more pauses */
    uint8_t parked_;      /**< internal: 2: the thread waits for state_event; 1: is about to */
    uint8_t held_;        /**< internal: paused, and not let go since */
};

/** Initialises the plugin part, marks it a source, installs the base operations
 * in the plugin's slots and sets the defaults. Called by the plugin's init
 * function, before it fills the source's functions. 0; -1, after a level-1 trace and with
 * nothing set, for null, for a record made too small for a NOXBaseSrc, and on failure. */
NOX_API int32_t nox_basesrc_init(NOXBaseSrc *source);

/** Size in bytes of NOXBaseSrc. */
NOX_API uint32_t nox_basesrc_get_size(void);

/** Reads the options that are present in the format (a missing one changes
 * nothing, nor does one of another type), then calls setformat_func, whose result it
 * returns (0 without one). Any thread, also while data flows; `priority` is read at the
 * next start:
 *
 *     priority    uint32  scheduling priority of the thread
 *     maxframes   uint32  end of stream after so many buffers; 0: no limit
 *     islive      bool    stamp buffers with the clock, apply the error policy
 *     errhandle   uint32  NOX_ERRHANDLE_ value (4294967295 is DONT_CARE)
 *     errcount    uint32  consecutive failures tolerated
 *     errcallback void    kept for the derived source
 *     asyncstart  bool    do not wait for the other sources' data
 *     privatets   bool    create_func stamps its buffers itself
 */
NOX_API int32_t nox_basesrc_setformat(NOXPlugin *source, NOXStructure *format);

/** Slot operation: what getformat_func answers; 0 without one. */
NOX_API int32_t nox_basesrc_getformat(NOXPlugin *source, NOXStructure *format);

/** Slot operation, through nox_plugin_start: runs start_func, then the thread. 0, also
 * when a thread runs already (start_func has then run again). -1, after a level-1 trace,
 * without create_func (with a thread), when start_func fails, when not linked, and when
 * thread or pause event cannot be made; start_func's work is then left to stop_func. */
NOX_API int32_t nox_basesrc_start(NOXPlugin *source);

/** Slot operation, through nox_plugin_stop, which clears `started` first, without which
 * the thread would not end: runs prestop_func, waits without limit for the thread to end
 * (a create or chain function in progress is waited for), runs stop_func, each whatever
 * the one before answered. The result is stop_func's, without one prestop_func's, without
 * both 0; a failure is told at level 1. On the source's own thread it does not wait: the
 * thread is left to a later stop, with a level-1 trace. */
NOX_API int32_t nox_basesrc_stop(NOXPlugin *source);

/** Slot operation, through nox_plugin_setstate: what setstate_func answers, 0 without one.
 * To PAUSE, a live source waits without limit until its thread has parked or ended, but
 * not on that thread, and not without one; when its pipe has not been started the thread
 * is told to end instead. A source that is not live parks with its next pass, and the
 * change does not wait for it. */
NOX_API int32_t nox_basesrc_setstate(NOXPlugin *source, int32_t state);

/** Slot operation: what event_func answers, 0 without one. When that is a failure, a
 * source that is not live posts NOX_MSG_EOS. */
NOX_API int32_t nox_basesrc_event(NOXPlugin *source, NOXEvent *event);

/** Slot operation, at the last release, when the thread has ended: what finalize_func
 * answers; -1 without one, which is traced at level 1. */
NOX_API int32_t nox_basesrc_finalize(NOXPlugin *source);

/** create_func's buffer, its one reference the caller's, or null when nothing was
 * captured. `create_func` must be set. For the source thread. */
NOX_API NOXBuffer *nox_basesrc_buf_create(NOXBaseSrc *source);

/** The source thread's body (takes a NOXBaseSrc); ends the calling thread. Not for
 * applications. */
NOX_API int32_t nox_basesrc_loop(void *source);

/** 1 once a live source has produced its first buffer, for the life of the record; 0 for
 * one that is not live. Any thread. */
NOX_API uint8_t nox_basesrc_get_dataready(NOXPlugin *source);

/** 1 when it has reached end of stream or quit, and has produced no live buffer since. Any
 * thread. */
NOX_API uint8_t nox_basesrc_get_eos(NOXPlugin *source);

/** Of a source that is not live: as nox_basesrc_get_eos. Of a live one: 1 until its first
 * buffer. Any thread. */
NOX_API uint8_t nox_basesrc_get_stopped(NOXPlugin *source);

#ifdef __cplusplus
}
#endif

#endif
