// How pools keep their blocks, and the nodes that come from them.

#include <algorithm>
#include <cstdlib>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include <malloc.h>
#include <pthread.h>
#include <sys/resource.h>

#include "tests/osa/layer.h"

namespace
{

void *keep(uint32_t size)
{
    void *block = OSA_Malloc(size, 0, 0, "test", 1, "test");
    OSA_Free(block, 0);
    return block;
}

class Pools : public Layer
{
protected:
    Pools()
    {
        OSA_SMalloc_Init();
        OSA_SMalloc_Register(kSize, "record");
    }
    ~Pools() override
    {
        OSA_SMalloc_Deinit();
    }
};

TEST_F(Pools, BlocksGivenByAThreadThatEndedServeTheOthers)
{
    const std::vector<void *> taken = take(100);
    std::thread([&] { give(taken); }).join();
    EXPECT_EQ(alive().pool_blocks, 0u);
    const std::vector<void *> again = take(100);
    const std::set<void *> known(taken.begin(), taken.end());
    EXPECT_GE(std::count_if(again.begin(), again.end(),
                            [&](void *block) { return known.count(block) == 1; }),
              80);
    give(again);
}

// In a process of its own, in which no thread has used the layer yet.
void work_without_keys_of_the_system()
{
    pthread_key_t first = 0;
    pthread_key_create(&first, nullptr);
    for (pthread_key_t key = 0; pthread_key_create(&key, nullptr) == 0;) {
    }
    OSA_SMalloc_Init();
    OSA_SMalloc_Register(64, "record");
    std::set<void *> blocks;
    while (blocks.size() < 1000)
        blocks.insert(OSA_SMalloc(64));
    OSA_Alive alive;
    OSA_AliveGet(&alive);
    for (void *block : blocks)
        OSA_SFree(block, 64);
    const bool reused = blocks.count(nullptr) == 0 && blocks.count(OSA_SMalloc(64)) == 1;
    OSA_Alive after;
    OSA_AliveGet(&after);
    std::exit(reused && alive.pool_blocks == 1000 && after.pool_blocks == 1 &&
                      pthread_getspecific(first) == nullptr
                  ? 0
                  : 1);
}

TEST(PoolsDeathTest, ServeAProgramThatHasUsedUpTheKeysOfThreads)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(work_without_keys_of_the_system(), testing::ExitedWithCode(0), "");
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // which need memory themselves

// All memory there is, while it lives.
class NoMemory
{
public:
    NoMemory()
    {
        getrlimit(RLIMIT_AS, &m_former);
        const rlimit none = {1, m_former.rlim_max};
        setrlimit(RLIMIT_AS, &none);
    }
    ~NoMemory()
    {
        while (m_taken != nullptr)
            std::free(std::exchange(m_taken, *static_cast<void **>(m_taken)));
        setrlimit(RLIMIT_AS, &m_former);
    }
    NoMemory(const NoMemory &) = delete;
    NoMemory &operator=(const NoMemory &) = delete;

