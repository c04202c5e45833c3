/**
 * @file
 * noxallocator: lets a plugin supply the buffers that its upstream neighbour
 * writes into, so that a frame is produced where it will be consumed.
 *
 *     NOXAllocator *allocator = nox_allocator_new(plugin);
 *     nox_allocator_set_allocate_func(allocator, take_display_buffer);
 *     nox_plugin_set_allocator(plugin, allocator);
 *
 * The allocator carries the owner and the owner's functions; what they do is the
 * owner's policy. They run on the thread of the plugin that asks for a buffer;
 * the allocator takes no lock around them. The functions are set by the owner before
 * the allocator is offered. `allocator` must not be null.
 */
#ifndef NOX_NOXALLOCATOR_H
#define NOX_NOXALLOCATOR_H

#include "noxbuffer.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct NOXAllocator NOXAllocator;

/** The layout wanted of an output buffer. */
typedef struct NOXBufferRequest {
    uint32_t count;                      /**< memory blocks, 0..NOX_BUFFER_MEMORIES */
    uint32_t reserved;                   /**< for the allocators' own use */
    uint32_t sizes[NOX_BUFFER_MEMORIES]; /**< bytes of each block, in block order */
} NOXBufferRequest;

/** Answers with a buffer laid out as asked, whose one reference passes to the caller,
 * or null when none can be had: the caller then takes one from the heap. `request` is
 * the caller's and lent for the call. */
typedef NOXBuffer *(*NOXAllocateFunc)(void *owner, NOXBufferRequest *request);

/** The owner's flush operation, such as writing caches back; its meaning and its result
 * are the owner's business. `buffer` is lent for the call. */
typedef int32_t (*NOXFlushFunc)(void *owner, NOXBuffer *buffer);

/** Called once with the allocator when it is destroyed, on the releasing thread; its
 * result is not used. */
typedef int32_t (*NOXAllocatorFinalizeFunc)(NOXAllocator *allocator);

/** The allocator. */
struct NOXAllocator {
    NOXObject object;                       /**< lockable; named "noxallocator" */
    void *owner;                            /**< first argument of the functions; not referenced */
    NOXAllocatorFinalizeFunc finalize_func; /**< or null */
    NOXAllocateFunc allocate_func;          /**< or null: offers no buffers */
    NOXFlushFunc flush_func;                /**< or null */
};

/** A new allocator with one reference, the caller's, and empty functions. `owner` (may be
 * null) is stored without a reference and also becomes the object parent; it must outlive
 * the allocator. Release it with nox_object_delete, or hand it to its plugin with
 * nox_plugin_set_allocator, which takes the reference over. Null, after a level-1 trace,
 * when memory runs out. */
NOX_API NOXAllocator *nox_allocator_new(void *owner);

/** Size in bytes of NOXAllocator. */
NOX_API uint32_t nox_allocator_get_size(void);

/** Stores a function (may be null); 0. @{ */
NOX_API int32_t nox_allocator_set_allocate_func(NOXAllocator *allocator, NOXAllocateFunc function);
NOX_API int32_t nox_allocator_set_flush_func(NOXAllocator *allocator, NOXFlushFunc function);
NOX_API int32_t nox_allocator_set_finalize_func(NOXAllocator *allocator,
                                                NOXAllocatorFinalizeFunc function);
/** @} */

/** The buffer that the allocate function answers with for the request, one reference
 * the caller's; null when it has none, and without such a function. */
NOX_API NOXBuffer *nox_allocator_alloc(NOXAllocator *allocator, NOXBufferRequest *request);

/** What the flush function answers for the buffer, which stays the caller's; 0
 * without one. */
NOX_API int32_t nox_allocator_flush(NOXAllocator *allocator, NOXBuffer *buffer);

#ifdef __cplusplus
}
#endif

#endif
