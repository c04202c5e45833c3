// reblock: hands its input on in blocks of one size, whatever sizes it comes in.
//
// Inputs go into the buffer adapter in slices that fit its free room, each a buffer
// that borrows the bytes of the input, holds a reference to it, and knows where in it
// they lie. So the adapter stays at a few blocks in size however large an input is,
// and the oldest slice leads to the input whose metadata a block gets.
//
// Time is counted in microseconds of stream since its first byte. It advances with the
// byte rate of the format, or without a known one evenly over each input's duration. A
// block's duration is the difference of two such times, so that durations add up
// without drift.
//
// Threads: chain and a pushed end of stream come on the source's thread, formats,
// states and the pipe's events on another. The object lock guards the state; it is not
// held while a block is pushed, which takes as long as a sink likes.

#include <algorithm>
#include <cstring>
#include <memory>

#include "common/element.h"
#include "common/options.h"
#include "common/output.h"
#include "common/report.h"
#include "common/samples.h"
#include "common/stream.h"
#include "nox.h"
#include "noxbasefilter.h"
#include "noxbufadpt.h"

using namespace noxplugins;

namespace
{

constexpr uint64_t kMicroseconds = 1000000;        // in a second
constexpr uint64_t kLongestInput = 1000000000;     // microseconds; no product overflows
constexpr uint32_t kLargestBlock = UINT32_MAX / 2; // the adapter holds two

struct DropReference {
    void operator()(void *object) const
    {
        nox_object_delete(object);
    }
};
using Adapter = std::unique_ptr<NOXBufAdpt, DropReference>;
using Buffer = std::unique_ptr<NOXBuffer, DropReference>;

struct State {
    uint32_t size = 0;      // option, bytes; 0: the other one is given
    uint32_t duration = 0;  // option, ms; 0: the other one is given
    uint32_t block = 0;     // bytes of a block of this stream
    uint64_t byte_rate = 0; // bytes a second; 0: not known
    Adapter adapter;        // null: not started, or refused
    uint64_t begin = 0;     // of the next input: see Place
    uint64_t end_time = 0;  // microseconds of stream up to the last byte gathered
};

using Reblock = Element<NOXBaseFilter, State>;

// ---- options --------------------------------------------------------------------

int32_t check_options(void *plugin, const State &wanted)
{
    if (wanted.size > 0 && wanted.duration > 0)
        return report(plugin, PLUGIN_MSG_OPTION,
                      "options size and duration are both given; one of them makes the blocks");
    if (wanted.size == 0 && wanted.duration == 0)
        return report(plugin, PLUGIN_MSG_OPTION,
                      "option size (bytes) or duration (ms) of a block must be given, above 0");
    if (wanted.size > kLargestBlock)
        return report(plugin, PLUGIN_MSG_OPTION, "option size must be from 1 to %u, and not %u",
                      kLargestBlock, wanted.size);
    return 0;
}

// A format that gives one of the two replaces what was given before.
int32_t reblock_setformat(NOXBaseFilter *filter, NOXStructure *format)
{
    State &own = Reblock::of(filter)->state;
    State wanted;
    const Option size = take_option(filter, format, "size", wanted.size);
    const Option duration = take_option(filter, format, "duration", wanted.duration);
    if (size == Option::refused || duration == Option::refused)
        return -1;
    if (size == Option::absent && duration == Option::absent)
        return check_options(filter, own);
    if (own.adapter != nullptr)
        return report(filter, PLUGIN_MSG_OPTION, "options cannot be set while the stream flows");
    if (check_options(filter, wanted) != 0)
        return -1;
    own.size = wanted.size;
    own.duration = wanted.duration;
    return 0;
}

int32_t reblock_getformat(NOXBaseFilter *filter, NOXStructure *format)
{
    const State &own = Reblock::of(filter)->state;
    if (put_option(format, "size", own.size) != 0 ||
        put_option(format, "duration", own.duration) != 0)
        return -1;
    return forward_upstream_format(filter, format);
}

// ---- leaving and entering NULL --------------------------------------------------

int32_t take_size(NOXBaseFilter *filter)
{
    State &own = Reblock::of(filter)->state;
    StreamFormat stream{};
    const bool known = know_upstream_format(filter, stream);
    if (known && own.size % stream.frame_size() != 0)
        return report(filter, PLUGIN_MSG_OPTION,
                      "option size: %u bytes are no whole frames of %u bytes", own.size,
                      stream.frame_size());
    own.block = own.size;
    own.byte_rate = known ? uint64_t{stream.rate} * stream.frame_size() : 0;
    return 0;
}

// A duration is rounded down to whole frames, of which there is at least one.
int32_t take_duration(NOXBaseFilter *filter)
{
    State &own = Reblock::of(filter)->state;
    StreamFormat stream{};
    if (!take_upstream_format(filter, stream))
        return -1;
    const uint64_t frames = std::max<uint64_t>(uint64_t{stream.rate} * own.duration / 1000, 1);
    if (frames > kLargestBlock / stream.frame_size())
        return report(filter, PLUGIN_MSG_OPTION,
                      "option duration: %u ms exceed the %u bytes of a block", own.duration,
                      kLargestBlock);
    own.block = static_cast<uint32_t>(frames) * stream.frame_size();
    own.byte_rate = uint64_t{stream.rate} * stream.frame_size();
    return 0;
}

int32_t prepare(NOXBaseFilter *filter)
{
    State &own = Reblock::of(filter)->state;
    if (check_options(filter, own) != 0)
        return -1;
    if ((own.size > 0 ? take_size(filter) : take_duration(filter)) != 0)
        return -1;
    own.adapter.reset(nox_bufadpt_new(filter->plugin.object.name, own.block));
    if (own.adapter == nullptr)
        return report(filter, PLUGIN_MSG_MEMORY, "no memory for blocks of %u bytes", own.block);
    own.begin = 0;
    own.end_time = 0;
    return 0;
}

int32_t reblock_setstate(NOXBaseFilter *filter, int32_t state)
{
    const PluginLock lock(filter);
    if (state == NOX_STATE_NULL || Reblock::of(filter)->state.adapter != nullptr)
        return 0;
    return prepare(filter);
}

int32_t reblock_start(NOXBaseFilter *filter)
{
    return Reblock::of(filter)->state.adapter != nullptr ? 0 : -1;
}

// What has not filled a block is dropped: only end of stream gives it out.
int32_t reblock_stop(NOXBaseFilter *filter)
{
    const PluginLock lock(filter);
    Reblock::of(filter)->state.adapter.reset();
    return 0;
}

// ---- places and times -----------------------------------------------------------

// A byte of an input, and where that input lies in the stream.
struct Place {
    NOXBuffer *input;
    uint64_t begin;  // of the input: bytes with a known byte rate, else microseconds
    uint64_t offset; // of the byte in the input
};

uint64_t bytes_in(NOXBuffer *buffer)
{
    uint64_t bytes = 0;
    for_each_block(buffer, [&](NOXMemory *memory) -> int32_t {
        bytes += nox_memory_get_datasize(memory);
        return 0;
    });
    return bytes;
}

uint64_t microseconds_of(NOXBuffer *input)
{
    const uint64_t exact = nox_buffer_get_durationUs(input);
    const uint64_t milliseconds = std::min(nox_buffer_get_duration(input), kLongestInput);
    return std::min(exact > 0 ? exact : milliseconds * 1000, kLongestInput);
}

// Microseconds from the beginning of the input to the place.
uint64_t time_in_input(const State &own, const Place &place)
{
    if (own.byte_rate > 0)
        return scaled(place.offset, own.byte_rate, kMicroseconds);
    return scaled(place.offset, bytes_in(place.input), microseconds_of(place.input));
}

uint64_t time_in_stream(const State &own, const Place &place)
{
    if (own.byte_rate > 0)
        return scaled(place.begin + place.offset, own.byte_rate, kMicroseconds);
    return place.begin + time_in_input(own, place);
}

// A timestamp of 0 is a time at the beginning of the stream only; later it means that
// there is none.
uint64_t timestamp_at(const State &own, const Place &place)
{
    const uint64_t timestamp = nox_buffer_get_timestamp(place.input);
    if (timestamp == 0 && place.begin > 0)
        return 0;
    return timestamp + time_in_input(own, place) / 1000;
}

// ---- slices ---------------------------------------------------------------------

int32_t drop_input(NOXBuffer *slice)
{
    nox_object_delete(nox_buffer_get_private(slice));
    return 0;
}

Buffer make_slice(const Place &place, uint8_t *bytes, uint32_t count)
{
    Buffer slice(nox_buffer_new(0));
    NOXMemory *memory = slice != nullptr ? nox_memory_new(0) : nullptr;
    if (memory == nullptr)
        return nullptr;
    nox_memory_set_data(memory, bytes);
    nox_memory_set_datasize(memory, count);
    nox_buffer_append_memory(slice.get(), memory); // takes over our reference
    nox_object_refer(place.input);                 // drop_input's, which ends it
    nox_buffer_set_private(slice.get(), place.input);
    nox_buffer_set_finalize_func(slice.get(), drop_input, place.offset);
    nox_buffer_set_private2_each(slice.get(), place.begin, 0);
    return slice;
}

// The next byte to be given out, which the oldest slice holds.
Place next_place(const State &own, NOXBuffer *slice)
{
    return {static_cast<NOXBuffer *>(nox_buffer_get_private(slice)),
            nox_buffer_get_private2(slice)->value64,
            nox_buffer_get_param(slice) + own.adapter->consumed};
}

uint64_t next_time(const State &own)
{
    NOXBuffer *slice = nox_bufadpt_get_buf(own.adapter.get(), 0);
    return slice == nullptr ? own.end_time : time_in_stream(own, next_place(own, slice));
}

// ---- blocks ---------------------------------------------------------------------

Buffer make_block(NOXBaseFilter *filter, const uint8_t *bytes, uint32_t count)
{
    Buffer block(take_outbuffer(filter, {1, 0, {count}}));
    if (block != nullptr)
        std::memcpy(nox_memory_get_data(nox_buffer_get_memory(block.get(), 0)), bytes, count);
    return block;
}

// The first bytes gathered as a block. Null, which is told, without memory.
Buffer take_block(NOXBaseFilter *filter, uint32_t count)
{
    State &own = Reblock::of(filter)->state;
    uint32_t available = 0;
    NOXBuffer *slice = nullptr;
    const uint8_t *bytes = nox_bufadpt_get_data(own.adapter.get(), &available, &slice);
    Buffer block = make_block(filter, bytes, count);
    if (block == nullptr)
        return nullptr;
    const Place place = next_place(own, slice);
    const uint64_t begin = time_in_stream(own, place);
    nox_buffer_copy_metadata(place.input, block.get());
    nox_buffer_set_timestamp(block.get(), timestamp_at(own, place));
    nox_bufadpt_release_data(own.adapter.get(), count); // ends the slice, and perhaps the input
    const uint64_t end = next_time(own);
    nox_buffer_set_duration(block.get(), end / 1000 - begin / 1000);
    nox_buffer_set_durationUs(block.get(), end - begin);
    return block;
}

// A full block or, when asked for, what there is. Null with `result` 0: there is none,
// or the filter was stopped meanwhile.
Buffer next_block(NOXBaseFilter *filter, bool also_part, int32_t &result)
{
    const PluginLock lock(filter);
    const State &own = Reblock::of(filter)->state;
    const uint32_t gathered = own.adapter != nullptr ? own.adapter->avail : 0;
    if (gathered == 0 || (gathered < own.block && !also_part))
        return nullptr;
    Buffer block = take_block(filter, std::min(gathered, own.block));
    if (block == nullptr)
        result = -1;
    return block;
}

int32_t give_out(NOXBaseFilter *filter, bool also_part)
{
    int32_t result = 0;
    while (const Buffer block = next_block(filter, also_part, result)) {
        result = nox_plugin_push_buffer(&filter->plugin, block.get());
        if (result != 0)
            break;
    }
    return result;
}

// Takes in as many of the bytes as there is room for; the rest waits until blocks have
// been given out. Their number, or -1.
int64_t gather(NOXBaseFilter *filter, const Place &place, uint8_t *bytes, uint32_t count)
{
    const PluginLock lock(filter);
    State &own = Reblock::of(filter)->state;
    if (own.adapter == nullptr)
        return -1;
    count = std::min(count, own.adapter->capacity - own.adapter->avail);
    Buffer slice = make_slice(place, bytes, count);
    if (slice == nullptr || nox_bufadpt_add(own.adapter.get(), slice.get()) != 0)
        return report(filter, PLUGIN_MSG_MEMORY, "no memory for a slice of a buffer");
    static_cast<void>(slice.release()); // the adapter's now
    own.end_time = time_in_stream(own, {place.input, place.begin, place.offset + count});
    return count;
}

uint64_t begin_of_next_input(NOXBaseFilter *filter)
{
    const PluginLock lock(filter);
    return Reblock::of(filter)->state.begin;
}

void note_end_of_input(NOXBaseFilter *filter, const Place &end)
{
    const PluginLock lock(filter);
    State &own = Reblock::of(filter)->state;
    own.begin = own.byte_rate > 0 ? end.begin + end.offset : own.end_time;
}

int32_t reblock_chain(NOXBaseFilter *filter, NOXBuffer *input)
{
    Place place = {input, begin_of_next_input(filter), 0};
    const int32_t result = for_each_block(input, [&](NOXMemory *memory) -> int32_t {
        const uint32_t size = nox_memory_get_datasize(memory);
        uint8_t *bytes = nox_memory_get_data(memory);
        for (uint32_t used = 0; used < size;) {
            const int64_t count = gather(filter, place, bytes + used, size - used);
            if (count < 0)
                return -1;
            used += static_cast<uint32_t>(count);
            place.offset += static_cast<uint32_t>(count);
            if (const int32_t failed = give_out(filter, false); failed != 0)
                return failed;
        }
        return 0;
    });
    note_end_of_input(filter, place);
    return result;
}

// The rest goes on before the event does, which the sinks are to hear even when it
// cannot.
int32_t reblock_event(NOXBaseFilter *filter, NOXEvent *event)
{
    if (event->type != NOX_EVENT_EOS)
        return 0;
    if (give_out(filter, true) != 0)
        nox_plugin_error_post(&filter->plugin, NOX_MSG_PUSH_ERROR, "cannot push the last block");
    const PluginLock lock(filter);
    Reblock::of(filter)->state.begin = 0;
    Reblock::of(filter)->state.end_time = 0;
    return 0;
}

int32_t reblock_init(NOXPlugin *plugin)
{
    auto *filter = reinterpret_cast<NOXBaseFilter *>(plugin);
    if (nox_basefilter_init(filter) != 0)
        return -1;
    Reblock::construct(plugin);
    filter->setformat_func = reblock_setformat;
    filter->getformat_func = reblock_getformat;
    filter->setstate_func = reblock_setstate;
    filter->start_func = reblock_start;
    filter->stop_func = reblock_stop;
    filter->chain_func = reblock_chain;
    filter->event_func = reblock_event;
    filter->finalize_func = Reblock::finalize;
    return 0;
}

} // namespace

void plugin_desc(NOXPluginDesc *desc)
{
    *desc = {"reblock", "libnoxcore", sizeof(Reblock), reblock_init};
}
