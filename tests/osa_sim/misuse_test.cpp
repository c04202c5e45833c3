// What the layer finds wrong with its callers, and what they leave behind.

#include <algorithm>

#include <gtest/gtest.h>

#include "tests/osa_sim/simulated_thread.h"

namespace
{

void *take(uint32_t size)
{
    return OSA_Malloc(size, 0, 0, "taker", 7, "take");
}

void free_twice()
{
    void *block = take(16);
    OSA_Free(block, 0);
    OSA_Free(block, 0); // as unknown as any foreign address
}

void *take_from_pool()
{
    OSA_SMalloc_Init();
    OSA_SMalloc_Register(40, "forty");
    OSA_SMalloc_Register(48, "forty-eight");
    return OSA_SMalloc(40);
}

void give_to_the_wrong_pool()
{
    void *block = take_from_pool();
    OSA_SFree(block, 48);
    OSA_SFree(block, 40);
}

void free_a_pool_block()
{
    void *block = take_from_pool();
    OSA_Free(block, 0);
    OSA_SFree(block, 40);
}

void delete_a_linked_node()
{
    OSA_List *list = OSA_ListCreate();
    OSA_ListNode *node = OSA_List_Node_new();
    OSA_ListAddTail(list, node);
    OSA_List_Node_delete(node);
    OSA_ListDestroy(list);
}

void unlink_from_the_wrong_list()
{
    OSA_List *lists[2] = {OSA_ListCreate(), OSA_ListCreate()};
    OSA_ListNode *node = OSA_List_Node_new();
    OSA_ListAddTail(lists[0], node);
    EXPECT_NE(0, OSA_ListDel(lists[1], node));
    EXPECT_EQ(1u, OSA_ListGetNum(lists[0]));
    OSA_ListDestroy(lists[0]);
    OSA_ListDestroy(lists[1]);
}

void destroy_a_locked_mutex()
{
    OSA_Mutex *mutex = OSA_MutexCreate();
    OSA_MutexLock(mutex, 0);
    EXPECT_NE(0, OSA_MutexDestroy(mutex));
    OSA_MutexUnLock(mutex);
    OSA_MutexDestroy(mutex);
}

void unlock_for_another()
{
    OSA_Mutex *mutex = OSA_MutexCreate();
    OSA_MutexLock(mutex, 0);
    {
        SimulatedThread other("other", [mutex] { EXPECT_NE(0, OSA_MutexUnLock(mutex)); });
    }
    OSA_MutexUnLock(mutex);
    OSA_MutexDestroy(mutex);
}

void send_after_destruction()
{
    OSA_Event *event = OSA_EventCreate(0);
    OSA_EventDestroy(event);
    OSA_EventDestroy(OSA_EventCreate(0)); // must not get the old address
    EXPECT_NE(0, OSA_EventSend(event));
}

void destroy_under_a_waiter()
{
    OSA_Queue *queue = OSA_QueueCreate("awaited", 0);
    {
        SimulatedThread waiter("waiter",
                               [queue] { OSA_QueuePop(queue, nullptr, OSA_WAIT_FOREVER); });
        OSA_ThreadSleep(1);
        EXPECT_NE(0, OSA_QueueDestroy(queue));
        OSA_QueuePush(queue, queue, 0);
    }
    OSA_QueueDestroy(queue);
}

TEST(Misuse, EachKindIsReportedOnceAndHasNoEffect)
{
    const struct {
        void (*provoke)();
        const char *said;
    } cases[] = {
        {free_twice, "OSA_Free: the address is no live block"},
        {give_to_the_wrong_pool, "OSA_SFree: given to the pool of 48 bytes: pool block of 40"},
        {free_a_pool_block, "OSA_Free: wrong operation for a pool block of 40 bytes"},
        {delete_a_linked_node, "OSA_List_Node_delete: the node is in a list"},
        {unlink_from_the_wrong_list, "OSA_ListDel: the node is not in list 2"},
        {destroy_a_locked_mutex, "OSA_MutexDestroy: mutex 1 held by thread \"main\""},
        {unlock_for_another, "OSA_MutexUnLock: not locked by this thread"},
        {send_after_destruction, "OSA_EventSend: event 1 used after its destruction"},
        {destroy_under_a_waiter, "OSA_QueueDestroy: queue \"awaited\" destroyed while"},
    };
    for (const auto &one : cases) {
        SIM_Begin();
        one.provoke();
        EXPECT_EQ(1u, SIM_MisuseCount()) << SIM_MisuseText();
        EXPECT_NE(std::string::npos, SIM_MisuseText().find(one.said)) << SIM_MisuseText();
        SIM_MisuseClear();
        EXPECT_EQ("", SIM_End()) << one.said;
    }
}

TEST(Misuse, AThreadThatEndsMustHoldNoLock)
{
    SIM_Begin();
    OSA_Mutex *mutex = OSA_MutexCreate();
    {
        SimulatedThread holder("holder", [mutex] { OSA_MutexLock(mutex, 0); });
    }
    EXPECT_NE(std::string::npos, SIM_End().find("thread \"holder\" ends while it holds a mutex"));
}

#ifndef __SANITIZE_ADDRESS__ // which stops the program at the write itself
TEST(Misuse, WritesOutsideALiveBlockAreFound)
{
    SIM_Begin();
    auto *past = static_cast<char *>(take(10));
    past[10] = 'x';
    OSA_Free(past, 0);
    auto *stale = static_cast<char *>(take(10));
    OSA_Free(stale, 0);
    stale[3] = 'x';
    const std::string faults = SIM_End();
    EXPECT_NE(std::string::npos, faults.find("past the end of a block of 10 bytes, taken by "
                                             "taker:7 take"));
    EXPECT_NE(std::string::npos, faults.find("after it was given back: block of 10 bytes"));
}
#endif

TEST(Alive, EverythingLeftBehindIsCountedAndNamed)
{
    SIM_Begin();
    take_from_pool();
    auto *block = static_cast<char *>(take(100));
    EXPECT_EQ(100, std::count(block, block + 100, '\0'));
    OSA_List *list = OSA_ListCreate();
    OSA_ListAddHead(list, OSA_List_Node_new_data(block));
    OSA_MutexCreate();
    OSA_EventCreate(0);
    OSA_QueueCreate("left queue", 0);
    OSA_ThreadCreate(
        "left thread", 0, 0, [](void *) -> int32_t { return 0; }, nullptr);
    OSA_ThreadSleep(1);
    OSA_FileOpen("left file", OSA_FILE_WRITE);
    SIM_LibraryAdd("left library", "symbol", block);
    OSA_LibraryLoad("left library");

    OSA_Alive alive;
    OSA_AliveGet(&alive);
    for (const uint32_t count :
         {alive.blocks, alive.pool_blocks, alive.list_nodes, alive.lists, alive.queues,
          alive.events, alive.mutexes, alive.threads, alive.files, alive.libraries})
        EXPECT_EQ(1u, count);
    EXPECT_EQ(100u, alive.bytes);
    EXPECT_FALSE(OSA_AliveIsNothing(&alive));

    OSA_SystemUnInit(nullptr);
    EXPECT_EQ(1u, SIM_TraceCount("taker:7 take", OSA_TRACE_ERROR));
    const std::string text = SIM_End();
    for (const char *part : {"alive: block of 100 bytes, taken by taker:7 take", "pool block of 40",
                             "list node", "alive: list 1", "mutex 1", "event 1",
                             "queue \"left queue\"", "thread \"left thread\", made by test_osa_sim",
                             "file \"left file\"", "library \"left library\""})
        EXPECT_NE(std::string::npos, text.find(part)) << part << " in\n" << text;
}

} // namespace
