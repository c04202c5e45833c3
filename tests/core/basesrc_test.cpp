// The base source: options, its thread, timestamps, and the error policies.

#include "tests/core/on_stage.h"

namespace
{

constexpr int64_t kDontCare = 0xFFFFFFFF;

// One source, "s", linked to one sink, "k", in a pipe.
class Source : public OnePipe
{
protected:
    Source()
    {
        nox_plugin_link(source, sink);
        script("k").take = [this](NOXBuffer *buffer) {
            std::lock_guard lock(mutex);
            timestamps.push_back(nox_buffer_get_timestamp(buffer));
            return 0;
        };
    }

    // Creates whatever `steps` says, one letter each: b a buffer, - none; then none.
    void create_by(const std::string &steps)
    {
        script("s").create = [steps](NOXBaseSrc *) -> NOXBuffer * {
            OSA_ThreadSleep(1);
            const uint32_t step = script("s").created++;
            return step < steps.size() && steps[step] == 'b' ? nox_buffer_new(1) : nullptr;
        };
    }

    void policy(int64_t errhandle, int64_t errcount)
    {
        set_option(source, NOX_TYPE_UINT32, "errhandle", errhandle);
        set_option(source, NOX_TYPE_UINT32, "errcount", errcount);
    }

    std::vector<uint64_t> seen()
    {
        std::lock_guard lock(mutex);
        return timestamps;
    }

