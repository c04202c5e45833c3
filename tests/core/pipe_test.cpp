// The pipe as a container: creation, members, the control thread, deletion.

#include <gtest/gtest.h>

#include "tests/support/stage.h"

TEST(Pipe, HandsItsBusClockAndItselfToEachMemberAndReleasesThemAll)
{
    Stage stage;
    NOXPipe *pipe = nox_pipe_new("player");
    EXPECT_EQ(NOX_STATE_NULL, nox_pipe_get_state(pipe));
    EXPECT_STREQ("default", pipe->clock->object.name);
    EXPECT_EQ(pipe, nox_bus_get_parent(pipe->busref));
    EXPECT_EQ(2u, nox_object_get_refcount(pipe->busref));
    NOXPlugin *source = new_source("s");
    NOXPlugin *sink = new_sink("k");
    EXPECT_EQ(0, nox_pipe_add_plugin_many(pipe, source, sink, nullptr));
    EXPECT_EQ(pipe->busref, sink->bus);
    EXPECT_EQ(pipe->clock, sink->timer);
    EXPECT_EQ(pipe, nox_plugin_get_pipeline(source));
    EXPECT_EQ(1u, nox_object_get_refcount(source)) << "the caller's reference, handed over";
    EXPECT_EQ(-1, nox_pipe_add_plugin(pipe, nullptr));
    EXPECT_EQ(-1, nox_pipe_add_plugin_many(pipe, nullptr));
    EXPECT_EQ(-1, nox_pipe_del_plugin(pipe, nullptr));
    EXPECT_EQ(3u, SIM_TraceCount("invalid plugin (NULL)\n", 1));
    nox_object_delete(pipe);
    EXPECT_EQ(1u, script("s").finalized);
    EXPECT_EQ(1u, script("k").finalized);
    EXPECT_EQ("", stage.end());
}

TEST(Pipe, ARemovedMemberKeepsItsWiringAndPassesToTheCaller)
{
    Stage stage;
    NOXPipe *pipe = nox_pipe_new("player");
    NOXPlugin *sink = new_sink("k");
    nox_pipe_add_plugin(pipe, sink);
    EXPECT_EQ(0, nox_pipe_del_plugin(pipe, sink));
    EXPECT_EQ(0, nox_pipe_del_plugin(pipe, sink)) << "not a member any more";
    EXPECT_EQ(pipe->busref, sink->bus);
    nox_object_delete(sink);
    nox_object_delete(pipe);
    EXPECT_EQ("", stage.end());
}

TEST(Pipe, RemovingALinkedChainLeavesItsLastPluginAlive)
{
    Stage stage;
    NOXPipe *pipe = nox_pipe_new("player");
    NOXPlugin *filter = new_filter("f");
    NOXPlugin *sink = new_sink("k");
    nox_pipe_add_plugin_many(pipe, filter, sink, nullptr);
    nox_plugin_link(filter, sink);
    EXPECT_EQ(-1, nox_pipe_del_linked_plugin(pipe, sink)) << "no source";
    EXPECT_EQ(1u, SIM_TraceCount("Issrc(null) in pipeline\n", 1));
    EXPECT_EQ(2u, OSA_ListGetNum(pipe->plugins));

    NOXPlugin *source = new_source("s");
    nox_pipe_add_plugin(pipe, source);
    nox_plugin_link(source, filter);
    EXPECT_EQ(0, nox_pipe_del_linked_plugin(pipe, filter));
    EXPECT_EQ(0u, OSA_ListGetNum(pipe->plugins));
    EXPECT_EQ(1u, script("s").finalized);
    EXPECT_EQ(1u, script("f").finalized);
    EXPECT_EQ(0u, script("k").finalized);
    EXPECT_EQ(nullptr, sink->prev) << "must not point at what was released";
    nox_object_delete(sink);
    nox_object_delete(pipe);
    EXPECT_EQ("", stage.end());
}

TEST(Pipe, RemovingALinkedChainTouchesNoBranchThatIsGone)
{
    Stage stage;
    NOXPipe *pipe = nox_pipe_new("player");
    NOXPlugin *source = new_source("s");
    NOXPlugin *tee = new_filter("t");
    NOXPlugin *gone = new_sink("gone");
    NOXPlugin *member = new_sink("member");
    NOXPlugin *last = new_sink("last");
    nox_pipe_add_plugin_many(pipe, source, tee, gone, member, last, nullptr);
    nox_plugin_link_many(source, tee, last, nullptr);
    nox_plugin_link(tee, gone);
    nox_plugin_link(tee, member);
    nox_pipe_del_plugin(pipe, gone);
    nox_object_delete(gone); // its link stays: there is no undoing a single one
    EXPECT_EQ(0, nox_pipe_del_linked_plugin(pipe, tee));
    EXPECT_EQ(nullptr, member->prev);
    EXPECT_EQ(nullptr, last->prev);
    nox_object_delete(last);
    nox_object_delete(pipe);
    EXPECT_EQ("", stage.end());
}

TEST(Pipe, FindsMembersThatAreNotLinked)
{
    Stage stage;
    NOXPipe *pipe = nox_pipe_new("player");
    EXPECT_EQ(0, nox_pipe_debug_unused_plugin(pipe));
    NOXPlugin *source = new_source("s");
    NOXPlugin *sink = new_sink("k");
    nox_pipe_add_plugin_many(pipe, source, sink, new_filter("f"), nullptr);
    EXPECT_EQ(3, nox_pipe_debug_unused_plugin(pipe));
    nox_plugin_link(source, sink);
    EXPECT_EQ(1, nox_pipe_debug_unused_plugin(pipe));
    EXPECT_EQ(2u, SIM_TraceCount(" =======> Found unused plugin (f)\n", 1));
    nox_object_delete(pipe);
    EXPECT_EQ("", stage.end());
}

