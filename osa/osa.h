/**
 * @file
 * The OS layer: every operating-system service that libnoxcore uses comes in
 * through the operations declared here. The library imports them and contains
 * none of them, so a product can bring its own layer, and a test can bring one
 * in which time is virtual and every fault can be provoked.
 *
 * Two implementations live beside this file: osa/posix (Linux) and osa/sim
 * (virtual time, deterministic scheduling, fault injection). A program links one of
 * them. Plugins may use the layer as well:
 *
 *     OSA_Event *ready = OSA_EventCreate(0);
 *     ...
 *     if (OSA_EventWait(ready, 100) != 0)
 *         OSA_Trace("camera", OSA_TRACE_NOTICE, "camera", __LINE__, __func__, "no frame\n");
 *     OSA_EventDestroy(ready);
 *
 * Conventions: 0 means success and non-zero failure, unless a function returns
 * a pointer (null means failure) or a count. Times are milliseconds. Every
 * operation may be called from any thread. Handles are opaque; each is
 * released by the operation named with its creation. A null handle is refused.
 */
#ifndef OSA_OSA_H
#define OSA_OSA_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Lets the compiler check the arguments of a function that formats as printf does. */
#if defined(__GNUC__)
#define OSA_PRINTF(format_index, first_argument)                                                   \
    __attribute__((format(printf, format_index, first_argument)))
#else
#define OSA_PRINTF(format_index, first_argument)
#endif

/** A wait with this time-out has no limit. */
#define OSA_WAIT_FOREVER 0x7FFFFFFFu

/* File modes of OSA_FileOpen. */
#define OSA_FILE_READ 0xF0000002u  /**< an existing file, for reading */
#define OSA_FILE_WRITE 0xF0000009u /**< for writing: created, or emptied when it exists */

/* Trace levels; a line is written when its level is not above OSA_TraceThreshold. */
#define OSA_TRACE_ERROR 1   /**< something failed */
#define OSA_TRACE_NOTICE 2  /**< worth knowing in a run that goes well */
#define OSA_TRACE_INFO 3    /**< what is done, step by step */
#define OSA_TRACE_VERBOSE 4 /**< function entries and details */

/** A handle, opaque. @{ */
typedef struct OSA_Mutex OSA_Mutex;
typedef struct OSA_Event OSA_Event;
typedef struct OSA_Queue OSA_Queue;
typedef struct OSA_Thread OSA_Thread;
typedef struct OSA_List OSA_List;
typedef struct OSA_Library OSA_Library;
typedef struct OSA_File OSA_File;
/** @} */

/** One node of a list. Users may read `data` and `next` directly and write
 * `data`; the links are written by the list operations only. */
typedef struct OSA_ListNode OSA_ListNode;
struct OSA_ListNode {
    void *data;         /**< the list's user owns what it points to */
    OSA_ListNode *next; /**< following node, null at the tail */
    OSA_ListNode *prev; /**< preceding node, null at the head */
};

/** Size in bytes of the record that a queue keeps for each entry; a pool of this
 * block size, once registered, serves the queues. */
#define OSA_QUEUE_NODE_SIZE 32u

/** A host program's function around the layer's life; 0 is success, a failure is only
 * reported. */
typedef int32_t (*OSA_EnvironmentCallback)(void);

/** A thread's body; its result is the thread's status. */
typedef int32_t (*OSA_ThreadEntry)(void *argument);

/* ---- the layer itself ---------------------------------------------------- */

/** Brings the layer up and then calls `load` (may be null), the host program's
 * chance to read its environment. Init after init is harmless: 0, `load` not called. */
int32_t OSA_SystemInit(OSA_EnvironmentCallback load);

/** Calls `unload` (may be null), lists every block of memory that is still
 * alive on the trace (level 1), and takes the layer down; 0. */
int32_t OSA_SystemUnInit(OSA_EnvironmentCallback unload);

/* ---- memory -------------------------------------------------------------- */

/** A zero-filled block of `size` bytes, aligned for any type, or null. The block
 * is remembered with `module`, `line` and `function` (static strings, not
 * copied) until OSA_Free. `kind` and `alignment` are reserved: every value
 * selects ordinary memory. */
void *OSA_Malloc(uint32_t size, int32_t kind, int32_t alignment, const char *module, int32_t line,
                 const char *function);

/** Frees a block of OSA_Malloc; null is ignored. `kind` is reserved. */
void OSA_Free(void *block, int32_t kind);

/* ---- pools of fixed-size blocks ------------------------------------------ */

/** Starts the pools as a whole. Starting twice is harmless. */
int32_t OSA_SMalloc_Init(void);

/** Stops them. Blocks that are still out may be given back later. */
int32_t OSA_SMalloc_Deinit(void);

