/**
 * @file
 * noxplugin: one processing element of a pipeline, a source, a filter or a sink.
 *
 * A plugin's record begins with NOXPlugin; the library's init function fills its slots,
 * usually through one of the base classes (noxbasesrc.h, noxbasesink.h, noxbasefilter.h).
 * An application creates plugins by name and links them:
 *
 *     NOXPlugin *source = nox_plugin_new("wavsrc", "in");
 *     NOXPlugin *sink = nox_plugin_new("wavsink", "out");
 *     nox_pipe_add_plugin_many(pipe, source, sink, NULL);
 *     nox_plugin_link(source, sink);
 *
 * States and what a plugin does on each change:
 *
 *     NULL <-> READY <-> PAUSE <-> PLAY     (jumps are allowed)
 *     to PLAY from NULL or READY: started;  to PLAY from PAUSE: woken
 *     to NULL: stopped (and woken first when it was in PAUSE)
 *
 * Threads: links, formats and states are changed by one thread at a time, and links only
 * while no buffers flow and no state changes: setstate_func, start_func and stop_func
 * must not take links or pipe members away. "The controlling thread" is whichever called
 * the operation: the application's, or the pipe's control thread. Chain functions run on
 * the thread that pushes, normally a source's. Event functions run there for an event
 * that is pushed (end of stream), and on the controlling thread for one that the pipe
 * hands out, which may be while a buffer is in the chain function. The library takes no
 * lock around either.
 *
 * Slots are optional, and answer 0 for success.
 *
 * Results: 0 and -1, pointer or null, unless said. A null plugin is answered with a
 * level-1 trace and -1 where "checked" is said; what null gives elsewhere is said, else
 * it must not be null.
 */
#ifndef NOX_NOXPLUGIN_H
#define NOX_NOXPLUGIN_H

#include "noxallocator.h"
#include "noxbuffer.h"
#include "noxbus.h"
#include "noxobject.h"
#include "noxstructure.h"
#include "noxtimer.h"

