// wavsrc: plays a PCM WAV file, one buffer of 16-bit samples for each 20 ms.
//
// The file is opened when the option "location" is set, so that a bad one is
// reported at once and downstream plugins can ask for the stream's facts. From
// start on the source thread owns the file; the position and the wish to end are
// atomic, because the application asks for them meanwhile. Times come from the
// position in frames, so that durations add up without drift.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "common/element.h"
#include "common/options.h"
#include "common/output.h"
#include "common/report.h"
#include "common/stream.h"
#include "common/wav_reader.h"
#include "nox.h"
#include "noxbasesrc.h"

using namespace noxplugins;

namespace
{

constexpr uint64_t kBuffersPerSecond = 50;
constexpr uint64_t kMostBufferBytes = 16 * 1024 * 1024; // 1024 channels at 400 kHz
constexpr uint64_t kMostFrames = UINT64_MAX / 1000000;  // in all: their microseconds fit

struct Recording {
    std::unique_ptr<WavReader> reader; // null: there is none
    StreamFormat stream{};
    uint64_t frames = 0;
};

struct State {
    Text location;
    uint32_t loop = 1; // times to play
    Recording recording;
    std::atomic<uint64_t> position{0}; // frames handed on, over all loops
    std::atomic<bool> ending{false};   // end of stream was asked for, or reading failed