TEST(Pipe, EveryFailingPartOfACreationLeavesNothingBehind)
{
    uint64_t failed = 1;
    uint64_t faults = 0;
    for (uint64_t n = 1; failed != 0; ++n) {
        Stage stage;
        SIM_FailNth(SIM_FallibleCount() + n);
        NOXPipe *pipe = nox_pipe_new("player");
        failed = SIM_FailedCount();
        SIM_FailNone();
        faults += failed;
        const bool only_state_event = SIM_TraceCount("can not create state event\n") == 1;
        EXPECT_EQ(failed == 0 || only_state_event, pipe != nullptr) << n;
        EXPECT_TRUE(failed == 0 || SIM_TraceCount("", 1) > 0) << "told: " << n;
        nox_object_delete(pipe);
        EXPECT_EQ("", stage.end()) << n;
    }
    EXPECT_GE(faults, 12u);
}

namespace
{

// What the callbacks of asynchronous changes got, in order.
std::mutex g_changes_mutex;
std::vector<std::pair<int32_t, int32_t>> g_changes;

int32_t keep_change(NOXPipe *, int32_t state, int32_t result)
{
    std::lock_guard lock(g_changes_mutex);
    g_changes.emplace_back(state, result);
    return 0;
}

size_t changes()
{
    std::lock_guard lock(g_changes_mutex);
    return g_changes.size();
}

NOXPipe *new_linked_pipe()
{
    g_changes.clear();
    NOXPipe *pipe = nox_pipe_new("player");
    NOXPlugin *source = new_source("s");
    NOXPlugin *sink = new_sink("k");
    nox_pipe_add_plugin_many(pipe, source, sink, nullptr);
    nox_plugin_link(source, sink);
    return pipe;
}

} // namespace

TEST(PipeControl, RequestsAreCarriedOutInOrderAndReported)
{
    for (uint64_t seed = 1; seed <= 30; ++seed) {
        Stage stage({.seed = seed});
        NOXPipe *pipe = new_linked_pipe();
        for (int32_t state : {NOX_STATE_READY, NOX_STATE_PLAY, NOX_STATE_PLAY, NOX_STATE_PAUSE,
                              NOX_STATE_PLAY, NOX_STATE_NULL})
            EXPECT_EQ(0, nox_pipe_set_state_async(pipe, state, keep_change));
        EXPECT_TRUE(wait_until([] { return changes() == 6; }));
        EXPECT_EQ((std::vector<std::pair<int32_t, int32_t>>{
                      {1, 0}, {3, 0}, {3, 0}, {2, 0}, {3, 0}, {0, 0}}),
                  g_changes);
        EXPECT_EQ(4u, SIM_TraceCount("not support state(", 3));
        EXPECT_EQ(2u, SIM_TraceCount("async state change started.\n", 3));
        nox_object_delete(pipe);
        EXPECT_EQ("", stage.end()) << "seed " << seed;
    }
}

TEST(PipeControl, AFailedChangeIsReportedAndTheThreadGoesOn)
{
    Stage stage;
    NOXPipe *pipe = new_linked_pipe();
    script("k").setstate_result = -1;
    nox_pipe_set_state_async(pipe, NOX_STATE_PAUSE, keep_change);
    nox_pipe_set_state_async(pipe, NOX_STATE_PAUSE, keep_change);
    EXPECT_TRUE(wait_until([] { return changes() == 2; }));
    EXPECT_EQ(-1, g_changes[0].second);
    EXPECT_EQ(0, g_changes[1].second) << "the pipe holds the target already";
    nox_object_delete(pipe);
    EXPECT_EQ("", stage.end());
}

TEST(PipeControl, RequestsBehindTheOneUnderWayAreDroppedByADeletion)
{
    Stage stage;
    NOXPipe *pipe = new_linked_pipe();
    nox_pipe_set_state_async(pipe, NOX_STATE_READY, [](NOXPipe *, int32_t state, int32_t result) {
        keep_change(nullptr, state, result);
        OSA_ThreadSleep(5000);
        return 0;
    });
    for (int32_t state : {NOX_STATE_NULL, NOX_STATE_READY, NOX_STATE_NULL})
        nox_pipe_set_state_async(pipe, state, keep_change);
    EXPECT_TRUE(wait_until([] { return changes() == 1; }));
    nox_object_delete(pipe);
    EXPECT_EQ(1u, changes());
    EXPECT_EQ("", stage.end());
}

TEST(PipeControl, AForeignItemEndsTheThreadAndNothingIsLost)
{
    Stage stage;
    NOXPipe *pipe = new_linked_pipe();
    OSA_QueuePush(pipe->msgq, OSA_Malloc(8, 0, 0, "test", 0, "test"), 8);
    EXPECT_TRUE(wait_until([] { return SIM_TraceCount("unknown msg. msg size diffrence.") == 1; }));
    EXPECT_EQ(0, nox_pipe_set_state_async(pipe, NOX_STATE_READY, keep_change));
    OSA_ThreadSleep(5000);
    EXPECT_EQ(0u, changes());
    nox_object_delete(pipe);
    EXPECT_EQ("", stage.end());
}

TEST(PipeControl, EndsWithoutAnExitMessageWithinItsWait)
{
    Stage stage;
    NOXPipe *pipe = new_linked_pipe();
    const uint64_t before = SIM_Tick();
    SIM_FailFrom(SIM_FallibleCount() + 1); // neither the pipe nor the bus gets one
    nox_object_delete(pipe);
    SIM_FailNone();
    EXPECT_LE(SIM_Tick() - before, 2000u);
    EXPECT_EQ("", stage.end());
}
