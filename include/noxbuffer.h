/**
 * @file
 * noxbuffer: the unit that plugins push to each other, up to three memory blocks with the
 * frame's metadata.
 *
 *     NOXBuffer *buffer = nox_buffer_new(bytes);
 *     memcpy(nox_buffer_get_data(buffer), samples, bytes);
 *     nox_buffer_set_timestamp(buffer, timestamp_ms);
 *     nox_plugin_push_buffer(plugin, buffer);
 *     nox_object_delete(buffer);
 *
 * A push lends the buffer: whoever keeps it past its chain call takes a reference. A
 * buffer has no lock: its producer fills it before the push, and everybody after only
 * reads. References may be dropped on any thread. `buffer` must not be null unless said.
 * Setters that return int32_t return 0.
 */
#ifndef NOX_NOXBUFFER_H
#define NOX_NOXBUFFER_H

#include "noxmemory.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Memory blocks that a buffer can hold. */
#define NOX_BUFFER_MEMORIES 3

typedef struct NOXBuffer NOXBuffer;

/** The producer's release hook, called once with the buffer by the last release, on
 * whichever thread that is, before its memory blocks go; nox_buffer_get_param gives
 * its argument. Its result is not used. */
typedef int32_t (*NOXBufferFinalizeFunc)(NOXBuffer *buffer);

/** The producer's sync function, called by nox_buffer_sync with the buffer's
 * `private_`; 0 for success. */
typedef int32_t (*NOXBufferSyncFunc)(void *private_value, NOXBuffer *buffer);

/** A producer's second slot. */
typedef struct NOXBufferPrivate2 {
    uint64_t value64; /**< the producer's own */
    uint32_t value32; /**< the producer's own */
} NOXBufferPrivate2;

/** One buffer. Fields that the producer has not set are 0 or null. */
struct NOXBuffer {
    NOXObject object;           /**< not lockable; named after its pool */
    uint64_t timestamp;         /**< ms on the pipeline clock; 0: none, a sink never waits for it */
    uint64_t duration;          /**< ms */
    uint64_t durationUs;        /**< microseconds */
    int32_t mediatype;          /**< the plugins' own code */
    int32_t frametype;          /**< the plugins' own code */
    uint32_t datasize;          /**< bytes: sum over the blocks as they were appended */
    uint8_t *data;              /**< bytes of the block made by nox_buffer_new, else null */
    int32_t index;              /**< the producer's own */
    int32_t bufindex;           /**< the producer's own */
    void *private_;             /**< the producer's own; first argument of syncfunc */
    NOXBufferPrivate2 private2; /**< the producer's own */
    uint64_t param;             /**< argument registered with the release hook */
    void *extradata;            /**< not owned, not copied */
    uint32_t extradatasize;     /**< bytes at extradata */
    NOXMemory *mems[NOX_BUFFER_MEMORIES]; /**< one owned reference each; null: empty slot */
    NOXBufferFinalizeFunc finalize_func;  /**< release hook, or null */
    NOXBufferSyncFunc syncfunc;           /**< sync function, or null */
};

/** A new buffer with one reference, the caller's: with one block of `size` zero bytes,
 * or, for 0, with none. Null, after a level-1 trace, when memory runs out. Any thread. */
NOX_API NOXBuffer *nox_buffer_new(uint32_t size);

/** A new buffer, one reference the caller's, with copies of all bytes and of timestamp,
 * duration, mediatype, frametype, index and bufindex; nothing else is copied. The
 * copied blocks stand in the first slots, empty ones are skipped, and `data` is null.
 * Null, after a level-1 trace and with everything released, when memory runs out. */
NOX_API NOXBuffer *nox_buffer_dup(NOXBuffer *buffer);

/** Copies timestamp, duration, mediatype, frametype, index and bufindex, no other
 * field. */
NOX_API void nox_buffer_copy_metadata(const NOXBuffer *source, NOXBuffer *destination);

/** Size in bytes of NOXBuffer. */
NOX_API uint32_t nox_buffer_get_size(void);

/** Puts a block into the first empty slot, takes over the caller's reference and
 * adds its data size to the buffer's. Returns the number of occupied slots, 1..3.
 * Into a full buffer nothing is put: 3 is returned and the caller keeps the block; look
 * for an empty slot before when it may be full. A null block changes nothing. */
NOX_API int32_t nox_buffer_append_memory(NOXBuffer *buffer, NOXMemory *memory);

/** 1 + the highest occupied slot; 0 for an empty buffer and for null. */
NOX_API int32_t nox_buffer_get_memcnt(const NOXBuffer *buffer);

/** The block in slot 0..2, lent; null for an empty slot or another index. */
NOX_API NOXMemory *nox_buffer_get_memory(NOXBuffer *buffer, int32_t index);

/** Releases the block in slot `index` (0..2) and empties the slot. Returns the number
 * of slots still occupied; -1, after a level-1 trace, when the slot is empty or there
 * is none of that index. The buffer's data size and `data` stay as they were, the
 * latter pointing nowhere when its block has gone. */
NOX_API int32_t nox_buffer_delete_memory_idx(NOXBuffer *buffer, int32_t index);