    // A loop that is too much for a new recording is refused, but the recording stays.
    uint64_t total_frames() const
    {
        return recording.frames > kMostFrames / loop ? kMostFrames : recording.frames * loop;
    }
};

using WavSource = Element<NOXBaseSrc, State>;

bool is_pcm_wav(int format)
{
    const int container = format & SF_FORMAT_TYPEMASK;
    const int sample = format & SF_FORMAT_SUBMASK;
    const bool wav =
        container == SF_FORMAT_WAV || container == SF_FORMAT_WAVEX || container == SF_FORMAT_RF64;
    return wav && (sample == SF_FORMAT_PCM_U8 || sample == SF_FORMAT_PCM_16 ||
                   sample == SF_FORMAT_PCM_24 || sample == SF_FORMAT_PCM_32);
}

int32_t report_unsupported(void *plugin, const char *location, int format)
{
    SF_FORMAT_INFO container{format & SF_FORMAT_TYPEMASK, nullptr, nullptr};
    SF_FORMAT_INFO sample{format & SF_FORMAT_SUBMASK, nullptr, nullptr};
    sf_command(nullptr, SFC_GET_FORMAT_INFO, &container, sizeof container);
    sf_command(nullptr, SFC_GET_FORMAT_INFO, &sample, sizeof sample);
    return report(plugin, PLUGIN_MSG_FORMAT,
                  "%s holds %s, %s; only PCM in a WAV file can be played", location,
                  container.name == nullptr ? "unknown data" : container.name,
                  sample.name == nullptr ? "unknown samples" : sample.name);
}

// Looping and the check for missing samples need a file that can be gone back in.
bool is_regular_file(int descriptor)
{
    struct stat status;
    return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

// A shared lock keeps a wavsink, of any process, from emptying the file meanwhile.
// File systems without locks are played from all the same.
bool lock_for_reading(int descriptor)
{
    return flock(descriptor, LOCK_SH | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

bool holds_what_it_says(void *plugin, const char *location, const WavLayout &layout)
{
    if (layout.missing > 0)
        report(plugin, PLUGIN_MSG_FORMAT, "%s is truncated: %llu bytes of its samples are missing",
               location, static_cast<unsigned long long>(layout.missing));
    if (layout.unannounced > 0)
        report(plugin, PLUGIN_MSG_FORMAT,
               "%s says that it holds no samples, but %llu bytes follow: its recorder was not "
               "ended properly",
               location, static_cast<unsigned long long>(layout.unannounced));
    return layout.missing == 0 && layout.unannounced == 0;
}

// What the header says of rate and channels decides how large a buffer is, and a file that
// is mostly a hole is long enough for anything that it says.
bool buffers_fit(const StreamFormat &stream)
{
    const uint64_t most_frames = stream.rate / kBuffersPerSecond + 1;
    return most_frames * stream.frame_size() <= kMostBufferBytes;
}

int32_t open_file(void *plugin, const char *location, Descriptor &descriptor)
{
    descriptor = Descriptor(open(location, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (descriptor.get() < 0)
        return report(plugin, PLUGIN_MSG_READ, "cannot open %s: %s", location,
                      strerrordesc_np(errno));
    if (!is_regular_file(descriptor.get()))
        return report(plugin, PLUGIN_MSG_READ, "cannot read %s: not a regular file", location);
    if (!lock_for_reading(descriptor.get()))
        return report(plugin, PLUGIN_MSG_READ, "cannot read %s: it is being written", location);
    return 0;
}

int32_t open_reader(void *plugin, const char *location, Recording &recording, SF_INFO &info)
{
    Descriptor descriptor;
    if (open_file(plugin, location, descriptor) != 0)
        return -1;
    WavLayout layout;
    if (const char *reason = find_samples(descriptor.get(), layout))
        return report(plugin, PLUGIN_MSG_FORMAT, "cannot read %s: %s", location, reason);
    if (!holds_what_it_says(plugin, location, layout))
        return -1;
    recording.reader.reset(new (std::nothrow) WavReader(std::move(descriptor), layout));
    if (recording.reader == nullptr)
        return report(plugin, PLUGIN_MSG_MEMORY, "no memory to read %s", location);
    if (!recording.reader->open(info))
        return report(plugin, PLUGIN_MSG_FORMAT, "cannot read %s: %s", location,
                      sf_strerror(nullptr));
    return 0;
}

int32_t open_recording(void *plugin, const char *location, Recording &recording)
{
    SF_INFO info{};
    if (open_reader(plugin, location, recording, info) != 0)
        return -1;
    if (!is_pcm_wav(info.format))
        return report_unsupported(plugin, location, info.format);
    recording.stream = {static_cast<uint32_t>(info.samplerate),
                        static_cast<uint32_t>(info.channels)};
    if (!buffers_fit(recording.stream))
        return report(plugin, PLUGIN_MSG_FORMAT,
                      "%s has %u channels at %u Hz: too much for a buffer", location,
                      recording.stream.channels, recording.stream.rate);
    recording.frames = static_cast<uint64_t>(info.frames);
    if (recording.frames > kMostFrames)
        return report(plugin, PLUGIN_MSG_FORMAT, "%s is too long", location);
    return 0;
}

int32_t set_location(WavSource *self, NOXStructure *format)
{
    const Option found = take_location(self, format, self->state.location);
    if (found != Option::taken)
        return found == Option::refused ? -1 : 0;
    self->state.recording = Recording();
    Recording recording;
    if (open_recording(self, self->state.location.get(), recording) != 0)
        return -1;
    self->state.recording = std::move(recording);
    self->state.position = 0;
    return 0;
}

int32_t set_loop(WavSource *self, NOXStructure *format)
{
    uint32_t loop = self->state.loop;
    if (take_option(self, format, "loop", loop) == Option::refused)
        return -1;
    const uint64_t frames = self->state.recording.frames;
    const uint64_t most =
        std::min<uint64_t>(UINT32_MAX, kMostFrames / std::max<uint64_t>(frames, 1));
    if (loop == 0 || loop > most)
        return report(self, PLUGIN_MSG_OPTION, "option loop must be from 1 to %llu, and not %u",
                      static_cast<unsigned long long>(most), loop);
    self->state.loop = loop;
    return 0;
}

int32_t wavsrc_setformat(NOXBaseSrc *source, NOXStructure *format)
{
    WavSource *self = WavSource::of(source);
    if (source->islive != 0) {
        std::atomic_ref(source->islive).store(0);
        return report(self, PLUGIN_MSG_OPTION, "option islive must be false: a file is not live");
    }
    if (source->thread != nullptr)
        return report(self, PLUGIN_MSG_OPTION, "options cannot be set while the file is played");
    if (set_location(self, format) != 0)
        return -1;
    return set_loop(self, format);
}

// May be called while the file is played, for the position.
int32_t wavsrc_getformat(NOXBaseSrc *source, NOXStructure *format)
{
    const State &state = WavSource::of(source)->state;
    const char *location = state.location == nullptr ? "" : state.location.get();
    if (put_option(format, "location", location) != 0 ||
        put_option(format, "loop", state.loop) != 0)
        return -1;
    if (state.recording.reader == nullptr)
        return 0;
    const StreamFormat &stream = state.recording.stream;
    const bool entered =
        put_stream_format(format, stream) == 0 &&
        put_option(format, kStreamDuration, scaled(state.total_frames(), stream.rate, 1000)) == 0 &&
        put_option(format, kStreamPosition, scaled(state.position, stream.rate, 1000)) == 0;
    return entered ? 0 : -1;
}

// Each start plays from the beginning. The base source pushes end of stream once
// for each time its flag is cleared.
int32_t wavsrc_start(NOXBaseSrc *source)
{
    State &state = WavSource::of(source)->state;
    if (state.recording.reader == nullptr)
        return report(source, PLUGIN_MSG_OPTION, "option location is missing: the WAV file's path");
    if (source->thread != nullptr)
        return 0;
    SNDFILE *file = state.recording.reader->file();
    if (sf_seek(file, 0, SF_SEEK_SET) != 0)
        return report(source, PLUGIN_MSG_READ, "cannot go to the start of %s: %s",
                      state.location.get(), sf_strerror(file));
    state.position = 0;
    state.ending = false;
    std::atomic_ref(source->eos).store(0);
    return 0;
}

// Frames up to the next 20 ms mark of the recording, or up to its end.
uint64_t frames_to_next_mark(const Recording &recording, uint64_t position)
{
    const uint64_t rate = recording.stream.rate;
    const uint64_t mark = position * kBuffersPerSecond / rate + 1;
    const uint64_t next = (mark * rate + kBuffersPerSecond - 1) / kBuffersPerSecond;
    return (next < recording.frames ? next : recording.frames) - position;
}

bool read_frames(NOXBaseSrc *source, NOXBuffer *buffer, uint64_t frames)
{
    State &state = WavSource::of(source)->state;
    const WavReader &reader = *state.recording.reader;
    NOXMemory *memory = nox_buffer_get_memory(buffer, 0);
    if (reinterpret_cast<uintptr_t>(nox_memory_get_data(memory)) % alignof(short) != 0) {
        report(source, PLUGIN_MSG_MEMORY, "got an output buffer that is not aligned");
        return false;
    }
    auto *samples = reinterpret_cast<short *>(nox_memory_get_data(memory));
    const sf_count_t count =
        sf_readf_short(reader.file(), samples, static_cast<sf_count_t>(frames));
    if (static_cast<uint64_t>(count) == frames)
        return true;
    const char *reason =
        reader.read_error() != 0 ? strerrordesc_np(reader.read_error()) : "the file has shrunk";
    report(source, PLUGIN_MSG_READ, "cannot read %s past frame %llu: %s", state.location.get(),
           static_cast<unsigned long long>(state.position), reason);
    return false;
}

void stamp(NOXBuffer *buffer, uint64_t begin, uint64_t end, uint32_t rate)
{
    const uint64_t timestamp = scaled(begin, rate, 1000);
    nox_buffer_set_timestamp(buffer, timestamp);
    nox_buffer_set_duration(buffer, scaled(end, rate, 1000) - timestamp);
    nox_buffer_set_durationUs(buffer, scaled(end, rate, 1000000) - scaled(begin, rate, 1000000));
}

// Null is end of file: the base source then pushes end of stream.
NOXBuffer *wavsrc_create(NOXBaseSrc *source)
{
    State &state = WavSource::of(source)->state;
    const Recording &recording = state.recording;
    const uint64_t position = state.position;
    if (state.ending || position >= state.total_frames())
        return nullptr;

    const uint64_t in_file = position % recording.frames;
    const uint64_t frames = frames_to_next_mark(recording, in_file);
    const auto bytes = static_cast<uint32_t>(frames * recording.stream.frame_size());
    NOXBuffer *buffer = take_outbuffer(source, {1, 0, {bytes}});
    const bool rewound = in_file != 0 || sf_seek(recording.reader->file(), 0, SF_SEEK_SET) == 0;
    if (buffer == nullptr || !rewound || !read_frames(source, buffer, frames)) {
        state.ending = true; // what follows a gap is not played
        nox_object_delete(buffer);
        return nullptr;
    }
    stamp(buffer, position, position + frames, recording.stream.rate);
    state.position = position + frames;
    return buffer;
}

// Asked to end the stream, the source ends as at the end of its file: the base
// source pushes end of stream on the thread that pushes the buffers.
int32_t wavsrc_event(NOXBaseSrc *source, NOXEvent *event)
{
    if (event->type == NOX_EVENT_EOS)
        WavSource::of(source)->state.ending = true;
    return 0;
}

int32_t wavsrc_init(NOXPlugin *plugin)
{
    auto *source = reinterpret_cast<NOXBaseSrc *>(plugin);
    if (nox_basesrc_init(source) != 0)
        return -1;
    WavSource::construct(plugin);
    source->islive = 0;
    source->setformat_func = wavsrc_setformat;
    source->getformat_func = wavsrc_getformat;
    source->start_func = wavsrc_start;
    source->create_func = wavsrc_create;
    source->event_func = wavsrc_event;
    source->finalize_func = WavSource::finalize;
    return 0;
}

} // namespace

void plugin_desc(NOXPluginDesc *desc)
{
    *desc = {"wavsrc", "libnoxcore", sizeof(WavSource), wavsrc_init};
}