/** Registers a pool of blocks of exactly `block_size` bytes. `name` is copied,
 * cut to 47 characters. A size keeps its pool and its first name until the pools
 * stop, registered again or not. Refused before OSA_SMalloc_Init, for a size of 0,
 * for a null name, and for more than 63 sizes, unregistered ones included. */
int32_t OSA_SMalloc_Register(uint32_t block_size, const char *name);

/** Ends the pool of that size: no block can be taken any more. Blocks that are
 * still out may be given back later. */
int32_t OSA_SMalloc_UnRegister(uint32_t block_size);

/** 1 when a pool of exactly this block size is registered, else 0. */
uint8_t OSA_SMemIsReg(uint32_t block_size);

/** The name of the pool of that size (owned by the layer, valid until the pools
 * stop), or null. */
const char *OSA_SMemGetName(uint32_t block_size);

/** A zero-filled block of the pool of that size, or null. Takes no mutex. */
void *OSA_SMalloc(uint32_t block_size);

/** Gives a block back, from whichever thread; null is ignored. Takes no mutex. */
void OSA_SFree(void *block, uint32_t block_size);

/* ---- lists --------------------------------------------------------------- */

/** An empty list, or null. A list has no lock: its user serialises. Release with
 * OSA_ListDestroy. */
OSA_List *OSA_ListCreate(void);

/** Releases the list and what nodes are left in it, not their data. */
int32_t OSA_ListDestroy(OSA_List *list);

/** Appends or prepends a node that is in no list; the list holds it until OSA_ListDel. 0;
 * negative for a null list or node, and the caller keeps the node. @{ */
int32_t OSA_ListAddTail(OSA_List *list, OSA_ListNode *node);
int32_t OSA_ListAddHead(OSA_List *list, OSA_ListNode *node);
/** @} */

/** Unlinks a node of this list; the node, its links null then, and its data stay
 * alive. A node of no list, or at an end of another, is refused (non-zero); one from
 * the middle of another list need not be noticed, so be sure of the list. */
int32_t OSA_ListDel(OSA_List *list, OSA_ListNode *node);

/** The node there, lent. Null at the end, and for a null list or node. @{ */
OSA_ListNode *OSA_ListGetHead(OSA_List *list);
OSA_ListNode *OSA_ListGetTail(OSA_List *list);
OSA_ListNode *OSA_ListGetNext(OSA_ListNode *node);
OSA_ListNode *OSA_ListGetPrev(OSA_ListNode *node);
/** @} */

/** Number of nodes; 0 for a null list. */
uint32_t OSA_ListGetNum(OSA_List *list);

/** The node at a position counted from 0, or null. Linear in the position. */
OSA_ListNode *OSA_List_GetNthList(OSA_List *list, uint32_t position);

/** A node in no list, with null for data, or null. Release with OSA_List_Node_delete. */
OSA_ListNode *OSA_List_Node_new(void);

/** The same with `data`, which stays the caller's. */
OSA_ListNode *OSA_List_Node_new_data(void *data);

/** Releases a node that is in no list; null is ignored. Its data stays. */
void OSA_List_Node_delete(OSA_ListNode *node);

/* ---- mutexes ------------------------------------------------------------- */

/** A recursive mutex, unlocked, or null. Release with OSA_MutexDestroy. */
OSA_Mutex *OSA_MutexCreate(void);

/** Refused (non-zero), and the mutex stays, while a thread holds it, this one included,
 * or waits for it. */
int32_t OSA_MutexDestroy(OSA_Mutex *mutex);

/** Locks, once more when the thread has it already. 0; non-zero when `timeout_ms` passed
 * first, nothing locked. */
int32_t OSA_MutexLock(OSA_Mutex *mutex, uint32_t timeout_ms);

/** Undoes one lock of the calling thread. Non-zero on a thread that does not hold it. */
int32_t OSA_MutexUnLock(OSA_Mutex *mutex);

/* ---- events -------------------------------------------------------------- */

/** An event, not signalled, or null. It latches and resets itself: a send that
 * finds waiters releases the one that came first, even if it has not run yet; any
 * other send is kept for the next to wait, and further ones before that wait add
 * nothing. `kind` is reserved. Release with OSA_EventDestroy. */
OSA_Event *OSA_EventCreate(int32_t kind);

/** Refused (non-zero), and the event stays, while a thread waits for it. */
int32_t OSA_EventDestroy(OSA_Event *event);

/** Releases one thread that waits, or latches; 0. Never waits. */
int32_t OSA_EventSend(OSA_Event *event);

/** 0 when signalled, non-zero when `timeout_ms` passed first. */
int32_t OSA_EventWait(OSA_Event *event, uint32_t timeout_ms);

/* ---- queues -------------------------------------------------------------- */

