// Schedules of sources: pauses, deaths and restarts at every point of a state change.

#include <gtest/gtest.h>

#include "soak/campaigns.h"
#include "soak/graph.h"

namespace soak
{

Campaigns sources_campaigns()
{
    return {};
}

} // namespace soak
