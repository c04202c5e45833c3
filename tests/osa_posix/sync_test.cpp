// Mutexes, events and queues.

#include <atomic>
#include <thread>
#include <vector>

#include "fixture.h"

namespace
{

using Mutex = Layer;
using Event = Layer;
using Queue = Layer;

TEST_F(Mutex, IsRecursiveAndTimesOutForOthers)
{
    OSA_Mutex *mutex = OSA_MutexCreate();
    const auto lock_elsewhere = [mutex](uint32_t timeout_ms) {
        int32_t result = 0;
        std::thread([&] {
            result = OSA_MutexLock(mutex, timeout_ms);
            if (result == 0)
                OSA_MutexUnLock(mutex);
        }).join();
        return result;
    };
    EXPECT_EQ(OSA_MutexLock(mutex, OSA_WAIT_FOREVER), 0);
    EXPECT_EQ(OSA_MutexLock(mutex, 0), 0);
    EXPECT_EQ(OSA_MutexUnLock(mutex), 0);
    const uint64_t start = OSA_GetSystemTick();
    EXPECT_NE(lock_elsewhere(0), 0);
    EXPECT_NE(lock_elsewhere(30), 0);
    EXPECT_GE(OSA_GetSystemTick() - start, 29u);
    EXPECT_EQ(OSA_MutexUnLock(mutex), 0);
    EXPECT_EQ(lock_elsewhere(30), 0);
    EXPECT_EQ(OSA_MutexDestroy(mutex), 0);
}

TEST_F(Event, LatchesOnceAndResetsItself)
{
    OSA_Event *event = OSA_EventCreate(0);
    EXPECT_NE(OSA_EventWait(event, 0), 0);
    OSA_EventSend(event);
    OSA_EventSend(event);
    EXPECT_EQ(OSA_EventWait(event, OSA_WAIT_FOREVER), 0);
    EXPECT_NE(OSA_EventWait(event, 1), 0);
    EXPECT_EQ(OSA_EventDestroy(event), 0);
}

TEST_F(Event, EachSendReleasesOneWaiterHoweverLateItRuns)
{
    OSA_Event *event = OSA_EventCreate(0);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int index = 0; index < 3; ++index)
        waiters.emplace_back([&] {
            EXPECT_EQ(OSA_EventWait(event, OSA_WAIT_FOREVER), 0);
            ++released;
        });
    OSA_ThreadSleep(200); // by then they wait
    Traces traces;
    EXPECT_NE(OSA_EventDestroy(event), 0) << "while threads wait";
    OSA_EventSend(event);
    OSA_EventSend(event);
    EXPECT_NE(OSA_EventWait(event, 1), 0) << "both sends are the waiters'";
    while (released < 2)
        OSA_ThreadSleep(1);
    OSA_ThreadSleep(20);
    EXPECT_EQ(released, 2);
    OSA_EventSend(event);
    for (std::thread &waiter : waiters)
        waiter.join();
    OSA_EventDestroy(event);
}

TEST_F(Queue, PopWaitsNoLongerThanAskedAndLeavesTheSizeAlone)
{
    Traces traces;
    OSA_Queue *queue = OSA_QueueCreate("empty", 0);
    uint32_t size = 99;
    const uint64_t start = OSA_GetSystemTick();
    EXPECT_EQ(OSA_QueuePop(queue, &size, 0), nullptr);
    EXPECT_EQ(OSA_QueuePop(queue, &size, 30), nullptr);
    EXPECT_GE(OSA_GetSystemTick() - start, 29u);
    EXPECT_EQ(size, 99u);
    EXPECT_NE(OSA_QueuePush(queue, nullptr, 1), 0);
    OSA_QueuePush(queue, &size, 1);
    EXPECT_EQ(OSA_QueueDestroy(queue), 0) << "what is left is dropped";
}

} // namespace
