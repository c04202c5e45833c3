// The simulated layer, over many schedules.

#include "tests/osa/layer.h"
#include "osa/sim/osasim.h"

const LayerUnderTest kLayer = {
    .begin = [](uint64_t seed) { SIM_Begin({.seed = seed}); },
    .end = [] { EXPECT_EQ("", SIM_End()); },
    .misuses =
        [] {
            const std::string text = SIM_MisuseText();
            SIM_MisuseClear();
            return text;
        },
    .is_simulated = true,
    .rounds = 10,
    .slow_told = {1, 11, 21, 31},
};

INSTANTIATE_TEST_SUITE_P(Simulated, EverySchedule, testing::Range<uint64_t>(1, 21));
