// wavsink: writes the 16-bit PCM it gets to a WAV file.
//
// The file is opened on the way out of NULL, where a failure still stops the change
// of state; the base sink does not look at the result of a start. Its header is
// brought up to date after each second of sound, at end of stream, and on stop in any
// case. After a failed write nothing more is written, and the failure is reported once.

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "common/element.h"
#include "common/options.h"
#include "common/report.h"
#include "common/samples.h"
#include "common/sound_file.h"
#include "common/stream.h"
#include "nox.h"
#include "noxbasesink.h"

using namespace noxplugins;

namespace
{

// The sizes in a WAV header have 32 bits; some room is kept for the header itself.
constexpr uint64_t kLargestData = UINT32_MAX - 4096;

struct State {
    Text location;
    Descriptor descriptor; // outlives the handle that writes through it
    SoundFile file;        // null: not open, or given up
    StreamFormat stream{};
    uint64_t bytes = 0;        // of samples written
    uint64_t header_bytes = 0; // of them, those that the header in the file counts
};

using WavSink = Element<NOXBaseSink, State>;

int32_t wavsink_setformat(NOXBaseSink *sink, NOXStructure *format)
{
    const PluginLock lock(sink);
    State &state = WavSink::of(sink)->state;
    if (state.file != nullptr && nox_sturcture_search_node(format, "location") != nullptr)
        return report(sink, PLUGIN_MSG_OPTION, "option location cannot be set while %s is written",
                      state.location.get());
    return take_location(sink, format, state.location) == Option::refused ? -1 : 0;
}

int32_t wavsink_getformat(NOXBaseSink *sink, NOXStructure *format)
{
    const PluginLock lock(sink);
    const Text &location = WavSink::of(sink)->state.location;
    return put_option(format, "location", location == nullptr ? "" : location.get());
}

int32_t report_write_error(NOXBaseSink *sink, const char *reason)
{
    return report(sink, PLUGIN_MSG_WRITE, "cannot write %s: %s",
                  WavSink::of(sink)->state.location.get(), reason);
}

// The file is emptied only once it is known that no wavsrc plays it and no other
// wavsink writes it, in this process or another. Devices have nothing to lose, and
// some file systems have no locks.
int32_t empty_file(NOXBaseSink *sink, int descriptor)
{
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return report_write_error(sink, strerrordesc_np(errno));
    if (!S_ISREG(status.st_mode))
        return 0;
    if (flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK)
        return report_write_error(sink, "it is being read or written");
    return ftruncate(descriptor, 0) == 0 ? 0 : report_write_error(sink, strerrordesc_np(errno));
}

int32_t open_file(NOXBaseSink *sink)
{
    State &state = WavSink::of(sink)->state;
    if (state.location == nullptr)
        return report(sink, PLUGIN_MSG_OPTION, "option location is missing: the WAV file's path");
    if (!take_upstream_format(sink, state.stream))
        return -1;
    Descriptor descriptor(
        open(state.location.get(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0666));
    if (descriptor.get() < 0)
        return report_write_error(sink, strerrordesc_np(errno));
    if (empty_file(sink, descriptor.get()) != 0)
        return -1;

    SF_INFO info{};
    info.samplerate = static_cast<int>(state.stream.rate);
    info.channels = static_cast<int>(state.stream.channels);
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SoundFile file(sf_open_fd(descriptor.get(), SFM_WRITE, &info, SF_FALSE));
    if (file == nullptr)
        return report_write_error(sink, sf_strerror(nullptr));
    state.descriptor = std::move(descriptor);
    state.file = std::move(file);
    state.bytes = 0;
    state.header_bytes = 0;
    return 0;
}

// Null, or why what was written may not have arrived: with a network, a quota or
// delayed allocation a full disk shows only here. Devices cannot be synchronized.
const char *close_file(State &state)
{
    const int failure = sf_close(state.file.release());
    const bool stored = fdatasync(state.descriptor.get()) == 0 || errno == EINVAL;
    const int store_error = errno;
    const bool closed = state.descriptor.close();
    if (failure != 0)
        return sf_error_number(failure);
    if (!stored)
        return strerrordesc_np(store_error);
    return closed ? nullptr : strerrordesc_np(errno);
}

int32_t wavsink_setstate(NOXBaseSink *sink, int32_t state)
{
    const PluginLock lock(sink);
    const bool leaves_null = sink->plugin.state == NOX_STATE_NULL;
    return leaves_null && state != NOX_STATE_NULL ? open_file(sink) : 0;
}

int32_t wavsink_stop(NOXBaseSink *sink)
{
    const PluginLock lock(sink);
    State &state = WavSink::of(sink)->state;
    const char *reason = state.file == nullptr ? nullptr : close_file(state);
    return reason == nullptr ? 0 : report_write_error(sink, reason);
}

int32_t write_block(NOXBaseSink *sink, const NOXMemory *memory)
{
    State &state = WavSink::of(sink)->state;
    if (state.bytes + memory->datasize > kLargestData)
        return report_write_error(sink, "it has reached the 4 GiB that a WAV file can hold");
    const sf_count_t written = sf_write_raw(state.file.get(), memory->data, memory->datasize);
    state.bytes += written > 0 ? static_cast<uint64_t>(written) : 0;
    if (written == static_cast<sf_count_t>(memory->datasize))
        return 0;
    return report_write_error(sink, sf_strerror(state.file.get()));
}

// What a recording that is cut off by a kill or a crash holds for its readers.
int32_t update_header(NOXBaseSink *sink)
{
    State &state = WavSink::of(sink)->state;
    SNDFILE *file = state.file.get();
    state.header_bytes = state.bytes;
    sf_command(file, SFC_UPDATE_HEADER_NOW, nullptr, 0);
    return sf_error(file) == SF_ERR_NO_ERROR ? 0 : report_write_error(sink, sf_strerror(file));
}

int32_t update_header_each_second(NOXBaseSink *sink)
{
    const State &state = WavSink::of(sink)->state;
    const uint64_t second = uint64_t{state.stream.rate} * state.stream.frame_size();
    return state.bytes - state.header_bytes < second ? 0 : update_header(sink);
}

int32_t wavsink_render(NOXBaseSink *sink, NOXBuffer *buffer)
{
    const PluginLock lock(sink);
    State &state = WavSink::of(sink)->state;
    if (state.file == nullptr)
        return -1;
    if (holds_whole_frames(sink, buffer, state.stream.frame_size()) &&
        for_each_block(buffer, [&](NOXMemory *memory) { return write_block(sink, memory); }) == 0 &&
        update_header_each_second(sink) == 0)
        return 0;
    close_file(state); // the failure is reported already
    return -1;
}

int32_t wavsink_event(NOXBaseSink *sink, NOXEvent *event)
{
    const PluginLock lock(sink);
    const bool writing = WavSink::of(sink)->state.file != nullptr;
    return event->type == NOX_EVENT_EOS && writing ? update_header(sink) : 0;
}

int32_t wavsink_init(NOXPlugin *plugin)
{
    auto *sink = reinterpret_cast<NOXBaseSink *>(plugin);
    if (nox_basesink_init(sink) != 0)
        return -1;
    WavSink::construct(plugin);
    sink->setformat_func = wavsink_setformat;
    sink->getformat_func = wavsink_getformat;
    sink->setstate_func = wavsink_setstate;
    sink->stop_func = wavsink_stop;
    sink->render_func = wavsink_render;
    sink->event_func = wavsink_event;
    sink->finalize_func = WavSink::finalize;
    return 0;
}

} // namespace

void plugin_desc(NOXPluginDesc *desc)
{
    *desc = {"wavsink", "libnoxcore", sizeof(WavSink), wavsink_init};
}
