// A look at a WAV file's chunks for what libsndfile repairs without a word.
#ifndef NOX_PLUGINS_COMMON_RIFF_H
#define NOX_PLUGINS_COMMON_RIFF_H

#include <cstdint>

namespace noxplugins
{

// Bytes by which the file behind `descriptor` falls short of the size that the
// header gives its data chunk; 0 when it is whole, or when the header leaves the
// size open, as recorders that cannot seek do. The file offset stays as it is.
uint64_t missing_bytes(int descriptor);

} // namespace noxplugins

#endif
