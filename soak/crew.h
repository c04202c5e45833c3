// The child processes in which the runs of a campaign take place.
#ifndef SOAK_CREW_H
#define SOAK_CREW_H

#include <string>

#include "soak/campaign.h"

namespace soak
{

constexpr unsigned most_workers = 64;
constexpr uint64_t counting = 0; // stands for a run: the count of all runs

struct Runs {
    uint64_t first = 0;
    uint64_t last = 0;
};

// "4711", or "12-511".
std::string text_of(Runs runs);

// What the expectations of one run say, in this process, which is ended when the run takes
// too long; empty when all hold.
std::string failures_of(const Campaign &campaign, uint64_t run);

struct Share {
    bool quick = false;
    unsigned workers = 1; // children at a time
    bool one_processor_each = false;
};

struct Outcome {
    uint64_t taken = 0; // runs
    uint64_t findings = 0;
};

// Prints each finding with the command that replays it.
Outcome run_in_children(const Campaign &campaign, const Share &share);

} // namespace soak

#endif
