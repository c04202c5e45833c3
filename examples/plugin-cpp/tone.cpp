// tone: a source that makes a sine at half of full scale.
//
// Hands on 16-bit samples, little-endian ("s16le"), one channel, 50 buffers a second.
//
//     option     type    meaning                                               default
//     frequency  float   Hz, above 0 and up to half the rate; at any time      440
//     rate       uint32  samples a second, 1000 to 192000; not while it plays  48000
//     duration   uint32  ms until end of stream, 0: none; not while it plays   0
//
// It is not live: it makes buffers as fast as they are taken, with timestamps that a
// sink with the option "sync" keeps to.
//
// Threads: options and states change on the application's thread, one at a time;
// create runs on the source's own thread, which lives from start to stop. What both
// use while it runs is atomic; the rest changes only while it does not run.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <limits>
#include <new>
#include <numbers>
#include <type_traits>

#include <noxcore.h>
#include <plugin_messages.h>

namespace
{

constexpr uint32_t kBuffersPerSecond = 50;
constexpr uint32_t kBufferMs = 1000 / kBuffersPerSecond;
constexpr uint32_t kSampleSize = 2;
constexpr double kAmplitude = 16384;

// What the plugin keeps for itself: an ordinary C++ object.
struct State {
    std::atomic<float> frequency{440};
    std::atomic<bool> ending{false};  // the application asked for end of stream
    std::atomic<uint64_t> buffers{0}; // handed on since the start
    uint32_t rate = 48000;
    uint32_t duration = 0;
    double phase = 0; // of the next sample, in turns: 0 up to 1

    // Position of a buffer's first sample. No length is rounded, so nothing drifts.
    uint64_t begin_of(uint64_t buffer) const
    {
        return buffer * rate / kBuffersPerSecond;
    }

    uint64_t total_samples() const
    {
        return duration == 0 ? std::numeric_limits<uint64_t>::max()
                             : uint64_t{duration} * rate / 1000;
    }
};

// The record of one source. It begins with that of its base class, so a pointer to
// the one is a pointer to the other. The library makes it, filled with zeros, and knows
// nothing of C++: init constructs the state and finalize destroys it.
struct Tone {
    NOXBaseSrc base;
    State state;
};

State &state_of(NOXBaseSrc *source)
{
    return reinterpret_cast<Tone *>(source)->state;
}

// Tells the application what is wrong: on the bus, or as a trace while the plugin is
// in no pipe. Returns -1, so that a failing function can end with it.
OSA_PRINTF(3, 4)
int32_t report(NOXBaseSrc *source, int32_t code, const char *format, ...)
{
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);

    NOXPlugin *plugin = &source->plugin;
    if (plugin->bus != nullptr)
        nox_plugin_error_post(plugin, code, text);
    else
        OSA_Trace(plugin->object.name, OSA_TRACE_ERROR, "tone", __LINE__, __func__, "%s\n", text);
    return -1;
}

// Reads an option; one that the format does not hold leaves `value` as it is. One of
// the wrong type is refused: the getters of a structure would take it for missing.
template <typename Number>
bool take_option(NOXBaseSrc *source, NOXStructure *format, const char *name, Number &value)
{
    constexpr bool kIsFloat = std::is_same_v<Number, float>;
    const NOXStructureNode *node = nox_sturcture_search_node(format, name);
    if (node == nullptr)
        return true;
    if (node->type != (kIsFloat ? NOX_TYPE_FLOAT : NOX_TYPE_UINT32)) {
        report(source, PLUGIN_MSG_OPTION, "option %s must be of type %s", name,
               kIsFloat ? "float" : "uint32");
        return false;
    }
    if constexpr (kIsFloat)
        value = node->value.float_value;
    else
        value = node->value.uint32_value;
    return true;
}

// All options are looked at before the first is changed.
int32_t tone_setformat(NOXBaseSrc *source, NOXStructure *format)
{
    State &state = state_of(source);
    float frequency = state.frequency;
    uint32_t rate = state.rate;
    uint32_t duration = state.duration;
    if (source->islive != 0) { // the base class has stored its own options before this call
        std::atomic_ref(source->islive).store(0);
        return report(source, PLUGIN_MSG_OPTION, "option islive must be false: a tone can wait");
    }
    if (!take_option(source, format, "frequency", frequency) ||
        !take_option(source, format, "rate", rate) ||
        !take_option(source, format, "duration", duration))
        return -1;
    if (rate < 1000 || rate > 192000)
        return report(source, PLUGIN_MSG_OPTION, "option rate must be from 1000 to 192000, not %u",
                      rate);
    // In this form it also refuses what is not a number.
    if (!(frequency > 0 && frequency <= static_cast<float>(rate) / 2))
        return report(source, PLUGIN_MSG_OPTION,
                      "option frequency must be above 0 and up to %u Hz, half the rate, not %g",
                      rate / 2, static_cast<double>(frequency));
    if (source->thread != nullptr && (rate != state.rate || duration != state.duration))
        return report(source, PLUGIN_MSG_OPTION,
                      "options rate and duration cannot be set while the tone is played");
    state.frequency = frequency;
    state.rate = rate;
    state.duration = duration;
    return 0;
}

bool put(NOXStructure *format, int32_t type, const char *name, const void *value)
{
    return nox_structure_putvar[type](format, name, 0, value) == 0;
}

