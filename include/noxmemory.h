/**
 * @file
 * noxmemory: one contiguous run of media bytes, owned or borrowed.
 *
 * Owned: nox_memory_new(size) allocates the bytes and frees them with the block.
 * Borrowed: nox_memory_new(0), then point it at bytes of a driver or a frame
 * pool and give it a hook that tells when the last holder is done with them:
 *
 *     NOXMemory *memory = nox_memory_new(0);
 *     nox_memory_set_data(memory, frame->bytes);
 *     nox_memory_set_datasize(memory, frame->length);
 *     nox_memory_set_private(memory, frame);
 *     nox_memory_set_finalize_func(memory, give_frame_back);
 *
 * Release a block with nox_object_delete, or hand it to a buffer. A block has
 * no lock: its creator fills it, everybody after only reads.
 */
#ifndef NOX_NOXMEMORY_H
#define NOX_NOXMEMORY_H

#include "noxobject.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct NOXMemory NOXMemory;

/** The creator's release hook, called once with the block by the last release,
 * before owned bytes are freed, on the releasing thread. Non-zero is traced. */
typedef int32_t (*NOXMemoryFinalizeFunc)(NOXMemory *memory);

struct NOXMemory {
    NOXObject object;
    uint32_t datasize;  /**< valid bytes at data */
    uint32_t allocsize; /**< bytes owned at data; 0: data is borrowed */
    uint8_t *data;
    void *private_;                      /**< the creator's own value */
    NOXMemoryFinalizeFunc finalize_func; /**< or null */
};

/** A new block with one reference. `size` above 0 allocates that many zero bytes;
 * with 0 it carries none yet. Null, after a level-1 trace, on failure. */
NOX_API NOXMemory *nox_memory_new(uint32_t size);

/** Size in bytes of NOXMemory. */
NOX_API uint32_t nox_memory_get_size(void);

/** Accessors: they only read and store. Setting `data` of a block that owns its
 * bytes makes the block free the new pointer at its end. Setting the data size
 * returns the size set; the other setters return 0. */
NOX_API uint8_t *nox_memory_get_data(NOXMemory *memory);
NOX_API int32_t nox_memory_set_data(NOXMemory *memory, void *data);
NOX_API uint32_t nox_memory_get_datasize(NOXMemory *memory);
NOX_API uint32_t nox_memory_set_datasize(NOXMemory *memory, uint32_t datasize);
NOX_API void *nox_memory_get_private(NOXMemory *memory);
NOX_API int32_t nox_memory_set_private(NOXMemory *memory, void *private_value);
NOX_API int32_t nox_memory_set_finalize_func(NOXMemory *memory, NOXMemoryFinalizeFunc finalize);

#ifdef __cplusplus
}
#endif

#endif
