// Pausing: whatever the schedule, a pause parks the source, and only leaving the
// pause lets it go on.

#include "tests/core/on_stage.h"

namespace
{

constexpr uint64_t kSeeds = 150;

// A source and a sink in a pipe, which ends by a stop after which nothing arrives.
struct Player {
    explicit Player(bool live = true)
    {
        script("s").live = live;
        script("s").interval_ms = 2;
        source = new_source("s");
        sink = new_sink("k");
        pipe = new_pipe({{source, sink}});
    }
    Player(const Player &) = delete;
    Player &operator=(const Player &) = delete;
    ~Player()
    {
        to(NOX_STATE_NULL);
        EXPECT_EQ(0u, arriving());
        nox_object_delete(pipe);
    }

    void to(int32_t state)
    {
        EXPECT_EQ(0, nox_pipe_set_state(pipe, state));
    }

    // Buffers that arrive in the next 50 ms.
    uint32_t arriving()
    {
        const uint32_t before = script("k").taken;
        OSA_ThreadSleep(50);
        return script("k").taken - before;
    }

    NOXPlugin *source;
    NOXPlugin *sink;
    NOXPipe *pipe;
};

template <typename Story>
void under_all_seeds(bool live, Story story)
{
    under_seeds(kSeeds, [&] {
        Player player(live);
        story(player);
    });
}

TEST(Pause, ParksTheSourceEveryTimeAndPlayWakesIt)
{
    under_all_seeds(true, [](Player &player) {
        player.to(NOX_STATE_PLAY);
        for (int round = 0; round < 4; ++round) {
            OSA_ThreadSleep(static_cast<uint32_t>(round) * 3);
            player.to(NOX_STATE_PAUSE);
            EXPECT_EQ(0u, player.arriving()) << "round " << round;
            player.to(NOX_STATE_PLAY);
            if (round % 2 == 0) { // else pause again at once
                EXPECT_GT(player.arriving(), 0u) << "round " << round;
            }
        }
    });
}

TEST(Pause, OfASourceThatIsNotLiveTakesEffectWithItsNextPass)
{
    under_all_seeds(false, [](Player &player) {
        player.to(NOX_STATE_PLAY);
        player.to(NOX_STATE_PAUSE);
        OSA_ThreadSleep(10);
        player.to(NOX_STATE_NULL);
        player.to(NOX_STATE_PLAY);
        for (int round = 0; round < 3; ++round) {
            player.to(NOX_STATE_PAUSE);
            OSA_ThreadSleep(10);
            EXPECT_EQ(0u, player.arriving()) << "round " << round;
            player.to(NOX_STATE_PLAY);
            EXPECT_GT(player.arriving(), 0u) << "round " << round;
        }
        EXPECT_EQ(0u, SIM_TraceCount("received event(2)")) << "woken in a pause";
        // A short pause that the thread may not even notice leaves its wake-up behind,
        // which must not let anything through the next one but what was under way.
        player.to(NOX_STATE_PAUSE);
        player.to(NOX_STATE_PLAY);
        player.to(NOX_STATE_PAUSE);
        EXPECT_LE(player.arriving(), 1u);
    });
}

TEST(Pause, EveryWayOutOfItWorksThroughReadyToo)
{
    for (bool live : {true, false}) {
        under_all_seeds(live, [](Player &player) {
            player.to(NOX_STATE_PLAY);
            player.to(NOX_STATE_PAUSE);
            player.to(NOX_STATE_READY);
            player.to(NOX_STATE_PLAY);
            EXPECT_GT(player.arriving(), 0u);
            player.to(NOX_STATE_PAUSE);
            player.to(NOX_STATE_READY);
            player.to(NOX_STATE_PAUSE); // still parked: there is nobody to answer
            player.to(NOX_STATE_READY);
            player.to(NOX_STATE_NULL);
            player.to(NOX_STATE_PLAY);
            EXPECT_GT(player.arriving(), 0u);
            player.to(NOX_STATE_PAUSE);
        });
    }
}

TEST(Pause, ASourceThatParkedWhileItWasNotLiveIsNotAskedAgain)
{
    under_all_seeds(true, [](Player &player) {
        player.to(NOX_STATE_PLAY);
        set_option(player.source, NOX_TYPE_BOOL, "islive", 0);
        player.to(NOX_STATE_PAUSE);
        OSA_ThreadSleep(static_cast<uint32_t>(SIM_Seed() % 3));
        set_option(player.source, NOX_TYPE_BOOL, "islive", 1);
        player.to(NOX_STATE_READY);
        player.to(NOX_STATE_PAUSE);
        EXPECT_LE(player.arriving(), 1u);
        player.to(NOX_STATE_PLAY);
        EXPECT_GT(player.arriving(), 0u);
    });
}

TEST(Pause, AParkedSourceCanBeStoppedDirectly)
{
    for (bool live : {true, false}) {
        under_all_seeds(live, [](Player &player) {
            player.to(NOX_STATE_PLAY);
            player.to(NOX_STATE_PAUSE);
            EXPECT_EQ(0, nox_pipe_stop(player.pipe));
            EXPECT_EQ(nullptr, reinterpret_cast<NOXBaseSrc *>(player.source)->thread);
        });
    }
}

TEST(Pause, OfASourceThatProducesInAContextOfItsOwnReturns)
{
    Stage stage;
    Player player;
    reinterpret_cast<NOXBaseSrc *>(player.source)->usethread = 0;
    player.to(NOX_STATE_PLAY);
    player.to(NOX_STATE_PAUSE);
}

TEST(Pause, WithoutItsEventIsToldAndLeftAllTheSame)
{
    Stage stage;
    Player player;
    player.to(NOX_STATE_PLAY);
    OSA_Event *event = player.source->state_event;
    player.source->state_event = nullptr;
    EXPECT_EQ(0, nox_pipe_set_state(player.pipe, NOX_STATE_PAUSE));
    player.to(NOX_STATE_PLAY);
    EXPECT_GT(player.arriving(), 0u);
    EXPECT_GT(SIM_TraceCount("event wait failed..\n", 1), 0u);
    player.source->state_event = event;
}

TEST(Pause, MeasuresNoIntervalAcrossIt)
{
    Stage stage;
    Player player;
    player.to(NOX_STATE_PLAY);
    nox_timer_settime_absolute(player.pipe->clock, 100'000);
    EXPECT_GT(player.arriving(), 0u);
    SIM_TraceClear();
    player.to(NOX_STATE_PAUSE);
    nox_timer_settime_absolute(player.pipe->clock, 10); // would be a reversal
    player.to(NOX_STATE_PLAY);
    EXPECT_GT(player.arriving(), 0u);
    EXPECT_EQ(0u, SIM_TraceCount("Reversed timestamp"));
}

TEST(Pause, BeforeThePipeHasStartedEndsTheThread)
{
    Stage stage;
    Player player;
    nox_plugin_setstate(player.sink, NOX_STATE_PLAY);
    nox_plugin_setstate(player.source, NOX_STATE_PLAY);
    OSA_ThreadSleep(20);
    EXPECT_EQ(0, nox_plugin_setstate(player.source, NOX_STATE_PAUSE));
    EXPECT_EQ(0, player.source->started);
    EXPECT_EQ(0, nox_plugin_setstate(player.source, NOX_STATE_NULL));
    nox_plugin_setstate(player.sink, NOX_STATE_NULL);
}

} // namespace
