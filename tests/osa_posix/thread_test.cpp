// What the system sees of the threads.

#include <pthread.h>

#include "tests/osa/layer.h"

namespace
{

using Threads = Layer;

struct Seen {
    char name[32] = {};
    size_t stack = 0;
    int priority = -1; // in real time
};

int32_t look_around(void *argument)
{
    Seen &seen = *static_cast<Seen *>(argument);
    pthread_getname_np(pthread_self(), seen.name, sizeof(seen.name));
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &seen.stack);
    pthread_attr_destroy(&attributes);
    int policy = 0;
    sched_param parameters = {};
    pthread_getschedparam(pthread_self(), &policy, &parameters);
    seen.priority = policy == SCHED_RR ? parameters.sched_priority : -1;
    return 3;
}

TEST_F(Threads, HaveTheirNameAndStackAndWhereTheyMayTheirPriority)
{
    Seen seen;
    OSA_Thread *thread = OSA_ThreadCreate("a name past fifteen", 5, 300001, look_around, &seen);
    int32_t status = 0;
    EXPECT_EQ(OSA_ThreadDelete(thread, &status), 0);
    EXPECT_EQ(status, 3);
    EXPECT_STREQ(seen.name, "a name past fif");
    EXPECT_GE(seen.stack, 300001u);
    if (seen.priority == -1)
        EXPECT_EQ(traced().find("2 real-time priority 5"), 0u);
    else
        EXPECT_EQ(seen.priority, 5);
}

} // namespace
