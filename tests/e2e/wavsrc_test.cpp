// wavsrc through the public interface: the times on its buffers, and which headers it
// plays; what wavsink leaves when it is killed.

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

#include "library.h"
#include "wav_file.h"

namespace
{

using WavSource = InLibrary;

int32_t set_location(NOXPlugin *source, const std::string &path)
{
    NOXStructure *format = nox_structure_new("options");
    nox_structure_putvar1(NOX_TYPE_STRING, format, "location", 0, path.c_str());
    const int32_t result = nox_plugin_setformat(source, format);
    nox_object_delete(format);
    return result;
}

struct Header {
    const char *says;
    int container;
    std::vector<std::pair<size_t, uint32_t>> fields; // offset and new value
    uint64_t duration;                               // ms; kRefused for none
};

constexpr uint64_t kRefused = UINT64_MAX;

uint64_t duration_of(const std::string &path)
{
    NOXPlugin *source = nox_plugin_new("wavsrc", "source");
    NOXStructure *format = nox_structure_new("facts");
    uint64_t duration = kRefused;
    if (set_location(source, path) == 0 && nox_plugin_getformat(source, format) == 0)
        nox_structure_getvar_uint64(format, "stream.duration", &duration);
    nox_object_delete(format);
    nox_object_delete(source);
    return duration;
}

// Of a file with these fields in its header and half of its second of samples.
uint64_t duration_of_cut_file(const Header &header, const std::string &path)
{
    write_wav(path, sweep(8000, 1, 8000), header.container | SF_FORMAT_PCM_16);
    std::string file = read_file(path);
    file.resize(file.size() - 8000);
    for (const auto &[offset, value] : header.fields)
        std::memcpy(file.data() + offset, &value, sizeof value);
    write_file(path, file);
    return duration_of(path);
}

} // namespace

TEST_F(WavSource, AFileThatIsShorterThanItsHeaderSaysIsPlayedOnlyIfThatLeavesTheSizeOpen)
{
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
        {"a list that is far too long",
         SF_FORMAT_RF64,
         {{12, 0x5453494C}, {16, 0x30000000}},
         kRefused},
        {"all samples, big-endian", SF_FORMAT_WAV | SF_ENDIAN_BIG, {}, kRefused},
        {"half of them", SF_FORMAT_WAV | SF_ENDIAN_BIG, {{40, __builtin_bswap32(8000)}}, 500},
        {"20 ms of 80 MiB", SF_FORMAT_WAV, {{24, 0x7FFFFFFF}, {40, 8000}}, kRefused},
    };
    for (const Header &header : headers)
        EXPECT_EQ(duration_of_cut_file(header, folder / "cut.wav"), header.duration) << header.says;
}

TEST_F(WavSource, AStreamOf64ChannelsWhose20MillisecondsNeedMoreThan32BitsIsRefused)
{
    Header header = {"", SF_FORMAT_WAV, {{20, 64 << 16 | 1}, {32, 16 << 16 | 128}, {40, 8000}}, 0};
    EXPECT_NE(duration_of_cut_file(header, folder / "many.wav"), kRefused) << "as it is";
    header.fields.push_back({24, 0x7FFFFFFF});
    EXPECT_EQ(duration_of_cut_file(header, folder / "many.wav"), kRefused) << "at 2 GHz";
}

