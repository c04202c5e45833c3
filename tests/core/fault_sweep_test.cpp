// Every fallible call of a full run fails in turn: nothing may crash, hang, leak,
// or fail in silence, and a clean run must work afterwards.

#include <gtest/gtest.h>

#include "tests/support/stage.h"

namespace
{

// From start-up to shut-down: two sources, a filter, a tee, three sinks, played to
// end of stream, an asynchronous change on the way down. True when all of it worked.
class FullRun
{
public:
    bool run()
    {
        const bool played = nox_init(Stage::kCachePath) == 0 && build() && play();
        return tear_down() && played;
    }

private:
    NOXPlugin *add(NOXPlugin *plugin)
    {
        if (plugin != nullptr && nox_pipe_add_plugin(m_pipe, plugin) != 0) {
            nox_object_delete(plugin);
            return nullptr;
        }
        return plugin;
    }

    bool link(NOXPlugin *plugin, NOXPlugin *next)
    {
        return plugin != nullptr && next != nullptr && nox_plugin_link(plugin, next) == 0;
    }

    bool limit(NOXPlugin *source)
    {
        NOXStructure *format = nox_structure_new("options");
        if (format == nullptr)
            return false;
        const bool set =
            nox_structure_putvar1(NOX_TYPE_UINT32, format, "maxframes", 0, 4) == 0 &&
            nox_structure_putvar1(NOX_TYPE_STRING, format, "device", 0, "/dev/none") == 0 &&
            nox_plugin_setformat(source, format) == 0;
        nox_object_delete(format);
        return set;
    }

    bool build()
    {
        m_pipe = nox_pipe_new("player");
        if (m_pipe == nullptr)
            return false;
        m_inbox.attach(m_pipe);
        NOXPlugin *s1 = add(new_source("s1")), *s2 = add(new_source("s2"));
        NOXPlugin *filter = add(new_filter("f")), *tee = add(new_filter("t"));
        NOXPlugin *k1 = add(new_sink("k1")), *k2 = add(new_sink("k2")), *k3 = add(new_sink("k3"));
        return link(s1, filter) && link(filter, tee) && link(tee, k1) && link(tee, k2) &&
               link(s2, k3) && limit(s1) && limit(s2);
    }

    bool play()
    {
        if (nox_pipe_set_state(m_pipe, NOX_STATE_PLAY) != 0)
            return false;
        const bool ended = wait_until([this] { return m_inbox.count(NOX_MSG_EOS) > 0; }, 20'000);
        return pause_asynchronously() && ended;
    }

    // Returns when the change is over: no other change may run beside it.
    bool pause_asynchronously()
    {
        static std::atomic<int32_t> answer;
        answer = 1;
        const auto keep_answer = [](NOXPipe *, int32_t, int32_t result) -> int32_t {
            answer = result;
            return 0;
        };
        if (nox_pipe_set_state_async(m_pipe, NOX_STATE_PAUSE, keep_answer) != 0)
            return false;
        EXPECT_TRUE(wait_until([] { return answer != 1; })) << "a request was lost";
        return answer == 0;
    }

    bool tear_down()
    {
        bool worked = true;
        if (m_pipe != nullptr) {
            worked = nox_pipe_set_state(m_pipe, NOX_STATE_NULL) == 0;
            nox_object_delete(m_pipe);
        }
        nox_deinit();
        return worked;
    }

    NOXPipe *m_pipe = nullptr;
    Inbox m_inbox;
};

struct Outcome {
    bool worked;
    uint64_t failed;
    bool told;
    std::string remains;
};

template <typename Arm>
Outcome run_with(Arm arm)
{
    Stage stage({}, false);
    FullRun full_run;
    arm(SIM_FallibleCount());
    Outcome outcome;
    outcome.worked = full_run.run();
    outcome.failed = SIM_FailedCount();
    outcome.told = SIM_TraceCount("", OSA_TRACE_ERROR) > 0;
    outcome.remains = stage.end();
    return outcome;
}

} // namespace

TEST(FaultSweep, EveryFallibleCallOfAFullRunMayFailOnceOrForEver)
{
    const Outcome clean = run_with([](uint64_t) {});
    ASSERT_TRUE(clean.worked);
    ASSERT_FALSE(clean.told) << "or a told fault would prove nothing";
    ASSERT_EQ("", clean.remains);
    uint64_t points = 0;
    for (bool for_ever : {false, true}) {
        for (uint64_t n = 1;; ++n) {
            const Outcome outcome = run_with([=](uint64_t before) {
                for_ever ? SIM_FailFrom(before + n) : SIM_FailNth(before + n);
            });
            if (outcome.failed == 0)
                break;
            ++points;
            const std::string call = (for_ever ? "from " : "only ") + SIM_FallibleText(n);
            EXPECT_EQ("", outcome.remains) << call;
            EXPECT_TRUE(outcome.told) << "failed in silence, " << call;
        }
    }
    EXPECT_TRUE(run_with([](uint64_t) {}).worked) << "a clean run afterwards";
    std::printf("%llu fault points\n", static_cast<unsigned long long>(points));
    EXPECT_GE(points, 200u);
}

TEST(FaultSweep, RandomPairsOfFaultsLeaveNothingBehind)
{
    uint64_t calls = 0;
    run_with([&](uint64_t before) { calls = before; });
    calls = SIM_FallibleCount() - calls;
    uint64_t random = 42;
    for (int pair = 0; pair < 300; ++pair) {
        random = random * 6364136223846793005u + 1442695040888963407u;
        const uint64_t first = (random >> 33) % calls + 1;
        const uint64_t second = (random >> 17) % calls + 1;
        const Outcome outcome =
            run_with([=](uint64_t before) { SIM_FailNth(before + first, before + second); });
        EXPECT_EQ("", outcome.remains) << first << " and " << second;
    }
}