    NOXPlugin *source = member(new_source("s"));
    NOXPlugin *sink = member(new_sink("k"));
    NOXBaseSrc *base = reinterpret_cast<NOXBaseSrc *>(source);
    std::mutex mutex;
    std::vector<uint64_t> timestamps;
};

using Messages = std::vector<Posted>;
const Posted kStarted{"s", NOX_MSG_STARTED, "Successfully started"};
const Posted kRecovered{"s", NOX_MSG_STARTED, "Recovered from error"};
const Posted kCaptureError{"s", NOX_MSG_CAPTURE_ERROR, "capture failed! (runtime)"};
const Posted kPipeEos{"k", NOX_MSG_EOS, "EOS.\n"};

TEST_F(Source, ReadsItsOptionsAndLeavesTheRestAlone)
{
    EXPECT_EQ(0x20000u, base->stacksize);
    EXPECT_EQ(1, base->waitallsrc);
    SIM_TraceClear();
    EXPECT_EQ(0, nox_plugin_setformat(source, keep(nox_structure_new("empty"))));
    EXPECT_EQ(1u, SIM_TraceCount("asyncstart(0)\n", 2));
    EXPECT_EQ(1u, SIM_TraceCount("on-error  (0:QUIT)\n", 2));

    set_option(source, NOX_TYPE_BOOL, "asyncstart", 1);
    EXPECT_EQ(0, base->waitallsrc);
    set_option(source, NOX_TYPE_UINT32, "errhandle", kDontCare);
    EXPECT_EQ(NOX_ERRHANDLE_DONT_CARE, base->errhandle);
    EXPECT_EQ(1u, SIM_TraceCount("on-error  (-1:DONT_CARE)\n", 2));
    set_option(source, NOX_TYPE_UINT32, "errhandle", 7);
    EXPECT_EQ(1u, SIM_TraceCount("on-error  (7:NONE(QUIT))\n", 2));
    set_option(source, NOX_TYPE_INT32, "maxframes", 9);
    EXPECT_EQ(0u, base->maxframes) << "of another type: not read";
    SIM_TraceClear();
    set_option(source, NOX_TYPE_BOOL, "islive", 0);
    EXPECT_EQ(0u, SIM_TraceCount("on-error"));
    for (const SIM_TraceLine &line : SIM_Traces())
        EXPECT_EQ(line.source == "noxbasesrc" ? "s" : line.source, line.module);
}

TEST_F(Source, StartFailsWithoutACreateFunctionALinkAWillingDeviceOrMemory)
{
    auto create = base->create_func;
    base->create_func = nullptr;
    EXPECT_EQ(-1, nox_plugin_start(source));
    EXPECT_EQ(1u, SIM_TraceCount("must be declaration create function\n", 1));
    EXPECT_EQ(0u, script("s").started);
    base->usethread = 0;
    EXPECT_EQ(0, nox_plugin_start(source)) << "it produces in a context of its own";
    EXPECT_EQ(nullptr, base->thread);
    EXPECT_EQ(0, nox_plugin_start(source)) << "and again, without a second pause event";
    EXPECT_EQ(0, nox_plugin_stop(source));
    base->usethread = 1;
    base->create_func = create;

    script("s").start_result = 5;
    EXPECT_EQ(-1, nox_plugin_start(source));
    EXPECT_EQ(1u, SIM_TraceCount("plugin start failed\n", 1));
    script("s").start_result = 0;
    source->next = nullptr;
    EXPECT_EQ(-1, nox_plugin_start(source));
    EXPECT_EQ(1u, SIM_TraceCount("not linked\n", 1) - SIM_TraceCount("is not linked\n", 1));
    source->next = sink;
    for (uint64_t n : {1u, 2u}) { // the thread, the pause event
        SIM_FailNth(SIM_FallibleCount() + n);
        EXPECT_EQ(-1, nox_plugin_start(source));
        SIM_FailNone();
        EXPECT_EQ(nullptr, base->thread);
        nox_plugin_stop(source);
    }
    EXPECT_EQ(1u, SIM_TraceCount("base src thread create failed\n", 1));
    EXPECT_EQ(1u, SIM_TraceCount("pause event create failed\n", 1));

    EXPECT_EQ(0, nox_plugin_start(source));
    OSA_Thread *thread = base->thread;
    EXPECT_EQ(0, nox_plugin_start(source));
    EXPECT_EQ(thread, base->thread);
    EXPECT_EQ(1u, SIM_TraceCount("thread already started(", 1));
    nox_plugin_stop(source);
}

TEST_F(Source, EndsItsStreamAfterTheFrameLimit)
{
    set_option(source, NOX_TYPE_UINT32, "maxframes", 3);
    to(NOX_STATE_PLAY);
    EXPECT_TRUE(wait_until([this] { return inbox.count(NOX_MSG_EOS) == 1; }));
    OSA_ThreadSleep(1000);
    EXPECT_EQ((Messages{kStarted, kPipeEos}), inbox.messages());
    EXPECT_EQ(3u, script("k").taken);
    EXPECT_EQ(1, nox_basesrc_get_eos(source));
}

TEST_F(Source, ASourceThatIsNotLiveEndsOnceAndIsAskedAgainUntilStopped)
{
    base->islive = 0;
    create_by("bb");
    to(NOX_STATE_PLAY);
    EXPECT_TRUE(wait_until([] { return script("s").created == 8; }));
    EXPECT_EQ((std::vector<uint64_t>{0, 0}), seen()) << "not stamped";
    EXPECT_EQ(Messages{kPipeEos}, inbox.messages());
    EXPECT_EQ(1, nox_pipe_get_allsrc_stopped(pipe));
}

TEST_F(Source, StampsWithTheClockAndRepairsAReversal)
{
    script("s").create = [this](NOXBaseSrc *) -> NOXBuffer * {
        OSA_ThreadSleep(10);
        const uint32_t step = script("s").created++;
        if (step == 2) // the clock jumps back
            nox_timer_settime_absolute(pipe->clock, 1000);
        if (step == 4)
            SIM_TickAdvance(2500);
        return step < 5 ? nox_buffer_new(1) : nullptr;
    };
    SIM_TickSet(20'000);
    to(NOX_STATE_PLAY);
    nox_timer_settime_absolute(pipe->clock, 20'000);
    EXPECT_TRUE(wait_until([] { return script("k").taken == 5; }));
    const std::vector<uint64_t> stamps = seen();
    for (size_t i = 1; i < stamps.size(); ++i)
        EXPECT_GT(stamps[i], stamps[i - 1]);
    EXPECT_GE(SIM_TraceCount("Too long interval (25", 1), 1u);
}

TEST_F(Source, KeepsPrivateTimestampsUnlessTheyRunBackwards)
{
    set_option(source, NOX_TYPE_BOOL, "privatets", 1);
    script("s").create = [](NOXBaseSrc *) -> NOXBuffer * {
        constexpr uint64_t kStamps[] = {1000, 4000, 7000, 6000, 6900, 9000};
        OSA_ThreadSleep(10);
        const uint32_t step = script("s").created++;
        NOXBuffer *buffer = step < 6 ? nox_buffer_new(1) : nullptr;
        if (buffer != nullptr)
            nox_buffer_set_timestamp(buffer, kStamps[step]);
        return buffer;
    };
    to(NOX_STATE_PLAY);
    EXPECT_TRUE(wait_until([] { return script("k").taken == 6; }));
    EXPECT_EQ((std::vector<uint64_t>{1000, 4000, 7000, 7001, 7002, 9000}), seen());
    EXPECT_EQ(1u, SIM_TraceCount("Reversed timestamp prev(7000) cur(6000)\n", 1));
    EXPECT_EQ(1u, SIM_TraceCount("Too long interval (3000 ms)\n", 1)) << "not at start-up";
}

TEST_F(Source, HoldsItsFirstBufferBackUntilEverySourceHasData)
{
    script("slow").interval_ms = 500;
    nox_plugin_link(member(new_source("slow")), member(new_sink("k2")));
    to(NOX_STATE_PLAY);
    EXPECT_TRUE(wait_until([] { return script("k2").taken >= 1; }));
    EXPECT_GT(script("s").created, 10u);
    EXPECT_LE(script("k").taken, 3u) << "what came before was dropped";
    EXPECT_EQ(1, nox_pipe_get_allsrc_started(pipe));
}

TEST_F(Source, PoliciesAnswerCaptureFailuresAsDocumented)
{
    struct Case {
        int64_t errhandle;
        int64_t errcount;
        const char *steps;
        Messages messages;
        bool ends;
    };
    const Case cases[] = {
        {NOX_ERRHANDLE_QUIT, 0, "b-b", {kStarted, kCaptureError}, true},
        {NOX_ERRHANDLE_QUIT,
         2,
         "b--b---",
         {kStarted, kCaptureError, kCaptureError, kRecovered, kCaptureError, kCaptureError,
          kCaptureError},
         true},
        {9, 0, "-", {kCaptureError}, true},
        {NOX_ERRHANDLE_RETRY, 2, "b---bb", {kStarted, kCaptureError, kRecovered}, false},
        {kDontCare, 0, "b--bb", {kStarted}, false},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(std::to_string(test.errhandle) + " " + test.steps);
        Inbox own;
        own.attach(pipe);
        script("s").created = 0;
        const uint32_t steps = static_cast<uint32_t>(std::string(test.steps).size());
        script("s").create = [&test, steps](NOXBaseSrc *) -> NOXBuffer * {
            OSA_ThreadSleep(1);
            if (script("s").created == steps) { // nothing more to say
                OSA_ThreadSleep(600'000);
                return nox_buffer_new(1);
            }
            return test.steps[script("s").created++] == 'b' ? nox_buffer_new(1) : nullptr;
        };
        policy(test.errhandle, test.errcount);
        to(NOX_STATE_PLAY);
        OSA_ThreadSleep(3000);
        EXPECT_EQ(test.messages, own.messages());
        EXPECT_EQ(test.ends, nox_basesrc_get_eos(source) == 1);
        EXPECT_EQ(0, nox_basesink_get_eos(sink)) << "quitting is not an end of stream";
        nox_pipe_set_state(pipe, NOX_STATE_NULL);
        inbox.attach(pipe);
    }
}

TEST_F(Source, HooksRunAroundTheThreadAndAfterEachPush)
{
    static std::atomic<uint32_t> pushes;
    pushes = 0;
    NOXStructure *format = nox_structure_new("format");
    nox_structure_putvar1(NOX_TYPE_VOID, format, "errcallback", uint64_t{8}, &pushes);
    EXPECT_EQ(0, nox_plugin_setformat(source, format));
    nox_object_delete(format);
    EXPECT_EQ(&pushes, base->errcallback);
    base->postpush_func = [](NOXBaseSrc *) { ++pushes; };
    base->prestop_func = [](NOXBaseSrc *self) -> int32_t {
        EXPECT_NE(nullptr, self->thread) << "before the thread is joined";
        return 5;
    };
    base->stop_func = [](NOXBaseSrc *self) -> int32_t {
        EXPECT_EQ(nullptr, self->thread);
        return 6;
    };
    to(NOX_STATE_PLAY);
    OSA_ThreadSleep(100);
    EXPECT_EQ(6, nox_plugin_stop(source));
    EXPECT_GT(pushes, 0u);
    EXPECT_LE(script("k").taken - pushes, 1u) << "not after the push that the stop ended";
    EXPECT_EQ(1u, SIM_TraceCount("src(s) prestop error(5)\n", 1));
    EXPECT_EQ(1u, SIM_TraceCount("src(s) stop error(6)\n", 1));
    base->prestop_func = nullptr;
    base->stop_func = nullptr;
}

TEST_F(Source, AFailingPushEndsTheThreadAndIsPosted)
{
    script("k").take = [](NOXBuffer *) { return 4; };
    for (bool live : {true, false}) {
        set_option(source, NOX_TYPE_BOOL, "islive", live);
        Inbox own;
        own.attach(pipe);
        to(NOX_STATE_PLAY);
        OSA_ThreadSleep(500);
        const Posted expected = live ? Posted{"s", NOX_MSG_PUSH_ERROR, "cannot push data"}
                                     : Posted{"s", NOX_MSG_EOS, "EOS (internal pushing error)\n"};
        ASSERT_FALSE(own.messages().empty());
        EXPECT_EQ(expected, own.messages().back());
        to(NOX_STATE_NULL);
        inbox.attach(pipe);
    }
    EXPECT_EQ(2u, SIM_TraceCount("cannot push to [k] ret(4)", 1));
}

TEST_F(Source, ALonelyRestartWaitsForFourSecondsAndGoesOn)
{
    create_by("b-bb");
    policy(NOX_ERRHANDLE_RESTART, 0);
    const uint64_t before = SIM_Tick();
    to(NOX_STATE_PLAY);
    EXPECT_TRUE(wait_until([this] { return inbox.messages().size() >= 3; }));
    EXPECT_GE(SIM_Tick() - before, 4000u);
    Messages first = inbox.messages();
    first.resize(3);
    EXPECT_EQ((Messages{kStarted, kCaptureError, kRecovered}), first);
    EXPECT_EQ(1u, SIM_TraceCount("other source has no problem, keep going..\n", 1));
}

TEST_F(Source, AFailingEventIsAnEndOfStreamOnlyWhenNotLive)
{
    script("s").event_result = 3;
    NOXEvent event{nullptr, NOX_EVENT_RESET};
    EXPECT_EQ(3, nox_plugin_setevent(source, &event));
    set_option(source, NOX_TYPE_BOOL, "islive", 0);
    EXPECT_EQ(3, nox_plugin_setevent(source, &event));
    OSA_ThreadSleep(10);
    EXPECT_EQ((Messages{{"s", NOX_MSG_EOS, "EOS by event failure\n"}}), inbox.messages());
}

TEST_F(Source, StoppedOnItsOwnThreadItSaysSoAndIsJoinedLater)
{
    script("s").create = [this](NOXBaseSrc *) -> NOXBuffer * {
        nox_plugin_stop(source);
        return nullptr;
    };
    to(NOX_STATE_PLAY);
    OSA_ThreadSleep(1000);
    EXPECT_EQ(1u, SIM_TraceCount("src(s) stopped on its own thread\n", 1));
}

} // namespace
