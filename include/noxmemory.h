/**
 * @file
 * noxmemory: one contiguous run of media bytes, owned or borrowed.
 *
 * Owned: nox_memory_new(size) allocates the bytes and frees them with the block.
 * Borrowed: nox_memory_new(0), then point it at bytes of a driver or a frame pool and
 * give it a hook that tells when the last holder is done with them:
 *
 *     NOXMemory *memory = nox_memory_new(0);
 *     nox_memory_set_data(memory, frame->bytes);
 *     nox_memory_set_datasize(memory, frame->length);
 *     nox_memory_set_private(memory, frame);
 *     nox_memory_set_finalize_func(memory, give_frame_back);
 *
 * Release a block with nox_object_delete, or hand it to a buffer. A block has no lock:
 * its creator fills it, before it is shared, and everybody after only reads. `memory`
 * must not be null.
 */
#ifndef NOX_NOXMEMORY_H
#define NOX_NOXMEMORY_H

#include "noxobject.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct NOXMemory NOXMemory;

/** The creator's release hook, called once with the block by the last release, before
 * owned bytes are freed, on the releasing thread. Non-zero is traced at level 1; the
 * block is released all the same. */
typedef int32_t (*NOXMemoryFinalizeFunc)(NOXMemory *memory);

/** One block. */
struct NOXMemory {
    NOXObject object;                    /**< not lockable; named after its pool */
    uint32_t datasize;                   /**< valid bytes at data */
    uint32_t allocsize;                  /**< bytes owned at data; 0: data is borrowed */
    uint8_t *data;                       /**< the bytes, or null */
    void *private_;                      /**< the creator's own value */
    NOXMemoryFinalizeFunc finalize_func; /**< release hook, or null */
};

/** A new block with one reference, the caller's. `size` above 0 (bytes) allocates that
 * many zero bytes, with 0 it carries none yet. Null, after a level-1 trace, when memory
 * runs out. Any thread. */
NOX_API NOXMemory *nox_memory_new(uint32_t size);

/** Size in bytes of NOXMemory. */
NOX_API uint32_t nox_memory_get_size(void);

/** The bytes, lent for as long as the block lives; null when it carries none. */
NOX_API uint8_t *nox_memory_get_data(NOXMemory *memory);

/** Points a borrowing block at bytes of the caller's (may be null), which must outlive it;
 * 0. In a block that owns its bytes the new pointer takes their place: it must come from
 * OSA_Malloc, goes to OSA_Free with the block (null is told at level 1 then), and the old
 * bytes are the caller's. */
NOX_API int32_t nox_memory_set_data(NOXMemory *memory, void *data);

/** Valid bytes at the data. */
NOX_API uint32_t nox_memory_get_datasize(NOXMemory *memory);

/** Stores the number of valid bytes, unchecked, and returns it. A buffer that has the
 * block already keeps the sum it had. */
NOX_API uint32_t nox_memory_set_datasize(NOXMemory *memory, uint32_t datasize);

/** The creator's own value, as stored. */
NOX_API void *nox_memory_get_private(NOXMemory *memory);

/** Stores the creator's own value (may be null), which the library does not touch; 0. */
NOX_API int32_t nox_memory_set_private(NOXMemory *memory, void *private_value);

/** Stores the release hook (may be null); 0. */
NOX_API int32_t nox_memory_set_finalize_func(NOXMemory *memory, NOXMemoryFinalizeFunc finalize);

#ifdef __cplusplus
}
#endif

#endif
