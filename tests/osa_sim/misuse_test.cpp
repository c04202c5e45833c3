// What only this layer finds wrong with its callers, and what they leave behind.

#include "osa/sim/osasim.h"
#include "tests/osa/layer.h"

namespace
{

void *take(uint32_t size)
{
    return OSA_Malloc(size, 0, 0, "taker", 7, "take");
}

void *take_from_pool()
{
    OSA_SMalloc_Init();
    OSA_SMalloc_Register(40, "forty");
    OSA_SMalloc_Register(48, "forty-eight");
    return OSA_SMalloc(40);
}

template <auto give, uint32_t kind>
void misplace_a_pool_block()
{
    void *block = take_from_pool();
    give(block, kind);
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
    TestThread("other", [mutex] { EXPECT_NE(0, OSA_MutexUnLock(mutex)); });
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

TEST(Misuse, EachKindIsReportedOnceAndHasNoEffect)
{
    const struct {
        void (*provoke)();
        const char *said;
    } cases[] = {
        {misplace_a_pool_block<OSA_SFree, 48>,
         "OSA_SFree: given to the pool of 48 bytes: pool block of 40"},
        {misplace_a_pool_block<OSA_Free, 0>,
         "OSA_Free: wrong operation for a pool block of 40 bytes"},
        {delete_a_linked_node, "OSA_List_Node_delete: the node is in a list"},
        {destroy_a_locked_mutex, "OSA_MutexDestroy: mutex 1 held by thread \"main\""},
        {unlock_for_another, "OSA_MutexUnLock: not locked by this thread"},
        {send_after_destruction, "OSA_EventSend: event 1 used after its destruction"},
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
    void *block = take(100);
    OSA_List *list = OSA_ListCreate();
    OSA_ListAddHead(list, OSA_List_Node_new_data(block));
    OSA_EventCreate(0);
    OSA_QueueCreate("left queue", 0);
    const OSA_ThreadEntry entry = [](void *mutex) {
        return OSA_MutexLock(static_cast<OSA_Mutex *>(mutex), 0);
    };
    OSA_ThreadCreate("left thread", 0, 0, entry, OSA_MutexCreate());
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

    const std::string text = SIM_End();
    for (const char *part : {"thread \"left thread\" ends while it holds a mutex",
                             "alive: block of 100 bytes, taken by taker:7 take", "pool block of 40",
                             "list node", "alive: list 1", "mutex 1", "event 1",
                             "queue \"left queue\"", "thread \"left thread\", made by test_osa_sim",
                             "file \"left file\"", "library \"left library\""})
        EXPECT_NE(std::string::npos, text.find(part)) << part << " in\n" << text;
}

} // namespace
