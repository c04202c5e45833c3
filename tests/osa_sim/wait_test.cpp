// What a wait for a mutex, an event or a queue promises, over many schedules.

#include <gtest/gtest.h>

#include "tests/osa_sim/simulated_thread.h"

namespace
{

class EverySchedule : public testing::TestWithParam<uint64_t>
{
protected:
    void SetUp() override
    {
        SIM_Begin({.seed = GetParam()});
    }
    void TearDown() override
    {
        EXPECT_EQ("", SIM_End());
    }
};

INSTANTIATE_TEST_SUITE_P(Wait, EverySchedule, testing::Range<uint64_t>(1, 21));

TEST_P(EverySchedule, AnEventLatchesOnceAndReleasesOneWaiter)
{
    OSA_Event *event = OSA_EventCreate(0);
    OSA_EventSend(event);
    OSA_EventSend(event);
    EXPECT_EQ(0, OSA_EventWait(event, 0));
    EXPECT_NE(0, OSA_EventWait(event, 20));
    EXPECT_EQ(1020u, OSA_GetSystemTick());
    const auto wait = [event] { NOTE(OSA_EventWait(event, 100) == 0 ? "woken\n" : "late\n"); };
    {
        SimulatedThread first("first", wait);
        SimulatedThread second("second", wait);
        OSA_ThreadSleep(10);
        OSA_EventSend(event);
    }
    EXPECT_EQ(1u, SIM_TraceCount("woken"));
    EXPECT_EQ(1u, SIM_TraceCount("late"));
    {
        SimulatedThread waiter("waiter", wait);
        OSA_ThreadSleep(10);
        OSA_EventSend(event); // the waiter's, whoever comes before it has run
        EXPECT_NE(0, OSA_EventWait(event, 0));
        OSA_EventSend(event);
    }
    EXPECT_EQ(2u, SIM_TraceCount("woken"));
    OSA_EventDestroy(event);
}

TEST_P(EverySchedule, AMutexIsRecursiveExcludesOthersAndTimesOut)
{
    OSA_Mutex *mutex = OSA_MutexCreate();
    int counter = 0;
    const auto count = [mutex, &counter] {
        for (int i = 0; i < 10; i++) {
            OSA_MutexLock(mutex, OSA_WAIT_FOREVER);
            const int seen = counter;
            SIM_Point();
            counter = seen + 1;
            OSA_MutexUnLock(mutex);
        }
    };
    {
        SimulatedThread first("first", count);
        SimulatedThread second("second", count);
    }
    EXPECT_EQ(20, counter);

    EXPECT_EQ(0, OSA_MutexLock(mutex, 0));
    EXPECT_EQ(0, OSA_MutexLock(mutex, 0));
    OSA_MutexUnLock(mutex);
    {
        SimulatedThread other("other", [mutex] {
            EXPECT_NE(0, OSA_MutexLock(mutex, 30));
            EXPECT_EQ(1030u, OSA_GetSystemTick());
            EXPECT_EQ(0, OSA_MutexLock(mutex, 30));
            OSA_MutexUnLock(mutex);
        });
        OSA_ThreadSleep(50);
        OSA_MutexUnLock(mutex);
    }
    OSA_MutexDestroy(mutex);
}

TEST_P(EverySchedule, AQueueKeepsOrderAndTimesOut)
{
    OSA_Queue *queue = OSA_QueueCreate("numbers", 0);
    int numbers[10] = {};
    {
        SimulatedThread producer("producer", [&] {
            for (uint32_t i = 0; i < 10; i++)
                EXPECT_EQ(0, OSA_QueuePush(queue, &numbers[i], i));
        });
        for (uint32_t i = 0; i < 10; i++) {
            uint32_t size = 99;
            EXPECT_EQ(&numbers[i], OSA_QueuePop(queue, &size, OSA_WAIT_FOREVER));
            EXPECT_EQ(i, size);
        }
    }
    uint32_t size = 99;
    EXPECT_EQ(nullptr, OSA_QueuePop(queue, &size, 0));
    EXPECT_EQ(1000u, OSA_GetSystemTick());
    EXPECT_EQ(nullptr, OSA_QueuePop(queue, &size, 250));
    EXPECT_EQ(1250u, OSA_GetSystemTick());
    EXPECT_EQ(99u, size);
    OSA_QueueDestroy(queue);
}

} // namespace
