// Threads.

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

struct SetsOnDestruction {
    bool &flag;
    ~SetsOnDestruction()
    {
        flag = true;
    }
};

int32_t look_around(void *argument)
{
    Seen &seen = *static_cast<Seen *>(argument);
    pthread_getname_np(pthread_self(), seen.name, sizeof(seen.name));
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &seen.stack);
    pthread_attr_destroy(&attributes);
    const SetsOnDestruction local{seen.destroyed};
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

struct Self {
    OSA_Event *ready = OSA_EventCreate(0);
    OSA_Thread *thread = nullptr;
    ~Self()
    {
        OSA_EventDestroy(ready);
    }
};

TEST_F(Threads, CannotDeleteThemselvesNorEndOthers)
{
    Traces traces;
    Self self;
    self.thread = OSA_ThreadCreate(
        "self", 0, 0,
        [](void *argument) {
            Self &own = *static_cast<Self *>(argument);
            OSA_EventWait(own.ready, OSA_WAIT_FOREVER);
            return OSA_ThreadDelete(own.thread, nullptr);
        },
        &self);
    OSA_EventSend(self.ready);
    int32_t status = 0;
    EXPECT_EQ(OSA_ThreadDelete(self.thread, &status), 0);
    EXPECT_NE(status, 0);
    EXPECT_TRUE(traces.has("1 thread \"self\" cannot delete itself"));
    OSA_ThreadExit(0);
    EXPECT_TRUE(traces.has("did not create")) << "and this thread goes on";
}

TEST_F(Threads, OneThatDoesNotEndIsNamedAndWaitedFor)
{
    Traces traces;
    OSA_Thread *thread = OSA_ThreadCreate(
        "stuck", 0, 0,
        [](void *) -> int32_t {
            OSA_ThreadSleep(1200);
            return 3;
        },
        nullptr);
    int32_t status = 0;
    EXPECT_EQ(OSA_ThreadDelete(thread, &status), 0);
    EXPECT_EQ(status, 3);
    EXPECT_TRUE(traces.has("1 thread \"stuck\" does not end")) << traces.text();
}

} // namespace
