// What carries media: memory blocks, buffers, allocators.

#include "tests/core/on_stage.h"

namespace
{

using Memory = OnStage;
using Buffer = OnStage;
using Allocator = OnStage;

int32_t note_memory(NOXMemory *memory)
{
    note("memory " + std::to_string(memory->data[0])); // its bytes are still there
    return memory->data[0] == 99 ? -1 : 0;
}

// A block whose first byte tells it apart.
NOXMemory *new_marked(uint8_t mark, uint32_t size)
{
    NOXMemory *memory = nox_memory_new(size);
    memory->data[0] = mark;
    nox_memory_set_finalize_func(memory, note_memory);
    return memory;
}

NOXBuffer *new_three_blocks()
{
    NOXBuffer *buffer = nox_buffer_new(0);
    for (uint8_t slot = 0; slot < 3; ++slot)
        EXPECT_EQ(slot + 1, nox_buffer_append_memory(buffer, new_marked(slot, slot + 10u)));
    return buffer;
}

TEST_F(Memory, OwnedBytesGoWithTheBlockAndBorrowedOnesStay)
{
    log_enabled = true;
    NOXMemory *owner = new_marked(99, 4096);
    EXPECT_EQ(4096u, nox_memory_get_datasize(owner));
    EXPECT_EQ(100u, nox_memory_set_datasize(owner, 100)); // says nothing about what is owned
    nox_object_delete(owner);
    EXPECT_EQ(1u, SIM_TraceCount(" name(NOXMemory) finalize error\n", 1));

    uint8_t frame[2] = {2, 0};
    NOXMemory *borrower = nox_memory_new(0);
    EXPECT_TRUE(borrower->data == nullptr && borrower->datasize + borrower->allocsize == 0);
    nox_memory_set_data(borrower, frame);
    nox_memory_set_datasize(borrower, sizeof(frame));
    nox_memory_set_private(borrower, &frame[1]); // what the hook needs of its owner's
    nox_memory_set_finalize_func(borrower, [](NOXMemory *memory) -> int32_t {
        *static_cast<uint8_t *>(nox_memory_get_private(memory)) = 7;
        return note_memory(memory);
    });
    nox_object_delete(borrower);
    EXPECT_EQ((Log{"memory 99", "memory 2"}), take_log());
    EXPECT_EQ(7, frame[1]);

    NOXMemory *robbed = nox_memory_new(10);
    OSA_Free(robbed->data, 0);
    nox_memory_set_data(robbed, nullptr);
    nox_object_delete(robbed);
    EXPECT_EQ(1u, traced("noxmemory", 1, "critical memory error invalid data pointer"));
}

TEST_F(Buffer, FourthBlockStaysWithTheCallerAndAHoleIsFilledFirst)
{
    NOXBuffer *single = keep(nox_buffer_new(1000)), *buffer = keep(new_three_blocks());
    EXPECT_EQ(1, nox_buffer_get_memcnt(single) + nox_buffer_get_memcnt(nullptr));
    EXPECT_EQ(nox_buffer_get_memory(single, 0)->data, nox_buffer_get_data(single));
    NOXMemory *fourth = keep(nox_memory_new(13)), *last = nox_buffer_get_memory(buffer, 2);
    EXPECT_EQ(3, nox_buffer_append_memory(buffer, fourth));
    EXPECT_EQ(33u, nox_buffer_get_datasize(buffer));
    EXPECT_EQ(2, nox_buffer_delete_memory_idx(buffer, 1));
    EXPECT_EQ(3, nox_buffer_get_memcnt(buffer));
    EXPECT_EQ(33u, nox_buffer_get_datasize(buffer));
    for (int32_t invalid : {1, -1, 3}) {
        EXPECT_EQ(-1, nox_buffer_delete_memory_idx(buffer, invalid));
        EXPECT_EQ(nullptr, nox_buffer_get_memory(buffer, invalid));
        EXPECT_EQ(1u,
                  traced("noxbuffer", 1, "invalid memory index(" + std::to_string(invalid) + ")"));
    }
    // The same block in two slots: each holds a reference and gives it up.
    nox_object_refer(last);
    EXPECT_EQ(3, nox_buffer_append_memory(buffer, last));
    EXPECT_EQ(last, nox_buffer_get_memory(buffer, 1));
    EXPECT_EQ(1, nox_buffer_delete_memory_mem(buffer, last));
    EXPECT_EQ(-2, nox_buffer_delete_memory_mem(buffer, last) +
                      nox_buffer_delete_memory_mem(buffer, nullptr));
    EXPECT_EQ(2u, SIM_TraceCount("invalid memory (", 1));
    EXPECT_EQ(0, nox_buffer_delete_memory_all(buffer) + nox_buffer_get_memcnt(buffer));
}

TEST_F(Buffer, DuplicateCopiesBytesAndSixFieldsAndSkipsHoles)
{
    NOXBuffer *source = keep(new_three_blocks());
    source->timestamp = 1;
    source->duration = 2;
    source->durationUs = 3;
    nox_buffer_set_mediatype(source, 4);
    nox_buffer_set_frametype(source, 5);
    source->index = 6;
    nox_buffer_set_bufindex(source, -7);
    nox_buffer_set_private(source, source);
    const NOXBufferPrivate2 pair{8, 9};
    nox_buffer_set_private2(source, &pair);
    nox_buffer_set_extradata(source, source, 10);
    nox_buffer_set_parent(source, source);
    nox_buffer_set_syncfunc(source, [](void *, NOXBuffer *) { return 0; });
    nox_buffer_set_finalize_func(
        source, [](NOXBuffer *) { return 0; }, 11);
    nox_buffer_delete_memory_idx(source, 1);
    NOXBuffer *copy = keep(nox_buffer_dup(source));
    EXPECT_EQ(2, nox_buffer_get_memcnt(copy));
    EXPECT_EQ(22u, nox_buffer_get_datasize(copy)); // 10 + 12
    for (int32_t slot : {0, 1}) {
        const NOXMemory *from = source->mems[slot * 2], *to = copy->mems[slot];
        EXPECT_NE(from->data, to->data);
        EXPECT_TRUE(
            std::equal(from->data, from->data + from->datasize, to->data, to->data + to->datasize));
    }
    EXPECT_TRUE(copy->timestamp == 1 && copy->duration == 2 && copy->index == 6);
    EXPECT_TRUE(nox_buffer_get_mediatype(copy) == 4 && nox_buffer_get_frametype(copy) == 5 &&
                nox_buffer_get_bufindex(copy) == -7);
    EXPECT_EQ(0u, copy->durationUs + copy->param + nox_buffer_get_extradatasize(copy) +
                      nox_buffer_get_private2(copy)->value64);
    for (void *field : {nox_buffer_get_private(copy), nox_buffer_get_extradata(copy),
                        nox_buffer_get_parent(copy)})
        EXPECT_EQ(nullptr, field);
    EXPECT_TRUE(!copy->finalize_func && !copy->syncfunc && !copy->data);
}

TEST_F(Buffer, HooksOfTheProducerRunOnceAndBeforeThoseOfTheBlocks)
{
    log_enabled = true;
    NOXBuffer *buffer = new_three_blocks();
    EXPECT_EQ(0, nox_buffer_sync(buffer));
    nox_buffer_set_private(buffer, &stage);
    nox_buffer_set_syncfunc(buffer, [](void *value, NOXBuffer *synced) {
        return value == nox_buffer_get_private(synced) ? 3 : -1;
    });
    EXPECT_EQ(3, nox_buffer_sync(buffer));
    const NOXBufferFinalizeFunc hook = [](NOXBuffer *dying) {
        note("buffer " + std::to_string(nox_buffer_get_param(dying) >> 32));
        return -1; // not looked at
    };
    nox_buffer_set_finalize_func(buffer, hook, uint64_t{9} << 32);
    nox_object_delete(nox_object_refer(buffer));
    nox_object_delete(buffer);
    EXPECT_EQ((Log{"buffer 9", "memory 0", "memory 1", "memory 2"}), take_log());
    EXPECT_EQ(0u, SIM_TraceCount("finalize error"));
}

struct Owner {
    NOXBufferRequest *request;
    NOXBuffer *flushed;
    uint32_t finalized;
};

TEST_F(Allocator, FunctionsGetTheOwnerAndTheFinalizerTheAllocatorOnce)
{
    Owner owner = {};
    NOXAllocator *allocator = nox_allocator_new(&owner);
    EXPECT_EQ(&owner, nox_object_get_parent(allocator));
    NOXBufferRequest request = {1, 0, {50}};
    EXPECT_EQ(nullptr, nox_allocator_alloc(allocator, &request));
    EXPECT_EQ(0, nox_allocator_flush(allocator, nullptr));
    nox_allocator_set_allocate_func(allocator, [](void *self, NOXBufferRequest *asked) {
        static_cast<Owner *>(self)->request = asked;
        return nox_buffer_new(asked->sizes[0]);
    });
    nox_allocator_set_flush_func(allocator, [](void *self, NOXBuffer *buffer) {
        static_cast<Owner *>(self)->flushed = buffer;
        return 5;
    });
    nox_allocator_set_finalize_func(allocator, [](NOXAllocator *dying) {
        ++static_cast<Owner *>(dying->owner)->finalized;
        return 0;
    });
    NOXBuffer *buffer = keep(nox_allocator_alloc(allocator, &request));
    EXPECT_EQ(5, nox_allocator_flush(allocator, buffer));
    EXPECT_TRUE(owner.request == &request && owner.flushed == buffer);
    nox_object_delete(allocator);
    EXPECT_EQ(1u, owner.finalized);
}

} // namespace
