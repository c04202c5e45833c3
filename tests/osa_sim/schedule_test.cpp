// The schedule: reproducible by its seed, in virtual time, and never stuck in silence.

#include <set>

#include "osa/sim/osasim.h"
#include "tests/osa/layer.h"

namespace
{

// A line of OSA_Trace from a test.
#define NOTE(...) OSA_Trace("test", OSA_TRACE_VERBOSE, "test", __LINE__, __func__, __VA_ARGS__)

std::string two_posters(const SIM_Options &options)
{
    SIM_Begin(options);
    {
        const auto post = [] {
            for (int i = 0; i < 8; i++)
                NOTE("%d\n", i);
        };
        const TestThread first("first", post);
        const TestThread second("second", post);
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

TEST(Schedule, SleepsOverlapAndSettingTheTickLeavesThemAloneButAdvancingEndsThem)
{
    SIM_Begin({.first_tick = 500, .switch_percent = 0});
    {
        const TestThread sleeper("sleeper", [] {
            OSA_ThreadSleep(1'000'000);
            NOTE("awake\n");
        });
        OSA_ThreadSleep(600'000);
        EXPECT_EQ(600'500u, OSA_GetSystemTick());
        SIM_TickSet(UINT64_MAX - 5);
        OSA_ThreadSleep(10);
        EXPECT_EQ(4u, OSA_GetSystemTick());
        EXPECT_EQ(0u, SIM_TraceCount("awake"));
        SIM_TickAdvance(399'990);
        OSA_ThreadSleep(1);
        EXPECT_EQ(1u, SIM_TraceCount("awake", OSA_TRACE_VERBOSE));
        EXPECT_EQ(0u, SIM_TraceCount("awake", OSA_TRACE_ERROR));
        EXPECT_EQ(399'994u, SIM_Traces().back().tick);
    }
    EXPECT_EQ("", SIM_End());
}

// A flag looked at without the lock that the sender holds while it sets it: the
// wake-up is sent before the wait, taken away, and never sent again.
void lose_a_wake_up()
{
    SIM_Begin({.seed = 11});
    OSA_Event *event = OSA_EventCreate(0);
    OSA_Queue *queue = OSA_QueueCreate("bus", 0);
    TestThread sender("sender", [&] {
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
    TestThread other("other", [&] {
        OSA_MutexLock(mutexes[1], OSA_WAIT_FOREVER);
        OSA_ThreadSleep(5);
        OSA_MutexLock(mutexes[0], OSA_WAIT_FOREVER);
    });
    OSA_MutexLock(mutexes[0], OSA_WAIT_FOREVER);
    OSA_ThreadSleep(5);
    OSA_MutexLock(mutexes[1], OSA_WAIT_FOREVER);
}

// The time that the other takes makes the wait for the stuck one speak; by itself the
// wait lets no time pass.
void wait_for_a_thread_that_never_ends()
{
    SIM_Begin();
    OSA_Event *event = OSA_EventCreate(0);
    TestThread other("other", [] { OSA_ThreadSleep(12'000); });
    TestThread("stuck", [event] { OSA_EventWait(event, OSA_WAIT_FOREVER); });
}

TEST(StuckDeathTest, TheReportNamesEveryThreadWithItsWait)
{
    const struct {
        void (*get_stuck)();
        const char *report;
    } cases[] = {
        {lose_a_wake_up, "deadlock \\(seed 11, tick 10[05]0\\)\n"
                         "  thread \"main\": event 1 \\(no limit\\)\n"
                         "  thread \"sender\": queue \"bus\" \\(no limit\\)"},
        {wait_across_locks, "thread \"main\": mutex 2 held by thread \"other\" \\(no limit\\)\n"
                            "  thread \"other\": mutex 1 held by thread \"main\" \\(no limit\\)"},
        {wait_for_a_thread_that_never_ends,
         "deadlock \\(seed 1, tick 13000\\)\n"
         "  thread \"main\": thread \"stuck\" to end \\(no limit\\)\n"
         "  thread \"stuck\": event 1 \\(no limit\\)\n"
         "(.|\n)* 2.000. (.|\n)*waited 1 s, (.|\n)* 12.000. (.|\n)*waited 11 s, "},
        {[] {
             SIM_Begin({.point_limit = 1000});
             for (int call = 0; call < 1001; ++call)
                 SIM_Point();
         },
         "no time passed during 1000 calls"},
        {[] {
             SIM_Begin({.time_limit_ms = 60'000});
             TestThread("poller", [] {
                 for (;;)
                     OSA_ThreadSleep(1000);
             });
         },
         "still running after 60000 ms \\(seed 1, tick 61000\\)(.|\n)*thread \"main\": thread "
         "\"poller\" to end"},
        {[] {
             SIM_Begin();
             const TestThread left("left", [] { OSA_ThreadSleep(1000); });
             SIM_End();
         },
         "threads still run(.|\n)*thread \"left\""},
    };
    for (const auto &each : cases)
        EXPECT_DEATH(each.get_stuck(), each.report);
}

TEST(Schedule, LimitsAreOnCallsWithoutTimeAndOnTimeSpentWaiting)
{
    SIM_Begin({.point_limit = 1000, .time_limit_ms = 60'000});
    for (int wait = 0; wait < 3; ++wait) {
        for (int call = 0; call < 999; ++call)
            SIM_Point();
        OSA_ThreadSleep(20'000); // the thousandth
        SIM_TickAdvance(1'000'000);
    }
    EXPECT_EQ("", SIM_End());
}

#ifdef __SANITIZE_THREAD__
void write_without_a_lock()
{
    SIM_Begin();
    int shared = 0;
    const TestThread other("other", [&shared] { shared = 1; });
    OSA_ThreadSleep(2);
    shared = 2;
    std::exit(0);
}

TEST(RaceDeathTest, TakingTurnsHidesNoRace)
{
    EXPECT_EXIT(write_without_a_lock(), testing::ExitedWithCode(66), "data race");
}
#endif

} // namespace
