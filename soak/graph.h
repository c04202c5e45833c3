// Graphs of every shape that state changes and buffers take their way through.
#ifndef SOAK_GRAPH_H
#define SOAK_GRAPH_H

#include "soak/invariants.h"

namespace soak
{

SourceKind draw_kind(Dice &dice);

// Up to `most_sources` sources of any kind; behind each a chain of filters that may branch,
// and branch again; at the end of every branch a sink, some of which wait for the clock. The
// order of the members is drawn, too.
void draw_graph(Watch &watch, Dice &dice, uint32_t most_sources);

// One source of the kind asked for, a filter and a sink.
Actor &draw_chain(Watch &watch, Dice &dice, const SourceKind &kind);

} // namespace soak

#endif
