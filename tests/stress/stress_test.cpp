// Storms on the Linux layer: what virtual time cannot show, two processors at once,
// is left to these and to the sanitizers that they run under.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "noxcore.h"
#include "osa/osa_ext.h"

namespace
{

std::atomic<uint64_t> g_rendered{0};

// Plugins of the test program itself, without the registry.
template <typename Record>
Record *new_plugin(const char *name)
{
    auto *record = static_cast<Record *>(nox_object_new(sizeof(Record), name, 1));
    nox_object_set_finalize_func(record, nox_plugin_finalize);
    return record;
}

NOXPlugin *new_source(bool live)
{
    auto *source = new_plugin<NOXBaseSrc>("source");
    nox_basesrc_init(source);
    source->islive = live;
    source->create_func = [](NOXBaseSrc *) { return nox_buffer_new(64); };
    source->finalize_func = [](NOXBaseSrc *) -> int32_t { return 0; };
    return &source->plugin;
}

NOXPlugin *new_sink()
{
    auto *sink = new_plugin<NOXBaseSink>("sink");
    nox_basesink_init(sink);
    sink->render_func = [](NOXBaseSink *, NOXBuffer *) -> int32_t {
        g_rendered.fetch_add(1, std::memory_order_relaxed);
        return 0;
    };
    return &sink->plugin;
}

// Two sources that feed a sink each.
NOXPipe *new_pipe(bool live)
{
    NOXPipe *pipe = nox_pipe_new("storm");
    for (int i = 0; i < 2; ++i) {
        NOXPlugin *source = new_source(live);
        NOXPlugin *sink = new_sink();
        nox_pipe_add_plugin_many(pipe, source, sink, nullptr);
        nox_plugin_link(source, sink);
    }
    return pipe;
}

class Storm : public ::testing::Test
{
protected:
    void SetUp() override
    {
        OSA_TraceSetLevel(0);
        const std::string cache = testing::TempDir() + "empty.cache";
        std::fclose(std::fopen(cache.c_str(), "w"));
        ASSERT_EQ(0, nox_init(cache.c_str()));
    }

    void TearDown() override
    {
        nox_deinit();
        OSA_Alive alive;
        OSA_AliveGet(&alive);
        EXPECT_TRUE(OSA_AliveIsNothing(&alive));
    }
};

void wait_for_progress()
{
    const uint64_t before = g_rendered;
    while (g_rendered == before)
        std::this_thread::yield();
}

} // namespace

TEST_F(Storm, NothingIsPushedWhileTheSourcesAreParked)
{
    NOXPipe *pipe = new_pipe(true);
    ASSERT_EQ(0, nox_pipe_set_state(pipe, NOX_STATE_PLAY));
    wait_for_progress();
    for (int cycle = 0; cycle < 500; ++cycle) {
        ASSERT_EQ(0, nox_pipe_set_state(pipe, NOX_STATE_PAUSE));
        const uint64_t parked = g_rendered;
        if (cycle % 8 == 0)
            nox_pipe_set_state(pipe, NOX_STATE_READY);
        std::this_thread::yield();
        ASSERT_EQ(parked, g_rendered) << "cycle " << cycle;
        ASSERT_EQ(0, nox_pipe_set_state(pipe, NOX_STATE_PLAY));
        if (cycle % 16 == 0)
            wait_for_progress();
    }
    nox_pipe_set_state(pipe, NOX_STATE_NULL);
    nox_object_delete(pipe);
}

TEST_F(Storm, StartingAndStoppingLeavesNothingBehind)
{
    for (bool live : {true, false}) {
        NOXPipe *pipe = new_pipe(live);
        OSA_Alive before;
        OSA_AliveGet(&before);
        for (int cycle = 0; cycle < 60; ++cycle) {
            ASSERT_EQ(0, nox_pipe_set_state(pipe, NOX_STATE_PLAY));
            if (cycle % 2 == 0)
                wait_for_progress();
            if (cycle % 3 == 0)
                nox_pipe_set_state(pipe, NOX_STATE_PAUSE);
            ASSERT_EQ(0, nox_pipe_set_state(pipe, NOX_STATE_NULL));
        }
        OSA_ThreadSleep(10); // the last messages are still being handed out
        OSA_Alive after;
        OSA_AliveGet(&after);
        EXPECT_EQ(before.blocks, after.blocks);
        EXPECT_EQ(before.threads, after.threads);
        EXPECT_EQ(before.pool_blocks, after.pool_blocks);
        nox_object_delete(pipe);
    }
}

TEST_F(Storm, PipesDeletedWhereverTheyRunLeaveNothingBehind)
{
    struct Owner {
        NOXPipe *pipe;
        std::atomic<bool> deleted{false};
        void drop()
        {
            nox_object_delete(pipe);
            deleted = true;
        }
    };
    static Owner *owner; // the callback of a change has no argument of its own
    for (int cycle = 0; cycle < 90; ++cycle) {
        Owner current{new_pipe(cycle % 2 == 0)};
        owner = &current;
        nox_pipe_set_bus_handler(
            current.pipe,
            [](NOXBus *, void *data, const char *, int32_t code, const char *) -> int32_t {
                if (code == 1000)
                    static_cast<Owner *>(data)->drop();
                return 0;
            },
            &current);
        ASSERT_EQ(0, nox_pipe_set_state(current.pipe, NOX_STATE_PLAY));
        if (cycle % 3 == 0) {
            wait_for_progress();
            current.drop();
        } else if (cycle % 3 == 1) {
            nox_bus_post_error(current.pipe->busref, "storm", 1000, nullptr);
        } else {
            nox_pipe_set_state_async(current.pipe, NOX_STATE_PAUSE,
                                     [](NOXPipe *, int32_t, int32_t) -> int32_t {
                                         owner->drop();
                                         return 0;
                                     });
        }
        while (!current.deleted)
            std::this_thread::yield();
    }
}

TEST_F(Storm, MessagesOfManyPostersAreNeitherLostNorReordered)
{
    constexpr int kPosters = 4;
    constexpr int kMessages = 5000;
    struct Received {
        std::array<std::atomic<int>, kPosters> next{};
        std::atomic<int> wrong{0};
    } received;
    NOXBus *bus = nox_bus_new("storm");
    nox_bus_set_handler(
        bus,
        [](NOXBus *, void *data, const char *name, int32_t code, const char *) -> int32_t {
            auto *all = static_cast<Received *>(data);
            std::atomic<int> &next = all->next[static_cast<size_t>(*name - '0')];
            if (next++ != code)
                ++all->wrong;
            return 0;
        },
        &received);
    std::vector<std::thread> posters;
    for (int poster = 0; poster < kPosters; ++poster)
        posters.emplace_back([bus, poster] {
            const std::string name = std::to_string(poster);
            for (int code = 0; code < kMessages; ++code)
                nox_bus_post_error(bus, name.c_str(), code, "storm");
        });
    for (std::thread &poster : posters)
        poster.join();
    for (const std::atomic<int> &next : received.next)
        while (next < kMessages)
            std::this_thread::yield();
    EXPECT_EQ(0, received.wrong);
    nox_object_delete(bus);
}
