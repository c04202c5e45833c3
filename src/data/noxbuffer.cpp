// The buffer: up to three memory blocks, how they come and go, and copying. The
// plain accessors of its fields are in noxbuffer_fields.cpp.

#include "noxbuffer.h"

#include <algorithm>
#include <cstring>

#include "internal/guard.h"
#include "internal/trace.h"

namespace
{

constexpr char kSource[] = "noxbuffer";

using BufferReference = nox::ObjectReference<NOXBuffer>;
using MemoryReference = nox::ObjectReference<NOXMemory>;

// The slots are few and this is the road of every frame, hence no loop.
int32_t occupied_slots(const NOXBuffer *buffer)
{
    return (buffer->mems[0] != nullptr) + (buffer->mems[1] != nullptr) +
           (buffer->mems[2] != nullptr);
}

NOXMemory **free_slot(NOXBuffer *buffer)
{
    if (buffer->mems[0] == nullptr)
        return &buffer->mems[0];
    if (buffer->mems[1] == nullptr)
        return &buffer->mems[1];
    return buffer->mems[2] == nullptr ? &buffer->mems[2] : nullptr;
}

void clear_slot(NOXMemory *&slot)
{
    NOXMemory *memory = slot;
    slot = nullptr;
    nox_object_delete(memory);
}

int32_t finalize_buffer(void *object)
{
    auto *buffer = static_cast<NOXBuffer *>(object);
    if (buffer->finalize_func != nullptr)
        buffer->finalize_func(buffer);
    nox_buffer_delete_memory_all(buffer);
    buffer->datasize = 0;
    return 0;
}

MemoryReference copy_memory(const NOXMemory *source)
{
    MemoryReference copy(nox_memory_new(source->datasize));
    if (copy && source->data != nullptr && source->datasize != 0)
        std::memcpy(copy->data, source->data, source->datasize);
    return copy;
}

} // namespace

NOXBuffer *nox_buffer_new(uint32_t size)
{
    BufferReference buffer(
        static_cast<NOXBuffer *>(nox_object_new(sizeof(NOXBuffer), "noxbuffer", 0)));
    if (!buffer) {
        NOX_TRACE(OSA_TRACE_ERROR, "can not allocation newbuf size (%d)\n",
                  static_cast<int>(sizeof(NOXBuffer)));
        return nullptr;
    }
    // A record from a pool may have been a buffer before.
    buffer->datasize = 0;
    std::fill(std::begin(buffer->mems), std::end(buffer->mems), nullptr);
    buffer->object.finalize = finalize_buffer;
    if (size == 0)
        return buffer.release();
    NOXMemory *memory = nox_memory_new(size);
    if (memory == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "can not allocation data. size(%d)\n", size);
        return nullptr;
    }
    nox_buffer_append_memory(buffer.get(), memory); // takes over our reference
    buffer->data = memory->data;
    return buffer.release();
}

NOXBuffer *nox_buffer_dup(NOXBuffer *source)
{
    BufferReference copy(nox_buffer_new(0));
    if (!copy)
        return nullptr;
    for (const NOXMemory *memory : source->mems) {
        if (memory == nullptr)
            continue;
        MemoryReference memory_copy = copy_memory(memory);
        if (!memory_copy)
            return nullptr;
        nox_buffer_append_memory(copy.get(), memory_copy.release()); // takes it over
    }
    nox_buffer_copy_metadata(source, copy.get());
    return copy.release();
}

void nox_buffer_copy_metadata(const NOXBuffer *source, NOXBuffer *destination)
{
    destination->timestamp = source->timestamp;
    destination->duration = source->duration;
    destination->mediatype = source->mediatype;
    destination->frametype = source->frametype;
    destination->index = source->index;
    destination->bufindex = source->bufindex;
}

uint32_t nox_buffer_get_size(void)
{
    return sizeof(NOXBuffer);
}

int32_t nox_buffer_append_memory(NOXBuffer *buffer, NOXMemory *memory)
{
    NOXMemory **slot = free_slot(buffer);
    if (slot != nullptr && memory != nullptr) {
        *slot = memory; // takes over the caller's reference
        buffer->datasize += memory->datasize;
    }
    return occupied_slots(buffer);
}

int32_t nox_buffer_get_memcnt(const NOXBuffer *buffer)
{
    if (buffer == nullptr)
        return 0;
    int32_t count = NOX_BUFFER_MEMORIES;
    while (count > 0 && buffer->mems[count - 1] == nullptr)
        --count;
    return count;
}

NOXMemory *nox_buffer_get_memory(NOXBuffer *buffer, int32_t index)
{
    return index >= 0 && index < NOX_BUFFER_MEMORIES ? buffer->mems[index] : nullptr;
}

int32_t nox_buffer_delete_memory_idx(NOXBuffer *buffer, int32_t index)
{
    if (nox_buffer_get_memory(buffer, index) == nullptr) {
        NOX_TRACE(OSA_TRACE_ERROR, "invalid memory index(%d)\n", index);
        return -1;
    }
    clear_slot(buffer->mems[index]);
    return occupied_slots(buffer);
}

int32_t nox_buffer_delete_memory_mem(NOXBuffer *buffer, NOXMemory *memory)
{
    bool found = false;
    for (NOXMemory *&slot : buffer->mems) {
        if (slot == nullptr || slot != memory)
            continue;
        clear_slot(slot);
        found = true;
    }
    if (!found) {
        NOX_TRACE(OSA_TRACE_ERROR, "invalid memory (%x)\n", nox::low32(memory));
        return -1;
    }
    return occupied_slots(buffer);
}

int32_t nox_buffer_delete_memory_all(NOXBuffer *buffer)
{
    for (NOXMemory *&slot : buffer->mems)
        if (slot != nullptr)
            clear_slot(slot);
    return 0;
}

int32_t nox_buffer_sync(NOXBuffer *buffer)
{
    return buffer->syncfunc != nullptr ? buffer->syncfunc(buffer->private_, buffer) : 0;
}
