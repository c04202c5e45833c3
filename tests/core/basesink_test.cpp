// The base sink: throughput, the wait for the clock, messages, events. And the
// base filter's fixed answers.

#include <memory>

#include "tests/core/on_stage.h"

namespace
{

// A sink in a pipe, with buffers handed to it directly.
class Sink : public OnePipe
{
protected:
    Sink() : OnePipe({.first_tick = 123}) {}

    int32_t render(uint64_t timestamp, uint32_t bytes = 0)
    {
        NOXBuffer *buffer = nox_buffer_new(0);
        buffer->datasize = bytes;
        nox_buffer_set_timestamp(buffer, timestamp);
        const int32_t result = sink->chain_func(sink, buffer);
        nox_object_delete(buffer);
        return result;
    }

    // `count` buffers of `bytes` bytes, evenly spread over one measuring period of
    // `elapsed` ms, the first at its beginning; the report's line.
    std::string report_of(uint32_t count, uint64_t elapsed, uint32_t bytes)
    {
        base->firstts = base->bytes = base->frames = 0;
        SIM_TraceClear();
        for (uint32_t i = 0; i + 1 < count; ++i)
            render(40 + i, bytes);
        render(40 + elapsed, bytes);
        for (const SIM_TraceLine &line : SIM_Traces())
            if (line.level == 0)
                return line.text;
        return "";
    }

