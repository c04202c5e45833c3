// What the control side of a base source, its thread, and the sink at the end of
// that thread's pushes know of each other.
#ifndef NOX_BASE_BASESRC_THREAD_H
#define NOX_BASE_BASESRC_THREAD_H

#include "noxbasesrc.h"

namespace nox
{

// Whether the calling thread is the thread of this source.
bool is_thread_of(const NOXBaseSrc *source);

// Whether the calling thread belongs to a source that has been asked to end, so
// that nothing on it should wait any longer.
bool pushing_source_is_stopped();

} // namespace nox

#endif
