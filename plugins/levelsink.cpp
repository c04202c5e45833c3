// levelsink: measures peak and RMS of each channel. On a terminal it draws them as
// a meter while the stream flows; at the end it prints one line with the result.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <unistd.h>

#include "common/element.h"
#include "common/options.h"
#include "common/report.h"
#include "common/samples.h"
#include "common/stream.h"
#include "nox.h"
#include "noxbasesink.h"

using namespace noxplugins;

namespace
{

constexpr double kFullScale = 32768;
constexpr uint64_t kDrawingInterval = 100; // ms
constexpr uint32_t kMeterWidth = 48;       // columns that the bars of all channels share
constexpr uint32_t kMostBars = 4;          // with more channels the loudest one is drawn
constexpr double kMeterFloor = -60;        // dBFS at the left end of a bar

struct Channel {
    int32_t peak = 0;       // largest magnitude of all samples
    int32_t drawn_peak = 0; // the same since the meter was last drawn
    double squares = 0;     // sum of squares, exact up to 2^53
};

struct State {
    bool meter = isatty(STDOUT_FILENO) == 1;
    StreamFormat stream{};
    std::unique_ptr<Channel[]> channels; // null: not measuring
    uint64_t frames = 0;
    uint64_t last_drawn = 0; // system tick, ms
};

using LevelSink = Element<NOXBaseSink, State>;

double decibels(double level)
{
    return 20 * std::log10(level);
}

int32_t levelsink_setformat(NOXBaseSink *sink, NOXStructure *format)
{
    const PluginLock lock(sink);
    const Option found = take_option(sink, format, "meter", LevelSink::of(sink)->state.meter);
    return found == Option::refused ? -1 : 0;
}

int32_t levelsink_getformat(NOXBaseSink *sink, NOXStructure *format)
{
    const PluginLock lock(sink);
    return put_option(format, "meter", LevelSink::of(sink)->state.meter);
}

int32_t begin_measuring(NOXBaseSink *sink)
{
    State &state = LevelSink::of(sink)->state;
    if (!take_upstream_format(sink, state.stream))
        return -1;
    state.channels.reset(new (std::nothrow) Channel[state.stream.channels]);
    if (state.channels == nullptr)
        return report(sink, PLUGIN_MSG_MEMORY, "no memory for %u channels", state.stream.channels);
    state.frames = 0;
    return 0;
}

int32_t levelsink_setstate(NOXBaseSink *sink, int32_t state)
{
    const PluginLock lock(sink);
    const bool leaves_null = sink->plugin.state == NOX_STATE_NULL;
    return leaves_null && state != NOX_STATE_NULL ? begin_measuring(sink) : 0;
}

void measure(State &state, const NOXMemory *memory)
{
    const uint32_t frame_size = state.stream.frame_size();
    for (uint32_t offset = 0; offset < memory->datasize; offset += sizeof(int16_t)) {
        Channel &channel = state.channels[offset % frame_size / sizeof(int16_t)];
        const int32_t sample = load_sample(memory->data + offset);
        channel.drawn_peak = std::max(channel.drawn_peak, std::abs(sample));
        channel.squares += static_cast<double>(sample) * sample;
    }
    state.frames += memory->datasize / frame_size;
}

void print_bar(double level, uint32_t width)
{
    const double filled = std::max(0.0, 1 - decibels(level) / kMeterFloor) * width;
    std::array<char, kMeterWidth> bar;
    bar.fill(' ');
    std::fill_n(bar.begin(), std::lrint(filled), '#');
    std::printf(" [%.*s] %6.1f dB", static_cast<int>(width), bar.data(), decibels(level));
}

// One line that is drawn over the last one; the rest of a longer one is erased.
void draw_meter(const State &state)
{
    int32_t loudest = 0;
    for (uint32_t index = 0; index < state.stream.channels; ++index)
        loudest = std::max(loudest, state.channels[index].drawn_peak);
    flockfile(stdout);
    std::printf("\r%8.1f s", static_cast<double>(state.frames) / state.stream.rate);
    if (state.stream.channels > kMostBars) {
        print_bar(loudest / kFullScale, kMeterWidth);
    } else {
        for (uint32_t index = 0; index < state.stream.channels; ++index)
            print_bar(state.channels[index].drawn_peak / kFullScale,
                      kMeterWidth / state.stream.channels);
    }
    std::printf("\033[K");
    std::fflush(stdout);
    funlockfile(stdout);
}

// Peaks are gathered between two drawings, so that none is missed.
void keep_peaks(State &state)
{
    const uint64_t now = OSA_GetSystemTick();
    const bool draw = state.meter && now - state.last_drawn >= kDrawingInterval;
    if (draw) {
        draw_meter(state);
        state.last_drawn = now;
    }
    for (uint32_t index = 0; index < state.stream.channels; ++index) {
        Channel &channel = state.channels[index];
        channel.peak = std::max(channel.peak, channel.drawn_peak);
        if (draw)
            channel.drawn_peak = 0;
    }
}

int32_t levelsink_render(NOXBaseSink *sink, NOXBuffer *buffer)
{
    const PluginLock lock(sink);
    State &state = LevelSink::of(sink)->state;
    if (state.channels == nullptr || !holds_whole_frames(sink, buffer, state.stream.frame_size()))
        return -1;
    for_each_block(buffer, [&](NOXMemory *memory) -> int32_t {
        measure(state, memory);
        return 0;
    });
    keep_peaks(state);
    return 0;
}

void print_summary(const char *name, const State &state)
{
    std::printf("%s%s: %llu frames at %u Hz", state.meter ? "\r\033[K" : "", name,
                static_cast<unsigned long long>(state.frames), state.stream.rate);
    const double frames = static_cast<double>(std::max<uint64_t>(state.frames, 1));
    for (uint32_t index = 0; index < state.stream.channels; ++index) {
        const double peak = state.channels[index].peak / kFullScale;
        const double rms = std::sqrt(state.channels[index].squares / frames) / kFullScale;
        std::printf("; channel %u: peak %.6f (%.2f dBFS), RMS %.6f (%.2f dBFS)", index + 1, peak,
                    decibels(peak), rms, decibels(rms));
    }
    std::printf("\n");
}

int32_t levelsink_stop(NOXBaseSink *sink)
{
    const PluginLock lock(sink);
    State &state = LevelSink::of(sink)->state;
    if (state.channels == nullptr)
        return 0;
    flockfile(stdout);
    print_summary(sink->plugin.object.name, state);
    const bool printed = std::fflush(stdout) == 0;
    funlockfile(stdout);
    state.channels.reset();
    return printed ? 0
                   : report(sink, PLUGIN_MSG_WRITE, "cannot print the levels: %s",
                            strerrordesc_np(errno));
}

int32_t levelsink_init(NOXPlugin *plugin)
{
    auto *sink = reinterpret_cast<NOXBaseSink *>(plugin);
    if (nox_basesink_init(sink) != 0)
        return -1;
    LevelSink::construct(plugin);
    sink->setformat_func = levelsink_setformat;
    sink->getformat_func = levelsink_getformat;
    sink->setstate_func = levelsink_setstate;
    sink->stop_func = levelsink_stop;
    sink->render_func = levelsink_render;
    sink->finalize_func = LevelSink::finalize;
    return 0;
}

} // namespace

void plugin_desc(NOXPluginDesc *desc)
{
    *desc = {"levelsink", "libnoxcore", sizeof(LevelSink), levelsink_init};
}
