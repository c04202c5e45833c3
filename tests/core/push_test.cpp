// Pushing buffers and events along the links.

#include "tests/core/on_stage.h"

namespace
{

// A source, linked to a tee, which has three sinks, all ready for data.
class Push : public OnStage
{
protected:
    void SetUp() override
    {
        nox_plugin_link(source, tee);
        for (NOXPlugin *sink : sinks)
            nox_plugin_link(tee, sink);
        for (NOXPlugin *plugin : {tee, sinks[0], sinks[1], sinks[2]})
            plugin->state = NOX_STATE_PLAY;
    }

    void answer(const std::string &name, int32_t result)
    {
        script(name).take = [result](NOXBuffer *) { return result; };
    }

    using Counts = std::vector<uint32_t>;
    Counts taken()
    {
        return {script("k0").taken, script("k1").taken, script("k2").taken};
    }

    NOXPlugin *source = keep(new_source("s"));
    NOXPlugin *tee = keep(new_filter("t"));
    NOXPlugin *sinks[3] = {keep(new_sink("k0")), keep(new_sink("k1")), keep(new_sink("k2"))};
    NOXBuffer *buffer = keep(nox_buffer_new(10));
};

TEST_F(Push, EveryBranchGetsTheSameBufferAndNoReferenceIsTakenWhileTheBranchIsBusy)
{
    std::vector<NOXBuffer *> seen;
    for (int32_t i : {0, 1, 2})
        script("k" + std::to_string(i)).take = [this, &seen, i](NOXBuffer *given) {
            seen.push_back(given);
            EXPECT_EQ(1u, nox_object_get_refcount(given));
            EXPECT_EQ(1, sinks[i]->busy);
            return 0;
        };
    EXPECT_EQ(0, nox_plugin_push_buffer(source, buffer));
    EXPECT_EQ(std::vector<NOXBuffer *>(3, buffer), seen);
    EXPECT_EQ(0, sinks[2]->busy);
}

TEST_F(Push, AFailingFirstBranchDoesNotEndThePushAFailingLaterOneDoes)
{
    answer("k0", 5);
    EXPECT_EQ(0, nox_plugin_push_buffer(tee, buffer));
    EXPECT_EQ((Counts{1, 1, 1}), taken());
    EXPECT_EQ(1u, SIM_TraceCount("Pushing (t) --> (k0) failed! (ret:5)\n", 1));
    EXPECT_EQ(0, sinks[0]->busy);

    answer("k1", 6);
    EXPECT_EQ(6, nox_plugin_push_buffer(tee, buffer));
    EXPECT_EQ((Counts{2, 2, 1}), taken());
    EXPECT_EQ(1u, SIM_TraceCount("push error to plg(", 1));

    answer("t", 7);
    EXPECT_EQ(7, nox_plugin_push_buffer(source, buffer)) << "the only branch";
    EXPECT_EQ(0, tee->busy);
}

TEST_F(Push, AFirstBranchInNullSwallowsTheBufferForAll)
{
    sinks[0]->state = NOX_STATE_NULL;
    EXPECT_EQ(0, nox_plugin_push_buffer(tee, buffer));
    EXPECT_EQ(0, nox_plugin_push_buffer_idx(tee, 1, buffer));
    EXPECT_EQ((Counts{0, 0, 0}), taken());
    sinks[0]->state = NOX_STATE_READY;
    sinks[1]->state = NOX_STATE_NULL;
    EXPECT_EQ(0, nox_plugin_push_buffer(tee, buffer));
    EXPECT_EQ((Counts{1, 1, 1}), taken()) << "only the first branch is looked at";
}

TEST_F(Push, ByIndexReachesOneBranch)
{
    EXPECT_EQ(0, nox_plugin_push_buffer_idx(tee, 0, buffer));
    EXPECT_EQ(0, nox_plugin_push_buffer_idx(tee, 2, buffer));
    EXPECT_EQ((Counts{1, 0, 1}), taken());
    SIM_TraceClear();
    EXPECT_EQ(-1, nox_plugin_push_buffer_idx(tee, 3, buffer));
    EXPECT_EQ(-1, nox_plugin_push_buffer_idx(source, 1, buffer));
    EXPECT_EQ(-1, nox_plugin_push_buffer_idx(tee, -1, buffer));
    EXPECT_EQ("", SIM_TraceText()) << "no such branch is no error to trace";
    answer("k1", 4);
    EXPECT_EQ(4, nox_plugin_push_buffer_idx(tee, 1, buffer));
    EXPECT_EQ(1u, SIM_TraceCount("push error to plg(", 1));
}

TEST_F(Push, APrepareAsksTheNextPluginOnly)
{
    EXPECT_EQ(0, nox_plugin_push_prepare(source, buffer)) << "it has no function for that";
    tee->prepare_func = [](NOXPlugin *, void *argument) -> int32_t {
        return static_cast<NOXBuffer *>(argument)->index;
    };
    nox_buffer_set_index(buffer, 8);
    EXPECT_EQ(8, nox_plugin_push_prepare(source, buffer));
}

TEST_F(Push, EventsGoDepthFirstAndEndAtTheFirstFailure)
{
    log_enabled = true;
    EXPECT_EQ(0, nox_plugin_push_eos(source));
    EXPECT_EQ((Log{"t event 6", "k0 event 6", "k1 event 6", "k2 event 6"}), take_log());
    EXPECT_EQ(3u, SIM_TraceCount("end of this pipeline (", 2));

    script("k1").event_result = 3;
    EXPECT_EQ(3, nox_plugin_push_eos(source));
    EXPECT_EQ((Log{"t event 6", "k0 event 6", "k1 event 6"}), take_log());
    EXPECT_EQ(1u, SIM_TraceCount("event pushing to plg(t) failed! (ret:3)\n", 1));
    EXPECT_EQ(1u, SIM_TraceCount("nox_plugin_push_event fail.\n", 1));

    script("k1").event_result = 0;
    sinks[1]->event_func = nullptr;
    sinks[0]->event_func = nullptr;
    EXPECT_EQ(0, nox_plugin_push_eos(source));
    EXPECT_EQ((Log{"t event 6", "k2 event 6"}), take_log());
    EXPECT_EQ(1u, SIM_TraceCount("has no 'event_func'\n", 1)) << "not for branch 0";

    EXPECT_EQ(0, nox_plugin_push_eos(keep(new_filter("loose"))));
    EXPECT_EQ(1u, SIM_TraceCount("loose) is not linked\n", 1));
}

} // namespace
