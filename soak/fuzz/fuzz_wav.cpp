// Feeds recordings to wavsrc and to its look at their chunks.
//
// An input is the file. It may end with four bytes that are for this target and not of the
// file: "NX", the number of wavsrc's fallible call that fails (0 for none), and what the
// size becomes: below 128, the file is made as long as 2 to that power, with a hole that
// reads as zeros; from 128 on, it loses its second half once it has been opened.

#include <algorithm>
#include <string>
#include <string_view>

#include <sys/mman.h>
#include <unistd.h>

#include "common/riff.h"
#include "common/stream.h"
#include "nox.h"
#include "noxbasesrc.h"
#include "noxbuffer.h"
#include "osa/sim/osasim.h"
#include "require.h"

namespace
{

constexpr uint32_t kMostBuffers = 24;      // taken of one file
constexpr uint32_t kMostBytes = 0x1000000; // of one buffer
constexpr size_t kMostSamples = 0x4000000; // bytes of all, which are kept here
constexpr uint32_t kLoop = 2;

struct Input {
    std::string_view file;
    uint64_t failing_call = 0;
    uint64_t grown_size = 0;
    bool shrinks = false;
};

Input take_apart(std::string_view bytes)
{
    Input input{bytes};
    if (bytes.size() >= 4 && bytes.substr(bytes.size() - 4, 2) == "NX") {
        input.file = bytes.substr(0, bytes.size() - 4);
        input.failing_call = static_cast<unsigned char>(bytes[bytes.size() - 2]);
        const auto change = static_cast<unsigned char>(bytes.back());
        input.shrinks = change >= 128;
        input.grown_size = input.shrinks ? 0 : uint64_t{1} << change % 48;
    }
    return input;
}

// One file in memory for all inputs.
int descriptor()
{
    static const int opened = memfd_create("recording", MFD_CLOEXEC);
    return opened;
}

uint64_t fill_file(const Input &input)
{
    const uint64_t size = std::max<uint64_t>(input.file.size(), input.grown_size);
    require(ftruncate(descriptor(), static_cast<off_t>(input.file.size())) == 0 &&
                pwrite(descriptor(), input.file.data(), input.file.size(), 0) ==
                    static_cast<ssize_t>(input.file.size()) &&
                ftruncate(descriptor(), static_cast<off_t>(size)) == 0,
            "the file cannot be made");
    return size;
}

void check_layout(uint64_t size)
{
    noxplugins::WavLayout layout;
    const char *reason = noxplugins::find_samples(descriptor(), layout);
    require(reason == nullptr || *reason != '\0', "not playable, and nobody says why");
    if (reason != nullptr)
        return;
    require(layout.format_size > 0 && layout.format_size <= noxplugins::kMostFormatBytes,
            "a format of no size");
    require(layout.missing == 0 || layout.unannounced == 0, "both too few samples and too many");
    require(layout.samples_begin <= size && layout.samples_size <= size - layout.samples_begin &&
                layout.unannounced <= size - layout.samples_begin,
            "more samples than the file has bytes");
}

NOXStructure *options()
{
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor());
    NOXStructure *format = nox_structure_new("options");
    require(nox_structure_putvar1(NOX_TYPE_STRING, format, "location", 0, path.c_str()) == 0 &&
                nox_structure_putvar1(NOX_TYPE_UINT32, format, "loop", 0, kLoop) == 0,
            "no options");
    return format;
}

struct Facts {
    uint32_t rate = 0;
    uint32_t channels = 0;
    uint64_t duration = 0;
    uint64_t position = 0;
};

// False when a failing call leaves the answer short.
bool read_facts(NOXPlugin *source, Facts &facts)
{
    NOXStructure *format = nox_structure_new("facts");
    const bool complete =
        format != nullptr && nox_plugin_getformat(source, format) == 0 &&
        nox_structure_getvar_uint32(format, noxplugins::kStreamRate, &facts.rate) == 0 &&
        nox_structure_getvar_uint32(format, noxplugins::kStreamChannels, &facts.channels) == 0 &&
        nox_structure_getvar_uint64(format, noxplugins::kStreamDuration, &facts.duration) == 0 &&
        nox_structure_getvar_uint64(format, noxplugins::kStreamPosition, &facts.position) == 0;
    nox_object_delete(format);
    require(complete || SIM_FailedCount() > 0, "a recording without facts");
    return complete;
}

