// The object header: allocation, reference counting, and release of every record
// of the library.
//
// Invariant: a record goes back to where it came from. That is remembered in the
// record (`origin_`) and never guessed from its size, because a lockable record
// from the heap may be exactly as large as a pool's block.

#include "noxobject.h"

#include "internal/atomic_field.h"
#include "internal/guard.h"
#include "internal/trace.h"

namespace
{

constexpr char kSource[] = "noxobject";

enum Origin : uint8_t { kFromHeap = 0, kFromPool = 1 };

NOXObject *header(void *object)
{
    return static_cast<NOXObject *>(object);
}

// Kept out of line: the road of a pooled record, one for every frame, would pay for
// the registers that this needs.
[[gnu::noinline]] NOXObject *new_on_heap(uint32_t size, const char *name, bool lockable)
{
    // Under the public name, so that a listing of live blocks says what to look for.
    nox::Block<NOXObject> object(
        static_cast<NOXObject *>(OSA_Malloc(size, 0, 0, kSource, __LINE__, "nox_object_new")));
    if (!object)
        return nullptr;
    if (lockable) {
        object->mutex = OSA_MutexCreate();
        if (object->mutex == nullptr)
            return nullptr;
    }
    object->name = nox::copy_text(name != nullptr ? name : "unknown").release();
    if (object->name == nullptr) {
        if (lockable)
            OSA_MutexDestroy(object->mutex);
        return nullptr;
    }
    return object.release();
}

NOXObject *new_in_pool(uint32_t size)
{
    auto *object = static_cast<NOXObject *>(OSA_SMalloc(size));
    if (object == nullptr)
        return nullptr;
    object->origin_ = kFromPool;
    // The pool owns its name; no record ever writes to it.
    object->name = const_cast<char *>(OSA_SMemGetName(size));
    return object;
}

NOXObject *new_record(uint32_t size, const char *name, bool lockable)
{
    if (size < sizeof(NOXObject))
        return nullptr;
    if (!lockable && OSA_SMemIsReg(size))
        return new_in_pool(size);
    return new_on_heap(size, name, lockable);
}

void release_record(NOXObject *object)
{
    if (object->origin_ == kFromPool) {
        OSA_SFree(object, object->size);
        return;
    }
    std::free(object->name);
    OSA_Free(object, 0);
}

void destroy(NOXObject *object)
{
    if (object->finalize != nullptr && object->finalize(object) != 0)
        NOX_TRACE_OBJECT_FOR("nox_object_delete", object, OSA_TRACE_ERROR,
                             "object(%x) name(%s) finalize error\n", nox::low32(object),
                             nox::name_of(object));
    if (object->mutex != nullptr)
        OSA_MutexDestroy(object->mutex);
    // Only after the finalizer, whose code may live in this library.
    if (object->library != nullptr)
        OSA_LibraryUnLoad(object->library);
    release_record(object);
}

bool check_lockable(NOXObject *object, const char *function = __builtin_FUNCTION())
{
    if (object->mutex != nullptr)
        return true;
    NOX_TRACE_OBJECT_FOR(function, object, OSA_TRACE_ERROR, "%s invalid mutex handle\n",
                         nox::name_of(object));
    return false;
}

} // namespace

void *nox_object_new(uint32_t size, const char *name, uint8_t lockable)
{
    NOXObject *object = new_record(size, name, lockable != 0);
    if (object == nullptr) {
        NOX_TRACE_AS("null", OSA_TRACE_ERROR, "object create failed. size (%d)\n", size);
        return nullptr;
    }
    object->size = size;
    object->refcount = 1;
    return object;
}

void *nox_object_refer(void *object)
{
    nox::atomic_field(header(object)->refcount).fetch_add(1, std::memory_order_seq_cst);
    return object;
}

void nox_object_delete(void *pointer)
{
    NOXObject *object = header(pointer);
    if (object == nullptr)
        return;
    if (nox::load_relaxed(object->refcount) == 0) {
        NOX_TRACE_OBJECT(object, OSA_TRACE_ERROR,
                         "invalid refcount(%d) name(%s), size(%d), parent(%x)\n", 0,
                         nox::name_of(object), object->size, nox::low32(object->parent));
        return;
    }
    // Ordered, so that the thread that takes the count to 0 sees every write that
    // the other holders made before they let go.
    if (nox::atomic_field(object->refcount).fetch_sub(1, std::memory_order_seq_cst) == 1)
        destroy(object);
}

uint32_t nox_object_get_refcount(void *object)
{
    return nox::load_relaxed(header(object)->refcount);
}

char *nox_object_get_name(void *object)
{
    return nox::copy_text(header(object)->name).release();
}

int32_t nox_object_set_name(void *, const char *)
{
    return 0;
}

int32_t nox_object_set_parent(void *object, void *parent)
{
    header(object)->parent = parent;
    return 0;
}

void *nox_object_get_parent(void *object)
{
    return header(object)->parent;
}

int32_t nox_object_lock(void *object)
{
    if (!check_lockable(header(object)))
        return -1;
    return OSA_MutexLock(header(object)->mutex, OSA_WAIT_FOREVER);
}

int32_t nox_object_unlock(void *object)
{
    if (!check_lockable(header(object)))
        return -1;
    return OSA_MutexUnLock(header(object)->mutex);
}

NOXObjectFinalizeFunc nox_object_get_finalize_func(void *object)
{
    return header(object)->finalize;
}

int32_t nox_object_set_finalize_func(void *object, NOXObjectFinalizeFunc finalize)
{
    if (header(object)->finalize != nullptr)
        NOX_TRACE_OBJECT(object, OSA_TRACE_ERROR, "already set finalize function\n");
    header(object)->finalize = finalize;
    return 0;
}

uint32_t nox_object_get_size(void)
{
    return sizeof(NOXObject);
}
