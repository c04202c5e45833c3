// The campaigns on the real OS layer, with real threads.

#include "soak/campaigns.h"

int main(int argc, char **argv)
{
    return soak::main_of(argc, argv, {soak::storm_campaigns(), soak::bad_plugin_campaigns()});
}
