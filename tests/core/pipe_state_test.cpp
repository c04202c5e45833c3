// The order of state changes and events over a graph, and end of stream.

#include "tests/core/on_stage.h"

namespace
{

// Two sources; the first feeds a filter and a tee with three branches, the second
// of which branches again; the second source feeds one sink.
//
//     s1 -> a -> t -> u -> k1
//                     u -> k2
//                t -> k3
//                t -> k4
//     s2 -> k5
class Graph : public OnePipe
{
protected:
    void SetUp() override
    {
        nox_pipe_add_plugin_many(pipe, k4, s1, a, t, u, k1, k2, k3, s2, k5, nullptr);
        nox_plugin_link_many(s1, a, t, u, k1, nullptr);
        nox_plugin_link(u, k2);
        nox_plugin_link(t, k3);
        nox_plugin_link(t, k4);
        nox_plugin_link(s2, k5);
        script("s1").buffers = script("s2").buffers = 0;
        OnePipe::SetUp();
        log_enabled = true;
    }

    // The changes that `state` brings, without starts and stops.
    Log changes_to(int32_t state)
    {
        take_log();
        EXPECT_EQ(0, nox_pipe_set_state(pipe, state));
        Log names;
        const std::string suffix = std::string(" to ") + nox_plugin_state_str(state);
        for (const std::string &line : take_log())
            if (line.ends_with(suffix))
                names.push_back(line.substr(0, line.size() - suffix.size()));
        return names;
    }