/** A queue of (pointer, size) pairs, first in first out, unbounded, for any
 * number of threads on both sides; or null. `name` (may be null) is copied, for
 * diagnosis; `kind` is reserved. Release with OSA_QueueDestroy. */
OSA_Queue *OSA_QueueCreate(const char *name, int32_t kind);

/** Releases the queue; entries still in it are dropped, not freed. Refused
 * (non-zero), and the queue stays, while a thread waits for it. */
int32_t OSA_QueueDestroy(OSA_Queue *queue);

/** Appends an entry; never blocks. On success what `item` points to passes to
 * the queue; on failure (non-zero) the caller keeps it. Null is refused: to
 * OSA_QueuePop it means that nothing came. */
int32_t OSA_QueuePush(OSA_Queue *queue, void *item, uint32_t size);

/** The oldest entry, waiting at most `timeout_ms` (0: not at all); its size is
 * stored through `size` (may be null). Null, with `size` untouched, when none came. */
void *OSA_QueuePop(OSA_Queue *queue, uint32_t *size, uint32_t timeout_ms);

/* ---- threads ------------------------------------------------------------- */

/** Runs entry(argument) on a new thread named `name` (cut to what the system
 * allows). Priority 0 is the default scheduling; above 0 asks for real-time
 * round-robin at that priority. `stack_size` in bytes is a minimum. Null on
 * failure. Release with OSA_ThreadDelete. */
OSA_Thread *OSA_ThreadCreate(const char *name, int32_t priority, uint32_t stack_size,
                             OSA_ThreadEntry entry, void *argument);

/** Ends the calling thread, which OSA_ThreadCreate made, with this status.
 * Destructors of objects on its stack do not run. On any other thread it returns, after
 * a level-1 trace. */
void OSA_ThreadExit(int32_t status);

/** Waits without limit for the thread to end, stores its status (pointer may be null) and
 * releases it; 0. A thread that has not ended after 1 s is named by a level-1 trace, then
 * and every 10 s from there on (1 s, 11 s, 21 s ...). Refused, non-zero, on that very
 * thread. */
int32_t OSA_ThreadDelete(OSA_Thread *thread, int32_t *status);

/** Lets the calling thread sleep at least that long. */
void OSA_ThreadSleep(uint32_t duration_ms);

/** Monotonic milliseconds from an arbitrary start. */
uint64_t OSA_GetSystemTick(void);

/* ---- files --------------------------------------------------------------- */

/** Opens a file in one of the modes above, or null. A file is one thread's at a time.
 * Release with OSA_FileClose. */
OSA_File *OSA_FileOpen(const char *path, uint32_t mode);

/** The next line with its line feed, zero-terminated in `buffer` of `size`
 * bytes; of a longer line the rest is skipped. Null at the end. */
char *OSA_FileReadLine(OSA_File *file, char *buffer, uint32_t size);

/** Writes all `length` bytes (at most INT32_MAX); the number written, or negative on
 * failure, when part of them may have been written. */
int32_t OSA_FileWrite(OSA_File *file, const void *data, uint32_t length);

/** Closes and releases the file. Non-zero when what was written may not be stored. */
int32_t OSA_FileClose(OSA_File *file);

/* ---- dynamic libraries --------------------------------------------------- */

/** Loads with immediate, local binding after a check that the file is a whole
 * shared object for this processor; null, with a level-1 trace that says what
 * is wrong, on failure. Release with OSA_LibraryUnLoad. */
OSA_Library *OSA_LibraryLoad(const char *path);

/** The address of an exported function, or null, also for data under that name. */
void *OSA_LibraryGetFunc(OSA_Library *library, const char *symbol);

/** Releases the handle; the code goes with the last handle of the same file. */
int32_t OSA_LibraryUnLoad(OSA_Library *library);

/* ---- traces and text ----------------------------------------------------- */

/** Lines above this level are dropped; 2 until the program sets another. The
 * library imports this word weakly and tests it before it formats anything;
 * a layer without it gets every line through OSA_Trace. Read atomically. */
extern int32_t OSA_TraceThreshold;

/** One line. `module` is who speaks (a module's or an object's name), `source`
 * the module whose code it is. The text carries its own line feed. */
void OSA_Trace(const char *module, int32_t level, const char *source, int32_t line,
               const char *function, const char *format, ...) OSA_PRINTF(6, 7);

/** One line without module and level, whatever the threshold. */
void OSA_Traces(const char *format, ...) OSA_PRINTF(1, 2);

/** As snprintf: the length that the whole text would have had. */
int32_t OSA_snprintf(char *buffer, uint32_t size, const char *format, ...) OSA_PRINTF(3, 4);

#ifdef __cplusplus
}
#endif

#endif
