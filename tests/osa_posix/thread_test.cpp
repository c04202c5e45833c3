// Threads.

#include <memory>

#include <pthread.h>

#include "fixture.h"

namespace
{

using Threads = Layer;

struct Seen {
    char name[32] = {};
    size_t stack = 0;
    bool destroyed = false;
};

int32_t look_around(void *argument)
{
    Seen &seen = *static_cast<Seen *>(argument);
    pthread_getname_np(pthread_self(), seen.name, sizeof(seen.name));
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &seen.stack);
    pthread_attr_destroy(&attributes);
    const std::unique_ptr<bool, void (*)(bool *)> local(&seen.destroyed,
                                                        [](bool *flag) { *flag = true; });
    OSA_ThreadExit(-7);
    return 1;
}

TEST_F(Threads, HaveTheirNameStackAndStatus)
{
    Seen seen;
    OSA_Thread *thread = OSA_ThreadCreate("a name past fifteen", 0, 300001, look_around, &seen);
    int32_t status = 0;
    EXPECT_EQ(OSA_ThreadDelete(thread, &status), 0);
    EXPECT_EQ(status, -7);
    EXPECT_STREQ(seen.name, "a name past fif");
    EXPECT_GE(seen.stack, 300001u);
    EXPECT_FALSE(seen.destroyed) << "an exit runs no destructors";
}

TEST_F(Threads, ThatMayNotRunInRealTimeRunByDefault)
{
    Traces traces;
    const auto entry = [](void *) -> int32_t {
        int policy = 0;
        sched_param parameters = {};
        pthread_getschedparam(pthread_self(), &policy, &parameters);
        return policy == SCHED_RR ? parameters.sched_priority : -1;
    };
    int32_t status = 0;
    EXPECT_EQ(OSA_ThreadDelete(OSA_ThreadCreate("quick", 5, 0, entry, nullptr), &status), 0);
    if (status == -1)
        EXPECT_TRUE(traces.has("2 real-time priority 5")) << traces.text();
    else
        EXPECT_EQ(status, 5);
}

TEST_F(Threads, CannotDeleteThemselvesNorEndOthers)
{
    Traces traces;
    OSA_Queue *itself = OSA_QueueCreate("itself", 0);
    const OSA_ThreadEntry entry = [](void *queue) {
        void *self = OSA_QueuePop(static_cast<OSA_Queue *>(queue), nullptr, OSA_WAIT_FOREVER);
        return OSA_ThreadDelete(static_cast<OSA_Thread *>(self), nullptr);
    };
    OSA_Thread *thread = OSA_ThreadCreate("self", 0, 0, entry, itself);
    OSA_QueuePush(itself, thread, 0);
    int32_t status = 0;
    EXPECT_EQ(OSA_ThreadDelete(thread, &status), 0);
    EXPECT_NE(status, 0);
    OSA_QueueDestroy(itself);
    EXPECT_TRUE(traces.has("1 thread \"self\" cannot delete itself"));
    OSA_ThreadExit(0);
    EXPECT_TRUE(traces.has("did not create")) << "and this thread goes on";
}

TEST_F(Threads, OneThatDoesNotEndIsNamedAndWaitedFor)
{
    Traces traces;
    const OSA_ThreadEntry entry = [](void *) -> int32_t {
        OSA_ThreadSleep(1200);
        return 3;
    };
    OSA_Thread *thread = OSA_ThreadCreate("stuck", 0, 0, entry, nullptr);
    int32_t status = 0;
    EXPECT_EQ(OSA_ThreadDelete(thread, &status), 0);
    EXPECT_EQ(status, 3);
    EXPECT_TRUE(traces.has("1 thread \"stuck\" does not end")) << traces.text();
}

} // namespace
