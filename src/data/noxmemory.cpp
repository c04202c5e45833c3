// The memory block: one run of bytes, owned or borrowed, and its release.

#include "noxmemory.h"

#include "internal/guard.h"
#include "internal/trace.h"

namespace
{

constexpr char kSource[] = "noxmemory";

int32_t finalize_memory(void *object)
{
    auto *memory = static_cast<NOXMemory *>(object);
    NOX_TRACE_FOR("nox_object_delete", OSA_TRACE_VERBOSE, "mem(%x) data(%x) size(%d)\n",
                  nox::low32(memory), nox::low32(memory->data), memory->datasize);
    const int32_t result = memory->finalize_func != nullptr ? memory->finalize_func(memory) : 0;
    if (memory->allocsize == 0)
        return result;
    if (memory->data == nullptr)
        NOX_TRACE_FOR("nox_object_delete", OSA_TRACE_ERROR,
                      "critical memory error invalid data pointer\n");
    else
        OSA_Free(memory->data, 0);
    return result;
}

} // namespace

NOXMemory *nox_memory_new(uint32_t size)
{
    nox::ObjectReference<NOXMemory> memory(
        static_cast<NOXMemory *>(nox_object_new(sizeof(NOXMemory), "noxmemory", 0)));
    if (!memory) {
        NOX_TRACE(OSA_TRACE_ERROR, "can not allocation newbuf size (%d)\n",
                  static_cast<int>(sizeof(NOXMemory)));
        return nullptr;
    }
    if (size != 0) {
        memory->data = static_cast<uint8_t *>(NOX_MALLOC(size));
        if (memory->data == nullptr) {
            NOX_TRACE(OSA_TRACE_ERROR, "no memory for the data. size(%u)\n", size);
            return nullptr;
        }
        memory->datasize = memory->allocsize = size;
    }
    memory->object.finalize = finalize_memory;
    return memory.release();
}

uint32_t nox_memory_get_size(void)
{
    return sizeof(NOXMemory);
}

uint8_t *nox_memory_get_data(NOXMemory *memory)
{
    return memory->data;
}

int32_t nox_memory_set_data(NOXMemory *memory, void *data)
{
    memory->data = static_cast<uint8_t *>(data);
    return 0;
}

uint32_t nox_memory_get_datasize(NOXMemory *memory)
{
    return memory->datasize;
}

uint32_t nox_memory_set_datasize(NOXMemory *memory, uint32_t datasize)
{
    return memory->datasize = datasize;
}

void *nox_memory_get_private(NOXMemory *memory)
{
    return memory->private_;
}

int32_t nox_memory_set_private(NOXMemory *memory, void *private_value)
{
    memory->private_ = private_value;
    return 0;
}

int32_t nox_memory_set_finalize_func(NOXMemory *memory, NOXMemoryFinalizeFunc finalize)
{
    memory->finalize_func = finalize;
    return 0;
}