// A hole holds chunks without end, and the items of a list may lead back to where they begin.
TEST_F(WavSource, NothingBesideTheSamplesTakesTimeOrHidesThem)
{
    const std::string path = folder / "crafted.wav";
    const auto number = [](uint64_t value, size_t bytes) {
        return std::string(reinterpret_cast<const char *>(&value), bytes);
    };
    const std::string format = "fmt " + number(16, 4) + number(1, 2) + number(1, 2) +
                               number(8000, 4) + number(16000, 4) + number(2, 2) + number(16, 2);
    const std::string back = "INFOabcd" + number(-8ULL, 4) + std::string(8, '\0');
    const std::string crafted[] = {
        "",
        "LIST" + number(back.size(), 4) + back,
        "LIST" + number(1000, 4) + back + std::string(1000 - back.size(), '\0'),
        back.substr(0, 4) + number(16, 4) + back.substr(4),
        "note" + number(3, 4) + "odd", // without its pad byte
    };
    for (const std::string &chunks : crafted) {
        write_file(path, "RIFF\xFF\xFF\xFF\xFFWAVE" + format + chunks + "data" + number(16000, 4));
        std::filesystem::resize_file(path, 1ULL << 40);
        NOXPlugin *source = nox_plugin_new("wavsrc", "source");
        EXPECT_EQ(set_location(source, path), 0) << chunks;
        nox_object_delete(source);
    }
    std::string many;
    for (int count = 0; count < 1000; ++count)
        many += "many" + number(0, 4);
    write_file(path, "RIFF\xFF\xFF\xFF\xFFWAVE" + format + many + "data" + number(0, 4));
    NOXPlugin *source = nox_plugin_new("wavsrc", "source");
    EXPECT_EQ(set_location(source, path), -1);
    nox_object_delete(source);
}

// Of silence, in files that are holes.
TEST_F(WavSource, RecordingsOfMoreThanFourGibibytesArePlayed)
{
    constexpr uint64_t kSamples = 5'000'000'000; // bytes
    const std::string path = folder / "long.wav";
    const auto grow = [&] { std::filesystem::resize_file(path, kSamples + 4096); };
    write_wav(path, sweep(8000, 1, 8000), SF_FORMAT_RF64 | SF_FORMAT_PCM_16);
    std::string file = read_file(path);
    std::memcpy(file.data() + 28, &kSamples, sizeof kSamples); // in ds64
    write_file(path, file);
    grow();
    EXPECT_EQ(duration_of(path), kSamples / 16);
    write_wav(path, sweep(8000, 1, 8000));
    file = read_file(path).substr(0, 44);
    for (const uint32_t size : {0xFFFFF800u, 0xFFFFFFFFu}) { // the largest, or open
        std::memcpy(file.data() + 40, &size, sizeof size);
        write_file(path, file);
        grow();
        EXPECT_EQ(duration_of(path), size / 2 / 8) << size;
    }
}

TEST_F(WavSource, TimesAreExactAtEveryRateAndTheSourcePlaysAgainAfterAStop)
{
    for (const int rate : {8000, 11025, 44100, 48000}) {
        const auto frames = static_cast<uint64_t>(rate) / 3;
        write_wav(folder / "in.wav", sweep(rate, 1, frames));
        NOXPipe *pipe = nox_pipe_new("pipe");
        NOXPlugin *source = nox_plugin_new("wavsrc", "source");
        NOXPlugin *down = &new_downstream()->plugin;
        nox_pipe_add_plugin_many(pipe, source, down, NULL);
        nox_plugin_link(source, down);
        EXPECT_EQ(set_location(source, folder / "in.wav"), 0);

        for (int run = 0; run < 2; ++run) {
            blocks.clear();
            EXPECT_EQ(nox_pipe_set_state(pipe, NOX_STATE_PLAY), 0);
            EXPECT_EQ(OSA_EventWait(end, 20000), 0);
            EXPECT_EQ(nox_pipe_set_state(pipe, NOX_STATE_NULL), 0);
            EXPECT_EQ(blocks.size(), (frames * 50 + static_cast<uint64_t>(rate) - 1) / rate);
            uint64_t position = 0;
            uint64_t microseconds = 0;
            for (const Block &block : blocks) {
                EXPECT_EQ(block.timestamp, position * 1000 / rate);
                position += block.bytes.size() / 2;
                EXPECT_EQ(block.timestamp + block.duration, position * 1000 / rate);
                microseconds += block.duration_us;
            }
            EXPECT_EQ(position, frames);
            EXPECT_EQ(microseconds, frames * 1000000 / rate);
        }
        nox_object_delete(pipe);
    }
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
