// Pushing buffers and events along the links.

#include <gtest/gtest.h>

#include "tests/support/stage.h"

namespace
{

// A source, linked to a tee, which has three sinks, all ready for data.
class Push : public ::testing::Test
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

    void TearDown() override
    {
        nox_object_delete(buffer);
        for (NOXPlugin *plugin : {source, tee, sinks[0], sinks[1], sinks[2]})
            nox_object_delete(plugin);
        EXPECT_EQ("", stage.end());
    }

    void answer(const std::string &name, int32_t result)
    {
        script(name).take = [result](NOXBuffer *) { return result; };
    }

    std::vector<uint32_t> taken()
    {
        return {script("k0").taken, script("k1").taken, script("k2").taken};
    }

    Stage stage;
    NOXPlugin *source = new_source("s");
    NOXPlugin *tee = new_filter("t");
    NOXPlugin *sinks[3] = {new_sink("k0"), new_sink("k1"), new_sink("k2")};
    NOXBuffer *buffer = nox_buffer_new(10);
};

} // namespace

TEST_F(Push, EveryBranchGetsTheSameBufferAndNoReferenceIsTaken)
{
    std::vector<NOXBuffer *> seen;
    for (const char *name : {"k0", "k1", "k2"})
        script(name).take = [&seen](NOXBuffer *given) {
            seen.push_back(given);
            EXPECT_EQ(1u, nox_object_get_refcount(given));
            return 0;
        };
    EXPECT_EQ(0, nox_plugin_push_buffer(source, buffer));
    EXPECT_EQ(std::vector<NOXBuffer *>(3, buffer), seen);
}

TEST_F(Push, AFailingFirstBranchDoesNotEndThePushAFailingLaterOneDoes)
{
    answer("k0", 5);
    EXPECT_EQ(0, nox_plugin_push_buffer(tee, buffer));
    EXPECT_EQ((std::vector<uint32_t>{1, 1, 1}), taken());
    EXPECT_EQ(1u, SIM_TraceCount("Pushing (t) --> (k0) failed! (ret:5)\n", 1));

    answer("k1", 6);
    EXPECT_EQ(6, nox_plugin_push_buffer(tee, buffer));
    EXPECT_EQ((std::vector<uint32_t>{2, 2, 1}), taken());
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
    EXPECT_EQ((std::vector<uint32_t>{0, 0, 0}), taken());
    sinks[0]->state = NOX_STATE_READY;
    sinks[1]->state = NOX_STATE_NULL;
    EXPECT_EQ(0, nox_plugin_push_buffer(tee, buffer));
    EXPECT_EQ((std::vector<uint32_t>{1, 1, 1}), taken()) << "only the first branch is looked at";
}

TEST_F(Push, ByIndexReachesOneBranch)
{
    EXPECT_EQ(0, nox_plugin_push_buffer_idx(tee, 2, buffer));
    EXPECT_EQ((std::vector<uint32_t>{0, 0, 1}), taken());
    SIM_TraceClear();
    EXPECT_EQ(-1, nox_plugin_push_buffer_idx(tee, 3, buffer));
    EXPECT_EQ(-1, nox_plugin_push_buffer_idx(source, 1, buffer));
    EXPECT_EQ(-1, nox_plugin_push_buffer_idx(tee, -1, buffer));
    EXPECT_EQ("", SIM_TraceText()) << "no such branch is no error to trace";
    answer("k1", 4);
    EXPECT_EQ(4, nox_plugin_push_buffer_idx(tee, 1, buffer));
    EXPECT_EQ(1u, SIM_TraceCount("push error to plg(", 1));
}

TEST_F(Push, IntoNothingOrIntoAPluginWithoutChainIsTold)
{
    EXPECT_EQ(-1, nox_plugin_push_buffer(sinks[0], buffer));
    EXPECT_EQ(-1, nox_plugin_push_prepare(sinks[0], nullptr));
    EXPECT_EQ(2u, SIM_TraceCount("Not linked plg(", 1));
    sinks[1]->chain_func = nullptr;
    EXPECT_EQ(-1, nox_plugin_push_buffer(tee, buffer));
    EXPECT_EQ((std::vector<uint32_t>{1, 0, 0}), taken());
    EXPECT_EQ(1u, SIM_TraceCount("k1) has no chain function", 1));
}

TEST_F(Push, BusyIsSetDuringTheChainCallAlsoWhenItFails)
{
    script("k0").take = [this](NOXBuffer *) {
        EXPECT_EQ(1, sinks[0]->busy);
        return -1;
    };
    nox_plugin_push_buffer_idx(tee, 0, buffer);
    EXPECT_EQ(0, sinks[0]->busy);
}

TEST_F(Push, EventsGoDepthFirstAndEndAtTheFirstFailure)
{
    log_enabled = true;
    EXPECT_EQ(0, nox_plugin_push_eos(source));
    EXPECT_EQ((std::vector<std::string>{"t event 6", "k0 event 6", "k1 event 6", "k2 event 6"}),
              take_log());
    EXPECT_EQ(3u, SIM_TraceCount("end of this pipeline (", 2));

    script("k1").event_result = 3;
    EXPECT_EQ(3, nox_plugin_push_eos(source));
    EXPECT_EQ((std::vector<std::string>{"t event 6", "k0 event 6", "k1 event 6"}), take_log());
    EXPECT_EQ(1u, SIM_TraceCount("event pushing to plg(t) failed! (ret:3)\n", 1));
    EXPECT_EQ(1u, SIM_TraceCount("nox_plugin_push_event fail.\n", 1));

    script("k1").event_result = 0;
    sinks[1]->event_func = nullptr;
    sinks[0]->event_func = nullptr;
    EXPECT_EQ(0, nox_plugin_push_eos(source));
    EXPECT_EQ((std::vector<std::string>{"t event 6", "k2 event 6"}), take_log());
    EXPECT_EQ(1u, SIM_TraceCount("has no 'event_func'\n", 1)) << "not for branch 0";
}

TEST_F(Push, AnEventStopsSilentlyAtAnUnlinkedPlugin)
{
    NOXPlugin *loose = new_filter("loose");
    EXPECT_EQ(0, nox_plugin_push_eos(loose));
    EXPECT_EQ(1u, SIM_TraceCount("loose) is not linked\n", 1));
    nox_object_delete(loose);
}
