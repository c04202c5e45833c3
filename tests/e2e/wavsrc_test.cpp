// wavsrc through the public interface: the times on its buffers.

#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include "noxcore.h"
#include "osa/osa_ext.h"
#include "process.h"
#include "wav_file.h"

namespace
{

struct Times {
    uint64_t timestamp;
    uint64_t duration;
    uint64_t duration_us;
    uint32_t bytes;
};

struct RecordingSink {
    NOXBaseSink base;
    std::vector<Times> *times; // written on the source's thread until end of stream
};

int32_t record(NOXBaseSink *sink, NOXBuffer *buffer)
{
    reinterpret_cast<RecordingSink *>(sink)->times->push_back(
        {buffer->timestamp, buffer->duration, buffer->durationUs, buffer->datasize});
    return 0;
}

struct EndOfStream {
    OSA_Event *event = OSA_EventCreate(0);
    ~EndOfStream()
    {
        OSA_EventDestroy(event);
    }
};

int32_t on_message(NOXBus *, void *end, const char *, int32_t code, const char *)
{
    if (code == NOX_MSG_EOS)
        OSA_EventSend(static_cast<EndOfStream *>(end)->event);
    return 0;
}

RecordingSink *new_recording_sink(std::vector<Times> *times)
{
    auto *sink = static_cast<RecordingSink *>(nox_object_new(sizeof(RecordingSink), "times", 1));
    nox_basesink_init(&sink->base);
    nox_object_set_finalize_func(sink, nox_plugin_finalize);
    sink->base.render_func = record;
    sink->times = times;
    return sink;
}

} // namespace

TEST(WavSource, TimesAreExactAtEveryRateAndTheSourcePlaysAgainAfterAStop)
{
    const TemporaryFolder folder;
    OSA_TraceSetLevel(0);
    write_file(folder / "cache", std::string("wavsrc@") + PLUGIN_FOLDER + "/noxwavsrc.so\n");
    ASSERT_EQ(nox_init((folder / "cache").c_str()), 0);
    for (const int rate : {8000, 11025, 44100, 48000}) {
        const auto frames = static_cast<uint64_t>(rate) / 3;
        write_wav(folder / "in.wav", sweep(rate, 1, frames));
        std::vector<Times> times;
        EndOfStream end;
        NOXPipe *pipe = nox_pipe_new("pipe");
        NOXPlugin *source = nox_plugin_new("wavsrc", "source");
        auto *sink = reinterpret_cast<NOXPlugin *>(new_recording_sink(&times));
        nox_pipe_add_plugin_many(pipe, source, sink, NULL);
        nox_plugin_link(source, sink);
        nox_pipe_set_bus_handler(pipe, on_message, &end);
        NOXStructure *format = nox_structure_new("options");
        nox_structure_putvar1(NOX_TYPE_STRING, format, "location", 0, (folder / "in.wav").c_str());
        EXPECT_EQ(nox_plugin_setformat(source, format), 0);
        nox_object_delete(format);

        for (int run = 0; run < 2; ++run) {
            times.clear();
            EXPECT_EQ(nox_pipe_set_state(pipe, NOX_STATE_PLAY), 0);
            EXPECT_EQ(OSA_EventWait(end.event, 20000), 0);
            EXPECT_EQ(nox_pipe_set_state(pipe, NOX_STATE_NULL), 0);
            EXPECT_EQ(times.size(), (frames * 50 + static_cast<uint64_t>(rate) - 1) / rate);
            uint64_t position = 0;
            uint64_t microseconds = 0;
            for (const Times &buffer : times) {
                EXPECT_EQ(buffer.timestamp, position * 1000 / rate);
                position += buffer.bytes / 2;
                EXPECT_EQ(buffer.timestamp + buffer.duration, position * 1000 / rate);
                microseconds += buffer.duration_us;
            }
            EXPECT_EQ(position, frames);
            EXPECT_EQ(microseconds, frames * 1000000 / rate);
        }
        nox_object_delete(pipe);
    }
    nox_deinit();
    OSA_Alive alive;
    OSA_AliveGet(&alive);
    EXPECT_EQ(OSA_AliveIsNothing(&alive), 1);
}
