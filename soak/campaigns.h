// What the programs of this folder consist of: one function for each file of campaigns.
#ifndef SOAK_CAMPAIGNS_H
#define SOAK_CAMPAIGNS_H

#include <vector>

#include "soak/campaign.h"

namespace soak
{

// In virtual time: soak_sim.
Campaigns fault_campaigns();
Campaigns deletion_campaigns();
Campaigns bus_campaigns();
Campaigns chain_stop_campaigns();
Campaigns misbehaviour_campaigns();
Campaigns sources_campaigns();
Campaigns states_campaigns();

// On the real OS layer: soak_real.
Campaigns storm_campaigns();
Campaigns bad_plugin_campaigns();

} // namespace soak

#endif
