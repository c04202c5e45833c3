// What the files of the base source, and the sink at the end of its pushes, share.
#ifndef NOX_BASE_BASESRC_INTERNAL_H
#define NOX_BASE_BASESRC_INTERNAL_H

#include "noxbasesrc.h"

namespace nox
{

// The values of `parked_` beside 0.
constexpr uint8_t kParking = 1; // announced: the thread looks at the state once more
constexpr uint8_t kParked = 2;  // it has, and waits until it is woken

// The record behind a plugin that is known to be a source.
inline NOXBaseSrc *source_of(NOXPlugin *plugin)
{
    return reinterpret_cast<NOXBaseSrc *>(plugin);
}

// Whether the calling thread belongs to a source that has been asked to end or to
// park, so that nothing on it should wait any longer.
bool pushing_source_is_called_back();

} // namespace nox

#endif
