// The choices of one run, drawn from its number.
#ifndef SOAK_DICE_H
#define SOAK_DICE_H

#include <cstdint>
#include <iterator>

#include "soak/campaign.h"

namespace soak
{

// For one thread; a run with several gives each a stream of its own, so that what one of
// them draws does not depend on the others.
class Dice
{
public:
    explicit Dice(uint64_t run, uint64_t stream = 0) : m_run(bits_of(run, ~stream)) {}

    // 0 .. bound - 1.
    uint32_t below(uint32_t bound)
    {
        return static_cast<uint32_t>(bits_of(m_run, m_drawn++) % bound);
    }

    // first .. last.
    uint32_t between(uint32_t first, uint32_t last)
    {
        return first + below(last - first + 1);
    }

    bool chance(uint32_t percent)
    {
        return below(100) < percent;
    }

    template <typename Table>
    auto &one_of(Table &&table)
    {
        return table[below(static_cast<uint32_t>(std::size(table)))];
    }

private:
    uint64_t m_run;
    uint64_t m_drawn = 0;
};

} // namespace soak

#endif