    NOXPlugin *sink = member(new_sink("k"));
    NOXBaseSink *base = reinterpret_cast<NOXBaseSink *>(sink);
};

TEST_F(Sink, PrintsItsThroughputEveryFiveSecondsOfStreamTime)
{
    set_option(sink, NOX_TYPE_BOOL, "verbose", 1);
    EXPECT_EQ("00000000123 : [k] 25.20 fps, 002.0 Mbps  \n", report_of(126, 5000, 10000));
    SIM_TraceClear();
    for (uint64_t i = 1; i <= 125; ++i)
        render(5040 + 40 * i, 10000);
    EXPECT_EQ(1u, SIM_TraceCount("[k] 25.00 fps, 002.0 Mbps  \n")) << "the next starts at 0";
    EXPECT_EQ("", report_of(126, 4999, 10000)) << "the period is not over";
    EXPECT_EQ("00000000123 : [k] 25.00 fps, 1000.0 Kbps  \n", report_of(125, 5000, 5000));
    EXPECT_EQ("00000000123 : [k] 00.40 fps, -397934.6 Kbps  \n", report_of(2, 5000, 0x98968000))
        << "the bit rate wraps in 32 bits";
}

TEST_F(Sink, MarksRatesHalfAboveTheirTargets)
{
    int32_t rate = -1;
    int32_t *address = &rate;
    NOXStructure *format = nox_structure_new("format");
    nox_structure_putvar_void(format, "rateoutvar", 0, &address);
    nox_structure_putvar1(NOX_TYPE_BOOL, format, "verbose", 0, 1);
    nox_structure_putvar1(NOX_TYPE_INT32, format, "targetfps", 0, 30);
    nox_structure_putvar1(NOX_TYPE_INT32, format, "targetbps", 0, -1);
    EXPECT_EQ(0, nox_plugin_setformat(sink, format));
    EXPECT_EQ(nullptr, base->rateoutvar) << "no bytes to write to";
    EXPECT_EQ(0, base->targetbps);
    nox_structure_putvar_void(format, "rateoutvar", sizeof(rate), &address);
    nox_plugin_setformat(sink, format);
    nox_object_delete(format);

    const std::string high = "\033[33m (HIGH FPS)\033[0m";
    EXPECT_NE(std::string::npos, report_of(225, 5000, 0).find(high)) << "45.0";
    EXPECT_EQ(45, rate);
    EXPECT_EQ(std::string::npos, report_of(225, 5011, 0).find(high)) << "44.9";
    EXPECT_EQ(45, rate) << "rounded";
    set_option(sink, NOX_TYPE_INT32, "targetfps", 0x40000000);
    EXPECT_EQ(std::string::npos, report_of(225, 5000, 0).find(high)) << "no overflow";
    set_option(sink, NOX_TYPE_INT32, "targetbps", 8000);
    EXPECT_NE(std::string::npos, report_of(225, 5000, 40).find("(HIGH BITRATE)"));
}

TEST_F(Sink, HoldsABufferUntilTheClockReachesIt)
{
    set_option(sink, NOX_TYPE_BOOL, "sync", 1);
    nox_timer_start(pipe->clock);
    SIM_TickAdvance(1000);
    struct Case {
        uint64_t ahead_ms;
        uint64_t held_ms;
    };
    for (const Case &test : {Case{1000, 1000}, Case{2, 2}, Case{1, 0}, Case{0, 0}}) {
        const uint64_t before = SIM_Tick();
        render(nox_timer_gettime(pipe->clock) + test.ahead_ms);
        EXPECT_EQ(test.held_ms, SIM_Tick() - before) << test.ahead_ms;
    }
    const uint64_t before = SIM_Tick();
    render(0);
    render(10);
    EXPECT_EQ(before, SIM_Tick()) << "no timestamp, and one long past";
    EXPECT_EQ(6u, script("k").taken) << "nothing is dropped";
}

TEST_F(Sink, NeverSleepsForAWrappedDifferenceWhenTheClockJumps)
{
    set_option(sink, NOX_TYPE_BOOL, "sync", 1);
    nox_timer_start(pipe->clock);
    for (int round = 0; round < 300; ++round) {
        const uint64_t timestamp = nox_timer_gettime(pipe->clock) + 1000;
        Worker mover([this] { nox_timer_settime(pipe->clock, 5000); }); // between two readings
        const uint64_t before = SIM_Tick();
        render(timestamp);
        EXPECT_LE(SIM_Tick() - before, 1000u);
    }
}

TEST(SinkAndClock, ASinkThatWaitsWhileThePipeStartsSeesNoReadingFromBefore)
{
    constexpr uint64_t kTick = 1'000'000; // what the clock reads after nox_pipe_start
    const auto start_meanwhile = [] {
        NOXPlugin *sink = new_sink("k");
        NOXPipe *pipe = new_pipe({{sink}});
        set_option(sink, NOX_TYPE_BOOL, "sync", 1);
        {
            Worker pusher([sink] {
                NOXBuffer *buffer = nox_buffer_new(0);
                nox_buffer_set_timestamp(buffer, kTick + 50);
                sink->chain_func(sink, buffer);
                nox_object_delete(buffer);
            });
            OSA_ThreadSleep(20);
            EXPECT_EQ(0, nox_pipe_start(pipe));
        }
        EXPECT_LE(SIM_Tick(), kTick + 50);
        nox_pipe_stop(pipe);
        nox_object_delete(pipe);
    };
    under_seeds(40, start_meanwhile, {.first_tick = kTick});
}

TEST_F(Sink, WaitsForTheClockToStart)
{
    set_option(sink, NOX_TYPE_BOOL, "sync", 1);
    base->discont = 1;
    Worker starter([this] {
        OSA_ThreadSleep(3000);
        nox_timer_start(pipe->clock);
    });
    const uint64_t before = SIM_Tick();
    render(200);
    EXPECT_EQ(3200u, SIM_Tick() - before);
    EXPECT_EQ(0, base->discont);
}

TEST_F(Sink, ThatWaitsForAClockThatStandsAtZeroLetsItsSourcePause)
{
    nox_plugin_link(member(new_source("s")), sink);
    set_option(sink, NOX_TYPE_BOOL, "sync", 1);
    nox_timer_set_rate(pipe->clock, 0);
    to(NOX_STATE_PLAY);
    OSA_ThreadSleep(200);
    const uint32_t held = script("k").taken;
    EXPECT_LE(held, 1u) << "but for one that the start of the clock lets through";
    to(NOX_STATE_PAUSE);
    nox_timer_set_rate(pipe->clock, 1);
    to(NOX_STATE_PLAY);
    OSA_ThreadSleep(200);
    EXPECT_GT(script("k").taken, held + 2);
}

TEST_F(Sink, ThatWaitsForAClockThatNeverStartsLetsItsSourceStop)
{
    script("s").live = false;
    nox_plugin_link(member(new_source("s")), sink);
    nox_plugin_link(member(new_source("broken")), member(new_sink("k2")));
    set_option(sink, NOX_TYPE_BOOL, "sync", 1);
    script("broken").start_result = -1;
    EXPECT_EQ(-1, nox_pipe_set_state(pipe, NOX_STATE_PLAY)) << "so the clock is not started";
    OSA_ThreadSleep(1000);
    EXPECT_EQ(0u, script("k").taken);
    to(NOX_STATE_NULL);
}

TEST_F(Sink, ThatWaitsForAClockThatNeverStartsLetsAFilterJoinItsThread)
{
    NOXPlugin *source = member(new_source("s")), *filter = member(new_filter("f"));
    nox_plugin_link_many(source, filter, sink, nullptr);
    set_option(sink, NOX_TYPE_BOOL, "sync", 1);
    script("s").start_result = -1;
    std::atomic<bool> ends{false};
    std::unique_ptr<Worker> worker;
    const auto push_on = [&] {
        for (; !ends; OSA_ThreadSleep(1)) {
            NOXBuffer *buffer = nox_buffer_new(10);
            nox_plugin_push_buffer(filter, buffer);
            nox_object_delete(buffer);
        }
    };
    script("f").on_start = [&] { worker = std::make_unique<Worker>(push_on); };
    script("f").on_stop = [&] {
        OSA_ThreadSleep(50); // the source has stopped, and is not waited for any more
        ends = true;
        worker.reset();
    };
    EXPECT_EQ(-1, nox_pipe_set_state(pipe, NOX_STATE_PLAY));
    OSA_ThreadSleep(50);
    to(NOX_STATE_NULL);
    EXPECT_EQ(nullptr, worker);
}

TEST_F(Sink, ReportsItsFirstDataOnce)
{
    set_option(sink, NOX_TYPE_BOOL, "report", 1);
    render(1);
    OSA_ThreadSleep(10);
    EXPECT_TRUE(inbox.messages().empty()) << "with neither verbose nor sync";
    base->sync_func = [](NOXBaseSink *, NOXBuffer *) {};
    set_option(sink, NOX_TYPE_BOOL, "sync", 1);
    render(1);
    render(2);
    set_option(sink, NOX_TYPE_BOOL, "report", 1);
    set_option(sink, NOX_TYPE_BOOL, "verbose", 1);
    report_of(2, 5000, 1);
    OSA_ThreadSleep(10);
    // The second report of the two: by the first buffer of its period, which syncs.
    EXPECT_EQ((std::vector<Posted>{{"k", NOX_MSG_SINK, "sink rendered"},
                                   {"k", NOX_MSG_SINK, "sink rendered"}}),
              inbox.messages());
}

TEST_F(Sink, EventsAreRecordedWhateverTheDerivedSinkAnswersAsItLeavesThem)
{
    script("k").event_result = 6;
    render(1);
    EXPECT_EQ(1, nox_basesink_get_dataready(sink));
    NOXEvent stopping{nullptr, NOX_EVENT_STOPPING}, eos{nullptr, NOX_EVENT_EOS};
    EXPECT_EQ(6, nox_plugin_setevent(sink, &stopping));
    EXPECT_EQ(0, nox_basesink_get_dataready(sink));
    EXPECT_EQ(1, base->discont);
    // A derived sink may swallow an event, or make another of it.
    base->event_func = [](NOXBaseSink *, NOXEvent *event) -> int32_t {
        event->type = event->type == NOX_EVENT_EOS ? 100 : NOX_EVENT_EOS;
        return 6;
    };
    EXPECT_EQ(6, nox_plugin_setevent(sink, &eos));
    EXPECT_EQ(0, nox_basesink_get_eos(sink));
    EXPECT_EQ(6, nox_plugin_setevent(sink, &eos));
    EXPECT_EQ(1, nox_basesink_get_eos(sink));
    OSA_ThreadSleep(10);
    EXPECT_EQ(1u, inbox.count(NOX_MSG_EOS));
}

TEST_F(Sink, IgnoresWhatTheDerivedStartAndStopAnswer)
{
    script("k").start_result = -1;
    base->stop_func = [](NOXBaseSink *) -> int32_t { return -1; };
    EXPECT_EQ(0, nox_plugin_start(sink));
    EXPECT_EQ(0, nox_plugin_stop(sink));
}

TEST_F(Sink, WithoutAClockRendersAtOnce)
{
    set_option(sink, NOX_TYPE_BOOL, "sync", 1);
    NOXTimer *clock = sink->timer;
    sink->timer = nullptr;
    const uint64_t before = SIM_Tick();
    render(60'000);
    EXPECT_EQ(1u, script("k").taken);
    EXPECT_EQ(before, SIM_Tick());
    sink->timer = clock;
}

using Filter = OnStage;

TEST_F(Filter, AnswersForAMissingFunctionAndTurnsFailuresIntoMinusOne)
{
    NOXPlugin *plugin = new_filter("f");
    auto *filter = reinterpret_cast<NOXBaseFilter *>(plugin);
    NOXEvent event{nullptr, NOX_EVENT_RESET};
    script("f").start_result = 5;
    script("f").event_result = 5;
    EXPECT_EQ(-1, nox_plugin_start(plugin));
    EXPECT_EQ(-1, nox_plugin_setevent(plugin, &event));
    EXPECT_EQ(2u, SIM_TraceCount("plugin start failed\n", 1));
    filter->start_func = filter->stop_func = filter->finalize_func = nullptr;
    filter->event_func = nullptr;
    filter->setstate_func = nullptr;
    filter->chain_func = nullptr;
    EXPECT_EQ(0, nox_plugin_start(plugin));
    EXPECT_EQ(0, nox_plugin_stop(plugin));
    EXPECT_EQ(0, nox_plugin_setevent(plugin, &event));
    EXPECT_EQ(-1, plugin->setstate_func(plugin, NOX_STATE_READY));
    EXPECT_EQ(-1, plugin->chain_func(plugin, nullptr));
    EXPECT_EQ(nullptr, plugin->getallocator_func(plugin));
    nox_object_delete(plugin);
    EXPECT_EQ(1u, SIM_TraceCount("name(f) finalize error\n", 1));
}

} // namespace
