// The pipeline clock against a tick that the test moves.

#include <cmath>
#include <limits>

#include "tests/core/on_stage.h"

namespace
{

class Timer : public OnStage
{
protected:
    uint64_t read_after(uint64_t duration_ms)
    {
        SIM_TickAdvance(duration_ms);
        return nox_timer_gettime(timer);
    }
    NOXTimer *timer = keep(nox_timer_new("clock"));
};

TEST_F(Timer, CountsWhileItRunsAndStandsStillWhileStopped)
{
    EXPECT_EQ(0u, read_after(50));
    nox_timer_start(timer);
    EXPECT_EQ(100u, read_after(100));
    EXPECT_EQ(150u, read_after(50));
    SIM_TickAdvance(30);
    nox_timer_stop(timer); // what was not read is not counted
    EXPECT_EQ(150u, read_after(1000));
    nox_timer_start(timer);
    EXPECT_EQ(1u, traced("noxtimer", 1, "timeoffset (1000)"));
    EXPECT_EQ(170u, read_after(20));
    nox_timer_start(timer); // runs already: no pause to count
    EXPECT_EQ(1u, SIM_TraceCount("timeoffset"));
    EXPECT_EQ(1000u, timer->pauseoffset);
    EXPECT_EQ(180u, read_after(10));
}

TEST_F(Timer, FirstReadingLeavesOutThePausesBeforeIt)
{
    for (uint64_t pause : {300u, 500u}) {
        nox_timer_start(timer);
        SIM_TickAdvance(40);
        nox_timer_stop(timer);
        SIM_TickAdvance(pause);
    }
    nox_timer_start(timer);
    EXPECT_EQ(90u, read_after(10));
}

TEST_F(Timer, RateScalesTheWholeIntervalAndSaturates)
{
    constexpr float infinite = std::numeric_limits<float>::infinity();
    struct Case {
        float rate;
        uint64_t interval, reading;
    };
    const Case cases[] = {
        {2.0f, 100, 200},         {0.5f, 101, 50},
        {0.0f, 100, 0},           {-1.0f, 100, 0},
        {-infinite, 100, 0},      {NAN, 100, 0},
        {1e30f, 100, UINT64_MAX}, {infinite, 100, UINT64_MAX},
        {infinite, 0, 0},         {1.0f, 16'777'217, 16'777'216} // single precision
    };
    for (const Case &test : cases) {
        NOXTimer *fresh = nox_timer_new("fresh");
        nox_timer_start(fresh);
        SIM_TickSet(SIM_Tick() + test.interval);
        nox_timer_set_rate(fresh, test.rate);
        EXPECT_EQ(test.reading, nox_timer_gettime(fresh)) << test.rate;
        nox_object_delete(fresh);
    }
    nox_timer_start(timer);
    EXPECT_EQ(100u, read_after(100));
    SIM_TickAdvance(60);
    nox_timer_set_rate(timer, 1.5f); // for the 60 ms gone by too
    EXPECT_EQ(250u, read_after(40));
    EXPECT_EQ(1u, traced("noxtimer", 3, "timer rate set to 1.500000"));
}

TEST_F(Timer, SetTimesCountOnFromTheMomentTheyName)
{
    nox_timer_start(timer);
    SIM_TickAdvance(100);
    nox_timer_settime(timer, 5000);
    EXPECT_EQ(1u, traced("noxtimer", 2, "changed (5100)"));
    EXPECT_EQ(5110u, read_after(10));
    nox_timer_settime(timer, 0 - uint64_t{5110}); // to 0, which is no first reading again
    EXPECT_EQ(10u, read_after(10));
    nox_timer_settime_absolute(timer, 600); // at tick 1120
    EXPECT_EQ(1u, traced("noxtimer", 2, "changed (1120)"));
    EXPECT_EQ(1130u, read_after(10));
    nox_timer_settime_absolute(timer, 5000); // a tick still to come: the largest interval
    EXPECT_EQ(1u, traced("noxtimer", 2, "changed (4999)"));
    nox_timer_stop(timer);
    nox_timer_settime_absolute(timer, 77);
    EXPECT_EQ(77u, read_after(10));
}

TEST_F(Timer, ResetRunsOnFromTheReading)
{
    nox_timer_set_delay(timer, -5);
    nox_timer_reset(timer); // runs a clock that was never started
    EXPECT_EQ(0, nox_timer_get_delay(timer));
    EXPECT_EQ(100u, read_after(100));
    nox_timer_set_delay(timer, 8);
    nox_timer_stop(timer);
    EXPECT_EQ(0, nox_timer_get_delay(timer));
    SIM_TickAdvance(50);
    nox_timer_reset(timer);
    EXPECT_EQ(160u, read_after(10)); // counts no pause: the last reading was 60 ms ago
}

TEST_F(Timer, BaseShiftedPastThePresentWrapsTheReading)
{
    nox_timer_start(timer);
    nox_timer_adjustbasetime(timer, 30);
    EXPECT_EQ(130u, read_after(100)); // the first reading counts from the base
    nox_timer_settime(timer, 5000);
    nox_timer_adjustbasetime(timer, 0); // base 970 + 5130, tick 1100
    EXPECT_EQ(UINT64_MAX - 4030, read_after(0));
    EXPECT_EQ(1u, traced("noxtimer", 1, "timer wraparound. cur(1100) offset(6100) last(5130)"));
    SIM_TickSet(7100);
    EXPECT_EQ(1969u, read_after(0)); // 6000 ms since the last reading that counted
}

TEST_F(Timer, StreamTimestampKeepsTheLowestUntilCleared)
{
    const int64_t steps[][2] = {{INT64_MAX, -1}, {100, 100},      {200, 100}, {-50, -50},
                                {0, -50},        {INT64_MAX, -1}, {300, 300}};
    for (const auto &[reported, lowest] : steps) {
        nox_timer_set_streamts(timer, reported);
        EXPECT_EQ(lowest, nox_timer_get_streamts(timer));
    }
}

TEST_F(Timer, WaitEndsWithTheFirstStartOrItsTimeout)
{
    EXPECT_NE(0, nox_timer_wait(timer, 10));
    EXPECT_EQ(1010u, SIM_Tick());
    Worker starter([this] {
        OSA_ThreadSleep(500);
        nox_timer_start(timer);
    });
    EXPECT_EQ(0, nox_timer_wait(timer, 10'000));
    EXPECT_EQ(1510u, SIM_Tick());
    nox_timer_stop(timer);
    nox_timer_start(timer);
    EXPECT_NE(0, nox_timer_wait(timer, 10)); // only the first start is announced
}

} // namespace
