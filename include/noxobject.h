/**
 * @file
 * noxobject: the header that every record of the library begins with.
 *
 * A plugin, a pipe, a bus, a clock, an allocator, a buffer, a memory block and
 * a structure are all objects: a record whose first field is NOXObject, counted
 * by references. A constructor returns one reference; each holder that keeps a
 * pointer for longer than a call takes one more and gives it back:
 *
 *     NOXBuffer *kept = nox_object_refer(buffer);
 *     ...
 *     nox_object_delete(kept);
 *
 * The last nox_object_delete runs the record's finalizer and releases it. A
 * record of one's own begins with NOXObject as well and is made with
 * nox_object_new(sizeof(MyRecord), "name", 0).
 *
 * Every function takes `object` as a pointer to any record that begins with
 * NOXObject. Unless said otherwise it must not be null, and the call may be made on
 * any thread that holds a reference.
 */
#ifndef NOX_NOXOBJECT_H
#define NOX_NOXOBJECT_H

#include <stdint.h>

#include "osa/osa.h"

#if defined(__GNUC__)
#define NOX_API __attribute__((visibility("default")))
#else
#define NOX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** A record's destructor, called once with the object by the last
 * nox_object_delete, on its thread. It releases what the fields hold, not the record.
 * Non-zero is traced; the record is released all the same. */
typedef int32_t (*NOXObjectFinalizeFunc)(void *object);

/** The header. Read its fields freely; write them through the operations. */
typedef struct NOXObject {
    uint32_t size;                  /**< bytes of the whole record, this header included */
    uint8_t origin_;                /**< internal: where the record's memory came from */
    char *name;                     /**< never null; fixed at creation */
    uint32_t refcount;              /**< holders; changed atomically */
    void *parent;                   /**< the owner, or null; no reference is held */
    OSA_Mutex *mutex;               /**< of a lockable object, else null */
    NOXObjectFinalizeFunc finalize; /**< the record's destructor, or null */
    OSA_Library *library;           /**< the library a plugin came from, else null */
} NOXObject;

/** A new record of `size` bytes (at least sizeof(NOXObject)), zero after its header, with
 * one reference that the caller owns. `name` is copied; null names it "unknown". A
 * non-zero `lockable` gives it a mutex. A record that is not lockable and has exactly the
 * size of a registered pool comes from that pool and carries the pool's name. Null, after
 * a level-1 trace, for a smaller `size` and when memory or mutex cannot be had. Any
 * thread. */
NOX_API void *nox_object_new(uint32_t size, const char *name, uint8_t lockable);

/** Takes one more reference; returns `object`. */
NOX_API void *nox_object_refer(void *object);

/** Gives one reference back (null is ignored). The last one runs the finalizer,
 * destroys the mutex, unloads the plugin library and releases the record, on
 * the calling thread. A count that is 0 already is traced at level 1 and left. */
NOX_API void nox_object_delete(void *object);

/** The count at this moment; other threads may change it at once. */
NOX_API uint32_t nox_object_get_refcount(void *object);

/** A copy of the name that the caller frees with free(), or null when there is
 * no memory for one. */
NOX_API char *nox_object_get_name(void *object);

/** Returns 0 and changes nothing: a name is fixed at creation. */
NOX_API int32_t nox_object_set_name(void *object, const char *name);

/** Stores the owner (may be null) without taking a reference; 0. One thread at a time. */
NOX_API int32_t nox_object_set_parent(void *object, void *parent);

/** The owner last stored, lent, or null. */
NOX_API void *nox_object_get_parent(void *object);

/** Locks the object's recursive mutex, waiting without limit; the OS layer's answer, 0 for
 * locked. -1, after a level-1 trace, for an object that is not lockable. */
NOX_API int32_t nox_object_lock(void *object);

/** Unlocks on the thread that locked; results as for nox_object_lock. */
NOX_API int32_t nox_object_unlock(void *object);

/** The finalizer, or null. */
NOX_API NOXObjectFinalizeFunc nox_object_get_finalize_func(void *object);

/** Stores a finalizer (may be null), replacing one that is set, which is traced at level
 * 1; 0. By the creator, before the object is shared. For records of one's own: the
 * library's records rely on theirs, and lose what they hold without it. */
NOX_API int32_t nox_object_set_finalize_func(void *object, NOXObjectFinalizeFunc finalize);

/** Size in bytes of NOXObject. */
NOX_API uint32_t nox_object_get_size(void);

#ifdef __cplusplus
}
#endif

#endif
