// The pipe's hold on the thread of its bus.
#ifndef NOX_TIMING_BUS_THREAD_H
#define NOX_TIMING_BUS_THREAD_H

#include "noxbus.h"

namespace nox
{

// Returns when the handler runs no more and will not be called again; what is
// posted from then on goes with the bus. Does nothing on the bus's own thread.
void end_deliveries(NOXBus *bus);

} // namespace nox

#endif
