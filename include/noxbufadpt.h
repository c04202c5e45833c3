/**
 * @file
 * noxbufadpt: turns buffers of any sizes into one run of bytes that a consumer takes in
 * pieces of its own size.
 *
 *     NOXBufAdpt *adapter = nox_bufadpt_new("blocks", largest_backlog);
 *     ...
 *     nox_object_refer(buffer);
 *     if (nox_bufadpt_add(adapter, buffer) != 0)
 *         nox_object_delete(buffer);
 *     while ((bytes = nox_bufadpt_get_data(adapter, &available, &first)) && available >= block) {
 *         use(bytes, block, nox_buffer_get_timestamp(first));
 *         nox_bufadpt_release_data(adapter, block);
 *     }
 *
 * The bytes of a buffer are copied when it is added; the buffer itself stays queued until
 * its last byte is released, so that its metadata can be asked for.
 *
 * An adapter has no lock: one thread at a time uses it, on which release hooks of its
 * buffers may run. Pointers must not be null unless said. An adapter is released with
 * nox_object_delete, which releases what is still queued.
 */
#ifndef NOX_NOXBUFADPT_H
#define NOX_NOXBUFADPT_H

#include "noxbuffer.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The adapter. Read its fields on the thread that uses it; write none. */
typedef struct NOXBufAdpt {
    NOXObject object;  /**< not lockable */
    OSA_List *buffers; /**< queued buffers (NOXBuffer), oldest first; one reference each */
    uint8_t *stage[2]; /**< staging areas of `capacity` bytes each; owned */
    uint8_t *cur;      /**< first unconsumed byte, in the active area; null until the first add */
    uint32_t avail;    /**< unconsumed bytes at `cur`, 0..capacity */
    uint32_t capacity; /**< bytes of one staging area: twice the size given at creation */
    uint32_t active;   /**< index of the active staging area, 0 or 1 */
    uint32_t consumed; /**< bytes of the oldest queued buffer that have been released */
} NOXBufAdpt;

/** A new adapter with one reference, the caller's, that holds at most 2 * `size`
 * unconsumed bytes; one of size 0 takes only buffers without bytes. `name` is copied; null names it
 * "unknown". Null, after a level-1 trace and with nothing kept, when memory runs out or 2 * `size`
 * does not fit 32 bits. Any thread. */
NOX_API NOXBufAdpt *nox_bufadpt_new(const char *name, uint32_t size);

/** Appends the bytes of all blocks of a buffer, in block order, and takes over the
 * caller's reference to it. Blocks and sizes must not change any more. One without bytes
 * is queued as well, and goes with the next release that reaches it. 0; -1, after a
 * level-1 trace, when the bytes do not fit beside the unconsumed ones, memory runs out or
 * the buffer is null: nothing changed then, and the caller keeps its reference. */
NOX_API int32_t nox_bufadpt_add(NOXBufAdpt *adapter, NOXBuffer *buffer);

/** All unconsumed bytes as one array, lent until the next add or release; their number, 0
 * or more, is stored through `size`, and the oldest queued buffer, lent as well, through
 * `buffer`. `consumed` bytes of that buffer lie before the first one of the array. Null,
 * with nothing stored, when no buffer is queued. */
NOX_API uint8_t *nox_bufadpt_get_data(NOXBufAdpt *adapter, uint32_t *size, NOXBuffer **buffer);

/** The queued buffer at a position counted from 0, the oldest, lent until its last byte is
 * released; null behind the last. */
NOX_API NOXBuffer *nox_bufadpt_get_buf(NOXBufAdpt *adapter, uint32_t position);

/** Consumes the first `size` bytes (0 or more), and releases each buffer whose last byte
 * is among them. The rest is copied to the other staging area. 0; -1, with nothing
 * changed and no trace, when no buffer is queued or fewer bytes are available. */
NOX_API int32_t nox_bufadpt_release_data(NOXBufAdpt *adapter, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif
