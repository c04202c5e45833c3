// The Linux layer, in real time.

#include "tests/osa/layer.h"

const LayerUnderTest kLayer = {
    .begin = [](uint64_t) { OSA_SystemInit(nullptr); },
    .end = [] { OSA_SystemUnInit(nullptr); },
    .misuses = [] { return std::string(); }, // are traced
    .is_simulated = false,
    .rounds = 20'000,
    .slow_told = {1},
};

INSTANTIATE_TEST_SUITE_P(Linux, EverySchedule, testing::Values(1));
