// The schedule: reproducible by its seed, in virtual time, and never stuck in silence.

#include <chrono>
#include <set>

#include <gtest/gtest.h>

#include "tests/osa_sim/simulated_thread.h"

namespace
{

std::string two_posters(const SIM_Options &options)
{
    SIM_Begin(options);
    {
        SimulatedThread first("first", [] {
            for (int i = 0; i < 8; i++)
                NOTE("first %d\n", i);
        });
        SimulatedThread second("second", [] {
            for (int i = 0; i < 8; i++)
                NOTE("second %d\n", i);
        });
    }
    EXPECT_EQ("", SIM_End());
    return SIM_TraceText();
}

TEST(Schedule, TheSeedAloneDecidesTheInterleaving)
{
    std::set<std::string> runs;
    for (uint64_t seed = 1; seed <= 20; seed++) {
        const std::string text = two_posters({.seed = seed});
        EXPECT_EQ(text, two_posters({.seed = seed})) << "seed " << seed;
        runs.insert(text);
    }
    EXPECT_GT(runs.size(), 15u);
}

TEST(Schedule, SwitchesOnlyWhenBlockedOnRequest)
{
    two_posters({.switch_percent = 0});
    const auto &lines = SIM_Traces();
    ASSERT_EQ(16u, lines.size());
    EXPECT_EQ(lines[0].thread, lines[7].thread);
    EXPECT_NE(lines[0].thread, lines[8].thread);
    EXPECT_EQ(lines[8].thread, lines[15].thread);
}

TEST(Schedule, LongSleepsTakeNoRealTimeAndOverlap)
{
    const auto start = std::chrono::steady_clock::now();
    SIM_Begin({.first_tick = 500});
    {
        SimulatedThread sleeper("sleeper", [] { OSA_ThreadSleep(1'000'000); });
        OSA_ThreadSleep(600'000);
        EXPECT_EQ(600'500u, OSA_GetSystemTick());
    }
    EXPECT_EQ(1'000'500u, OSA_GetSystemTick());
    EXPECT_EQ("", SIM_End());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

TEST(Schedule, SettingTheTickLeavesWaitsAloneAndAdvancingEndsThem)
{
    SIM_Begin({.switch_percent = 0});
    {
        SimulatedThread sleeper("sleeper", [] {
            OSA_ThreadSleep(100);
            NOTE("awake\n");
        });
        OSA_ThreadSleep(10);
        SIM_TickSet(UINT64_MAX - 5);
        OSA_ThreadSleep(10);
        EXPECT_EQ(4u, OSA_GetSystemTick());
        EXPECT_EQ(0u, SIM_TraceCount("awake"));
        SIM_TickAdvance(80);
        OSA_ThreadSleep(1);
        EXPECT_EQ(1u, SIM_TraceCount("awake", OSA_TRACE_VERBOSE));
        EXPECT_EQ(84u, SIM_Traces().back().tick);
    }
    EXPECT_EQ("", SIM_End());
}

TEST(Schedule, ASlowThreadIsNamedWhileItIsWaitedFor)
{
    SIM_Begin();
    {
        SimulatedThread slow("slow", [] { OSA_ThreadSleep(12'000); });
    }
    EXPECT_EQ(2u, SIM_TraceCount("\"slow\"", OSA_TRACE_ERROR));
    EXPECT_EQ(2'000u, SIM_Traces()[0].tick);
    EXPECT_EQ(12'000u, SIM_Traces()[1].tick);
    EXPECT_EQ("", SIM_End());
}

TEST(Schedule, AThreadEndsInTheMiddleWithItsStatus)
{
    SIM_Begin();
    OSA_Queue *itself = OSA_QueueCreate("itself", 0);
    const OSA_ThreadEntry entry = [](void *queue) -> int32_t {
        void *self = OSA_QueuePop(static_cast<OSA_Queue *>(queue), nullptr, OSA_WAIT_FOREVER);
        EXPECT_NE(0, OSA_ThreadDelete(static_cast<OSA_Thread *>(self), nullptr));
        OSA_ThreadExit(42);
        ADD_FAILURE() << "came back";
        return 0;
    };
    OSA_Thread *thread = OSA_ThreadCreate("ending", 0, 0, entry, itself);
    OSA_QueuePush(itself, thread, 0);
    int32_t status = 0;
    EXPECT_EQ(0, OSA_ThreadDelete(thread, &status));
    EXPECT_EQ(42, status);
    EXPECT_EQ(1u, SIM_TraceCount("\"ending\"", OSA_TRACE_ERROR));
    OSA_QueueDestroy(itself);
    EXPECT_EQ("", SIM_End());
}

// A flag looked at without the lock that the sender holds while it sets it: the
// wake-up is sent before the wait, taken away, and never sent again.
void lose_a_wake_up()
{
    SIM_Begin({.seed = 11});
    OSA_Event *event = OSA_EventCreate(0);
    OSA_Queue *queue = OSA_QueueCreate("bus", 0);
    SimulatedThread sender("sender", [&] {
        OSA_EventSend(event);
        OSA_QueuePop(queue, nullptr, OSA_WAIT_FOREVER);
    });
    OSA_EventWait(event, 50); // takes the wake-up that the next wait is for
    OSA_EventWait(event, OSA_WAIT_FOREVER);
}

void wait_across_locks()
{
    SIM_Begin();
    OSA_Mutex *mutexes[2] = {OSA_MutexCreate(), OSA_MutexCreate()};
    SimulatedThread other("other", [&] {
        OSA_MutexLock(mutexes[1], OSA_WAIT_FOREVER);
        OSA_ThreadSleep(5);
        OSA_MutexLock(mutexes[0], OSA_WAIT_FOREVER);
    });
    OSA_MutexLock(mutexes[0], OSA_WAIT_FOREVER);
    OSA_ThreadSleep(5);
    OSA_MutexLock(mutexes[1], OSA_WAIT_FOREVER);
}

void poll_without_end()
{
    SIM_Begin({.point_limit = 1000});
    while (OSA_GetSystemTick() == SIM_Tick()) {
    }
}

void wait_beside_a_poller()
{
    SIM_Begin({.time_limit_ms = 60'000});
    SimulatedThread poller("poller", [] {
        for (;;)
            OSA_ThreadSleep(1000);
    });
}

void leave_a_thread_behind()
{
    SIM_Begin();
    SimulatedThread left("left", [] { OSA_ThreadSleep(1000); });
    SIM_End();
}

TEST(StuckDeathTest, TheReportNamesEveryThreadWithItsWait)
{
    EXPECT_DEATH(lose_a_wake_up(), "deadlock \\(seed 11, tick 10[05]0\\)\n"
                                   "  thread \"main\": event 1 \\(no limit\\)\n"
                                   "  thread \"sender\": queue \"bus\" \\(no limit\\)");
    EXPECT_DEATH(wait_across_locks(),
                 "thread \"main\": mutex 2 held by thread \"other\" \\(no limit\\)\n"
                 "  thread \"other\": mutex 1 held by thread \"main\" \\(no limit\\)");
    EXPECT_DEATH(poll_without_end(), "no time passed during 1000 calls");
    EXPECT_DEATH(wait_beside_a_poller(), "still running after 60000 ms(.|\n)*"
                                         "thread \"main\": thread \"poller\" to end");
    EXPECT_DEATH(leave_a_thread_behind(), "threads still run(.|\n)*thread \"left\"");
}

#ifdef __SANITIZE_THREAD__
void write_without_a_lock()
{
    SIM_Begin();
    int shared = 0;
    {
        SimulatedThread other("other", [&shared] {
            OSA_ThreadSleep(1);
            shared = 1;
        });
        OSA_ThreadSleep(2);
        shared = 2;
    }
    std::exit(0);
}

TEST(RaceDeathTest, TakingTurnsHidesNoRace)
{
    EXPECT_EXIT(write_without_a_lock(), testing::ExitedWithCode(66), "data race");
}
#endif

} // namespace
