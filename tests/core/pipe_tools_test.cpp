// What an application has for its clock and for diagnosis: clock controls, the
// graph as text.

#include <cstring>

#include "on_stage.h"

namespace
{

constexpr char kHeader[] = "digraph mainpipe { \n rankdir=\"LR\"; "
                           "node [shape=box color=blue style=filled fillcolor=yellow] \n";

class PipeTools : public OnePipe
{
protected:
    // The text without its header and closing piece.
    std::string graph()
    {
        char *text = nox_pipe_print(pipe);
        std::string body(text);
        OSA_Free(text, 0);
        EXPECT_EQ(0u, body.rfind(kHeader, 0));
        EXPECT_EQ(" }", body.substr(body.size() - 2));
        return body.substr(strlen(kHeader), body.size() - strlen(kHeader) - 2);
    }
};

// The rates that the sink was told, as "old>new".
std::string g_rates;

int32_t keep_rates(NOXBaseSink *, NOXEvent *event)
{
    if (event->type != NOX_EVENT_CLOCKRATE)
        return 0;
    auto *change = static_cast<const NOXClockRateChange *>(event->data);
    g_rates += std::to_string(change->previous) + ">" + std::to_string(change->rate) + " ";
    return change->rate == 3.0f ? -1 : 0;
}

TEST_F(PipeTools, ANewRateDrivesTheClockAndReachesEveryPlugin)
{
    g_rates.clear();
    NOXPlugin *source = member(new_source("s"));
    NOXPlugin *sink = member(new_sink("k"));
    nox_plugin_link(source, sink);
    reinterpret_cast<NOXBaseSink *>(sink)->event_func = keep_rates;
    EXPECT_EQ(sink->timer, nox_pipe_get_timer(pipe));
    EXPECT_EQ(0.0f, nox_pipe_get_clockrate(pipe)) << "none has been set";
    EXPECT_EQ(0, nox_pipe_set_clockrate(pipe, 1.0f));
    EXPECT_EQ(1u, traced("noxpipe", 3, "pipeline clock rate set to 1.000000"));
    EXPECT_EQ(0, nox_pipe_set_clockrate(pipe, 2.0f));
    to(NOX_STATE_PLAY);
    const uint64_t start = nox_pipe_get_time(pipe);
    SIM_TickAdvance(500);
    EXPECT_EQ(start + 1000, nox_pipe_get_time(pipe)) << "a change of state keeps the rate";
    EXPECT_EQ(-1, nox_pipe_set_clockrate(pipe, 3.0f)) << "the sink refuses it";
    EXPECT_EQ(1u, traced("noxpipe", 1, "nox_pipe_set_event fail."));
    EXPECT_EQ(3.0f, nox_pipe_get_clockrate(pipe)) << "and it is in force all the same";
    EXPECT_EQ(3.0f, nox_timer_get_rate(pipe->clock));
    EXPECT_EQ("0.000000>1.000000 1.000000>2.000000 2.000000>3.000000 ", g_rates);

    EXPECT_EQ(4711u, nox_pipe_set_basereftime(pipe, 4711));
    EXPECT_EQ(4711u, nox_pipe_get_basereftime(pipe));
    EXPECT_EQ(0, nox_pipe_setclocksrc(pipe, this));
    EXPECT_EQ(this, pipe->clocksrc);
}

TEST_F(PipeTools, ThePrintedGraphIsExact)
{
    EXPECT_EQ("", graph());
    // s1 -> f1 -> t -> k1 with branches k2, f2 -> k3; s2 without links; f3 loose;
    // a sink that nothing leads to; s3 -> f4, which leads nowhere.
    NOXPlugin *s1 = member(new_source("s1")), *f1 = member(new_filter("f1"));
    NOXPlugin *t = member(new_filter("t")), *f2 = member(new_filter("f2"));
    nox_plugin_link_many(s1, f1, t, member(new_sink("k1")), nullptr);
    nox_plugin_link(t, member(new_sink("k2")));
    nox_plugin_link(t, f2);
    nox_plugin_link(f2, member(new_sink("k3")));
    nox_plugin_link(f1, member(new_sink("k5"))); // f1 branches above t: written after it
    member(new_source("s2"));
    member(new_filter("f3"));
    member(new_sink("k4"));
    nox_plugin_link(member(new_source("s3")), member(new_filter("f4")));
    SIM_TraceClear();
    EXPECT_EQ("s1 -> f1 -> t -> k1;t -> f2 -> k3;t -> k2;f1 -> k5;s2; s3 -> f4f3; f4; ", graph());
    for (const char *told : {"Found source plugin (s1)", "Next plugin (k1)",
                             "Next plugin is tee (f2) index(2)", "Next plugin (k2) of tee (t)"})
        EXPECT_EQ(1u, traced("noxpipe", 4, told)) << told;

    char labels[NOX_PIPE_TEXT_SIZE] = "";
    pipe_print_pluginname(f2, labels);
    EXPECT_STREQ("k3 [xlabel=<<FONT POINT-SIZE='9'>\"probesink\"</FONT>>]\n", labels);
    pipe_print_pluginname(s1, labels);
    EXPECT_EQ(1 + 7, std::count(labels, labels + strlen(labels), '\n')) << "not s1 itself";
}

TEST_F(PipeTools, ATextThatOutgrowsItsBlockEndsWithAWholeGraphAndIsToldOnce)
{
    // Any place within a line of text may be the one where it becomes too long.
    for (size_t length = 20; length < 34; ++length)
        member(new_source("loose_" + std::string(length, 'x')));
    NOXPlugin *last = member(new_source("start"));
    for (int i = 0; i < 300; ++i) {
        NOXPlugin *next = member(new_filter("filter" + std::to_string(i)));
        nox_plugin_link(last, next);
        last = next;
    }
    nox_plugin_link(last, member(new_sink(std::string(200, 'k'))));
    const std::string text = graph();
    EXPECT_EQ(1u, SIM_TraceCount("graph text full", 1));
    EXPECT_GT(strlen(kHeader) + text.size() + 2, NOX_PIPE_TEXT_SIZE - 30u) << "filled";
    EXPECT_LT(strlen(kHeader) + text.size() + 2, size_t{NOX_PIPE_TEXT_SIZE});
    EXPECT_NE(std::string::npos, text.find("loose_" + std::string(33, 'x') + "; "));
    EXPECT_TRUE(isdigit(text.back())) << "ends with a whole piece: " << text.substr(4000);
    EXPECT_EQ(std::string::npos, text.find(std::string(128, 'k')));

    // The last byte that may be used is the one before the closing piece and its zero.
    NOXPlugin *first = member(new_source("s"));
    nox_plugin_link(first, member(new_sink("k"))); // " -> k;"
    for (size_t length = 4080; length < 4094; ++length) {
        char full[NOX_PIPE_TEXT_SIZE] = "";
        memset(full, 'x', length);
        pipe_print_plugin(first, full);
        EXPECT_EQ(length + 6 + 2 < NOX_PIPE_TEXT_SIZE ? length + 6 : length, strlen(full));
    }

    // A graph that was linked in a circle ends as well.
    nox_plugin_reset(last);
    nox_plugin_link(last, last);
    graph();
}

TEST_F(PipeTools, ADumpWritesTheTextAndTracesIt)
{
    nox_plugin_link(member(new_source("s")), member(new_sink("k")));
    const std::string text = std::string(kHeader) + "s -> k; }";
    EXPECT_EQ(0, nox_pipe_dump(pipe, nullptr));
    EXPECT_EQ(1u, traced("noxpipe", 2, text + " "));
    EXPECT_EQ(0, nox_pipe_dump(pipe, "graph.dot"));
    EXPECT_EQ(text, SIM_FileContent("graph.dot"));

    // The text, opening the file, writing and closing it: without branches a walk takes no memory.
    for (uint64_t n : {1u, 2u, 3u, 4u}) {
        SIM_TraceClear();
        SIM_FailNth(SIM_FallibleCount() + n);
        EXPECT_EQ(0, nox_pipe_dump(pipe, "other.dot"));
        SIM_FailNone();
        EXPECT_EQ(n == 2 ? 0u : 1u, SIM_TraceCount("", 1)) << n;
        EXPECT_EQ(n > 2 ? 1u : 0u, SIM_TraceCount("can not write (other.dot)", 1)) << n;
        EXPECT_EQ(n == 1 ? 0u : 1u, SIM_TraceCount("s -> k;", 2)) << n;
    }
}

TEST_F(PipeTools, PrintingWithoutMemoryForABranchLeavesOutThatBranchOnly)
{
    NOXPlugin *t = member(new_source("t"));
    for (const char *name : {"k1", "k2", "k3"})
        nox_plugin_link(t, member(new_sink(name)));
    ASSERT_EQ("t -> k1;t -> k3;t -> k2;", graph());
    const std::vector<std::string> without = {"t -> k1;", "t -> k1;t -> k2;", "t -> k1;t -> k3;"};
    for (uint64_t n = 2;; ++n) { // the first is the text itself
        const uint64_t failed = SIM_FailedCount();
        SIM_TraceClear();
        SIM_FailNth(SIM_FallibleCount() + n);
        const std::string text = graph();
        SIM_FailNone();
        if (SIM_FailedCount() == failed)
            break;
        EXPECT_NE(without.end(), std::find(without.begin(), without.end(), text)) << text;
        EXPECT_GT(SIM_TraceCount("no memory for the branch", 1), 0u) << n;
    }
}

} // namespace
