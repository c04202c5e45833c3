// The message bus: order, loss, its end.

#include <atomic>
#include <thread>

#include "tests/core/on_stage.h"

namespace
{

using Messages = std::vector<Posted>; // a name or text that is null as "(null)"

// A bus and what its thread heard, which is to be read when the bus has ended.
struct Line {
    NOXBus *bus = nox_bus_new("messages");
    Messages heard;
    uint32_t handling_ms = 0; // how long the handler takes for each message

    void listen()
    {
        nox_bus_set_handler(bus, hear, this);
    }
    int32_t post(const char *name, int32_t code, const char *text = nullptr)
    {
        return nox_bus_post_error(bus, name, code, text);
    }
    // Lets the bus take off all that is queued, and ends it.
    const Messages &close()
    {
        settle();
        nox_object_delete(bus);
        return heard;
    }
    // Time passes when the bus has nothing to do.
    static void settle()
    {
        OSA_ThreadSleep(1);
    }
    static int32_t hear(NOXBus *, void *data, const char *name, int32_t code, const char *text)
    {
        auto *line = static_cast<Line *>(data);
        line->heard.push_back({name ? name : "(null)", code, text ? text : "(null)"});
        if (line->handling_ms != 0)
            OSA_ThreadSleep(line->handling_ms);
        return -1; // not looked at
    }
};

using Bus = OnStage;

TEST_F(Bus, PassesOnCopiesOfWhatWasPostedNullsIncluded)
{
    Line line;
    line.listen();
    char text[] = "text";
    line.post("name", NOX_MSG_EOS, text);
    text[0] = 'T';
    line.post(nullptr, -1);
    line.post("", NOX_MSG_BUS_CRITICAL, "");
    EXPECT_EQ((Messages{{"name", NOX_MSG_EOS, "text"},
                        {"(null)", -1, "(null)"},
                        {"", NOX_MSG_BUS_CRITICAL, ""}}),
              line.close());
}

TEST_F(Bus, DropsWhatArrivesWithoutAHandler)
{
    Line line;
    line.post("early", 1);
    line.settle();
    line.listen();
    line.post("meanwhile", 2);
    line.settle();
    nox_bus_set_handler(line.bus, nullptr, nullptr);
    line.post("late", 3);
    EXPECT_EQ((Messages{{"meanwhile", 2, "(null)"}}), line.close());
}

TEST_F(Bus, PostsNeverWaitForTheHandlerAndEndWithTheBus)
{
    Line line;
    line.handling_ms = 500;
    line.listen();
    for (int32_t code = 0; code < 5; ++code)
        line.post("name", code, "text");
    EXPECT_EQ(1000u, SIM_Tick());
    EXPECT_EQ(1u, line.close().size()); // the handler is still at the first
    EXPECT_EQ(1500u, SIM_Tick());
}

std::atomic<uint32_t> g_handled, g_mismatched;

template <int32_t own>
int32_t expect_own_data(NOXBus *, void *data, const char *, int32_t, const char *)
{
    ++g_handled;
    g_mismatched += *static_cast<int32_t *>(data) != own ? 1 : 0;
    return 0;
}

TEST_F(Bus, HandlerAlwaysComesWithTheDataSetWithIt)
{
    Line line;
    int32_t one = 1, two = 2;
    g_handled = g_mismatched = 0;
    nox_bus_set_handler(line.bus, expect_own_data<1>, &one);
    std::atomic<bool> done{false};
    // A system thread beside the simulated ones, so that the handler changes at
    // any instruction.
    std::thread setter([&] {
        while (!done) {
            nox_bus_set_handler(line.bus, expect_own_data<2>, &two);
            nox_bus_set_handler(line.bus, expect_own_data<1>, &one);
        }
    });
    for (int32_t code = 0; code < 2000; ++code)
        line.post("name", code);
    line.settle();
    done = true;
    setter.join();
    line.close();
    EXPECT_EQ(2000u, g_handled);
    EXPECT_EQ(0u, g_mismatched);
}

TEST_F(Bus, ForeignItemIsReportedOnceAndSilencesIt)
{
    Line line;
    line.listen();
    void *foreign = OSA_Malloc(sizeof(NOXBusMsg), 0, 0, "test", __LINE__, __func__);
    static_cast<NOXBusMsg *>(foreign)->text = strdup("freed with its message");
    OSA_QueuePush(line.bus->queue, foreign, sizeof(NOXBusMsg) + 8);
    EXPECT_EQ(0, line.post("name", 1, "never heard"));
    EXPECT_EQ((Messages{{"bus", NOX_MSG_BUS_CRITICAL, "message bus critical error"}}),
              line.close());
}

TEST_F(Bus, EndsWithoutMemoryForItsExitMessage)
{
    for (uint64_t n : {1u, 2u}) { // the message, its push
        Line line;
        line.settle();
        SIM_FailNth(SIM_FallibleCount() + n);
        const uint64_t begin = SIM_Tick(), failed = SIM_FailedCount();
        nox_object_delete(line.bus);
        EXPECT_EQ(failed + 1, SIM_FailedCount());
        EXPECT_LE(SIM_Tick() - begin, 1000u);
    }
}

} // namespace
