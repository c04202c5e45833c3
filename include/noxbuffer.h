/**
 * @file
 * noxbuffer: the unit that plugins push to each other, up to three memory
 * blocks with the frame's metadata.
 *
 *     NOXBuffer *buffer = nox_buffer_new(bytes);
 *     memcpy(nox_buffer_get_data(buffer), samples, bytes);
 *     nox_buffer_set_timestamp(buffer, timestamp_ms);
 *     nox_plugin_push_buffer(plugin, buffer);
 *     nox_object_delete(buffer);
 *
 * A push lends the buffer: whoever keeps it past its chain call takes a
 * reference. A buffer has no lock: its producer fills it before the push, and
 * everybody after only reads. References may be dropped on any thread.
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

/** The producer's release hook, called once with the buffer by the last release,
 * before its memory blocks go; nox_buffer_get_param gives its argument. Its
 * result is not used. */
typedef int32_t (*NOXBufferFinalizeFunc)(NOXBuffer *buffer);

/** The producer's sync function, called by nox_buffer_sync with `private_`. */
typedef int32_t (*NOXBufferSyncFunc)(void *private_value, NOXBuffer *buffer);

/** A producer's second slot. */
typedef struct NOXBufferPrivate2 {
    uint64_t value64;
    uint32_t value32;
} NOXBufferPrivate2;

struct NOXBuffer {
    NOXObject object;
    uint64_t timestamp;  /**< ms on the pipeline clock */
    uint64_t duration;   /**< ms */
    uint64_t durationUs; /**< microseconds */
    int32_t mediatype;   /**< the plugins' own code */
    int32_t frametype;   /**< the plugins' own code */
    uint32_t datasize;   /**< bytes: sum over the blocks as they were appended */
    uint8_t *data;       /**< bytes of the block made by nox_buffer_new, else null */
    int32_t index;       /**< the producer's own */
    int32_t bufindex;    /**< the producer's own */
    void *private_;      /**< the producer's own; first argument of syncfunc */
    NOXBufferPrivate2 private2;
    uint64_t param;                       /**< argument registered with the release hook */
    void *extradata;                      /**< not owned, not copied */
    uint32_t extradatasize;               /**< bytes at extradata */
    NOXMemory *mems[NOX_BUFFER_MEMORIES]; /**< one owned reference each; null: empty slot */
    NOXBufferFinalizeFunc finalize_func;  /**< or null */
    NOXBufferSyncFunc syncfunc;           /**< or null */
};

/** A new buffer with one reference: with one block of `size` zero bytes, or, for
 * 0, with none. Null, after a level-1 trace, on failure. */
NOX_API NOXBuffer *nox_buffer_new(uint32_t size);

/** A new buffer with copies of all bytes and of timestamp, duration, mediatype,
 * frametype, index and bufindex; nothing else is copied. Empty slots are
 * skipped. Null, with everything released, on failure. */
NOX_API NOXBuffer *nox_buffer_dup(NOXBuffer *buffer);

/** Copies the same six fields. */
NOX_API void nox_buffer_copy_metadata(const NOXBuffer *source, NOXBuffer *destination);

/** Size in bytes of NOXBuffer. */
NOX_API uint32_t nox_buffer_get_size(void);

/** Puts a block into the first empty slot, takes over the caller's reference and
 * adds its data size to the buffer's. Returns the number of occupied slots. Into
 * a full buffer nothing is put: 3 is returned and the caller keeps the block. */
NOX_API int32_t nox_buffer_append_memory(NOXBuffer *buffer, NOXMemory *memory);

/** 1 + the highest occupied slot; 0 for an empty buffer and for null. */
NOX_API int32_t nox_buffer_get_memcnt(const NOXBuffer *buffer);

/** The block in slot 0..2, lent; null for an empty slot or another index. */
NOX_API NOXMemory *nox_buffer_get_memory(NOXBuffer *buffer, int32_t index);

