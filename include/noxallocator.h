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
 * the allocator takes no lock around them.
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
    uint32_t count;                      /**< memory blocks, 0..3 */
    uint32_t reserved;                   /**< for the allocators' own use */
    uint32_t sizes[NOX_BUFFER_MEMORIES]; /**< bytes of each block, in block order */
} NOXBufferRequest;

/** A new buffer (the caller gets its one reference) laid out as asked, or null
 * when none can be had: the caller then takes one from the heap. */
typedef NOXBuffer *(*NOXAllocateFunc)(void *owner, NOXBufferRequest *request);

/** The owner's flush operation; its meaning is the owner's business. */
typedef int32_t (*NOXFlushFunc)(void *owner, NOXBuffer *buffer);

/** Called once with the allocator when it is destroyed. */
typedef int32_t (*NOXAllocatorFinalizeFunc)(NOXAllocator *allocator);

struct NOXAllocator {
    NOXObject object;
    void *owner; /**< not referenced */
    NOXAllocatorFinalizeFunc finalize_func;
    NOXAllocateFunc allocate_func;
    NOXFlushFunc flush_func;
};

/** A new allocator with one reference and empty functions; `owner` also becomes
 * its object parent. Null, after a level-1 trace, on failure. */
NOX_API NOXAllocator *nox_allocator_new(void *owner);

/** Size in bytes of NOXAllocator. */
NOX_API uint32_t nox_allocator_get_size(void);

/** Store a function (may be null); 0. */
NOX_API int32_t nox_allocator_set_allocate_func(NOXAllocator *allocator, NOXAllocateFunc function);
NOX_API int32_t nox_allocator_set_flush_func(NOXAllocator *allocator, NOXFlushFunc function);
NOX_API int32_t nox_allocator_set_finalize_func(NOXAllocator *allocator,
                                                NOXAllocatorFinalizeFunc function);

/** What the allocate function answers for the request; null without one. */
NOX_API NOXBuffer *nox_allocator_alloc(NOXAllocator *allocator, NOXBufferRequest *request);

/** What the flush function answers for the buffer, which stays the caller's; 0
 * without one. */
NOX_API int32_t nox_allocator_flush(NOXAllocator *allocator, NOXBuffer *buffer);

#ifdef __cplusplus
}
#endif

#endif
