// Pools, and the nodes that come from them.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include <malloc.h>
#include <pthread.h>

#include "fixture.h"

namespace
{

constexpr uint32_t kSize = 200;

class Pools : public Layer
{
protected:
    Pools()
    {
        OSA_SystemInit(nullptr);
        OSA_SMalloc_Init();
        OSA_SMalloc_Register(kSize, "record");
    }
    ~Pools() override
    {
        OSA_SMalloc_Deinit();
    }

    static std::vector<void *> take(size_t number, uint32_t size = kSize)
    {
        std::vector<void *> blocks;
        while (blocks.size() < number)
            blocks.push_back(OSA_SMalloc(size));
        return blocks;
    }

    static void give(const std::vector<void *> &blocks, uint32_t size = kSize)
    {
        for (void *block : blocks)
            OSA_SFree(block, size);
    }

    static uint32_t count_alive(uint32_t OSA_Alive::*field)
    {
        OSA_Alive alive;
        OSA_AliveGet(&alive);
        return alive.*field;
    }
};

TEST_F(Pools, AreFoundByExactSize)
{
    const char *name = OSA_SMemGetName(kSize);
    EXPECT_EQ(OSA_SMalloc_Register(kSize, "other"), 0);
    EXPECT_EQ(OSA_SMalloc_UnRegister(kSize), 0);
    EXPECT_EQ(OSA_SMalloc_Register(kSize, "another"), 0);
    EXPECT_STREQ(name, "record") << "a name that somebody may be reading";
    EXPECT_EQ(OSA_SMalloc_Register(100000, "large"), 0);
    EXPECT_STREQ(OSA_SMemGetName(kSize), "record") << "a size keeps its first name";
    EXPECT_STREQ(OSA_SMemGetName(100000), "large");
    for (const uint32_t size : {0u, kSize - 1, kSize + 4, 100001u, UINT32_MAX}) {
        EXPECT_FALSE(OSA_SMemIsReg(size)) << size;
        EXPECT_EQ(OSA_SMemGetName(size), nullptr) << size;
        EXPECT_EQ(OSA_SMalloc(size), nullptr) << size;
    }
    give(take(3, 100000), 100000);
}

TEST_F(Pools, BlocksAreDistinctAlignedAndZeroedAtEverySize)
{
    for (const uint32_t size : {1u, 24u, 40u, 64u, 65u, 200u, 250u, 300u, 5000u}) {
        OSA_SMalloc_Register(size, "sized");
        for (int32_t round = 0; round < 2; ++round) {
            const std::vector<void *> blocks = take(100, size);
            EXPECT_EQ(std::set<void *>(blocks.begin(), blocks.end()).size(), 100u);
            for (void *block : blocks) {
                const char *bytes = static_cast<const char *>(block);
                EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0u);
                EXPECT_EQ(std::count(bytes, bytes + size, 0), size) << size;
                std::memset(block, 0xAA, size);
            }
            give(blocks, size);
        }
    }
}

TEST_F(Pools, BlocksGivenByAThreadThatEndedServeTheOthers)
{
    const std::vector<void *> taken = take(100);
    std::thread([&] { give(taken); }).join();
    EXPECT_EQ(count_alive(&OSA_Alive::pool_blocks), 0u);
    const std::vector<void *> again = take(100);
    const std::set<void *> known(taken.begin(), taken.end());
    EXPECT_GE(std::count_if(again.begin(), again.end(),
                            [&](void *block) { return known.count(block) == 1; }),
              80);
    give(again);
}

// Two threads take and two give back, through a queue that keeps the order of
// each; a block carries its user and number, which another user would overwrite.
TEST_F(Pools, BlocksHaveOneUserAtATimeAndQueuesKeepOrderAcrossThreads)
{
    OSA_Queue *queue = OSA_QueueCreate("blocks", 0);
    constexpr uint32_t rounds = 20000;
    const auto produce = [queue](uint32_t user) {
        for (uint32_t round = 1; round <= rounds; ++round) {
            uint32_t *block = static_cast<uint32_t *>(OSA_SMalloc(kSize));
            EXPECT_EQ(*block, 0u);
            *block = user << 16 | round;
            OSA_QueuePush(queue, block, user);
        }
    };
    const auto consume = [queue] {
        uint32_t latest[2] = {};
        for (uint32_t round = 0; round < rounds; ++round) {
            uint32_t user = 0;
            uint32_t *block = static_cast<uint32_t *>(OSA_QueuePop(queue, &user, OSA_WAIT_FOREVER));
            EXPECT_EQ(*block >> 16, user);
            EXPECT_LT(latest[user], *block);
            latest[user] = *block;
            OSA_SFree(block, kSize);
        }
    };
    std::thread threads[] = {std::thread(produce, 0), std::thread(produce, 1), std::thread(consume),
                             std::thread(consume)};
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(OSA_QueueDestroy(queue), 0);
}

