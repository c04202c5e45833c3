/**
 * @file
 * noxpipe: the container a media graph is built in. It owns the member plugins, a message
 * bus, the pipeline clock and a control thread, and drives the whole graph through the
 * states.
 *
 *     NOXPipe *pipe = nox_pipe_new("player");
 *     nox_pipe_add_plugin_many(pipe, source, sink, NULL);
 *     nox_plugin_link(source, sink);
 *     nox_pipe_set_bus_handler(pipe, on_message, NULL);
 *     nox_pipe_set_state(pipe, NOX_STATE_PLAY);
 *     ...
 *     nox_pipe_set_state(pipe, NOX_STATE_NULL);
 *     nox_object_delete(pipe);
 *
 * A pipe is released with nox_object_delete, which ends its threads and releases its
 * members. It waits for the bus handler and the callback in progress, which find the pipe
 * whole; then no message is handed over any more, unless somebody else holds the bus.
 * Who wants to hear all of them waits for the last one, or posts one of his own and waits
 * for that. Bring the pipe to NULL first. In PLAY and PAUSE the release stops every source whose
 * thread has not been joined, which is told with its name at level 1, and then everything
 * else that is started; setstate_func is not called.
 *
 * The last reference must not go while a change of state is under way on another thread:
 * that change may have made a source's thread which the release does not know of yet. A
 * message does not tell a bus handler that the change is over. One that is to release the
 * pipe waits for a word of the application's own, posted (nox_bus_post_error) after the
 * change.
 *
 * The last reference may be dropped in the pipe's own bus handler or asynchronous
 * callback, though another thread is the better place: it is told at level 1, everything
 * is released, and the thread ends when the call has returned and is joined by a later
 * nox_pipe_new or by nox_deinit. The handler or callback must not touch the pipe after
 * that. On the thread of one of its own sources (in a create, chain or render function)
 * it must not be dropped: that is told at level 1, and the plugins, whose code is on that
 * thread's stack, are never released.
 *
 * Threads: one thread at a time changes members, links or states, and no state change
 * runs beside another, synchronous or asynchronous: the pipe takes no lock. The bus
 * handler and an asynchronous callback may change states; a plugin's own functions may
 * not. Members marked a source or a sink must stand on the base class, which the pipe
 * asks for their status. `pipe` must not be null unless said.
 */
#ifndef NOX_NOXPIPE_H
#define NOX_NOXPIPE_H

#include "noxplugin.h"

