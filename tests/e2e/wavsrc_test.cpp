// wavsrc through the public interface: the times on its buffers, and which headers it
// plays; what wavsink leaves when it is killed.

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <utility>
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

struct Header {
    const char *says;
    int container;
    std::vector<std::pair<size_t, uint32_t>> fields; // offset and new value
    uint64_t duration;                               // ms; kRefused for none
};

constexpr uint64_t kRefused = UINT64_MAX;

// Of a file with these fields in its header and half of its second of samples.
uint64_t duration_of_cut_file(const Header &header, const std::string &path)
{
    write_wav(path, sweep(8000, 1, 8000), header.container | SF_FORMAT_PCM_16);
    std::string file = read_file(path);
    file.resize(file.size() - 8000);
    for (const auto &[offset, value] : header.fields)
        std::memcpy(file.data() + offset, &value, sizeof value);
    write_file(path, file);
    NOXPlugin *source = nox_plugin_new("wavsrc", "source");
    NOXStructure *format = nox_structure_new("options");
    nox_structure_putvar1(NOX_TYPE_STRING, format, "location", 0, path.c_str());
    uint64_t duration = kRefused;
    if (nox_plugin_setformat(source, format) == 0 && nox_plugin_getformat(source, format) == 0)
        nox_structure_getvar_uint64(format, "stream.duration", &duration);
    nox_object_delete(format);
    nox_object_delete(source);
    return duration;
}

} // namespace

TEST(WavSource, AFileThatIsShorterThanItsHeaderSaysIsPlayedOnlyIfThatLeavesTheSizeOpen)
{
    const TemporaryFolder folder;
    OSA_TraceSetLevel(0);
    write_file(folder / "cache", std::string("wavsrc@") + PLUGIN_FOLDER + "/noxwavsrc.so\n");
    ASSERT_EQ(nox_init((folder / "cache").c_str()), 0);
    const Header headers[] = {
        {"the size of all samples", SF_FORMAT_WAV, {}, kRefused},
        {"half of the samples", SF_FORMAT_WAV, {{40, 8000}}, 500},
        {"more than 2 GiB", SF_FORMAT_WAV, {{40, 0x90000000}}, kRefused},
        {"all ones", SF_FORMAT_WAV, {{40, 0xFFFFFFFF}}, 500},
        {"the end of the signed range", SF_FORMAT_WAV, {{40, 0x80000000}}, 500},
        {"a little less", SF_FORMAT_WAV, {{40, 0x7FFFF000}}, 500},
        {"nothing, not even chunks", SF_FORMAT_WAV, {{4, 8}, {40, 0}}, 500},
        {"no samples and an end before them", SF_FORMAT_WAV, {{4, 36}, {40, 0}}, kRefused},
        {"no samples and any end", SF_FORMAT_WAV, {{4, 0xFFFFFFFF}, {40, 0}}, kRefused},
        {"no samples, but chunks behind", SF_FORMAT_WAV, {{4, 8036}, {40, 0}}, 0},
        {"the size of all samples in ds64", SF_FORMAT_RF64, {}, kRefused},
        {"half of the samples in ds64", SF_FORMAT_RF64, {{28, 8000}}, 500},
    };
    for (const Header &header : headers)
        EXPECT_EQ(duration_of_cut_file(header, folder / "cut.wav"), header.duration) << header.says;
    nox_deinit();
}

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

TEST(WavSink, ARecordingWhoseProcessIsKilledLacksItsLastSecondAtMost)
{
    const TemporaryFolder folder;
    const std::string out = folder / "out.wav";
    write_wav(folder / "in.wav", sweep(8000, 1, 8000));
    run({NOX_SCAN, PLUGIN_FOLDER, "-o", folder / "cache"});
    run({NOX_RUN, "--cache", folder / "cache",
         "wavsrc loop=20000 location=" + (folder / "in.wav") + " ! wavsink location=" + out},
        [&](pid_t process, const ErrorsSoFar &) {
            EXPECT_TRUE(wait_until([&] {
                std::error_code absent;
                const auto size = std::filesystem::file_size(out, absent);
                return !absent && size > 50000;
            }));
            kill(process, SIGKILL);
        });
    const auto size = std::filesystem::file_size(out);
    uint32_t samples = 0;
    std::ifstream(out, std::ios::binary).seekg(40).read(reinterpret_cast<char *>(&samples), 4);
    EXPECT_GT(samples, 0u);
    EXPECT_LE(samples + 44, size);
    EXPECT_LT(size - 44 - samples, 16000u + 320u) << "a second and a buffer";
}
