// Ordinary memory: remembered, checked, and large blocks kept.

#include <algorithm>
#include <cstring>
#include <vector>

#include "fixture.h"

namespace
{

using Memory = Layer;

void *take(uint32_t size, int32_t line)
{
    return OSA_Malloc(size, 0, 0, "taker", line, "take");
}

TEST_F(Memory, BlocksAliveAreListedOldestFirstWithTheirOrigin)
{
    OSA_SystemInit(nullptr);
    void *first = take(10, 1);
    void *between = take(20, 2);
    void *last = take(30, 3);
    OSA_Free(between, 0);
    Traces traces;
    OSA_SystemUnInit(nullptr);
    const std::string text = traces.text();
    EXPECT_EQ(text.find("1 still alive: 10 bytes"), 0u) << text;
    EXPECT_LT(text.find("taker:1 take"), text.find("still alive: 30 bytes")) << text;
    EXPECT_NE(text.find("taker:3 take"), std::string::npos) << text;
    EXPECT_FALSE(traces.has("taker:2"));
    OSA_Free(first, 0);
    OSA_Free(last, 0);
}

TEST_F(Memory, LargeBlocksAreReusedClearedAndWithinBounds)
{
    OSA_SystemInit(nullptr);
    const uint32_t frame = 1920 * 1080 * 3 / 2;
    void *block = take(frame, 1);
    std::memset(block, 0xAA, frame);
    OSA_Free(block, 0);
    void *again = take(frame, 2);
    EXPECT_EQ(again, block);
    const char *bytes = static_cast<const char *>(again);
    EXPECT_EQ(std::count(bytes, bytes + frame, 0), frame);
    std::vector<void *> many = {again};
    for (int32_t index = 0; index < 40; ++index)
        many.push_back(take(frame, index));
    for (void *each : many)
        OSA_Free(each, 0);
    OSA_Alive alive;
    OSA_AliveGet(&alive);
    EXPECT_EQ(alive.bytes, 0u);
}

TEST_F(Memory, ABlockThatIsNotLiveIsRefusedWithATrace)
{
    OSA_SystemInit(nullptr);
    Traces traces;
    char foreign[256] = {};
    OSA_Free(foreign + 128, 0);
    EXPECT_TRUE(traces.has("1 ")) << "a foreign block";
    void *kept = take(100000, 1);
    OSA_Free(kept, 0);
    const size_t said = traces.text().size();
    OSA_Free(kept, 0);
    EXPECT_GT(traces.text().size(), said) << "a block freed twice";
}

} // namespace
