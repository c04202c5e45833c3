// Deleting what still runs: nothing crashes, waits for itself or is left alive, and the
// application is told what it forgot. Deletions on the pipe's own threads, and beside
// requests and messages, are explored by the campaign schedules-deletion.

#include <memory>

#include "on_stage.h"

namespace
{

constexpr uint64_t kSeeds = 60;

// Two sources of which one is live, a branching filter, three sinks.
struct Graph {
    Graph()
    {
        script("idle").live = false;
        source = new_source("s");
        reinterpret_cast<NOXBaseSrc *>(source)->waitallsrc = 0; // the other is not live
        NOXPlugin *idle = new_source("idle");
        NOXPlugin *filter = new_filter("f"), *branch = new_sink("k2"), *other = new_sink("k3");
        sink = new_sink("k1");
        pipe = new_pipe({{sink}, {branch}, {filter}, {source}, {idle}, {other}});
        nox_plugin_link(source, filter);
        nox_plugin_link(filter, sink);
        nox_plugin_link(filter, branch);
        nox_plugin_link(idle, other);
    }
    NOXPipe *pipe;
    NOXPlugin *source;
    NOXPlugin *sink;
};

const std::vector<std::string> kPlugins = {"s", "idle", "f", "k1", "k2", "k3"};

uint32_t told_of(const std::string &source)
{
    return traced("noxplugin", 1,
                  "plugin(" + source + ") is released before its thread was joined");
}

TEST(Delete, OfAPipeInAnyStateEndsItsSourcesFirstAndNamesThem)
{
    const std::vector<std::vector<int32_t>> roads = {
        {NOX_STATE_PLAY},
        {NOX_STATE_PLAY, NOX_STATE_PAUSE},
        {NOX_STATE_PLAY, NOX_STATE_PAUSE, NOX_STATE_READY},
        {NOX_STATE_READY, NOX_STATE_PLAY},
    };
    under_seeds(kSeeds, [&] {
        Graph graph;
        for (int32_t state : roads[SIM_Seed() % roads.size()]) {
            nox_pipe_set_state(graph.pipe, state);
            OSA_ThreadSleep(static_cast<uint32_t>(SIM_Seed() % 50));
        }
        SIM_TraceClear();
        log_enabled = true;
        nox_object_delete(graph.pipe);
        EXPECT_EQ(1u, told_of("s"));
        EXPECT_EQ(1u, told_of("idle"));
        const Log log = take_log();
        EXPECT_EQ((Log{"s stop", "idle stop", "k1 stop", "k2 stop", "f stop", "k3 stop"}), log)
            << "what pushes first, and everything just once";
        for (const std::string &name : kPlugins)
            EXPECT_EQ(1u, script(name).finalized) << name;
    });
}

TEST(Delete, OfAPipeInNullTellsAndStopsNothing)
{
    under_seeds(kSeeds, [] {
        Graph graph;
        nox_pipe_set_state(graph.pipe, NOX_STATE_PLAY);
        nox_pipe_set_state(graph.pipe, NOX_STATE_NULL);
        SIM_TraceClear();
        nox_object_delete(graph.pipe);
        EXPECT_EQ(0u, SIM_TraceCount("", 1));
        EXPECT_EQ(1u, script("s").stopped);
    });
}

TEST(Delete, OfASourceAloneEndsItsThreadBeforeItsLinksGo)
{
    under_seeds(kSeeds, [] {
        Graph graph;
        nox_pipe_set_state(graph.pipe, NOX_STATE_PLAY);
        if (SIM_Seed() % 2 == 0)
            nox_pipe_set_state(graph.pipe, NOX_STATE_PAUSE);
        nox_pipe_del_plugin(graph.pipe, graph.source);
        nox_object_delete(graph.source);
        EXPECT_EQ(1u, told_of("s"));
        EXPECT_EQ(1u, script("s").finalized);
        const uint32_t taken = script("k1").taken;
        OSA_ThreadSleep(100);
        EXPECT_EQ(taken, script("k1").taken);
        nox_object_delete(graph.pipe);
    });
}

TEST(Delete, AsksAllSourcesBeforeItWaitsForOne)
{
    under_seeds(kSeeds, [] {
        NOXPipe *pipe = nox_pipe_new("player");
        for (const char *name : {"a", "b", "c", "d"}) {
            script(name).buffers = 0; // fails at once, and waits 4 s for a group
            NOXPlugin *source = new_source(name);
            reinterpret_cast<NOXBaseSrc *>(source)->errhandle = NOX_ERRHANDLE_RESTART;
            NOXPlugin *sink = new_sink(std::string("sink of ") + name);
            nox_pipe_add_plugin_many(pipe, source, sink, nullptr);
            nox_plugin_link(source, sink);
        }
        nox_pipe_set_state(pipe, NOX_STATE_PLAY);
        OSA_ThreadSleep(static_cast<uint32_t>(SIM_Seed() * 10));
        const uint64_t begin = SIM_Tick();
        nox_object_delete(pipe);
        EXPECT_LE(SIM_Tick() - begin, 250u) << "two sleeps of 100 ms at most";
        EXPECT_EQ(script("a").started, script("a").stopped);
    });
}

TEST(Delete, EndsTheWaitOfASinkForAClockThatNeverStarted)
{
    Stage stage;
    NOXPlugin *source = new_source("s");
    NOXPlugin *sink = new_sink("k");
    NOXPipe *pipe = new_pipe({{source, sink}, {new_source("refusing"), new_sink("other")}});
    // The source pushes on a thread of its own, which its stop joins.
    reinterpret_cast<NOXBaseSrc *>(source)->usethread = 0;
    reinterpret_cast<NOXBaseSink *>(sink)->sync = 1;
    script("refusing").start_result = -1;
    EXPECT_EQ(-1, nox_pipe_set_state(pipe, NOX_STATE_PLAY));
    auto worker = std::make_unique<Worker>([source] {
        NOXBuffer *buffer = nox_buffer_new(10);
        nox_plugin_push_buffer(source, buffer);
        nox_object_delete(buffer);
    });
    script("s").on_stop = [&worker] { worker.reset(); };
    OSA_ThreadSleep(50);
    nox_object_delete(pipe);
    EXPECT_EQ(nullptr, worker);
}

TEST(Delete, WithoutMemoryOneDepartingThreadIsRememberedAndTheNextIsNamed)
{
    Stage stage;
    for (int i = 0; i < 2; ++i) {
        NOXBus *bus = nox_bus_new("bus");
        nox_bus_set_handler(
            bus,
            [](NOXBus *self, void *, const char *, int32_t, const char *) -> int32_t {
                SIM_FailFrom(SIM_FallibleCount() + 1);
                nox_object_delete(self);
                SIM_FailNone();
                return 0;
            },
            nullptr);
        nox_bus_post_error(bus, "test", 1, nullptr);
        OSA_ThreadSleep(10);
    }
    EXPECT_EQ(1u, SIM_TraceCount("is never joined\n", 1));
    const std::string left = stage.end();
    EXPECT_EQ(0u, left.find("alive: thread")) << left;
    EXPECT_EQ(left.size() - 1, left.find('\n')) << "one line\n" << left;
}

TEST(Delete, OfAPipeLeavesNoPointerToItInWhatOthersHold)
{
    Stage stage;
    Graph graph;
    auto *sink = static_cast<NOXPlugin *>(nox_object_refer(graph.sink));
    auto *bus = static_cast<NOXBus *>(nox_object_refer(graph.pipe->busref));
    nox_object_delete(graph.pipe);
    EXPECT_EQ(nullptr, nox_plugin_get_pipeline(sink));
    EXPECT_EQ(-1, nox_plugin_error_post(sink, 1, "nobody listens"));
    EXPECT_EQ(nullptr, nox_bus_get_parent(bus));
    EXPECT_EQ(0, nox_bus_post_error(bus, "test", 1, "the bus lives on"));
    nox_object_delete(sink);
    nox_object_delete(bus);
}

} // namespace