/** The same for every slot that holds `memory`; -1, after a level-1 trace, when none
 * does. */
NOX_API int32_t nox_buffer_delete_memory_mem(NOXBuffer *buffer, NOXMemory *memory);

/** The same for every slot; 0, also for an empty buffer. */
NOX_API int32_t nox_buffer_delete_memory_all(NOXBuffer *buffer);

/** What syncfunc(private_, buffer) answers, or 0 without one. For consumers, before they
 * read bytes that a device has written: the library itself never calls it. */
NOX_API int32_t nox_buffer_sync(NOXBuffer *buffer);

/** Stores the sync function (may be null). */
NOX_API void nox_buffer_set_syncfunc(NOXBuffer *buffer, NOXBufferSyncFunc sync);

/** The sync function, or null. */
NOX_API NOXBufferSyncFunc nox_buffer_get_syncfunc(NOXBuffer *buffer);

/** Stores the release hook (may be null) and its argument, which is the field that
 * nox_buffer_set_param sets; 0. */
NOX_API int32_t nox_buffer_set_finalize_func(NOXBuffer *buffer, NOXBufferFinalizeFunc finalize,
                                             uint64_t param);

/** The producer's own value. @{ */
NOX_API int32_t nox_buffer_set_private(NOXBuffer *buffer, void *private_value);
NOX_API void *nox_buffer_get_private(NOXBuffer *buffer);
/** @} */

/** Stores a copy of the producer's second slot; `pair` must not be null. */
NOX_API int32_t nox_buffer_set_private2(NOXBuffer *buffer, const NOXBufferPrivate2 *pair);

/** Stores the two values of the producer's second slot. */
NOX_API int32_t nox_buffer_set_private2_each(NOXBuffer *buffer, uint64_t value64, uint32_t value32);

/** The producer's second slot itself, inside the buffer and valid as long as it. */
NOX_API NOXBufferPrivate2 *nox_buffer_get_private2(NOXBuffer *buffer);

/** Points at `size` bytes of the caller's (may be null), which are neither copied nor
 * freed and must outlive the buffer. */
NOX_API int32_t nox_buffer_set_extradata(NOXBuffer *buffer, void *extradata, uint32_t size);

/** The extra data last stored, or null, and its size in bytes. @{ */
NOX_API void *nox_buffer_get_extradata(NOXBuffer *buffer);
NOX_API uint32_t nox_buffer_get_extradatasize(NOXBuffer *buffer);
/** @} */

/** The object parent (may be null), without a reference. @{ */
NOX_API int32_t nox_buffer_set_parent(NOXBuffer *buffer, void *parent);
NOX_API void *nox_buffer_get_parent(NOXBuffer *buffer);
/** @} */

/** The bytes of the block that nox_buffer_new made, lent until that block is deleted (the
 * pointer stays as it was then); null in a duplicate and in a buffer put together from
 * blocks, whose bytes nox_buffer_get_memory leads to. */
NOX_API uint8_t *nox_buffer_get_data(NOXBuffer *buffer);

/** Bytes of all blocks together, as they were when appended. */
NOX_API uint32_t nox_buffer_get_datasize(NOXBuffer *buffer);

/** Milliseconds on the pipeline clock; 0: none. @{ */
NOX_API uint64_t nox_buffer_get_timestamp(NOXBuffer *buffer);
NOX_API void nox_buffer_set_timestamp(NOXBuffer *buffer, uint64_t timestamp);
/** @} */

/** Milliseconds. @{ */
NOX_API uint64_t nox_buffer_get_duration(NOXBuffer *buffer);
NOX_API void nox_buffer_set_duration(NOXBuffer *buffer, uint64_t duration);
/** @} */

/** Microseconds; independent of the duration in milliseconds. @{ */
NOX_API uint64_t nox_buffer_get_durationUs(NOXBuffer *buffer);
NOX_API void nox_buffer_set_durationUs(NOXBuffer *buffer, uint64_t duration);
/** @} */

/** A code that the plugins agree on. @{ */
NOX_API int32_t nox_buffer_get_mediatype(NOXBuffer *buffer);
NOX_API void nox_buffer_set_mediatype(NOXBuffer *buffer, int32_t mediatype);
NOX_API int32_t nox_buffer_get_frametype(NOXBuffer *buffer);
NOX_API void nox_buffer_set_frametype(NOXBuffer *buffer, int32_t frametype);
/** @} */

/** A number of the producer's. @{ */
NOX_API int32_t nox_buffer_get_index(NOXBuffer *buffer);
NOX_API void nox_buffer_set_index(NOXBuffer *buffer, int32_t index);
NOX_API int32_t nox_buffer_get_bufindex(NOXBuffer *buffer);
NOX_API void nox_buffer_set_bufindex(NOXBuffer *buffer, int32_t bufindex);
/** @} */

/** The argument of the release hook. @{ */
NOX_API uint64_t nox_buffer_get_param(NOXBuffer *buffer);
NOX_API void nox_buffer_set_param(NOXBuffer *buffer, uint64_t param);
/** @} */

#ifdef __cplusplus
}
#endif

#endif