/** Drop a block: by slot, wherever a block stands, or all. They return the
 * number of slots still occupied (all: 0), or -1 after a level-1 trace when
 * there is nothing to drop. The buffer's data size stays as it was. */
NOX_API int32_t nox_buffer_delete_memory_idx(NOXBuffer *buffer, int32_t index);
NOX_API int32_t nox_buffer_delete_memory_mem(NOXBuffer *buffer, NOXMemory *memory);
NOX_API int32_t nox_buffer_delete_memory_all(NOXBuffer *buffer);

/** syncfunc(private_, buffer), or 0 without one. For consumers: the library
 * itself never calls it. */
NOX_API int32_t nox_buffer_sync(NOXBuffer *buffer);
NOX_API void nox_buffer_set_syncfunc(NOXBuffer *buffer, NOXBufferSyncFunc sync);
NOX_API NOXBufferSyncFunc nox_buffer_get_syncfunc(NOXBuffer *buffer);

/** Stores the release hook and its argument; 0. */
NOX_API int32_t nox_buffer_set_finalize_func(NOXBuffer *buffer, NOXBufferFinalizeFunc finalize,
                                             uint64_t param);

/** Accessors: each only reads or stores its field; int32_t results are 0. */
NOX_API int32_t nox_buffer_set_private(NOXBuffer *buffer, void *private_value);
NOX_API void *nox_buffer_get_private(NOXBuffer *buffer);
NOX_API int32_t nox_buffer_set_private2(NOXBuffer *buffer, const NOXBufferPrivate2 *pair);
NOX_API int32_t nox_buffer_set_private2_each(NOXBuffer *buffer, uint64_t value64, uint32_t value32);
NOX_API NOXBufferPrivate2 *nox_buffer_get_private2(NOXBuffer *buffer); /**< inside the buffer */
NOX_API int32_t nox_buffer_set_extradata(NOXBuffer *buffer, void *extradata, uint32_t size);
NOX_API void *nox_buffer_get_extradata(NOXBuffer *buffer);
NOX_API uint32_t nox_buffer_get_extradatasize(NOXBuffer *buffer);
NOX_API int32_t nox_buffer_set_parent(NOXBuffer *buffer, void *parent);
NOX_API void *nox_buffer_get_parent(NOXBuffer *buffer);
NOX_API uint8_t *nox_buffer_get_data(NOXBuffer *buffer);
NOX_API uint32_t nox_buffer_get_datasize(NOXBuffer *buffer);
NOX_API uint64_t nox_buffer_get_timestamp(NOXBuffer *buffer); /**< ms */
NOX_API void nox_buffer_set_timestamp(NOXBuffer *buffer, uint64_t timestamp);
NOX_API uint64_t nox_buffer_get_duration(NOXBuffer *buffer); /**< ms */
NOX_API void nox_buffer_set_duration(NOXBuffer *buffer, uint64_t duration);
NOX_API uint64_t nox_buffer_get_durationUs(NOXBuffer *buffer); /**< microseconds */
NOX_API void nox_buffer_set_durationUs(NOXBuffer *buffer, uint64_t duration);
NOX_API int32_t nox_buffer_get_mediatype(NOXBuffer *buffer);
NOX_API void nox_buffer_set_mediatype(NOXBuffer *buffer, int32_t mediatype);
NOX_API int32_t nox_buffer_get_frametype(NOXBuffer *buffer);
NOX_API void nox_buffer_set_frametype(NOXBuffer *buffer, int32_t frametype);
NOX_API int32_t nox_buffer_get_index(NOXBuffer *buffer);
NOX_API void nox_buffer_set_index(NOXBuffer *buffer, int32_t index);
NOX_API int32_t nox_buffer_get_bufindex(NOXBuffer *buffer);
NOX_API void nox_buffer_set_bufindex(NOXBuffer *buffer, int32_t bufindex);
NOX_API uint64_t nox_buffer_get_param(NOXBuffer *buffer);
NOX_API void nox_buffer_set_param(NOXBuffer *buffer, uint64_t param);

#ifdef __cplusplus
}
#endif

#endif
