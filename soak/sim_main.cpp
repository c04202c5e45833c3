// The campaigns in virtual time.

#include "soak/campaigns.h"

int main(int argc, char **argv)
{
    return soak::main_of(argc, argv,
                         {
                             soak::fault_campaigns(),
                             soak::deletion_campaigns(),
                             soak::bus_campaigns(),
                             soak::chain_stop_campaigns(),
                             soak::misbehaviour_campaigns(),
                             soak::sources_campaigns(),
                             soak::states_campaigns(),
                         },
                         true);
}
