// A look at a WAV file's chunks for what libsndfile repairs without a word.
#ifndef NOX_PLUGINS_COMMON_RIFF_H
#define NOX_PLUGINS_COMMON_RIFF_H

#include <cstdint>

namespace noxplugins
{

// How a file differs from what its header says of the samples; both 0 for a file that
// is whole, and for one whose header leaves the size open, as recorders that cannot
// seek do.
struct SampleBytes {
    uint64_t missing;     // promised, but not there
    uint64_t unannounced; // there, in a file that promises none: its recorder was killed
};

// Looks at the file behind `descriptor`, whose offset stays as it is.
SampleBytes compare_with_header(int descriptor);

// False for a file in whose chunks libsndfile would read for minutes: it goes through a list in
// steps of a few bytes, and a list in a hole may be gigabytes long.
bool is_quickly_read(int descriptor);

} // namespace noxplugins

#endif