    void take_the_rest()
    {
        for (size_t size = 1 << 20; size >= 8; size -= size > 8192 ? size / 2 : 8)
            while (void *block = std::malloc(size))
                *static_cast<void **>(block) = std::exchange(m_taken, block);
    }

private:
    rlimit m_former = {};
    void *m_taken = nullptr;
};

bool nothing_is_made(OSA_Queue *queue, const char *path)
{
    int item = 0;
    const OSA_ThreadEntry entry = [](void *) -> int32_t { return 0; };
    return keep(8) == nullptr && keep(100'000) == nullptr && OSA_SMalloc(64) == nullptr &&
           OSA_ListCreate() == nullptr && OSA_List_Node_new() == nullptr &&
           OSA_MutexCreate() == nullptr && OSA_EventCreate(0) == nullptr &&
           OSA_QueueCreate("none", 0) == nullptr && OSA_QueuePush(queue, &item, 1) != 0 &&
           OSA_ThreadCreate("none", 0, 0, entry, nullptr) == nullptr &&
           OSA_FileOpen(path, OSA_FILE_READ) == nullptr && OSA_LibraryLoad(path) == nullptr;
}

// Once before the thread has a state, and once after, in a process of its own.
void work_without_memory()
{
    const OSA_ThreadEntry entry = [](void *) -> int32_t { return 0; };
    OSA_SMalloc_Init();
    OSA_SMalloc_Register(64, "record");
    bool refused = true;
    OSA_Queue *queue = nullptr;
    for (int round = 0; round < 2; ++round) {
        {
            NoMemory none;
            refused &= OSA_ThreadCreate("unstarted", 0, 64 << 20, entry, nullptr) == nullptr;
            none.take_the_rest();
            refused &= nothing_is_made(queue, LOADABLE_PATH);
        }
        if (queue == nullptr)
            queue = OSA_QueueCreate("queue", 0);
    }
    OSA_QueueDestroy(queue);
    void *block = OSA_SMalloc(64);
    OSA_SFree(block, 64);
    OSA_Alive alive;
    OSA_AliveGet(&alive);
    std::exit(refused && block != nullptr && OSA_AliveIsNothing(&alive) ? 0 : 1);
}

TEST(MemoryDeathTest, WithoutMemoryEveryCreationFailsAndLeavesNothing)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(work_without_memory(), testing::ExitedWithCode(0),
                "thread \"unstarted\" cannot be started(.|\n)*no memory for 8 bytes asked for by "
                "test:1 test");
}

#endif

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
        OSA_ListDel(list, node);
        OSA_List_Node_delete(node);
        EXPECT_EQ(OSA_QueuePop(queue, nullptr, 0), &item);
    };
    add_two();
    OSA_SMalloc_Register(sizeof(OSA_ListNode), "list");
    OSA_SMalloc_Register(OSA_QUEUE_NODE_SIZE, "queue");
    add_two();
    EXPECT_EQ(alive().list_nodes, 4u);
    EXPECT_EQ(alive().pool_blocks, 0u) << "nodes are counted as nodes";
    remove_one();
    OSA_SMalloc_UnRegister(sizeof(OSA_ListNode));
    OSA_SMalloc_UnRegister(OSA_QUEUE_NODE_SIZE);
    remove_one();
    remove_one();
    OSA_ListDestroy(list);
    OSA_QueueDestroy(queue);
    const std::vector<void *> blocks = take(1);
    EXPECT_EQ(alive().pool_blocks, 1u) << "and no node any more";
    give(blocks);
}

// Of the C library; constant under a sanitizer, which finds leaks by itself.
size_t bytes_in_use()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

using Memory = Layer;

TEST_F(Memory, LargeBlocksAreKeptForTheirOwnSizeAndWithinBounds)
{
    const void *block = keep(100'000);
    for (const uint32_t size : {99'999u, 100'001u, 200'000u})
        EXPECT_NE(keep(size), block) << size;
    EXPECT_EQ(keep(100'000), block) << "no block of another size took its place";
    const size_t before = bytes_in_use();
    keep(65u << 20);
    EXPECT_EQ(bytes_in_use(), before) << "nothing goes for a block too large to be kept";
    for (uint32_t size = 100'002; size < 100'042; ++size)
        keep(size);
    EXPECT_LT(bytes_in_use(), before + 17 * 101'000) << "16 blocks";
    for (uint32_t more = 0; more < 8; ++more)
        keep((20u << 20) + more);
    EXPECT_LT(bytes_in_use(), before + (65u << 20)) << "64 MiB";
}

TEST_F(Pools, OfTooManySizesAreRefusedAndTold)
{
    std::set<uint32_t> registered;
    uint32_t size = 2000;
    for (; complaints().empty(); size += 16, registered.insert(size))
        OSA_SMalloc_Register(size, "one of many");
    EXPECT_GT(registered.size(), 30u);
    EXPECT_FALSE(OSA_SMemIsReg(size - 16));
    OSA_SFree(&size, 40'000); // a block of no pool
    EXPECT_NE(std::string::npos, complaints().find("there is no pool of 40000-byte blocks"));
}

using Layers = Layer;

TEST_F(Layers, RefuseNothingAndTellWhatTheEnvironmentAnswers)
{
    OSA_AliveGet(nullptr);
    EXPECT_FALSE(OSA_AliveIsNothing(nullptr));
    OSA_Alive one{};
    one.mutexes = 1;
    EXPECT_FALSE(OSA_AliveIsNothing(&one));
    OSA_Traces(nullptr);
    char text[4];
    EXPECT_EQ(-1, OSA_snprintf(text, sizeof(text), nullptr));
    EXPECT_EQ(0, OSA_SystemInit(nullptr)) << "a second time is harmless";
    OSA_SystemUnInit([]() -> int32_t { return 7; });
    OSA_SystemUnInit([]() -> int32_t { return 8; }); // and so is that
    EXPECT_EQ("2 unloading the environment failed: 7\n", traced());
    OSA_SystemInit(nullptr);
}

} // namespace
