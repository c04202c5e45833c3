// The buffer adapter: bytes in, bytes out, and when each buffer is let go.

#include "on_stage.h"

namespace
{

class BufferAdapter : public OnStage
{
protected:
    // A buffer of blocks of these sizes; its bytes count on from those made before.
    NOXBuffer *make(const std::vector<uint32_t> &blocks)
    {
        NOXBuffer *buffer = nox_buffer_new(0);
        for (uint32_t bytes : blocks) {
            NOXMemory *memory = nox_memory_new(bytes);
            for (uint32_t i = 0; i < bytes; ++i)
                memory->data[i] = m_next_made++;
            nox_buffer_append_memory(buffer, memory);
        }
        return buffer;
    }

    NOXBuffer *add(const std::vector<uint32_t> &blocks)
    {
        NOXBuffer *buffer = make(blocks);
        EXPECT_EQ(0, nox_bufadpt_add(adapter, buffer));
        return buffer;
    }

    // The adapter holds these many bytes, in order, the first of them from `buffer`.
    void expect(uint32_t bytes, const NOXBuffer *buffer)
    {
        uint32_t size = 0;
        NOXBuffer *first = nullptr;
        const uint8_t *data = nox_bufadpt_get_data(adapter, &size, &first);
        ASSERT_NE(nullptr, data);
        EXPECT_EQ(bytes, size);
        EXPECT_EQ(buffer, first);
        EXPECT_EQ(adapter->stage[adapter->active], data) << "always at the start of an area";
        for (uint32_t i = 0; i < size; ++i)
            ASSERT_EQ(static_cast<uint8_t>(m_next_taken + i), data[i]) << "byte " << i;
    }

    void expect_empty()
    {
        uint32_t size = 77;
        NOXBuffer *first = make({});
        NOXBuffer *untouched = first;
        EXPECT_EQ(nullptr, nox_bufadpt_get_data(adapter, &size, &first));
        EXPECT_EQ(77u, size);
        EXPECT_EQ(untouched, first);
        EXPECT_EQ(-1, nox_bufadpt_release_data(adapter, 0));
        EXPECT_EQ(nullptr, nox_bufadpt_get_buf(adapter, 0));
        nox_object_delete(untouched);
    }

    void release(uint32_t bytes)
    {
        const uint32_t active = adapter->active;
        EXPECT_EQ(0, nox_bufadpt_release_data(adapter, bytes));
        EXPECT_EQ(1 - active, adapter->active);
        m_next_taken = static_cast<uint8_t>(m_next_taken + bytes);
    }

    NOXBufAdpt *adapter = keep(nox_bufadpt_new("blocks", 100));

private:
    uint8_t m_next_made = 0;
    uint8_t m_next_taken = 0;
};

} // namespace

TEST_F(BufferAdapter, ReleasesEachBufferWithItsLastByte)
{
    expect_empty();
    NOXBuffer *first = add({100});
    NOXBuffer *second = add({20, 30, 10});
    EXPECT_EQ(1u, nox_object_get_refcount(first)) << "the caller's reference, taken over";
    expect(160, first);
    for (uint32_t bytes : {50u, 30u, 10u})
        release(bytes);
    expect(70, first);
    EXPECT_EQ(second, nox_bufadpt_get_buf(adapter, 1));
    EXPECT_EQ(-1, nox_bufadpt_release_data(adapter, 71));
    release(10);
    expect(60, second);
    EXPECT_EQ(nullptr, nox_bufadpt_get_buf(adapter, 1));
    release(60);
    expect_empty();
}

TEST_F(BufferAdapter, ReleasesAcrossSeveralBuffersAtOnce)
{
    add({10});
    add({}); // carries metadata only
    add({10});
    NOXBuffer *last = add({30});
    release(35);
    expect(15, last);
    EXPECT_EQ(15u, adapter->consumed);
    release(0);
    expect(15, last);
    add({170}); // wraps the counting bytes
    release(185);
    expect_empty();
    EXPECT_EQ(0u, adapter->consumed);
}

TEST_F(BufferAdapter, SkipsEmptySlotsAndLetsGoOfABufferThatLostABlock)
{
    NOXBuffer *buffer = make({3, 0, 4});
    nox_buffer_delete_memory_idx(buffer, 1);
    nox_buffer_append_memory(buffer, nox_memory_new(50));
    nox_buffer_delete_memory_idx(buffer, 1); // the sum in the buffer stays 57
    EXPECT_EQ(0, nox_bufadpt_add(adapter, buffer));
    expect(7, buffer);
    release(7);
    expect_empty();
}

TEST_F(BufferAdapter, RefusesWhatDoesNotFitOrCannotBeQueuedAndChangesNothing)
{
    NOXBuffer *first = add({150});
    NOXBuffer *large = make({51});
    EXPECT_EQ(-1, nox_bufadpt_add(adapter, large));
    EXPECT_EQ(1u, SIM_TraceCount("no room for (51) bytes", 1));
    EXPECT_EQ(-1, nox_bufadpt_add(adapter, nullptr));
    expect(150, first);
    release(1);
    for (uint64_t n : {1u, 2u}) { // the two calls that may fail
        SIM_FailNth(SIM_FallibleCount() + n);
        EXPECT_EQ(-1, nox_bufadpt_add(adapter, large));
        EXPECT_EQ(n, SIM_TraceCount("can not queue buffer", 1));
        SIM_FailNone();
        expect(149, first);
    }
    EXPECT_EQ(0, nox_bufadpt_add(adapter, large)) << "the caller still had it";
    expect(200, first);
}