// What has come of the stream.
struct Played {
    uint64_t frames = 0;
    uint64_t end_ms = 0;
    std::string samples;
};

void take(NOXBuffer *buffer, const Facts &facts, Played &played)
{
    const uint64_t frame_size = facts.channels * sizeof(int16_t);
    const NOXMemory *memory = nox_buffer_get_memory(buffer, 0);
    require(memory != nullptr && memory->datasize > 0 && memory->datasize <= kMostBytes &&
                memory->datasize % frame_size == 0,
            "a buffer of no whole frames, or a gigantic one");
    played.frames += memory->datasize / frame_size;
    require(buffer->timestamp == played.end_ms, "a gap or an overlap");
    played.end_ms += buffer->duration;
    require(played.end_ms == noxplugins::scaled(played.frames, facts.rate, 1000),
            "times that are not the position's");
    played.samples.append(reinterpret_cast<const char *>(memory->data), memory->datasize);
    nox_object_delete(buffer);
}

void check_whole(const Facts &facts, const Played &played)
{
    require(played.end_ms == facts.duration, "plays shorter or longer than it says");
    const size_t half = played.samples.size() / kLoop;
    require(played.samples.compare(0, half, played.samples, half) == 0,
            "the second time other samples than the first");
}

// One that is refused leaves nothing to say and nothing to play; but when it is only too
// long to be played twice, it stays.
void check_refused(NOXPlugin *plugin)
{
    auto *source = reinterpret_cast<NOXBaseSrc *>(plugin);
    NOXStructure *format = nox_structure_new("facts");
    uint32_t rate = 0;
    require(nox_plugin_getformat(plugin, format) == 0, "no options when the file is refused");
    if (nox_structure_getvar_uint32(format, noxplugins::kStreamRate, &rate) != 0) {
        require(source->start_func(source) != 0, "starts without a recording");
        require(source->create_func(source) == nullptr, "plays without a recording");
    }
    nox_object_delete(format);
}

// As the base source's thread does it.
void check_play(NOXPlugin *plugin)
{
    auto *source = reinterpret_cast<NOXBaseSrc *>(plugin);
    Facts facts;
    if (!read_facts(plugin, facts))
        return;
    require(facts.rate > 0 && facts.channels > 0 && facts.position == 0, "facts that are none");
    require(source->start_func(source) == 0, "an opened recording cannot be started");
    Played played;
    NOXBuffer *buffer = nullptr;
    uint32_t count = 0;
    while (count++ < kMostBuffers && played.samples.size() < kMostSamples &&
           (buffer = source->create_func(source)) != nullptr)
        take(buffer, facts, played);
    if (buffer == nullptr && SIM_FailedCount() == 0 && SIM_TraceCount("has shrunk", 1) == 0)
        check_whole(facts, played);
    NOXEvent end{};
    end.type = NOX_EVENT_EOS;
    source->event_func(source, &end);
    require(source->create_func(source) == nullptr, "plays on past the end that was asked for");
}

void check(const Input &input)
{
    const uint64_t size = fill_file(input);
    check_layout(size);
    NOXStructure *format = options();
    NOXPlugin *source = nox_plugin_new("wavsrc", "source");
    require(source != nullptr, "no wavsrc");
    if (input.failing_call != 0)
        SIM_FailNth(SIM_FallibleCount() + input.failing_call);
    const bool opened = nox_plugin_setformat(source, format) == 0;
    require(opened || SIM_TraceCount("", 1) > 0, "refused without a word");
    if (input.shrinks)
        require(ftruncate(descriptor(), static_cast<off_t>(size / 2)) == 0, "cannot shrink");
    if (opened)
        check_play(source);
    SIM_FailNone();
    if (!opened)
        check_refused(source);
    nox_object_delete(source);
    nox_object_delete(format);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    SIM_Begin({.trace_level = 1});
    SIM_FileAdd("cache", "wavsrc@wavsrc.so\n");
    SIM_LibraryAdd("wavsrc.so", "plugin_desc", reinterpret_cast<void *>(plugin_desc));
    require(nox_init("cache") == 0, "no init");
    check(take_apart({reinterpret_cast<const char *>(data), size}));
    nox_deinit();
    const std::string left = SIM_End();
    require(left.empty(), "something is left alive, or was misused", left);
    return 0;
}
