// A campaign is a numbered set of runs, each of which must find nothing. The number of a
// run decides everything about it, so that a finding is replayed by its number.
//
// A run looks at what it expects with GoogleTest's EXPECT_ and ASSERT_ macros. It takes
// place in a child process: a crash, a deadlock or a sanitizer's report ends that child,
// counts as a finding of the run that was going on, and the next child takes over.
#ifndef SOAK_CAMPAIGN_H
#define SOAK_CAMPAIGN_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace soak
{

struct Campaign {
    std::string name;   // one word, lower case, parts joined by '-': people type it
    std::string unit;   // what one run is, in the plural: "seeds", "fault points"
    uint64_t full = 0;  // how many runs, numbered from 1
    uint64_t quick = 0; // the share of them that --quick takes
    std::function<void(uint64_t run)> run;

    // Where the number of runs is found out by trying: called once, in a child of its
    // own, instead of `full`; `quick` is then the most that --quick takes (0: all),
    // spread over the whole.
    std::function<uint64_t()> count = nullptr;

    uint64_t in_one_run = 1;     // units that one run counts for
    unsigned limit_seconds = 60; // a run that takes longer has hung
    bool alone = false;          // one run at a time: it measures, or needs the processors
};

using Campaigns = std::vector<Campaign>;

// The body of a program's main: runs the campaigns that the command line asks for, prints a line
// "RESULT<TAB>name<TAB>size<TAB>findings<TAB>seconds" for each, and returns non-zero for a finding.
// With one processor for each child, where runs do one thing at a time, no two children meet on
// one while another is idle.
int main_of(int argc, char **argv, const std::vector<Campaigns> &groups,
            bool one_processor_each = false);

// Not a rule but a number that mixes well: the same bits for the same run and place.
uint64_t bits_of(uint64_t run, uint64_t place = 0);

} // namespace soak

#endif