TEST_F(Pools, BlocksMayComeBackAfterTheirPoolEnded)
{
    const std::vector<void *> out = take(50);
    EXPECT_EQ(OSA_SMalloc_UnRegister(kSize), 0);
    EXPECT_NE(OSA_SMalloc_UnRegister(kSize), 0);
    EXPECT_EQ(OSA_SMalloc(kSize), nullptr);
    OSA_SFree(out[0], kSize);
    OSA_SMalloc_Deinit();
    {
        Traces traces;
        OSA_SystemUnInit(nullptr);
        EXPECT_TRUE(traces.has("1 still alive: 49 blocks of 200 bytes of the pool \"record\""))
            << traces.text();
    }
    give(std::vector<void *>(out.begin() + 1, out.end()));
    OSA_SystemInit(nullptr);
    OSA_SMalloc_Init();
    EXPECT_EQ(OSA_SMalloc_Register(kSize, "record"), 0);
    give(take(50));
}

// In a process of its own, in which no thread has used the layer yet.
void work_without_keys_of_the_system()
{
    pthread_key_t first = 0;
    pthread_key_create(&first, nullptr);
    for (pthread_key_t key = 0; pthread_key_create(&key, nullptr) == 0;) {
    }
    OSA_SMalloc_Init();
    OSA_SMalloc_Register(kSize, "record");
    std::set<void *> blocks;
    while (blocks.size() < 1000)
        blocks.insert(OSA_SMalloc(kSize));
    OSA_Alive alive;
    OSA_AliveGet(&alive);
    const bool counted = alive.pool_blocks == 1000 && blocks.count(nullptr) == 0;
    for (void *block : blocks)
        OSA_SFree(block, kSize);
    const bool reused = blocks.count(OSA_SMalloc(kSize)) == 1;
    std::exit(counted && reused && pthread_getspecific(first) == nullptr ? 0 : 1);
}

TEST(PoolsDeathTest, ServeAProgramThatHasUsedUpTheKeysOfThreads)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(work_without_keys_of_the_system(), testing::ExitedWithCode(0), "");
}

TEST_F(Pools, NodesGoBackToWhereTheyCameFrom)
{
    OSA_List *list = OSA_ListCreate();
    OSA_Queue *queue = OSA_QueueCreate("early", 0);
    int item = 0;
    const auto add_two = [&] {
        OSA_ListAddTail(list, OSA_List_Node_new_data(&item));
        OSA_ListAddTail(list, OSA_List_Node_new());
        OSA_QueuePush(queue, &item, 7);
        OSA_QueuePush(queue, &item, 8);
    };
    const auto remove_one = [&] {
        OSA_ListNode *node = OSA_ListGetHead(list);
        EXPECT_EQ(OSA_ListDel(list, node), 0);
        OSA_List_Node_delete(node);
        EXPECT_EQ(OSA_QueuePop(queue, nullptr, 0), &item);
    };
    add_two();
    OSA_SMalloc_Register(sizeof(OSA_ListNode), "list");
    OSA_SMalloc_Register(OSA_QUEUE_NODE_SIZE, "queue");
    add_two();
    EXPECT_EQ(count_alive(&OSA_Alive::list_nodes), 4u);
    EXPECT_EQ(count_alive(&OSA_Alive::pool_blocks), 0u) << "nodes are counted as nodes";
    remove_one();
    OSA_SMalloc_UnRegister(sizeof(OSA_ListNode));
    OSA_SMalloc_UnRegister(OSA_QUEUE_NODE_SIZE);
    remove_one();
    remove_one();
    EXPECT_EQ(OSA_ListDestroy(list), 0);
    EXPECT_EQ(OSA_QueueDestroy(queue), 0);
}

// Of the C library; constant under a sanitizer, which finds leaks by itself.
size_t bytes_in_use()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

TEST_F(Pools, MemoryStaysFlatOverManyStartsAndStops)
{
    OSA_SMalloc_Deinit();
    OSA_SystemUnInit(nullptr);
    const size_t before = bytes_in_use();
    for (int32_t cycle = 0; cycle < 10000; ++cycle) {
        OSA_SystemInit(nullptr);
        OSA_SMalloc_Init();
        OSA_SMalloc_Register(kSize, "record");
        give(take(5));
        OSA_Free(OSA_Malloc(100000, 0, 0, "test", 1, "test"), 0);
        OSA_SMalloc_UnRegister(kSize);
        OSA_SMalloc_Deinit();
        OSA_SystemUnInit(nullptr);
    }
    EXPECT_LT(bytes_in_use(), before + 10000);
}

} // namespace
