// Where a WAV file has its format and its samples.
#ifndef NOX_PLUGINS_COMMON_RIFF_H
#define NOX_PLUGINS_COMMON_RIFF_H

#include <cstdint>

namespace noxplugins
{

constexpr uint32_t kMostFormatBytes = 256; // PCM has 16, 18 or 40

struct WavLayout {
    bool is_big_endian;
    uint8_t format[kMostFormatBytes]; // the chunk "fmt ", as it is in the file
    uint32_t format_size;
    uint64_t samples_begin; // byte of the file
    uint64_t samples_size;  // bytes that are there to be played

    // How the file differs from what its header says; both 0 for one that is whole, and for
    // one whose header leaves the size open, as recorders that cannot seek do.
    uint64_t missing;     // promised, but not there
    uint64_t unannounced; // there, in a file that promises none: its recorder was killed
};

// Fills the layout of the file behind `descriptor`, whose offset stays as it is. Null, or
// why there is nothing to play.
const char *find_samples(int descriptor, WavLayout &layout);

} // namespace noxplugins

#endif
