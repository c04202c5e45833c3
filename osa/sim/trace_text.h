/*
 * A recorded trace line as text.
 */
#ifndef OSA_SIM_TRACE_TEXT_H
#define OSA_SIM_TRACE_TEXT_H

#include <string>

#include "osa/sim/osasim.h"

namespace sim
{

/* Always ends with exactly the line feed of the line, or with one of its own. */
std::string trace_text(const SIM_TraceLine &line);

} // namespace sim

#endif