// Enters the options with their present values, and the facts of the stream: the plugin
// downstream asks for them before it flows, an application at any time for the position.
int32_t tone_getformat(NOXBaseSrc *source, NOXStructure *format)
{
    const State &state = state_of(source);
    const float frequency = state.frequency;
    const char *sample_format = "s16le";
    const uint32_t channels = 1;
    const uint64_t duration = state.duration;
    const uint64_t position = state.buffers * kBufferMs;
    const bool entered =
        put(format, NOX_TYPE_FLOAT, "frequency", &frequency) &&
        put(format, NOX_TYPE_UINT32, "rate", &state.rate) &&
        put(format, NOX_TYPE_UINT32, "duration", &state.duration) &&
        put(format, NOX_TYPE_STRING, "stream.format", &sample_format) &&
        put(format, NOX_TYPE_UINT32, "stream.rate", &state.rate) &&
        put(format, NOX_TYPE_UINT32, "stream.channels", &channels) &&
        put(format, NOX_TYPE_UINT64, "stream.position", &position) &&
        (duration == 0 || put(format, NOX_TYPE_UINT64, "stream.duration", &duration));
    return entered ? 0 : -1;
}

// Each start begins anew. From READY back to PLAY the thread still runs and goes on.
int32_t tone_start(NOXBaseSrc *source)
{
    if (source->thread != nullptr)
        return 0;
    State &state = state_of(source);
    state.ending = false;
    state.buffers = 0;
    state.phase = 0;
    // The base source pushes end of stream once for each time its flag is cleared.
    std::atomic_ref(source->eos).store(0);
    return 0;
}

void store_sample(uint8_t *bytes, long sample)
{
    bytes[0] = static_cast<uint8_t>(sample & 0xFF);
    bytes[1] = static_cast<uint8_t>(sample >> 8 & 0xFF);
}

void fill(State &state, uint8_t *bytes, uint32_t samples)
{
    const double step = static_cast<double>(state.frequency) / state.rate;
    for (uint32_t index = 0; index < samples; ++index) {
        const double turn = 2 * std::numbers::pi * state.phase;
        store_sample(bytes + index * kSampleSize, std::lrint(kAmplitude * std::sin(turn)));
        state.phase += step;
        state.phase -= std::floor(state.phase);
    }
}

// A buffer for so many samples. It may come from the plugin downstream, which may have
// memory of its own to be written into, so what comes is looked at: one that is too
// large would go on with bytes that nobody has written.
NOXBuffer *new_buffer(NOXBaseSrc *source, uint32_t samples)
{
    NOXBufferRequest request = {1, 0, {samples * kSampleSize}};
    NOXBuffer *buffer = nox_plugin_get_outbuffer(&source->plugin, &request);
    if (buffer == nullptr) {
        report(source, PLUGIN_MSG_MEMORY, "no memory for a buffer");
        return nullptr;
    }
    NOXMemory *memory = nox_buffer_get_memory(buffer, 0);
    if (nox_buffer_get_memcnt(buffer) == 1 &&
        nox_memory_get_datasize(memory) == samples * kSampleSize)
        return buffer;
    report(source, PLUGIN_MSG_MEMORY, "got an output buffer that is not of the size asked for");
    nox_object_delete(buffer);
    return nullptr;
}

// The next buffer, whose reference goes to the base source. Null is the end: of a
// source that is not live the base source then pushes end of stream.
NOXBuffer *tone_create(NOXBaseSrc *source)
{
    State &state = state_of(source);
    const uint64_t index = state.buffers;
    const uint64_t begin = state.begin_of(index);
    const uint64_t end = std::min(state.begin_of(index + 1), state.total_samples());
    if (state.ending || begin >= end)
        return nullptr;

    const auto samples = static_cast<uint32_t>(end - begin);
    NOXBuffer *buffer = new_buffer(source, samples);
    if (buffer == nullptr) {
        state.ending = true; // a gap would be heard
        return nullptr;
    }
    fill(state, nox_memory_get_data(nox_buffer_get_memory(buffer, 0)), samples);
    const uint64_t duration_us = uint64_t{samples} * 1000000 / state.rate;
    nox_buffer_set_timestamp(buffer, index * kBufferMs);
    nox_buffer_set_duration(buffer, duration_us / 1000);
    nox_buffer_set_durationUs(buffer, duration_us);
    state.buffers = index + 1;
    return buffer;
}

// Asked to end the stream, the source ends as after its duration: end of stream is
// pushed on the thread that pushes the buffers, and so comes after the last of them.
int32_t tone_event(NOXBaseSrc *source, NOXEvent *event)
{
    if (event->type == NOX_EVENT_EOS)
        state_of(source).ending = true;
    return 0;
}

int32_t tone_finalize(NOXBaseSrc *source)
{
    state_of(source).~State();
    return 0;
}

int32_t tone_init(NOXPlugin *plugin)
{
    auto *source = reinterpret_cast<NOXBaseSrc *>(plugin);
    if (nox_basesrc_init(source) != 0)
        return -1;
    new (&state_of(source)) State();
    source->islive = 0;
    source->setformat_func = tone_setformat;
    source->getformat_func = tone_getformat;
    source->start_func = tone_start;
    source->create_func = tone_create;
    source->event_func = tone_event;
    source->finalize_func = tone_finalize;
    return 0;
}

} // namespace

// The one function that the library exports; nox.h declares it with C linkage.
void plugin_desc(NOXPluginDesc *desc)
{
    *desc = {"tone", "libnoxcore examples", sizeof(Tone), tone_init};
}
