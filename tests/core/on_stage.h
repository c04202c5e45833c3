// What the tests of single modules share: a stage, with a pipe or without, runs under
// many seeds, and exact trace lines.
#ifndef TESTS_CORE_ON_STAGE_H
#define TESTS_CORE_ON_STAGE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/stage.h"

using Log = std::vector<std::string>;

// The body runs at tick 1000 of a fresh run, which must end with nothing alive.
class OnStage : public testing::Test
{
protected:
    explicit OnStage(const SIM_Options &options = {}, bool initialise = true)
        : stage(options, initialise)
    {
    }
    // Deleted, in the order of keeping, when the test has ended.
    template <typename Object>
    Object *keep(Object *object)
    {
        m_kept.push_back(object);
        return object;
    }
    void TearDown() override
    {
        for (void *object : m_kept)
            nox_object_delete(object);
    }
    Stage stage;

private:
    std::vector<void *> m_kept;
};

// With a pipe, which is brought to NULL and deleted when the test has ended.
class OnePipe : public OnStage
{
protected:
    using OnStage::OnStage;
    void SetUp() override
    {
        inbox.attach(pipe);
    }
    void TearDown() override
    {
        log_enabled = false;
        nox_pipe_set_state(pipe, NOX_STATE_NULL);
        nox_object_delete(pipe);
        OnStage::TearDown();
    }
    NOXPlugin *member(NOXPlugin *plugin)
    {
        nox_pipe_add_plugin(pipe, plugin);
        return plugin;
    }
    void to(int32_t state)
    {
        EXPECT_EQ(0, nox_pipe_set_state(pipe, state));
    }
    NOXPipe *pipe = nox_pipe_new("player");
    Inbox inbox;
};

// One run for each seed, to the first that fails.
template <typename Story>
void under_seeds(uint64_t seeds, Story story, SIM_Options options = {})
{
    for (options.seed = 1; options.seed <= seeds && !testing::Test::HasFailure(); ++options.seed) {
        SCOPED_TRACE("seed " + std::to_string(options.seed));
        Stage stage(options);
        story();
    }
}

// A thread of the run; the end of its scope waits for it.
class Worker
{
public:
    explicit Worker(std::function<void()> body)
        : m_body(std::move(body)), m_thread(OSA_ThreadCreate("worker", 0, 0, run, this))
    {
    }
    ~Worker()
    {
        OSA_ThreadDelete(m_thread, nullptr);
    }
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;

private:
    static int32_t run(void *self)
    {
        static_cast<Worker *>(self)->m_body();
        return 0;
    }
    std::function<void()> m_body;
    OSA_Thread *m_thread;
};

// How often exactly this line was written; `text` goes without its line feed.
inline uint32_t traced(const std::string &module, int32_t level, const std::string &text)
{
    const auto &lines = SIM_Traces();
    return static_cast<uint32_t>(std::count_if(lines.begin(), lines.end(), [&](const auto &line) {
        return line.module == module && line.level == level && line.text == text + "\n";
    }));
}

inline OSA_Alive alive()
{
    OSA_Alive alive;
    OSA_AliveGet(&alive);
    return alive;
}

#endif
