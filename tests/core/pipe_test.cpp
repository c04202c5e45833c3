// The pipe as a container: creation, members, the control thread, deletion.

#include "tests/core/on_stage.h"

namespace
{

using Pipe = OnePipe;

TEST_F(Pipe, HandsItsBusClockAndItselfToEachMemberAndReleasesThemAll)
{
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
    EXPECT_EQ(pipe, nox_plugin_get_parent(source));
    EXPECT_EQ(1u, nox_object_get_refcount(source)) << "the caller's reference, handed over";
    EXPECT_EQ(-1, nox_pipe_add_plugin_many(pipe, nullptr));

    EXPECT_EQ(0, nox_pipe_del_plugin(pipe, keep(sink))) << "passes to the caller";
    EXPECT_EQ(0, nox_pipe_del_plugin(pipe, sink)) << "not a member any more";
    EXPECT_EQ(pipe->busref, sink->bus);
    nox_object_delete(std::exchange(pipe, nullptr));
    EXPECT_EQ(1u, script("s").finalized);
    EXPECT_EQ(0u, script("k").finalized);
}

TEST_F(Pipe, RemovingALinkedChainLeavesItsLastPluginAliveAndTouchesNoBranchThatIsGone)
{
    NOXPlugin *tee = member(new_filter("t")), *last = keep(member(new_sink("last")));
    nox_plugin_link(tee, last);
    EXPECT_EQ(-1, nox_pipe_del_linked_plugin(pipe, last)) << "no source";
    EXPECT_EQ(1u, SIM_TraceCount("Issrc(null) in pipeline\n", 1));
    EXPECT_EQ(2u, OSA_ListGetNum(pipe->plugins));

    nox_plugin_link(member(new_source("s")), tee);
    NOXPlugin *gone = member(new_sink("gone")), *branch = member(new_sink("branch"));
    nox_plugin_link(tee, gone);
    nox_plugin_link(tee, branch);
    nox_pipe_del_plugin(pipe, gone);
    nox_object_delete(gone); // its link stays: there is no undoing a single one
    EXPECT_EQ(0, nox_pipe_del_linked_plugin(pipe, tee));
    EXPECT_EQ(1u, OSA_ListGetNum(pipe->plugins));
    EXPECT_EQ(1u, script("s").finalized);
    EXPECT_EQ(1u, script("t").finalized);
    EXPECT_EQ(0u, script("last").finalized);
    for (const NOXPlugin *left : {branch, last})
        EXPECT_EQ(nullptr, left->prev) << "must not point at what was released";
}

TEST_F(Pipe, FindsMembersThatAreNotLinked)
{
    EXPECT_EQ(0, nox_pipe_debug_unused_plugin(pipe));
    NOXPlugin *source = member(new_source("s"));
    NOXPlugin *sink = member(new_sink("k"));
    member(new_filter("f"));
    EXPECT_EQ(3, nox_pipe_debug_unused_plugin(pipe));
    nox_plugin_link(source, sink);
    EXPECT_EQ(1, nox_pipe_debug_unused_plugin(pipe));
    EXPECT_EQ(2u, SIM_TraceCount(" =======> Found unused plugin (f)\n", 1));
}

// What the callbacks of asynchronous changes got, in order.
using Changes = std::vector<std::pair<int32_t, int32_t>>;
std::mutex g_changes_mutex;
Changes g_changes;

int32_t keep_change(NOXPipe *, int32_t state, int32_t result)
{
    std::lock_guard lock(g_changes_mutex);
    g_changes.emplace_back(state, result);
    return 0;
}

Changes changes()
{
    std::lock_guard lock(g_changes_mutex);
    return g_changes;
}

bool wait_for_changes(size_t count)
{
    return wait_until([count] { return changes().size() == count; });
}

NOXPipe *new_linked_pipe()
{
    g_changes.clear();
    return new_pipe({{new_source("s"), new_sink("k")}});
}

TEST(PipeControl, RequestsAreCarriedOutInOrderAndReported)
{
    under_seeds(30, [] {
        NOXPipe *pipe = new_linked_pipe();
        for (int32_t state : {NOX_STATE_READY, NOX_STATE_PLAY, NOX_STATE_PLAY, NOX_STATE_PAUSE,
                              NOX_STATE_PLAY, NOX_STATE_NULL})
            EXPECT_EQ(0, nox_pipe_set_state_async(pipe, state, keep_change));
        EXPECT_TRUE(wait_for_changes(6));
        EXPECT_EQ((Changes{{1, 0}, {3, 0}, {3, 0}, {2, 0}, {3, 0}, {0, 0}}), changes());
        EXPECT_EQ(4u, SIM_TraceCount("not support state(", 3));
        EXPECT_EQ(2u, SIM_TraceCount("async state change started.\n", 3));
        nox_object_delete(pipe);
    });
}

TEST(PipeControl, AFailedChangeIsReportedAndTheThreadGoesOn)
{
    Stage stage;
    NOXPipe *pipe = new_linked_pipe();
    script("k").setstate_result = -1;
    nox_pipe_set_state_async(pipe, NOX_STATE_PAUSE, keep_change);
    nox_pipe_set_state_async(pipe, NOX_STATE_PAUSE, keep_change);
    EXPECT_TRUE(wait_for_changes(2));
    EXPECT_EQ((Changes{{2, -1}, {2, 0}}), changes()) << "the pipe holds the target already";
    nox_object_delete(pipe);
}

TEST(PipeControl, AForeignItemEndsTheThreadAndNothingIsLost)
{
    Stage stage;
    NOXPipe *pipe = new_linked_pipe();
    OSA_QueuePush(pipe->msgq, OSA_Malloc(8, 0, 0, "test", 0, "test"), 8);
    EXPECT_TRUE(wait_until([] { return SIM_TraceCount("unknown msg. msg size diffrence.") == 1; }));
    EXPECT_EQ(0, nox_pipe_set_state_async(pipe, NOX_STATE_READY, keep_change));
    OSA_ThreadSleep(5000);
    EXPECT_EQ(0u, changes().size());
    nox_object_delete(pipe);
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
}

} // namespace
