// The buffer adapter: a run of bytes over the queued buffers they came from.
//
// Invariants between calls:
//   1. `avail` + `consumed` is the number of bytes in the queued buffers' blocks,
//      and the bytes at `cur` are the unconsumed ones, in order;
//   2. `cur` is null or the start of the active staging area, so that all the
//      room behind the unconsumed bytes is free for an add.

#include "noxbufadpt.h"

#include <cstring>

#include "internal/guard.h"
#include "internal/list_walk.h"
#include "internal/trace.h"

namespace
{

constexpr char kSource[] = "noxbufadpt";

using AdapterReference = nox::ObjectReference<NOXBufAdpt>;

uint32_t bytes_in(const NOXMemory *memory)
{
    return memory != nullptr && memory->data != nullptr ? memory->datasize : 0;
}

// Counted over the blocks: the buffer's own sum does not follow when a block is
// taken out again, and would keep it queued after its last byte.
uint64_t bytes_in(const NOXBuffer *buffer)
{
    uint64_t bytes = 0;
    for (const NOXMemory *memory : buffer->mems)
        bytes += bytes_in(memory);
    return bytes;
}

void append_bytes(NOXBufAdpt *adapter, const NOXBuffer *buffer)
{
    adapter->cur = adapter->stage[adapter->active];
    for (const NOXMemory *memory : buffer->mems) {
        const uint32_t bytes = bytes_in(memory);
        if (bytes == 0)
            continue;
        std::memcpy(adapter->cur + adapter->avail, memory->data, bytes);
        adapter->avail += bytes;
    }
}

NOXBuffer *oldest(const NOXBufAdpt *adapter)
{
    OSA_ListNode *head = nox::head_of(adapter->buffers);
    return head != nullptr ? static_cast<NOXBuffer *>(head->data) : nullptr;
}

void release_oldest(NOXBufAdpt *adapter)
{
    nox_object_delete(nox::take_head(adapter->buffers));
}

// Drops what lies wholly below `consumed` bytes of the queue; returns how many of
// these belong to the buffer that is then the oldest.
uint32_t release_consumed(NOXBufAdpt *adapter, uint64_t consumed)
{
    while (const NOXBuffer *buffer = oldest(adapter)) {
        const uint64_t bytes = bytes_in(buffer);
        if (consumed < bytes)
            break;
        consumed -= bytes;
        release_oldest(adapter);
    }
    return static_cast<uint32_t>(consumed); // no more than `capacity`
}

void move_to_other_stage(NOXBufAdpt *adapter)
{
    adapter->active = 1 - adapter->active;
    uint8_t *stage = adapter->stage[adapter->active];
    std::memcpy(stage, adapter->cur, adapter->avail);
    adapter->cur = stage;
}

int32_t finalize_adapter(void *object)
{
    auto *adapter = static_cast<NOXBufAdpt *>(object);
    if (adapter->buffers != nullptr) {
        while (oldest(adapter) != nullptr)
            release_oldest(adapter);
        OSA_ListDestroy(adapter->buffers);
    }
    for (uint8_t *stage : adapter->stage)
        OSA_Free(stage, 0);
    return 0;
}

bool make_list(NOXBufAdpt *adapter)
{
    adapter->buffers = OSA_ListCreate();
    if (adapter->buffers == nullptr)
        NOX_TRACE_OBJECT_FOR("nox_bufadpt_new", adapter, OSA_TRACE_ERROR,
                             "can not create new list\n");
    return adapter->buffers != nullptr;
}

bool make_stages(NOXBufAdpt *adapter, uint32_t size)
{
    if (size <= UINT32_MAX / 2) {
        adapter->capacity = 2 * size;
        for (uint8_t *&stage : adapter->stage)
            stage = static_cast<uint8_t *>(
                OSA_Malloc(adapter->capacity, 0, -1, kSource, __LINE__, "nox_bufadpt_new"));
    }
    if (adapter->stage[0] != nullptr && adapter->stage[1] != nullptr)
        return true;
    NOX_TRACE_OBJECT_FOR("nox_bufadpt_new", adapter, OSA_TRACE_ERROR,
                         "no memory for two staging areas of 2 x (%u)\n", size);
    return false;
}

} // namespace

NOXBufAdpt *nox_bufadpt_new(const char *name, uint32_t size)
{
    AdapterReference adapter(
        static_cast<NOXBufAdpt *>(nox_object_new(sizeof(NOXBufAdpt), name, 0)));
    if (!adapter) {
        NOX_TRACE_AS("null", OSA_TRACE_ERROR, "can not allocation new bufadpt size (%d)\n",
                     static_cast<int>(sizeof(NOXBufAdpt)));
        return nullptr;
    }
    nox_object_set_finalize_func(adapter.get(), finalize_adapter);
    if (!make_list(adapter.get()) || !make_stages(adapter.get(), size))
        return nullptr;
    return adapter.release();
}

int32_t nox_bufadpt_add(NOXBufAdpt *adapter, NOXBuffer *buffer)
{
    if (buffer == nullptr) {
        NOX_TRACE_OBJECT(adapter, OSA_TRACE_ERROR, "Invalid buffer(%x)\n", 0u);
        return -1;
    }
    const uint64_t bytes = bytes_in(buffer);
    if (bytes > adapter->capacity - adapter->avail) {
        NOX_TRACE_OBJECT(adapter, OSA_TRACE_ERROR, "no room for (%llu) bytes beside (%u) of (%u)\n",
                         static_cast<unsigned long long>(bytes), adapter->avail, adapter->capacity);
        return -1;
    }
    nox::ListNode node(OSA_List_Node_new_data(buffer));
    if (!node || OSA_ListAddTail(adapter->buffers, node.get()) < 0) {
        NOX_TRACE_OBJECT(adapter, OSA_TRACE_ERROR, "can not queue buffer(%x)\n",
                         nox::low32(buffer));
        return -1;
    }
    node.release(); // the list's now, and the caller's reference with it
    append_bytes(adapter, buffer);
    return 0;
}

uint8_t *nox_bufadpt_get_data(NOXBufAdpt *adapter, uint32_t *size, NOXBuffer **buffer)
{
    NOXBuffer *first = oldest(adapter);
    if (first == nullptr)
        return nullptr;
    *size = adapter->avail;
    *buffer = first;
    return adapter->cur;
}

NOXBuffer *nox_bufadpt_get_buf(NOXBufAdpt *adapter, uint32_t position)
{
    OSA_ListNode *node = OSA_List_GetNthList(adapter->buffers, position);
    return node != nullptr ? static_cast<NOXBuffer *>(node->data) : nullptr;
}

int32_t nox_bufadpt_release_data(NOXBufAdpt *adapter, uint32_t size)
{
    if (oldest(adapter) == nullptr || size > adapter->avail)
        return -1;
    adapter->consumed = release_consumed(adapter, uint64_t{adapter->consumed} + size);
    adapter->cur += size;
    adapter->avail -= size;
    move_to_other_stage(adapter);
    return 0;
}