    NOXPlugin *s1 = new_source("s1");
    NOXPlugin *a = new_filter("a");
    NOXPlugin *t = new_filter("t");
    NOXPlugin *u = new_filter("u");
    NOXPlugin *k1 = new_sink("k1");
    NOXPlugin *k2 = new_sink("k2");
    NOXPlugin *k3 = new_sink("k3");
    NOXPlugin *k4 = new_sink("k4");
    NOXPlugin *s2 = new_source("s2");
    NOXPlugin *k5 = new_sink("k5");
};

const Log kDownstream = {"a", "t", "u", "k1", "k2", "k3", "k4", "k5"};
const Log kSources = {"s1", "s2"};

Log joined(const Log &first, const Log &second)
{
    Log all = first;
    all.insert(all.end(), second.begin(), second.end());
    return all;
}

TEST_F(Graph, UpwardTheSourcesChangeLastDownwardFirst)
{
    EXPECT_EQ(joined(kDownstream, kSources), changes_to(NOX_STATE_READY));
    EXPECT_EQ(joined(kDownstream, kSources), changes_to(NOX_STATE_PLAY));
    EXPECT_EQ(joined(kSources, kDownstream), changes_to(NOX_STATE_PAUSE));
    EXPECT_EQ(joined(kDownstream, kSources), changes_to(NOX_STATE_PLAY));
    EXPECT_EQ(joined(kSources, kDownstream), changes_to(NOX_STATE_NULL));
    EXPECT_EQ(0u, SIM_TraceCount("critical error"));
}

TEST_F(Graph, OptionsReverseTheWayToNullAndInsertReady)
{
    nox_pipe_set_option(pipe, NOX_PIPE_OPT_REVERSE_NULL | NOX_PIPE_OPT_PLAY_VIA_READY);
    EXPECT_EQ(joined(kDownstream, kSources), changes_to(NOX_STATE_PLAY));
    EXPECT_EQ(1u, SIM_TraceCount("plg (k3) state to READY. depth(0)\n", 3));
    EXPECT_EQ((Log{"s2", "s1", "k5", "k3", "k2", "k1", "u", "t", "a", "k4"}),
              changes_to(NOX_STATE_NULL));
}

TEST_F(Graph, FromPauseToNullTheStopIsAnnouncedToAllSinksFirst)
{
    to(NOX_STATE_PLAY);
    to(NOX_STATE_PAUSE);
    take_log();
    EXPECT_EQ(0, nox_pipe_set_state(pipe, NOX_STATE_NULL));
    Log expected;
    for (const char *type : {" event 2", " event 3"})
        for (const char *name : {"k4", "t", "a", "k1", "u", "t", "a", "k2", "u", "t", "a", "k3",
                                 "t", "a", "k5", "s1", "s2"})
            expected.push_back(std::string(name) + type);
    Log seen = take_log();
    ASSERT_GE(seen.size(), expected.size());
    EXPECT_EQ("s1 to NULL", seen[expected.size()]);
    seen.resize(expected.size());
    EXPECT_EQ(expected, seen);
}

TEST_F(Graph, ARefusingPluginFailsTheChangeWithoutRollback)
{
    script("u").setstate_result = -1;
    take_log();
    EXPECT_EQ(-1, nox_pipe_set_state(pipe, NOX_STATE_PAUSE));
    EXPECT_EQ(NOX_STATE_PAUSE, nox_pipe_get_state(pipe));
    EXPECT_EQ(NOX_STATE_PAUSE, nox_plugin_get_state(k4)) << "the walk goes on";
    EXPECT_EQ(NOX_STATE_NULL, nox_plugin_get_state(s1)) << "the sources were not reached";
    EXPECT_EQ(1u, SIM_TraceCount("pipe_iterate_set_state failed (-1)\n", 1));
    EXPECT_EQ(0, nox_pipe_linked_plugins_set_state(pipe, s1, NOX_STATE_READY));
    EXPECT_EQ(1u, SIM_TraceCount("nox_plugin_setstate failed (u)\n", 1)) << "told, not returned";
    reinterpret_cast<NOXBaseFilter *>(u)->stop_func = [](NOXBaseFilter *) -> int32_t { return 5; };
    nox_pipe_set_option(pipe, NOX_PIPE_OPT_REVERSE_NULL);
    EXPECT_EQ(-1, nox_pipe_set_state(pipe, NOX_STATE_NULL));
    EXPECT_EQ(2u, SIM_TraceCount("nox_plugin_setstate failed (u)\n", 1));
    EXPECT_EQ(NOX_STATE_NULL, nox_plugin_get_state(k4));
    script("u").setstate_result = 0;

    for (const char *refusing : {"k5", "t", "s2"}) { // a sink, what is above one, a source
        script(refusing).event_result = -1;
        EXPECT_EQ(-1, nox_pipe_reset(pipe)) << refusing;
        script(refusing).event_result = 0;
    }
    EXPECT_EQ(3u, SIM_TraceCount("nox_pipe_set_event fail.\n", 1));
}

TEST_F(Graph, WithoutMemoryForTheBranchStackTheBranchesFailAndTheWalkGoesOn)
{
    take_log();
    SIM_FailFrom(SIM_FallibleCount() + 1);
    EXPECT_NE(0, pipe_iterate_set_state(pipe, NOX_STATE_READY));
    SIM_FailNone();
    EXPECT_EQ((Log{"a to READY", "t to READY", "u to READY", "k1 to READY", "k5 to READY"}),
              take_log());
    EXPECT_EQ(1u, SIM_TraceCount("no memory for the branches of (t)\n", 1));
    changes_to(NOX_STATE_READY);
}

TEST_F(Graph, AChainChangesAloneFromItsSourceDown)
{
    EXPECT_EQ(0, nox_pipe_linked_plugins_set_state(pipe, k2, NOX_STATE_READY));
    Log expected;
    for (const char *name : {"s1", "a", "t", "k3", "k4", "u", "k2", "k1"})
        expected.push_back(std::string(name) + " to READY");
    EXPECT_EQ(expected, take_log());
    EXPECT_EQ(NOX_STATE_NULL, nox_pipe_get_state(pipe));
    EXPECT_EQ(0, nox_pipe_linked_plugins_set_state(pipe, k2, NOX_STATE_NULL));
    EXPECT_EQ(0, nox_pipe_linked_plugins_set_state(pipe, nullptr, NOX_STATE_NULL));
    EXPECT_EQ(2u, SIM_TraceCount("warning state is same as current.state(0)\n", 1));
    EXPECT_EQ(-1, nox_pipe_linked_plugins_set_state(pipe, nullptr, NOX_STATE_READY));
    NOXPlugin *headless = keep(new_sink("headless"));
    EXPECT_EQ(-1, nox_pipe_linked_plugins_set_state(pipe, headless, NOX_STATE_READY));
    EXPECT_EQ(1u, SIM_TraceCount("can not find source plugin(", 1));
}

TEST_F(Graph, StartAndStopLeaveTheStatesAlone)
{
    script("s2").start_result = -1;
    EXPECT_EQ(-1, nox_pipe_start(pipe));
    EXPECT_EQ(0u, script("k5").started) << "after the one that failed";
    EXPECT_EQ(0, pipe->plugin.started);
    script("s2").start_result = 0;
    nox_pipe_stop(pipe);
    EXPECT_EQ(0, nox_pipe_start(pipe));
    EXPECT_EQ(1, pipe->plugin.started);
    EXPECT_EQ(NOX_STATE_NULL, nox_plugin_get_state(k5));
    EXPECT_EQ(0, nox_pipe_stop(pipe));
    EXPECT_EQ(nullptr, reinterpret_cast<NOXBaseSrc *>(s1)->thread);
}

TEST_F(Graph, TheClockFollowsTheStateAndTheBaseTimeIsTakenAtPlay)
{
    const auto after = [this](int32_t state, uint32_t duration_ms) {
        to(state);
        OSA_ThreadSleep(duration_ms);
        return nox_timer_gettime(pipe->clock);
    };
    after(NOX_STATE_PAUSE, 0); // before the first PLAY there is no reading
    after(NOX_STATE_NULL, 5000);
    after(NOX_STATE_PAUSE, 5000);
    EXPECT_EQ(1000u, after(NOX_STATE_PLAY, 1000));
    EXPECT_EQ(0u, pipe->basereftime);
    EXPECT_EQ(1000u, after(NOX_STATE_PAUSE, 1000));
    EXPECT_EQ(1010u, after(NOX_STATE_PLAY, 10));
    EXPECT_EQ(1000u, pipe->basereftime);
}

TEST(PipeState, TheClockStopsThoughItWasStartedAtTickZero)
{
    Stage stage({.first_tick = 0});
    NOXPlugin *source = new_source("s");
    NOXPipe *pipe = new_pipe({{source, new_sink("k")}});
    set_option(source, NOX_TYPE_BOOL, "islive", 0); // so that the pause takes no time
    EXPECT_EQ(0, nox_pipe_set_state(pipe, NOX_STATE_PLAY));
    EXPECT_EQ(0, nox_pipe_set_state(pipe, NOX_STATE_PAUSE));
    EXPECT_EQ(0u, SIM_Tick());
    EXPECT_EQ(0, pipe->clock->running);
    OSA_ThreadSleep(500);
    EXPECT_EQ(0u, nox_timer_gettime(pipe->clock));
    EXPECT_EQ(0, nox_pipe_set_state(pipe, NOX_STATE_NULL));
    nox_object_delete(pipe);
}

TEST_F(Graph, EndOfStreamIsPostedWhenTheLastSinkHasIt)
{
    NOXEvent eos{nullptr, NOX_EVENT_EOS};
    for (NOXPlugin *sink : {k1, k2, k3, k4})
        nox_plugin_setevent(sink, &eos);
    OSA_ThreadSleep(10);
    EXPECT_EQ(0u, inbox.count(NOX_MSG_EOS));
    EXPECT_EQ(0, nox_plugin_setevent(k5, &eos));
    OSA_ThreadSleep(10);
    EXPECT_EQ((std::vector<Posted>{{"k5", NOX_MSG_EOS, "EOS.\n"}}), inbox.messages());
    EXPECT_EQ(0, nox_pipe_get_allsink_start(pipe));
}

using NoSource = OnePipe;

TEST_F(NoSource, EveryChangeFails)
{
    EXPECT_EQ(1, nox_pipe_get_allsink_start(pipe));
    EXPECT_EQ(1, nox_pipe_get_allsrc_started(pipe));
    EXPECT_EQ(0, nox_pipe_reset(pipe));
    member(new_sink("k"));
    EXPECT_EQ(-1, nox_pipe_set_state(pipe, NOX_STATE_READY));
    EXPECT_EQ(NOX_STATE_READY, nox_pipe_get_state(pipe));
    EXPECT_EQ(1u, SIM_TraceCount("pipe_src_set_state failed (-1)\n", 1));
    EXPECT_EQ(0, nox_pipe_get_state(nullptr));
}

} // namespace
