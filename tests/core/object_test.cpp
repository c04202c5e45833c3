// The object header: where records come from and go back to, who destroys them.

#include <deque>

#include "tests/core/on_stage.h"
#include "tests/support/text_faults.h"

namespace
{

using Object = OnStage;

struct Record {
    NOXObject object;
    int32_t finalize_result;
    uint32_t *finalized; // counts the finalizer's runs and the cells it saw set
    uint32_t written[4]; // one cell for each holder, without a lock
};

Record *new_record(uint32_t *finalized)
{
    auto *record = static_cast<Record *>(nox_object_new(sizeof(Record), "record", 1));
    record->finalized = finalized;
    nox_object_set_finalize_func(record, [](void *object) {
        auto *dying = static_cast<Record *>(object);
        *dying->finalized += 1;
        for (uint32_t value : dying->written)
            *dying->finalized += value;
        return dying->finalize_result;
    });
    return record;
}

TEST_F(Object, GoesBackToWhereItCameFrom)
{
    struct Case {
        uint32_t size;
        const char *given;
        uint8_t lockable;
        const char *name;
        uint32_t pooled;
    };
    const Case cases[] = {
        {nox_buffer_get_size(), "mine", 0, "NOXBuffer", 1},
        {nox_buffer_get_size(), "mine", 1, "mine", 0}, // as large as a pool's block, yet no block
        {nox_memory_get_size(), nullptr, 0, "NOXMemory", 1},
        {nox_memory_get_size() + 8, "mine", 0, "mine", 0},
        {nox_object_get_size(), nullptr, 1, "unknown", 0},
        {nox_allocator_get_size(), "mine", 0, "NOXMemory", 1}, // as large as that
        {nox_structure_get_size(), "mine", 0, "mine", 0},
        {nox_plugin_get_size(), "mine", 0, "mine", 0},
        {nox_basesrc_get_size(), "mine", 0, "mine", 0},
        {nox_basefilter_get_size(), "mine", 0, "mine", 0},
        {nox_basesink_get_size(), "mine", 0, "mine", 0},
        {nox_pipe_get_size(), "mine", 0, "mine", 0},
    };
    for (const Case &test : cases) {
        void *object = nox_object_new(test.size, test.given, test.lockable);
        EXPECT_EQ(test.pooled, alive().pool_blocks) << test.size;
        char *name = nox_object_get_name(object);
        EXPECT_STREQ(test.name, name);
        std::free(name);
        const int32_t locked = nox_object_lock(object) + nox_object_unlock(object);
        EXPECT_EQ(test.lockable ? 0 : -2, locked) << test.size;
        nox_object_delete(object);
    }
    EXPECT_EQ(2u, traced("NOXBuffer", 1, "NOXBuffer invalid mutex handle"));
    EXPECT_EQ(nullptr, nox_object_new(nox_object_get_size() - 1, "small", 0));
    EXPECT_EQ(1u, SIM_TraceCount("object create failed. size (", 1));
    // A pool that comes meanwhile does not claim a record from the heap.
    void *object = nox_object_new(200, "early", 0);
    OSA_SMalloc_Register(200, "late pool");
    nox_object_delete(object);
    OSA_SMalloc_UnRegister(200);
}

TEST_F(Object, LastReferenceRunsTheFinalizerOnceWhateverItAnswers)
{
    for (int32_t result : {0, -1}) {
        uint32_t finalized = 0;
        Record *record = new_record(&finalized);
        record->finalize_result = result;
        EXPECT_EQ(record, nox_object_refer(record));
        nox_object_delete(record);
        EXPECT_EQ(1u, nox_object_get_refcount(record));
        EXPECT_EQ(0u, finalized);
        nox_object_delete(record);
        EXPECT_EQ(1u, finalized);
        EXPECT_EQ(result == 0 ? 0u : 1u, SIM_TraceCount(" name(record) finalize error\n", 1));
    }
}

TEST_F(Object, DeleteAtCountZeroIsTracedAndChangesNothing)
{
    uint32_t finalized = 0;
    Record *record = new_record(&finalized);
    record->object.refcount = 0;
    nox_object_delete(record);
    EXPECT_EQ(0u, nox_object_get_refcount(record) + finalized);
    EXPECT_EQ(1u, traced("record", 1, "invalid refcount(0) name(record), size(88), parent(0)"));
    record->object.refcount = 1;
    nox_object_set_finalize_func(record, nullptr); // replaces, under protest
    EXPECT_EQ(1u, traced("record", 1, "already set finalize function"));
    EXPECT_EQ(nullptr, nox_object_get_finalize_func(record));
    EXPECT_EQ(0, nox_object_set_name(record, "other")) << "names are for life";
    EXPECT_STREQ("record", record->object.name);
    nox_object_delete(record);
    EXPECT_EQ(0u, finalized);
}

TEST(ObjectCreation, FaultInAnyStepIsTracedAndKeepsNothing)
{
    struct Case {
        void *(*create)();
        const char *trace; // of its last step
    };
    const Case cases[] = {
        {[] { return nox_object_new(300, "heap", 0); }, "object create failed. size (300)\n"},
        {[]() -> void * {
             NOXPlugin plugin{};
             NOXBufferRequest request{2, 0, {1, 2}};
             return nox_plugin_get_outbuffer_self(&plugin, &request);
         },
         "new mem is NULL..\n"},
        {[] { return nox_object_new(300, "lockable", 1); }, "object create failed. size (300)\n"},
        {[]() -> void * { return nox_memory_new(0); }, "can not allocation newbuf size (88)\n"},
        {[]() -> void * { return nox_buffer_new(100); }, "can not allocation data. size(100)\n"},
        {[]() -> void * { return nox_allocator_new(nullptr); },
         "can not allocation allocator size (88)\n"},
        {[]() -> void * { return nox_structure_new("s"); }, "structure create failed size(64)\n"},
        {[]() -> void * { return nox_timer_new("clock"); }, "can not create start event\n"},
        {[]() -> void * { return nox_bus_new("bus"); }, "bus msg loop thread create failed\n"},
        {[]() -> void * { return nox_pipe_new("pipe"); }, "pipe thread create failed\n"},
        {[]() -> void * { return nox_bufadpt_new("blocks", 64); }, "two staging areas of 2 x (64)"},
        {[]() -> void * { return new_sink("k"); }, "can not create object size ("},
    };
    for (const Case &test : cases) {
        bool last_step_failed = false;
        for (uint64_t n = 1, failed = 1; failed != 0; ++n) { // each step, then none
            Stage stage;
            SIM_FailNth(SIM_FallibleCount() + n);
            void *object = test.create();
            failed = SIM_FailedCount();
            const bool made = failed == 0 || SIM_TraceCount("can not create state event") == 1;
            EXPECT_EQ(made, object != nullptr) << test.trace;
            EXPECT_EQ(failed == 0, SIM_TraceCount("", 1) == 0) << test.trace;
            last_step_failed |= SIM_TraceCount(test.trace, 1) == 1;
            nox_object_delete(object);
        }
        EXPECT_TRUE(last_step_failed) << test.trace;
    }
}

TEST_F(Object, TextThatCannotBeCopiedIsToldAndKeepsNothing)
{
    NOXBus *bus = keep(nox_bus_new("bus"));
    NOXStructure *structure = keep(nox_structure_new("format"));
    nox_structure_putvar1(NOX_TYPE_STRING, structure, "text", 0, "old");
    struct Case {
        uint64_t copies;
        const char *traced;
        std::function<bool()> act;
    };
    const auto released = [](void *object) {
        nox_object_delete(object);
        return object != nullptr;
    };
    const Case cases[] = {
        {1, "object create failed. size (300)",
         [&] { return released(nox_object_new(300, "heap", 0)); }},
        {1, "object create failed. size (300)",
         [&] { return released(nox_object_new(300, "lockable", 1)); }},
        {2, "can't load plgname(probesink), name(k)", [&] { return released(new_sink("k")); }},
        {2, "message lost. name(me)code(1)",
         [&] { return nox_bus_post_error(bus, "me", 1, "text") == 0; }},
        {1, "structure node craete failed",
         [&] { return nox_structure_putvar1(NOX_TYPE_STRING, structure, "text", 0, "new") == 0; }},
    };
    for (const Case &test : cases)
        for (uint64_t n = 1; n <= test.copies; ++n) {
            OSA_ThreadSleep(1); // the bus hands out what was posted
            SIM_TraceClear();
            const OSA_Alive before = alive();
            fail_text_copy(n);
            EXPECT_FALSE(test.act()) << test.traced;
            EXPECT_TRUE(text_copy_failed()) << test.traced << ", copy " << n;
            EXPECT_EQ(1u, SIM_TraceCount(test.traced, 1)) << SIM_TraceText();
            EXPECT_TRUE(before.blocks == alive().blocks && before.mutexes == alive().mutexes &&
                        before.libraries == alive().libraries)
                << test.traced << SIM_AliveText();
            EXPECT_TRUE(test.act()) << "and once more without a fault: " << test.traced;
        }
}

void hold_and_drop(Record *record, uint32_t &cell)
{
    for (int round = 0; round < 5; ++round) {
        nox_object_refer(record);
        SIM_Point();
        nox_object_delete(record);
    }
    cell = 1;
    SIM_Point();
    nox_object_delete(record);
}

TEST(ObjectThreads, LastHolderSeesTheWritesOfAllAndFinalizesOnce)
{
    under_seeds(50, [] {
        uint32_t finalized = 0;
        Record *record = new_record(&finalized);
        std::deque<Worker> holders;
        for (uint32_t &cell : record->written) {
            nox_object_refer(record);
            holders.emplace_back([record, &cell] { hold_and_drop(record, cell); });
        }
        nox_object_delete(record);
        holders.clear();
        EXPECT_EQ(5u, finalized) << "the finalizer once, and four cells";
    });
}

} // namespace
