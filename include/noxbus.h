/**
 * @file
 * noxbus: carries messages from plugins and the pipe to the application without holding
 * up whoever posts. A post copies the message onto a queue; the bus's own thread hands
 * the messages to the application's handler one at a time, in the order they were posted.
 *
 *     static int32_t on_message(NOXBus *bus, void *data, const char *name,
 *                               int32_t code, const char *text);
 *     ...
 *     nox_pipe_set_bus_handler(pipe, on_message, &my_state);
 *
 * The handler runs on the bus thread. It may drop the last reference to the pipe or the
 * bus, but had better leave that to another thread: it is told at level 1, no further
 * message is handed over, and everything is released but the thread, which ends when the
 * handler has returned and is joined by a later nox_pipe_new or by nox_deinit. The
 * handler must not touch pipe or bus after that. That of the pipe must not go while
 * another thread changes its state, which no message of the library rules out: wait for
 * one of your own, posted after the change.
 *
 * `bus` must not be null. Without a pipe a bus is made with nox_bus_new and released with
 * nox_object_delete, which waits for a handler in progress and ends the thread; messages
 * still queued are dropped.
 */
#ifndef NOX_NOXBUS_H
#define NOX_NOXBUS_H

#include "noxobject.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Message codes of the library. Plugins may post codes of their own. */
#define NOX_MSG_STARTED 1              /**< a live source's first data, or its recovery */
#define NOX_MSG_EOS 3                  /**< end of stream */
#define NOX_MSG_SINK 5                 /**< a sink's first data, on request (option "report") */
#define NOX_MSG_PUSH_ERROR 0x40        /**< a live source could not push; its thread ended */
#define NOX_MSG_CAPTURE_ERROR 0x43     /**< a live source could not capture */
#define NOX_MSG_BUS_CRITICAL 0x2000000 /**< a foreign item on the bus queue; the bus stopped */
#define NOX_MSG_BUS_EXIT ((int32_t)0xF0000000u) /**< internal: ends the bus thread */

typedef struct NOXBus NOXBus;

/** The application's handler, called on the bus thread with the argument that was set
 * with it. `name` (of the poster) and `text` may be null and are freed when it returns.
 * Its result is ignored. */
typedef int32_t (*NoxBusHandler)(NOXBus *bus, void *handler_data, const char *name, int32_t code,
                                 const char *text);

/** The bus. */
struct NOXBus {
    NOXObject object;      /**< lockable, though the bus never locks itself */
    void *parent;          /**< the pipe that owns the bus; not referenced */
    OSA_Queue *queue;      /**< of NOXBusMsg */
    NoxBusHandler handler; /**< or null: messages are dropped */
    OSA_Thread *thread;    /**< the bus thread */
    uint8_t running;       /**< the bus thread goes on while it is set */
    uint8_t reserved_[3];  /**< internal: padding */
    uint32_t handlerseq_;  /**< internal: odd while handler and handler_data change */
    void *handler_data;    /**< second argument of the handler */
};

/** One message on its way; the queue owns it. */
typedef struct NOXBusMsg {
    char *name;   /**< of the poster; owned, may be null */
    int32_t code; /**< NOX_MSG_, or a plugin's own */
    char *text;   /**< owned, may be null */
} NOXBusMsg;

/** A new bus with one reference, the caller's, and its thread running; its queue takes
 * `name`, which is copied. Null, after a level-1 trace, when any part of it cannot be
 * made. Any thread. */
NOX_API NOXBus *nox_bus_new(const char *name);

/** Stores the pipe that the plugins of this bus belong to (may be null), without a
 * reference; 0. Done by the pipe. */
NOX_API int32_t nox_bus_set_parent(NOXBus *bus, void *parent);

/** The pipe last stored, lent, or null. */
NOX_API void *nox_bus_get_parent(NOXBus *bus);

/** Sets the handler and its argument, always seen as a pair; null for none: messages
 * are then dropped as they come. Those taken off the queue before are not replayed. The
 * old handler may still be running, once, with its old data when this returns: keep that
 * data until the new one has been called or the bus has ended. Any thread, any time; 0. */
NOX_API int32_t nox_bus_set_handler(NOXBus *bus, NoxBusHandler handler, void *handler_data);

/** Posts a message; `name` and `text` are copied and may be null. Never waits
 * for the handler. -1, after a level-1 trace and with nothing queued, when
 * memory runs out. Any thread. */
NOX_API int32_t nox_bus_post_error(NOXBus *bus, const char *name, int32_t code, const char *text);

/** The bus thread's body (takes a NOXBus); ends the calling thread. Not for
 * applications. */
NOX_API int32_t nox_bus_loop(void *bus);

/** The object finalizer of a bus (takes a NOXBus): waits for the bus thread to end, except
 * on that very thread, which is told at level 1, and drops what is queued; 0. Not for
 * applications. */
NOX_API int32_t nox_bus_finalize(void *bus);

#ifdef __cplusplus
}
#endif

#endif
