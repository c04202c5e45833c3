// Fault injection: calls are numbered the same in every run, and exactly the
// planned ones fail.

#include <gtest/gtest.h>

#include "osa/sim/osasim.h"

namespace
{

// Six fallible calls; one digit each: 1 for success.
std::string six_calls()
{
    std::string results;
    const auto note = [&results](bool succeeded) { results += succeeded ? '1' : '0'; };
    void *block = OSA_Malloc(8, 0, 0, "maker", 12, "make");
    note(block != nullptr);
    OSA_Free(block, 0);
    OSA_List *list = OSA_ListCreate();
    note(list != nullptr);
    OSA_ListDestroy(list);
    OSA_Mutex *mutex = OSA_MutexCreate();
    note(mutex != nullptr);
    OSA_MutexDestroy(mutex);
    OSA_Event *event = OSA_EventCreate(0);
    note(event != nullptr);
    OSA_EventDestroy(event);
    OSA_Queue *queue = OSA_QueueCreate("queue", 0);
    note(queue != nullptr);
    note(OSA_QueuePush(queue, &results, 1) == 0);
    OSA_QueueDestroy(queue);
    return results;
}

TEST(Faults, ExactlyThePlannedCallsFail)
{
    const struct {
        void (*plan)();
        const char *results;
        uint64_t failed;
    } cases[] = {
        {[] { SIM_FailNone(); }, "111111", 0},    {[] { SIM_FailNth(1); }, "011111", 1},
        {[] { SIM_FailNth(6); }, "111110", 1},    {[] { SIM_FailNth(2, 4); }, "101011", 2},
        {[] { SIM_FailFrom(3); }, "110000", 4},   {[] { SIM_FailNth(7); }, "111111", 0},
        {[] { SIM_FailNth(5, 3); }, "110100", 2},
    };
    for (const auto &one : cases) {
        SIM_Begin();
        one.plan();
        EXPECT_EQ(one.results, six_calls());
        EXPECT_EQ(6u, SIM_FallibleCount());
        EXPECT_EQ(one.failed, SIM_FailedCount());
        EXPECT_EQ("", SIM_End());
    }
}

TEST(Faults, ACallIsToldByOperationCallerAndThread)
{
    SIM_Begin();
    SIM_FailNth(1);
    six_calls();
    EXPECT_EQ("", SIM_End());
    EXPECT_EQ("call 1: OSA_Malloc from maker:12 make on thread \"main\", failed",
              SIM_FallibleText(1));
    EXPECT_NE(std::string::npos, SIM_FallibleText(2).find("OSA_ListCreate from test_osa_sim"));
    EXPECT_EQ("call 7 was not made", SIM_FallibleText(7));
}

} // namespace