#ifdef __cplusplus
extern "C" {
#endif

/** States of a plugin and of a pipe. */
enum {
    NOX_STATE_NULL = 0,  /**< stopped; a push to it on branch 0 is swallowed */
    NOX_STATE_READY = 1, /**< told only: nothing is started or stopped */
    NOX_STATE_PAUSE = 2, /**< a live source that was started is parked */
    NOX_STATE_PLAY = 3   /**< started; data flows */
};

/** Event types of the library. Plugins may define others. */
enum {
    NOX_EVENT_STOPPING = 2,  /**< the pipe goes from PAUSE to NULL */
    NOX_EVENT_STOPPED = 3,   /**< the same change, right after */
    NOX_EVENT_CLOCKRATE = 4, /**< data: a NOXClockRateChange (noxpipe.h) */
    NOX_EVENT_RESET = 5,     /**< the pipe was reset */
    NOX_EVENT_EOS = 6        /**< end of stream */
};

/** An event. It is the sender's and may live on its stack: do not keep it. */
typedef struct NOXEvent {
    void *data;   /**< what the type says; null for most */
    int32_t type; /**< NOX_EVENT_, or a plugin's own */
} NOXEvent;

typedef struct NOXPlugin NOXPlugin;

/** A group of plugins that meet at a common point; opaque. */
typedef OSA_List NOXPluginGroup;

/** One member of a group. */
typedef struct NOXPluginGroupMember {
    NOXPlugin *plugin; /**< not referenced */
    int32_t attend;    /**< attending while above 0; read by the other members' threads */
} NOXPluginGroupMember;

/** start_func, stop_func: on the controlling thread, from nox_plugin_start and _stop,
 * which return its result. finalize_func: once, on the thread of the last release, for
 * what the plugin's own fields hold; the library releases the rest. */
typedef int32_t (*NOXPluginFunc)(NOXPlugin *plugin);

/** Told of a change to `state` (NOX_STATE_) before it is stored, on the controlling
 * thread. What it returns does not keep the state from being stored. */
typedef int32_t (*NOXPluginSetStateFunc)(NOXPlugin *plugin, int32_t state);

/** Told of a new link from `plugin` to `next` before it is made, on the linking thread.
 * For nox_plugin_link_many it makes the link itself: it sets the `next` field. What it
 * returns prevents nothing: it becomes the result of nox_plugin_link and
 * nox_plugin_link_many; nox_plugin_linkexch drops it. */
typedef int32_t (*NOXPluginLinkFunc)(NOXPlugin *plugin, NOXPlugin *next);

/** Asked by the upstream plugin's nox_plugin_push_prepare, on its thread; what `argument`
 * is, the two plugins agree on. */
typedef int32_t (*NOXPluginPrepareFunc)(NOXPlugin *plugin, void *argument);

/** Takes one buffer on the pushing thread and returns when it is done with it. The buffer
 * is lent for the call, and other branches read it too: do not write to it, and take a
 * reference (nox_object_refer) to keep it. Two sources enter it on two threads. */
typedef int32_t (*NOXPluginChainFunc)(NOXPlugin *plugin, NOXBuffer *buffer);

/** setformat_func takes options from the format, getformat_func enters what the plugin
 * knows into it, on the caller's thread, also while data flows. The format is lent. */
typedef int32_t (*NOXPluginFormatFunc)(NOXPlugin *plugin, NOXStructure *format);

/** The allocator that the plugin offers the one upstream, lent for as long as they are
 * linked, or null; on the upstream plugin's thread. */
typedef NOXAllocator *(*NOXPluginGetAllocatorFunc)(NOXPlugin *plugin);

/** Takes an event, which is lent for the call, on the thread that pushes or sends it,
 * possibly while another is in chain_func. Non-zero keeps it from going on. */
typedef int32_t (*NOXPluginEventFunc)(NOXPlugin *plugin, NOXEvent *event);

/** The plugin record. Plugin code may read every field. The plugin's init function, or
 * that of its base class, writes the slots, `issrc` and `issink`; the operations below
 * write the rest. */
struct NOXPlugin {
    NOXObject object;           /**< lockable; its parent is the pipe */
    char *plgname;              /**< the type's name in the registry; owned */
    NOXBus *bus;                /**< where it posts; not referenced */
    NOXTimer *timer;            /**< the pipeline clock; not referenced */
    uint8_t started;            /**< 1 between start and stop; a thread of its own runs while set */
    NOXPlugin *prev;            /**< upstream */
    NOXPlugin *next;            /**< first downstream plugin, branch 0 */
    NOXPluginGroup *group;      /**< the group it was last added to */
    OSA_List *nextlist;         /**< branches 1, 2, ... (NOXPlugin), or null */
    int32_t state;              /**< NOX_STATE_ */
    NOXAllocator *allocator;    /**< its own; one reference */
    NOXAllocator *outallocator; /**< chosen for its output buffers; not referenced */
    uint8_t outallocator_set;   /**< 1: the choice has been made, also for none */
    OSA_Event *state_event;     /**< sent when the state leaves PAUSE for PLAY or NULL */
    uint8_t issrc;              /**< 1: the head of a chain; stands on NOXBaseSrc */
    uint8_t issink;             /**< 1: the end of a chain; stands on NOXBaseSink */
    uint8_t busy;               /**< 1 while a buffer is in chain_func */
    uint8_t hasthread_;         /**< internal: a source's thread has not been joined */
    uint8_t onroad_;            /**< internal: on the road of a search for circles */
    uint8_t stopping_;          /**< internal: 1 during nox_plugin_stop */
    uint8_t tostop_;            /**< internal: `started` was taken back, its stop is due */
    void *reserved;             /**< the plugin's own; the library does not touch it */
    NOXPluginSetStateFunc setstate_func;         /**< told before a new state is stored */
    NOXPluginLinkFunc link_func;                 /**< told of each new link downstream */
    NOXPluginPrepareFunc prepare_func;           /**< asked by nox_plugin_push_prepare upstream */
    NOXPluginChainFunc chain_func;               /**< takes a pushed buffer; a push fails without */
    NOXPluginFormatFunc setformat_func;          /**< takes options */
    NOXPluginFormatFunc getformat_func;          /**< tells options and facts */
    NOXPluginGetAllocatorFunc getallocator_func; /**< the allocator it offers upstream */
    NOXPluginFunc finalize_func;                 /**< clean-up at the last release */
    NOXPluginEventFunc event_func;               /**< takes an event */
    NOXPluginFunc start_func;                    /**< on the way to PLAY from NULL or READY */
    NOXPluginFunc stop_func;                     /**< on the way to NULL */
};

/* ---- creation and destruction -------------------------------------------- */

/** A new plugin of the registered type `plgname` (null is none), named `name` (copied;
 * null names it "unknown"), in state NULL and with one reference, the caller's. Release
 * it with nox_object_delete, or add it to a pipe, which takes the reference over. Null,
 * after level-1 traces, when the type is not registered, its library unfit or memory
 * short. Any thread. */
NOX_API NOXPlugin *nox_plugin_new(const char *plgname, const char *name);

/** Traces only, null at level 1; a plugin is released with nox_object_delete. */
NOX_API void nox_plugin_delete(NOXPlugin *plugin);

/** The object finalizer of every plugin (takes a NOXPlugin): stops a source whose thread
 * still runs, naming it at level 1, frees the branch list, calls finalize_func and
 * returns its result, releases allocator, event and type name. Checked. Not for
 * applications, and not on the source's own thread, which it cannot wait for. */
NOX_API int32_t nox_plugin_finalize(void *plugin);

/** Size in bytes of NOXPlugin. */
NOX_API uint32_t nox_plugin_get_size(void);

/** Makes the state event; called, once for a record, by the base classes' inits, or by the
 * init of a plugin that stands on none. 0; -1, after a level-1 trace, when it cannot.
 * Checked. */
NOX_API int32_t nox_plugin_init(NOXPlugin *plugin);

/* ---- lifecycle ----------------------------------------------------------- */

/** Sets `started` and returns what start_func answers, 0 without one. `started` stays set
 * when that is a failure. Checked. */
NOX_API int32_t nox_plugin_start(NOXPlugin *plugin);

/** Clears `started`, waits up to 300 ms for a chain call in progress, and returns what
 * stop_func answers, 0 without one. That of a source waits for its thread to end. The
 * plugin is written to after stop_func, which must not give back the last reference.
 * Checked. */
NOX_API int32_t nox_plugin_stop(NOXPlugin *plugin);

/** Hands options to the plugin and returns what it answers; -1, after a level-1 trace,
 * without setformat_func and for a null format. The format stays the caller's. Any
 * thread, one at a time, also while data flows; which options may change then is the
 * plugin's to say. Checked. */
NOX_API int32_t nox_plugin_setformat(NOXPlugin *plugin, NOXStructure *format);

/** Lets the plugin enter its options and facts into the format, which stays the caller's;
 * results and threads as for nox_plugin_setformat. Checked. */
NOX_API int32_t nox_plugin_getformat(NOXPlugin *plugin, NOXStructure *format);

/** Hands an event to this plugin only and returns what it answers; 0 without event_func.
 * The event stays the caller's. Checked. */
NOX_API int32_t nox_plugin_setevent(NOXPlugin *plugin, NOXEvent *event);

/** Changes the state: calls setstate_func, stores the state whatever that returned, then
 * wakes, starts or stops as the table above says. The result is that of stop (to NULL) or
 * start (to PLAY, not from PAUSE), else setstate_func's. 0 at once for the state it is
 * in. A live source's change to PAUSE waits until its thread is parked. Checked. */
NOX_API int32_t nox_plugin_setstate(NOXPlugin *plugin, int32_t state);

/** The state (NOX_STATE_), which is stored before start and stop run. Any thread. Not
 * checked. */
NOX_API int32_t nox_plugin_get_state(NOXPlugin *plugin);

/** "NULL", "READY", "PAUSE" or "PLAY", else "??"; static texts. */
NOX_API const char *nox_plugin_state_str(int32_t state);

/** Forgets its links, up and down, and its output allocator; 0. State, bus, clock and
 * group stay, and so do the links of its neighbours to it, which must go as well before
 * it is released. Not checked. */
NOX_API int32_t nox_plugin_reset(NOXPlugin *plugin);

/* ---- wiring, done by the pipe -------------------------------------------- */

/** Stores where it posts, without a reference: the bus must outlive the plugin's use of
 * it. 0. Checked, and a null bus is refused as well. */
NOX_API int32_t nox_plugin_set_bus(NOXPlugin *plugin, NOXBus *bus);

/** Stores the clock in the same way. */
NOX_API int32_t nox_plugin_set_timer(NOXPlugin *plugin, NOXTimer *timer);

/** Stores (0) or returns the object parent, the pipe or null, without a reference. Not
 * checked. @{ */
NOX_API int32_t nox_plugin_set_parent(NOXPlugin *plugin, void *parent);
NOX_API void *nox_plugin_get_parent(NOXPlugin *plugin);
/** @} */

/** The pipe (NOXPipe) it belongs to, lent: the parent of its bus, or without a bus its
 * object parent. Null for null and for a plugin in no pipe. Any thread. */
NOX_API void *nox_plugin_get_pipeline(NOXPlugin *plugin);

/** Posts a message under the plugin's name on its bus; `code` is one of NOX_MSG_ or the
 * plugin's own, `text` is copied, may be null. Never waits for the handler. -1, after a
 * level-1 trace, without a bus or memory. Any thread. Not checked. */
NOX_API int32_t nox_plugin_error_post(NOXPlugin *plugin, int32_t code, const char *text);

/* ---- links --------------------------------------------------------------- */

/** Adds `next` as the next free branch of `plugin`, and `plugin` as its upstream one,
 * replacing what that was. No references are taken. The link is made whatever link_func
 * answers; its answer is the result, 0 without one. -1, after a level-1 trace and with
 * nothing linked, when either is null and when memory runs out. No branch can be unlinked
 * by itself: see nox_pipe_del_plugin. Circles are not looked for here: a pipe refuses to
 * change or start what runs in one, since a push there would never return. */
NOX_API int32_t nox_plugin_link(NOXPlugin *plugin, NOXPlugin *next);

/** Replaces the branch that leads to `old_next` by one to `new_next`, in place, after
 * telling link_func, whose answer is not used. A null `old_next` fills an empty branch 0.
 * The upstream pointers of both stay as they were. 0; -1, nothing changed, when there is
 * no such branch (told at level 1 when it has one branch at most) and, after a level-1
 * trace, when `plugin` or `new_next` is null. */
NOX_API int32_t nox_plugin_linkexch(NOXPlugin *plugin, NOXPlugin *old_next, NOXPlugin *new_next);

/** Links a chain, ended by a null pointer (NULL, not 0): sets branch 0 of each, replacing
 * what it was; a plugin with a link_func makes its own link. The result is that of the
 * last link_func called, 0 without any. -1, nothing changed and after a level-1 trace,
 * when one of the first two is null. */
NOX_API int32_t nox_plugin_link_many(NOXPlugin *plugin, NOXPlugin *next, ...);

/** 1 when data can leave the plugin: it has a downstream plugin or is a sink. Else 0,
 * after a level-1 trace, also for null. */
NOX_API uint8_t nox_plugin_islink(NOXPlugin *plugin);

/** The field `issink`; 0, after a level-1 trace, for null. */
NOX_API uint8_t nox_plugin_issink(NOXPlugin *plugin);

/** Branch `idx` (from 0), lent; null when there is none, also for a negative one. When it
 * has a branch list and `count` is not null, the number of branches after the first is
 * stored; else `count` is untouched, so set it to 0 before. The all-ones pointer, after a
 * level-1 trace, for a null plugin. */
NOX_API NOXPlugin *nox_plugin_get_next(NOXPlugin *plugin, int32_t idx, uint32_t *count);

/** The source at the head of the chain, lent, or null, after a level-1 trace, when the
 * head is none, or there is none because the links run in a circle. The all-ones pointer, after a
 * level-1 trace, for a null plugin. */
NOX_API NOXPlugin *nox_plugin_get_source(NOXPlugin *plugin);

/* ---- pushing, on the thread that produces -------------------------------- */

/** The result of the first downstream plugin's prepare_func, 0 without one; -1, after a
 * level-1 trace, when not linked. `argument` is passed through. On the producing thread. */
NOX_API int32_t nox_plugin_push_prepare(NOXPlugin *plugin, void *argument);

/** Lends the buffer to every branch, in link order, and returns when all chain functions
 * have. A first downstream plugin in NULL swallows it for all: 0. The result is that of
 * the last chain function called; a branch after the first that fails ends the push, the
 * first does not. A plugin without chain_func counts as one that failed with -1. -1, too,
 * when not linked. Every failure is traced at level 1. The caller keeps its reference. On
 * the producing thread; takes no lock. */
NOX_API int32_t nox_plugin_push_buffer(NOXPlugin *plugin, NOXBuffer *buffer);

/** The same for branch `idx` (from 0) only. It too is swallowed when the first downstream
 * plugin is in NULL, whatever the branch's own state. -1 when there is no such branch.
 * That and a failing branch 0 are not traced. */
NOX_API int32_t nox_plugin_push_buffer_idx(NOXPlugin *plugin, int32_t idx, NOXBuffer *buffer);

/** Hands the event to every plugin downstream, depth first and whatever their states; one
 * that two paths lead to gets it twice. One without event_func lets it pass, after a
 * level-1 trace when it is a branch after the first. The first failure ends it and is
 * returned, after level-1 traces. 0 without any plugin downstream, after a level-1 trace
 * unless it is a sink, and, after a level-1 trace, for a null plugin. The event stays the
 * caller's. On the calling thread. */
NOX_API int32_t nox_plugin_push_event(NOXPlugin *plugin, NOXEvent *event);

/** Pushes NOX_EVENT_EOS; results as for nox_plugin_push_event. */
NOX_API int32_t nox_plugin_push_eos(NOXPlugin *plugin);

/* ---- allocators and output buffers --------------------------------------- */

/** Stores the function that answers which allocator the plugin offers (may be null); 0.
 * Checked. */
NOX_API int32_t nox_plugin_set_allocatorfunc(NOXPlugin *plugin, NOXPluginGetAllocatorFunc function);

/** Gives the plugin its own allocator, taking over the caller's reference, and
 * offers it unless the plugin has an answer of its own. The plugin releases it at its
 * end. -1, nothing changed and the caller keeping its reference, when it has one already.
 * Checked. */
NOX_API int32_t nox_plugin_set_allocator(NOXPlugin *plugin, NOXAllocator *allocator);

/** The plugin's own allocator, lent, or null; the all-ones pointer, after a level-1 trace,
 * for a null plugin. */
NOX_API NOXAllocator *nox_plugin_default_getallocator(NOXPlugin *plugin);

/** What the first plugin downstream (along branch 0) that answers offers, lent; null when
 * it offers none, nobody answers, and, after a level-1 trace, for a null plugin. */
NOX_API NOXAllocator *nox_plugin_get_next_allocator(NOXPlugin *plugin);

/** An output buffer with one reference, the caller's: from what
 * nox_plugin_get_next_allocator answers, else from what the plugin itself offers
 * (getallocator_func), and from the heap when that is none or has no buffer. The choice
 * is made by the first call, so link before, and kept until nox_plugin_reset or
 * nox_plugin_get_outbuffer_self; it holds no reference: the allocator must outlive its
 * use. Null, after a level-1 trace, when the heap is short or is asked for more blocks
 * than NOX_BUFFER_MEMORIES. On the producing thread, one at a time. */
NOX_API NOXBuffer *nox_plugin_get_outbuffer(NOXPlugin *plugin, NOXBufferRequest *request);

/** The same, but what the plugin itself offers is chosen, afresh on each call, and stays
 * the choice of nox_plugin_get_outbuffer. */
NOX_API NOXBuffer *nox_plugin_get_outbuffer_self(NOXPlugin *plugin, NOXBufferRequest *request);

/** The flush operation of the chosen output allocator on the buffer, which stays the
 * caller's; 0 without one. */
NOX_API int32_t nox_plugin_flush_outbuffer(NOXPlugin *plugin, NOXBuffer *buffer);

/* ---- groups -------------------------------------------------------------- */

/** An empty group, or null. Neither side holds references: delete a group only
 * when its plugins no longer use it, and change it only while none runs. */
NOX_API NOXPluginGroup *nox_plugin_group_new(void);

/** Frees the group and its member records; 0, also for null. The plugins' field `group`
 * still points at it. */
NOX_API int32_t nox_plugin_group_delete(NOXPluginGroup *group);

/** Appends a member that does not attend yet. One that is in a group already, this or
 * another, is added all the same, and its field `group` names the last. There is no way
 * out: the group keeps the plugin, without a reference, until the group is deleted, which
 * is only when none of its sources runs. So release no member while another's source
 * runs. 0; -1, nothing added, for a null argument and, after a level-1 trace, when memory
 * runs out. */
NOX_API int32_t nox_plugin_group_add(NOXPluginGroup *group, NOXPlugin *plugin);

/** The group the plugin was last added to, lent, or null; null for null. */
NOX_API NOXPluginGroup *nox_plugin_group_get(NOXPlugin *plugin);

/** Sets the attendance of the plugin's first member record; a member attends while `value`
 * is above 0. 0; -1 when it is no member (null is none) or the group is null. Any thread. */
NOX_API int32_t nox_plugin_group_attend(NOXPluginGroup *group, NOXPlugin *plugin, int32_t value);

/** Number of members; 0 for null. */
NOX_API uint32_t nox_plugin_group_members(NOXPluginGroup *group);

/** Member `idx` (from 0) in the order of adding, lent, or null, also for a null group. */
NOX_API NOXPlugin *nox_plugin_group_get_member(NOXPluginGroup *group, uint32_t idx);

/** 1 when every member attends (an empty group does); 0 for null. Any thread. */
NOX_API uint8_t nox_plugin_group_is_all_attended(NOXPluginGroup *group);

#ifdef __cplusplus
}
#endif

#endif
