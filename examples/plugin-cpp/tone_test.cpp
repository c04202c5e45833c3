// tone in virtual time: a tone of a minute is over at once, every run with the same
// seed is the same run, and what is not given back fails the test.

#include <gtest/gtest.h>

#include <noxcore.h>
#include <osa/sim/osasim.h>

namespace
{

// A sink of the test's own, which keeps what the test asks for.
struct Collector {
    NOXBaseSink base;
    uint64_t samples;
    uint64_t last_timestamp;
};

int32_t collect(NOXBaseSink *sink, NOXBuffer *buffer)
{
    auto *collector = reinterpret_cast<Collector *>(sink);
    collector->samples += nox_buffer_get_datasize(buffer) / 2;
    collector->last_timestamp = nox_buffer_get_timestamp(buffer);
    return 0;
}

void collector_desc(NOXPluginDesc *desc)
{
    *desc = {"collector", "test", sizeof(Collector), [](NOXPlugin *plugin) -> int32_t {
                 auto *sink = reinterpret_cast<NOXBaseSink *>(plugin);
                 if (nox_basesink_init(sink) != 0)
                     return -1;
                 sink->render_func = collect;
                 return 0;
             }};
}

// A run with its pipe: tone to collector.
class Tone : public testing::TestWithParam<uint64_t>
{
protected:
    Tone()
    {
        SIM_Begin({.seed = GetParam()});
        SIM_FileAdd("cache", "tone@tone.so\ncollector@collector.so\n");
        SIM_LibraryAdd("tone.so", "plugin_desc", reinterpret_cast<void *>(plugin_desc));
        SIM_LibraryAdd("collector.so", "plugin_desc", reinterpret_cast<void *>(collector_desc));
        nox_init("cache");
        pipe = nox_pipe_new("test");
        tone = nox_plugin_new("tone", "tone");
        sink = nox_plugin_new("collector", "sink");
        nox_pipe_add_plugin_many(pipe, tone, sink, nullptr);
        nox_plugin_link(tone, sink);
    }

    void TearDown() override
    {
        nox_object_delete(pipe);
        nox_deinit();
        EXPECT_EQ("", SIM_End()) << "nothing alive, and no misuse of the layer";
    }

    int32_t set(const char *option, uint32_t value)
    {
        NOXStructure *options = nox_structure_new("options");
        nox_structure_putvar_uint32(options, option, 0, &value);
        const int32_t result = nox_plugin_setformat(tone, options);
        nox_object_delete(options);
        return result;
    }

    const Collector &collector() const
    {
        return *reinterpret_cast<const Collector *>(sink);
    }

    NOXPipe *pipe;
    NOXPlugin *tone;
    NOXPlugin *sink;
};

TEST_P(Tone, LastsAsLongAsAskedAndDoesNotDrift)
{
    ASSERT_EQ(0, set("rate", 44099)); // buffers of unequal length
    ASSERT_EQ(0, set("duration", 60'010));
    for (int round = 0; round < 2; ++round) { // each start begins anew
        reinterpret_cast<Collector *>(sink)->samples = 0;
        ASSERT_EQ(0, nox_pipe_set_state(pipe, NOX_STATE_PLAY));
        while (!nox_basesrc_get_eos(tone))
            OSA_ThreadSleep(1);
        ASSERT_EQ(0, nox_pipe_set_state(pipe, NOX_STATE_NULL));
        EXPECT_EQ(60'010u * 44099 / 1000, collector().samples);
        EXPECT_EQ(60'000u, collector().last_timestamp);
    }
}

TEST_P(Tone, RefusesWhatItCannotPlay)
{
    EXPECT_EQ(-1, set("rate", 999));
    EXPECT_EQ(-1, set("frequency", 440)) << "of the wrong type";
}

INSTANTIATE_TEST_SUITE_P(Seeds, Tone, testing::Range<uint64_t>(1, 6));

} // namespace
