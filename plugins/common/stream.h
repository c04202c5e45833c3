// What a plugin says about the stream it hands on, and how it learns what it gets.
//
// The core carries no formats, so the plugins agree on this: a plugin's getformat
// enters the stream's facts under the keys below, and a filter or sink asks its
// upstream plugin for them when it leaves NULL. Going up, the pipe changes a
// source last, so a source knows its facts from setformat on.
#ifndef NOX_PLUGINS_COMMON_STREAM_H
#define NOX_PLUGINS_COMMON_STREAM_H

#include "noxplugin.h"

namespace noxplugins
{

// Facts, never options: no option's name has a dot.
inline constexpr char kStreamFormat[] = "stream.format";     // string: "s16le"
inline constexpr char kStreamRate[] = "stream.rate";         // uint32: frames a second
inline constexpr char kStreamChannels[] = "stream.channels"; // uint32
inline constexpr char kStreamDuration[] = "stream.duration"; // uint64: ms, when it is known
inline constexpr char kStreamPosition[] = "stream.position"; // uint64: ms played so far

// A stream of interleaved 16-bit little-endian samples.
struct StreamFormat {
    uint32_t rate;     // frames a second
    uint32_t channels; // samples in a frame

    uint32_t frame_size() const
    {
        return channels * static_cast<uint32_t>(sizeof(int16_t));
    }
};

// The time that `count` frames or bytes take at `rate` a second, in a unit of which
// a second has `units_per_second`, rounded down.
inline uint64_t scaled(uint64_t count, uint64_t rate, uint64_t units_per_second)
{
    return count / rate * units_per_second + count % rate * units_per_second / rate;
}

// Enters the facts of a stream; 0, or -1 when memory runs out.
int32_t put_stream_format(NOXStructure *format, const StreamFormat &stream);

// What the upstream plugin hands on. Reported, and false, when it does not say or
// when that is no 16-bit PCM.
bool take_upstream_format(void *plugin, StreamFormat &stream);

// The same without a word, for a plugin that can do without.
bool know_upstream_format(void *plugin, StreamFormat &stream);

// A filter's answer for a stream that it does not reshape: the upstream facts, and
// none while there are none; 0, or -1 when memory runs out.
int32_t forward_upstream_format(void *plugin, NOXStructure *format);

} // namespace noxplugins

#endif
