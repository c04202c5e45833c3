// What the files of the pipe share.
#ifndef NOX_PIPE_NOXPIPE_INTERNAL_H
#define NOX_PIPE_NOXPIPE_INTERNAL_H

#include "internal/list_walk.h"
#include "internal/trace.h"
#include "noxpipe.h"

namespace
{

constexpr char kSource[] = "noxpipe";

// The member plugins in the order of adding.
inline nox::ListItems<NOXPlugin> members(const NOXPipe *pipe)
{
    return nox::items<NOXPlugin>(pipe->plugins);
}

} // namespace

namespace nox
{

// Stops the pipeline clock. One that has never run is left alone: the clock would
// count the time until its first start as a pause that lies before that start.
void stop_clock(NOXPipe *pipe);

// Whether a source's links run in a circle, where no walk and no buffer would come to an
// end; told under the name of the operation that asks.
bool has_circle(const NOXPipe *pipe, const char *function);

// The control thread with its queue. Start leaves nothing behind when it fails. After
// end_requests one more request is carried out at most. Stop returns when the thread
// has ended and everything queued is released.
bool start_control_thread(NOXPipe *pipe);
void end_requests(NOXPipe *pipe);
void stop_control_thread(NOXPipe *pipe);

} // namespace nox

#endif
