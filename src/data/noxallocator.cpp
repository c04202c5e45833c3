// The allocator: an owner's functions behind one object.

#include "noxallocator.h"

#include "internal/trace.h"

namespace
{

constexpr char kSource[] = "noxallocator";

int32_t finalize_allocator(void *object)
{
    auto *allocator = static_cast<NOXAllocator *>(object);
    NOX_TRACE_FOR("nox_object_delete", OSA_TRACE_VERBOSE, "Enter. alloc(%x)\n",
                  nox::low32(allocator));
    if (allocator->finalize_func != nullptr)
        allocator->finalize_func(allocator);
    return 0;
}

} // namespace

NOXAllocator *nox_allocator_new(void *owner)
{
    auto *allocator =
        static_cast<NOXAllocator *>(nox_object_new(sizeof(NOXAllocator), "noxallocator", 1));
    if (allocator == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "can not allocation allocator size (%d)\n",
                  static_cast<int>(sizeof(NOXAllocator)));
        return nullptr;
    }
    allocator->owner = owner;
    nox_object_set_parent(allocator, owner);
    allocator->object.finalize = finalize_allocator;
    return allocator;
}

uint32_t nox_allocator_get_size(void)
{
    return sizeof(NOXAllocator);
}

int32_t nox_allocator_set_allocate_func(NOXAllocator *allocator, NOXAllocateFunc function)
{
    NOX_TRACE(OSA_TRACE_INFO, "Enter. allocator(%x) func(%x)\n", nox::low32(allocator),
              nox::low32(function));
    allocator->allocate_func = function;
    return 0;
}

int32_t nox_allocator_set_flush_func(NOXAllocator *allocator, NOXFlushFunc function)
{
    NOX_TRACE(OSA_TRACE_INFO, "Enter. allocator(%x) funx(%x)\n", nox::low32(allocator),
              nox::low32(function));
    allocator->flush_func = function;
    return 0;
}

int32_t nox_allocator_set_finalize_func(NOXAllocator *allocator, NOXAllocatorFinalizeFunc function)
{
    NOX_TRACE(OSA_TRACE_INFO, "Enter. allocator(%x) func(%x)\n", nox::low32(allocator),
              nox::low32(function));
    allocator->finalize_func = function;
    return 0;
}

NOXBuffer *nox_allocator_alloc(NOXAllocator *allocator, NOXBufferRequest *request)
{
    if (allocator->allocate_func == nullptr)
        return nullptr;
    return allocator->allocate_func(allocator->owner, request);
}

int32_t nox_allocator_flush(NOXAllocator *allocator, NOXBuffer *buffer)
{
    if (allocator->flush_func == nullptr)
        return 0;
    return allocator->flush_func(allocator->owner, buffer);
}
