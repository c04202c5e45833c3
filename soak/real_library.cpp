#include "soak/real_library.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

namespace soak
{

namespace
{

// A number of kilobytes, or of things, in the process's status.
uint64_t status_value(const std::string &key)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(key + ":", 0) == 0)
            return std::stoull(line.substr(key.size() + 1));
    return 0;
}

} // namespace

RealLibrary::RealLibrary(const char *cache_path)
{
    OSA_TraceSetLevel(0);
    OSA_TraceSetReceiver([](void *, const OSA_TraceRecord *) {}, nullptr); // the banners
    EXPECT_EQ(0, nox_init(cache_path));
}

RealLibrary::~RealLibrary()
{
    nox_deinit();
    OSA_TraceSetReceiver(nullptr, nullptr);
    const OSA_Alive left = alive();
    EXPECT_TRUE(OSA_AliveIsNothing(&left))
        << left.blocks << " blocks, " << left.pool_blocks << " pool blocks, " << left.events
        << " events, " << left.threads << " threads, " << left.libraries << " libraries";
}

OSA_Alive alive()
{
    OSA_Alive alive;
    OSA_AliveGet(&alive);
    return alive;
}

uint32_t thread_count()
{
    return static_cast<uint32_t>(status_value("Threads"));
}

uint64_t resident_bytes()
{
    return status_value("VmRSS") * 1024;
}

bool comes_true(const std::function<bool()> &condition, uint32_t limit_ms)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    return true;
}

} // namespace soak
