// What every layer promises of threads, mutexes, events and queues.

#include <algorithm>
#include <atomic>
#include <memory>

#include "tests/osa/layer.h"

namespace
{

TEST_P(EverySchedule, AMutexIsRecursiveAndTimesOutForOthersAndStaysWhileInUse)
{
    OSA_Mutex *mutex = OSA_MutexCreate();
    const auto expect_in_use = [&] {
        EXPECT_NE(OSA_MutexDestroy(mutex), 0);
        EXPECT_TRUE(complains("mutex"));
    };
    EXPECT_EQ(OSA_MutexLock(mutex, OSA_WAIT_FOREVER), 0);
    EXPECT_EQ(OSA_MutexLock(mutex, 0), 0);
    EXPECT_EQ(OSA_MutexUnLock(mutex), 0);
    expect_in_use();
    OSA_Event *timed_out = OSA_EventCreate(0);
    OSA_Event *looked_at = OSA_EventCreate(0);
    {
        const TestThread other("other", [&] {
            const uint64_t start = OSA_GetSystemTick();
            EXPECT_NE(OSA_MutexLock(mutex, 0), 0);
            EXPECT_TRUE(took(start, 0));
            EXPECT_NE(OSA_MutexLock(mutex, 30), 0);
            EXPECT_TRUE(took(start, 30));
            EXPECT_NE(OSA_MutexUnLock(mutex), 0);
            EXPECT_EQ(complains("not locked by this thread"), kLayer.is_simulated);
            expect_in_use();
            OSA_EventSend(timed_out);
            EXPECT_EQ(OSA_MutexLock(mutex, 60'000), 0);
            OSA_EventWait(looked_at, OSA_WAIT_FOREVER);
            EXPECT_EQ(OSA_MutexUnLock(mutex), 0);
        });
        EXPECT_EQ(OSA_EventWait(timed_out, OSA_WAIT_FOREVER), 0);
        OSA_ThreadSleep(20);
        EXPECT_EQ(OSA_MutexUnLock(mutex), 0);
        expect_in_use(); // whether the other has it already or is about to
        OSA_EventSend(looked_at);
    }
    EXPECT_NE(OSA_MutexUnLock(mutex), 0);
    EXPECT_EQ(complains("not locked by this thread"), kLayer.is_simulated);
    EXPECT_EQ(OSA_EventDestroy(timed_out), 0);
    EXPECT_EQ(OSA_EventDestroy(looked_at), 0);
    EXPECT_EQ(OSA_MutexDestroy(mutex), 0);
}

TEST_P(EverySchedule, AnEventLatchesOnceAndEachSendReleasesTheOldestWaiter)
{
    OSA_Event *event = OSA_EventCreate(0);
    EXPECT_NE(OSA_EventWait(event, 0), 0);
    OSA_EventSend(event);
    OSA_EventSend(event);
    EXPECT_EQ(OSA_EventWait(event, OSA_WAIT_FOREVER), 0);
    const uint64_t start = OSA_GetSystemTick();
    EXPECT_NE(OSA_EventWait(event, 20), 0);
    EXPECT_TRUE(took(start, 20));
    OSA_EventSend(event);
    EXPECT_EQ(OSA_EventWait(event, 0), 0) << "a wait that timed out takes no send";

    std::atomic<uint32_t> arrived{0};
    std::atomic<uint32_t> released{0}; // a bit each
    const auto wait = [&](uint32_t bit) {
        ++arrived;
        EXPECT_EQ(OSA_EventWait(event, 60'000), 0);
        released |= bit;
    };
    {
        std::vector<std::unique_ptr<TestThread>> waiters;
        for (const uint32_t bit : {1u, 2u, 4u}) {
            waiters.push_back(std::make_unique<TestThread>("waiter", [&, bit] { wait(bit); }));
            let_them_wait(arrived, static_cast<uint32_t>(waiters.size()));
        }
        EXPECT_NE(OSA_EventWait(event, 5), 0) << "and leaves the others waiting";
        EXPECT_NE(OSA_EventDestroy(event), 0);
        EXPECT_TRUE(complains("a thread waits for it"));
        OSA_EventSend(event);
        OSA_EventSend(event);
        EXPECT_NE(OSA_EventWait(event, 0), 0) << "both sends are the waiters'";
        waiters.erase(waiters.begin(), waiters.begin() + 2);
        OSA_ThreadSleep(20);
        EXPECT_EQ(released, 3u);
        OSA_EventSend(event);
    }
    EXPECT_EQ(OSA_EventDestroy(event), 0);
}

TEST_P(EverySchedule, AQueuePopsNoLongerThanAskedAndLeavesTheSizeAlone)
{
    OSA_Queue *queue = OSA_QueueCreate("empty", 0);
    uint32_t size = 99;
    const uint64_t start = OSA_GetSystemTick();
    EXPECT_EQ(OSA_QueuePop(queue, &size, 0), nullptr);
    EXPECT_EQ(OSA_QueuePop(queue, &size, 30), nullptr);
    EXPECT_TRUE(took(start, 30));
    EXPECT_EQ(size, 99u);
    EXPECT_NE(OSA_QueuePush(queue, nullptr, 1), 0);
    EXPECT_TRUE(complains("nothing came"));
    std::atomic<uint32_t> arrived{0};
    const auto wait = [&] {
        ++arrived;
        EXPECT_EQ(OSA_QueuePop(queue, nullptr, 10'000), &size);
    };
    {
        const TestThread waiters[] = {{"first", wait}, {"second", wait}};
        let_them_wait(arrived, 2);
        EXPECT_NE(OSA_QueueDestroy(queue), 0);
        EXPECT_TRUE(complains("a thread waits for it"));
        EXPECT_EQ(OSA_QueuePush(queue, &size, 1), 0);
        EXPECT_EQ(OSA_QueuePush(queue, &size, 1), 0) << "for the other, though the first entry is "
                                                        "there still";
    }
    EXPECT_EQ(OSA_QueuePush(queue, &size, 1), 0);
    EXPECT_EQ(OSA_QueueDestroy(queue), 0) << "what is left is dropped";
}

// Two threads take and two give back; a block carries its user and number, which
// another user would overwrite.
TEST_P(EverySchedule, ThreadsThatRaceShareNoBlockAndNoLockAndLoseNoOrder)
{
    OSA_SMalloc_Init();
    OSA_SMalloc_Register(kSize, "record");
    OSA_Queue *queue = OSA_QueueCreate("blocks", 0);
    OSA_Mutex *mutex = OSA_MutexCreate();
    uint32_t counter = 0;
    const auto produce = [queue](uint32_t user) {
        for (uint32_t round = 1; round <= kLayer.rounds; ++round) {
            uint32_t *block = static_cast<uint32_t *>(OSA_SMalloc(kSize));
            EXPECT_EQ(*block, 0u);
            *block = user << 16 | round;
            EXPECT_EQ(OSA_QueuePush(queue, block, user), 0);
        }
    };
    const auto consume = [&] {
        uint32_t latest[2] = {};
        for (uint32_t round = 0; round < kLayer.rounds; ++round) {
            uint32_t user = 0;
            uint32_t *block = static_cast<uint32_t *>(OSA_QueuePop(queue, &user, OSA_WAIT_FOREVER));
            EXPECT_EQ(*block >> 16, user);
            EXPECT_LT(latest[user], *block);
            latest[user] = *block;
            OSA_SFree(block, kSize);
            EXPECT_EQ(OSA_MutexLock(mutex, OSA_WAIT_FOREVER), 0);
            const uint32_t seen = counter;
            OSA_GetSystemTick(); // the other thread's chance
            counter = seen + 1;
            EXPECT_EQ(OSA_MutexUnLock(mutex), 0);
        }
    };
    {
        const TestThread threads[] = {{"first producer", [&] { produce(0); }},
                                      {"second producer", [&] { produce(1); }},
                                      {"first consumer", consume},
                                      {"second consumer", consume}};
    }
    EXPECT_EQ(counter, 2 * kLayer.rounds);
    EXPECT_EQ(OSA_MutexDestroy(mutex), 0);
    EXPECT_EQ(OSA_QueueDestroy(queue), 0);
    OSA_SMalloc_Deinit();
}

struct Ending {
    OSA_Queue *itself = OSA_QueueCreate("itself", 0);
    std::function<bool()> may_end;
    bool destroyed = false;
};

TEST_P(EverySchedule, AThreadIsWaitedForAndNamedUntilItEndsItselfWhichItCannotDelete)
{
    Ending ending;
    const uint64_t start = OSA_GetSystemTick();
    ending.may_end = [this, start] {
        return error_ticks().size() > kLayer.slow_told.size() ||
               OSA_GetSystemTick() - start > 60'000; // lest silence hang the test
    };
    const OSA_ThreadEntry entry = [](void *argument) -> int32_t {
        Ending &seen = *static_cast<Ending *>(argument);
        void *self = OSA_QueuePop(seen.itself, nullptr, OSA_WAIT_FOREVER);
        EXPECT_NE(OSA_ThreadDelete(static_cast<OSA_Thread *>(self), nullptr), 0);
        const std::unique_ptr<bool, void (*)(bool *)> local(&seen.destroyed,
                                                            [](bool *flag) { *flag = true; });
        while (!seen.may_end())
            OSA_ThreadSleep(100);
        OSA_ThreadExit(-7);
        ADD_FAILURE() << "came back";
        return 1;
    };
    OSA_Thread *thread = OSA_ThreadCreate("stuck", 0, 0, entry, &ending);
    OSA_QueuePush(ending.itself, thread, 0);
    int32_t status = 0;
    EXPECT_EQ(OSA_ThreadDelete(thread, &status), 0);
    EXPECT_EQ(status, -7);
    EXPECT_FALSE(ending.destroyed) << "an exit runs no destructors";
    const std::string said = complaints();
    EXPECT_NE(said.find("1 thread \"stuck\" cannot delete itself\n"), std::string::npos) << said;
    const std::vector<uint64_t> told = error_ticks();
    ASSERT_EQ(told.size(), 1 + kLayer.slow_told.size()) << said;
    for (size_t index = 0; index < kLayer.slow_told.size(); ++index) {
        const uint32_t waited = kLayer.slow_told[index];
        const std::string line = "1 thread \"stuck\" does not end: waited " +
                                 std::to_string(waited) + " s, waiting on\n";
        EXPECT_NE(said.find(line), std::string::npos) << said;
        EXPECT_TRUE(took(start, waited * 1000, told[index + 1])) << said;
    }
    OSA_QueueDestroy(ending.itself);
    OSA_ThreadExit(0);
    EXPECT_TRUE(complains("thread")) << "which this layer did not create, and which goes on";
}

} // namespace