#ifdef __cplusplus
extern "C" {
#endif

#define NOX_PIPE_OPT_REVERSE_NULL 1u   /**< go to NULL by member position, last to first */
#define NOX_PIPE_OPT_PLAY_VIA_READY 2u /**< make NULL to PLAY two changes, READY between */

/** Value of NOXPipeMsg::kind that ends the control thread. */
#define NOX_PIPE_MSG_EXIT 0xF0000000u

/** The pipe. Write its fields through the operations. Other threads write `plugin.state`,
 * `plugin.started`, `basereftime`, `clockrate` and `running`: read these through the
 * operations or atomically, the rest freely. */
typedef struct NOXPipe {
    NOXPlugin plugin;     /**< its state and `started` are the pipe's; its bus is the pipe's first
                             reference; its timer stays null */
    OSA_List *plugins;    /**< members (NOXPlugin) in the order of adding; one reference each */
    NOXBus *busref;       /**< the second reference to the bus; handed to members */
    NOXTimer *clock;      /**< the pipeline clock "default"; handed to members */
    uint64_t basereftime; /**< ms: clock reading when PLAY was last reached, or the value set */
    void *clocksrc;       /**< the application's own, or null; not referenced */
    float clockrate;      /**< last rate set; 0.0 until then */
    uint32_t option;      /**< NOX_PIPE_OPT_ bits */
    uint8_t running;      /**< internal: the control thread goes on while it is set */
    OSA_Thread *thread;   /**< the control thread; owned */
    OSA_Queue *msgq;      /**< its requests (NOXPipeMsg); owned */
} NOXPipe;

/** What `data` of a NOX_EVENT_CLOCKRATE points to, for the time of the delivery. */
typedef struct NOXClockRateChange {
    float previous; /**< the pipe's clockrate before; 0.0 when none had been set */
    float rate;     /**< the new one */
} NOXClockRateChange;

/** Called on the control thread when an asynchronous change is done; `state` is the one
 * asked for, `result` what nox_pipe_set_state returned. Its own result is ignored. The
 * next request waits until it returns. */
typedef int32_t (*NoxPipeAsyncCallback)(NOXPipe *pipe, int32_t state, int32_t result);

/** A request on its way to the control thread, which frees it. */
typedef struct NOXPipeMsg {
    NOXPipe *pipe;                 /**< not referenced */
    uint32_t kind;                 /**< NOX_PIPE_MSG_EXIT, or any other value: a state change */
    int32_t state;                 /**< NOX_STATE_ value to change to */
    NoxPipeAsyncCallback callback; /**< or null */
} NOXPipeMsg;

/* ---- the pipe and its members -------------------------------------------- */

/** A new pipe in NULL without members, with one reference, its bus, clock and
 * control thread. `name` is copied; null names it "unknown". Null, with everything
 * released and a level-1 trace, when any part cannot be made. Any thread. */
NOX_API NOXPipe *nox_pipe_new(const char *name);

/** Size in bytes of NOXPipe. */
NOX_API uint32_t nox_pipe_get_size(void);

/** The object finalizer of a pipe (takes a NOXPipe): ends the control thread, after at
 * most one more request, stops every member that is still started, the sources first,
 * resets and releases the members, then bus and clock; 0. Waits for source threads to
 * end, and for a bus handler or callback in progress on another thread. Not for
 * applications. */
NOX_API int32_t nox_pipe_finalize(void *pipe);

/** Adds a plugin, taking over the caller's reference, and hands it bus, clock and parent;
 * links and state stay as they are. A plugin belongs to one pipe, once; this is not
 * checked. -1, after a level-1 trace, nothing changed and the caller keeping its
 * reference, for null or when memory runs out. */
NOX_API int32_t nox_pipe_add_plugin(NOXPipe *pipe, NOXPlugin *plugin);

/** The same for several, ended by a null pointer (NULL, not 0). The first failure
 * ends it with -1: those before it stay members, it and those after it the caller's. */
NOX_API int32_t nox_pipe_add_plugin_many(NOXPipe *pipe, NOXPlugin *plugin, ...);

/** Removes a member; its reference passes back to the caller, and it keeps state, bus,
 * clock, parent and links. 0 whether or not it was a member; -1, after a level-1 trace,
 * for null.
 *
 * Before it is released, nothing may lead to it any more. To take one branch out, put
 * another plugin in its place (nox_plugin_linkexch), or forget all links of the plugin
 * above it and link that anew:
 *
 *     nox_pipe_del_plugin(pipe, branch);
 *     nox_plugin_reset(tee);
 *     nox_plugin_link_many(source, tee, first, NULL);  // the tee is branch 0 of source
 *     nox_plugin_link(tee, other);                     // each further branch that stays
 *     nox_object_delete(branch);
 *
 * All this while the chain is in NULL. A source that was removed while it runs uses the
 * pipe's bus and clock until it is released, so release it before the pipe. */
NOX_API int32_t nox_pipe_del_plugin(NOXPipe *pipe, NOXPlugin *plugin);

/** Removes the chain that `plugin` is part of, from its source along branch 0, member or
 * not, and releases all of it but the last plugin, which passes to the caller. Further
 * branches stay members; they and the last plugin lose their upstream pointer. 0. Not
 * while the chain runs. -1, nothing changed and after a level-1 trace, for null, when the
 * chain has no source and when it runs in a circle. */
NOX_API int32_t nox_pipe_del_linked_plugin(NOXPipe *pipe, NOXPlugin *plugin);

/** Replaces the option bits by `bits` (NOX_PIPE_OPT_, or 0 for none), not beside a change
 * of state; 0. */
NOX_API int32_t nox_pipe_set_option(NOXPipe *pipe, uint32_t bits);

/** nox_bus_set_handler for the pipe's bus; `handler` may be null. 0. Any thread. */
NOX_API int32_t nox_pipe_set_bus_handler(NOXPipe *pipe, NoxBusHandler handler, void *handler_data);

/** Traces at level 1 and counts the members that are not linked: sinks without an upstream
 * plugin, others without a downstream one. Not beside a change of members or links. */
NOX_API int32_t nox_pipe_debug_unused_plugin(NOXPipe *pipe);

/* ---- states and events --------------------------------------------------- */

/** Brings the sources and every plugin downstream of them to `state` (NOX_STATE_; another
 * value is handed on and stored as it is): upward the plugins downstream first, downward
 * the sources first. Then the clock is started and its reading stored as the reference
 * time (PLAY), or it is stopped (PAUSE, NULL), unless it never ran. PLAY sets the pipe's
 * `started`, NULL clears it. 0 at once when the pipe is in that state. From PAUSE to NULL
 * the events STOPPING and STOPPED are delivered before. With NOX_PIPE_OPT_REVERSE_NULL
 * the change to NULL goes through the sources, and then through all other members, linked
 * or not, from last to first.
 *
 * Runs every setstate, start and stop slot on the calling thread, and waits: for a live
 * source to park (PAUSE), for a source thread to end (NULL), each as long as its create
 * function or push in progress takes, a sink's sleep until a timestamp included
 * (noxbasesink.h).
 *
 * -1 when a plugin refused or there is no source: no rollback, plugins already changed
 * keep the new state, and so does the pipe (asking again answers 0); the clock is left
 * alone. Upward the sources stay unchanged when a plugin downstream refused; a source
 * that refuses leaves those after it unchanged and, downward, all that lies downstream.
 * Links that run in a circle count as a refusal downstream, where nothing is changed
 * then; to NULL all members go all the same. */
NOX_API int32_t nox_pipe_set_state(NOXPipe *pipe, int32_t state);

/** The pipe's state, which is the target from the start of a change; NOX_STATE_NULL
 * for null. Any thread. */
NOX_API int32_t nox_pipe_get_state(NOXPipe *pipe);

/** Queues a change for the control thread and returns at once; changes are made in the
 * order asked for. `callback` may be null. A request takes no reference: when the pipe
 * ends, at most one that is queued is still carried out, with its callback, and the rest
 * are dropped without. 0 when queued; -1, after a level-1 trace, when memory runs out.
 * Any thread that holds a reference. */
NOX_API int32_t nox_pipe_set_state_async(NOXPipe *pipe, int32_t state,
                                         NoxPipeAsyncCallback callback);

/** Changes the chain that `plugin` is part of, from its source down with all branches,
 * without touching the pipe's own state or clock. 0, also when a plugin refused, which is
 * told at level 1. With the state that the pipe has already nothing is changed, after a
 * level-1 trace: 0, even for a null plugin. -1, after a level-1 trace, for a null plugin
 * else, when the chain has no source and when its links run in a circle: then nothing is
 * changed, but for NULL the source. Waits as nox_pipe_set_state does. */
NOX_API int32_t nox_pipe_linked_plugins_set_state(NOXPipe *pipe, NOXPlugin *plugin, int32_t state);

/** Starts the clock, moves its reading on by the system tick, and starts every member in
 * order, without a change of state. The first negative result ends it and is returned,
 * those before staying started; else the last member's result, 0 without members. When
 * that is 0 the pipe counts as started. -1, nothing started and after a level-1 trace,
 * when links run in a circle. */
NOX_API int32_t nox_pipe_start(NOXPipe *pipe);

/** Stops every member, in order and whatever they answer, without a change of state; the
 * clock runs on. 0. Waits for source threads to end. */
NOX_API int32_t nox_pipe_stop(NOXPipe *pipe);

/** Delivers an event to the sinks, from each up to below its source, then to the sources,
 * on the calling thread, whatever their states. A plugin gets it once for each sink below
 * it, one on no way up from a sink not at all. 0; -1, after a level-1 trace, at the first
 * plugin that refuses it, and at the first sink above which the links run in a circle: the
 * rest is not told. The event stays the caller's. */
NOX_API int32_t nox_pipe_set_event(NOXPipe *pipe, NOXEvent *event);

/** Delivers NOX_EVENT_RESET as nox_pipe_set_event does, then stops the clock, unless it
 * never ran, whatever the delivery's result, which it returns. */
NOX_API int32_t nox_pipe_reset(NOXPipe *pipe);

/* ---- questions over all members ------------------------------------------ */

/** 1 when every sink has received data since it was last told NOX_EVENT_STOPPING, by a
 * change from PAUSE to NULL; 1 without sinks. Any thread, while no members join or leave. */
NOX_API uint8_t nox_pipe_get_allsink_start(NOXPipe *pipe);

/** 1 when every source has data (nox_basesrc_get_dataready), which one that is not live
 * never has; 1 without sources. Any thread, while no members join or leave. */
NOX_API uint8_t nox_pipe_get_allsrc_started(NOXPipe *pipe);

/** 1 when every source has stopped (nox_basesrc_get_stopped); 1 without sources. Any
 * thread, while no members join or leave. */
NOX_API uint8_t nox_pipe_get_allsrc_stopped(NOXPipe *pipe);

/* ---- the clock ------------------------------------------------------------ */

/** The pipeline clock that every member was handed, lent for as long as the pipe lives.
 * Any thread. */
NOX_API NOXTimer *nox_pipe_get_timer(NOXPipe *pipe);

/** The clock's reading in ms. Any thread. */
NOX_API uint64_t nox_pipe_get_time(NOXPipe *pipe);

/** The reference time in ms on the clock that plugins measure from: the reading at the
 * last change to PLAY, or what was set since; 0 before. Any thread. */
NOX_API uint64_t nox_pipe_get_basereftime(NOXPipe *pipe);

/** Stores another reference time in ms, unchecked, and returns it. A change to PLAY
 * overwrites it with the clock's reading. Any thread. */
NOX_API uint64_t nox_pipe_set_basereftime(NOXPipe *pipe, uint64_t time);

/** Stores a value of the application's own (may be null) for its plugins, which read the
 * field `clocksrc`; not owned, and to outlive their use. 0. Before PLAY, to be seen by
 * all. */
NOX_API int32_t nox_pipe_setclocksrc(NOXPipe *pipe, void *clocksrc);

/** Lets the clock run `rate` times as fast as time passes, from its last reading on and in
 * all states to come, and delivers NOX_EVENT_CLOCKRATE with a NOXClockRateChange as
 * nox_pipe_set_event does, on the calling thread. `rate` is not checked: 1.0 is real
 * time, at 0, below it and for not-a-number the clock stands still (nox_timer_set_rate).
 * 0; -1, after level-1 traces, when a plugin refused the event: the plugins after it are
 * not told, but the new rate is in force. Not beside a change of state or of members. */
NOX_API int32_t nox_pipe_set_clockrate(NOXPipe *pipe, float rate);

/** The last rate set with nox_pipe_set_clockrate; 0.0 when none was, though the clock then
 * runs at 1.0. Any thread. */
NOX_API float nox_pipe_get_clockrate(NOXPipe *pipe);

/* ---- the graph as text ---------------------------------------------------- */

/** Bytes of the block that nox_pipe_print returns, the terminating zero included. */
#define NOX_PIPE_TEXT_SIZE 4096u

/** The sources with all that is linked below them, and the filters that lead nowhere, in
 * the DOT language, zero-terminated in a block of NOX_PIPE_TEXT_SIZE bytes that the
 * caller releases with OSA_Free(text, 0). Plugins' names stand in it as they are; a name
 * longer than about 120 characters is cut. A text that outgrows its block ends with the
 * last piece that fitted and the closing brace, after a level-1 trace. Without memory for
 * the branches of a plugin they are left out, after a level-1 trace. Null, after a
 * level-1 trace, without memory for the text. Any thread, not beside a change of members
 * or links. */
NOX_API char *nox_pipe_print(NOXPipe *pipe);

/** The same text to the file at `path`, which is created or emptied, and to the trace at
 * level 2; a null path means the trace only. 0, whatever fails: a file that cannot be
 * opened is passed over, one that cannot be written and missing memory are told at level
 * 1. Threads as for nox_pipe_print. */
NOX_API int32_t nox_pipe_dump(NOXPipe *pipe, const char *path);

/** The step of nox_pipe_print for one source: appends to `text`, a zero-terminated text in
 * a block of NOX_PIPE_TEXT_SIZE bytes of the caller's, the edges of the chain below
 * `plugin` and of its branches, without the name of `plugin` itself and as far as they
 * fit; the first that does not is told at level 1. `plugin` must not be null. */
NOX_API void pipe_print_plugin(NOXPlugin *plugin, char *text);

/** Walks and appends in the same way, for each plugin below `plugin` a line that labels it
 * with the name of its type. nox_pipe_print does not use it. */
NOX_API void pipe_print_pluginname(NOXPlugin *plugin, char *text);

/* ---- internal steps that are exported ------------------------------------ */

/** Called by a sink that reached end of stream, on the thread that delivered it: posts
 * NOX_MSG_EOS under the last member's name when all sinks have, again at each call that
 * finds it so, and nothing without sinks. 0. */
NOX_API int32_t nox_pipe_set_eos(NOXPipe *pipe);

/** The control thread's body (takes a NOXPipe); ends the calling thread. Not for
 * applications. */
NOX_API int32_t nox_pipe_loop(void *pipe);

/** The step of nox_pipe_set_state for the source members, in order, but from last to first
 * for NULL with NOX_PIPE_OPT_REVERSE_NULL. 0; -1 at the first that refuses, after a
 * level-1 trace, and without sources. */
NOX_API int32_t pipe_src_set_state(NOXPipe *pipe, int32_t state);

/** The step of nox_pipe_set_state for everything downstream of the sources; for NULL with
 * NOX_PIPE_OPT_REVERSE_NULL for every member that is no source, linked or not, from last
 * to first. The OR of all results: one that refuses, which is told at level 1, does not
 * keep the rest from changing. Branches for which memory runs out are left out, and count
 * as -1. */
NOX_API int32_t pipe_iterate_set_state(NOXPipe *pipe, int32_t state);

/** The step of nox_pipe_linked_plugins_set_state: `plugin` (may be null) and all below it;
 * 0 whatever they answer, a refusal after a level-1 trace. */
NOX_API int32_t pipe_iterate_linked_plugin_set_state(NOXPlugin *plugin, int32_t state);

#ifdef __cplusplus
}
#endif

#endif
