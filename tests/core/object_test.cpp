// The object header: where records come from and go back to, who destroys them.

#include <deque>

#include "tests/core/on_stage.h"

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
        {sizeof(NOXBuffer), "mine", 0, "NOXBuffer", 1},
        {sizeof(NOXBuffer), "mine", 1, "mine", 0}, // as large as a pool's block, yet no block
        {sizeof(NOXMemory), nullptr, 0, "NOXMemory", 1},
        {sizeof(NOXMemory) + 8, "mine", 0, "mine", 0},
        {sizeof(NOXObject), nullptr, 1, "unknown", 0},
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
        {[] { return nox_object_new(300, "lockable", 1); }, "object create failed. size (300)\n"},
        {[]() -> void * { return nox_memory_new(0); }, "can not allocation newbuf size (88)\n"},
        {[]() -> void * { return nox_buffer_new(100); }, "can not allocation data. size(100)\n"},
        {[]() -> void * { return nox_allocator_new(nullptr); },
         "can not allocation allocator size (88)\n"},
        {[]() -> void * { return nox_structure_new("s"); }, "structure create failed size(64)\n"},
        {[]() -> void * { return nox_timer_new("clock"); }, "can not create start event\n"},
        {[]() -> void * { return nox_bus_new("bus"); }, "bus msg loop thread create failed\n"},
    };
    for (const Case &test : cases) {
        bool last_step_failed = false;
        sweep_faults([&] {
            void *object = test.create();
            EXPECT_EQ(SIM_FailedCount() == 0, object != nullptr) << test.trace;
            EXPECT_EQ(SIM_FailedCount() == 0, SIM_TraceCount("", 1) == 0) << test.trace;
            last_step_failed |= SIM_TraceCount(test.trace, 1) == 1;
            nox_object_delete(object);
        });
        EXPECT_TRUE(last_step_failed) << test.trace;
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
