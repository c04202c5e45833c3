// What the system sees of the threads.

#include <atomic>
#include <csignal>
#include <memory>

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tests/osa/layer.h"

namespace
{

using Threads = Layer;

struct Seen {
    char name[32] = {};
    size_t stack = 0;
    int priority = -1; // in real time
};

// Whether this process may run threads in real time at that priority.
bool may_have(int priority)
{
    int former_policy = 0;
    sched_param former = {};
    sched_param asked = {};
    asked.sched_priority = priority;
    pthread_getschedparam(pthread_self(), &former_policy, &former);
    const bool allowed = pthread_setschedparam(pthread_self(), SCHED_RR, &asked) == 0;
    pthread_setschedparam(pthread_self(), former_policy, &former);
    return allowed;
}

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

// The process without the right to real-time scheduling, as most have none.
class WithoutRealTime
{
public:
    WithoutRealTime() : m_user(geteuid())
    {
        getrlimit(RLIMIT_RTPRIO, &m_limit);
        const rlimit none = {0, m_limit.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_RTPRIO, &none), 0);
        EXPECT_EQ(seteuid(m_user == 0 ? 65534 : m_user), 0);
    }
    ~WithoutRealTime()
    {
        EXPECT_EQ(seteuid(m_user), 0);
        EXPECT_EQ(setrlimit(RLIMIT_RTPRIO, &m_limit), 0);
    }
    WithoutRealTime(const WithoutRealTime &) = delete;
    WithoutRealTime &operator=(const WithoutRealTime &) = delete;

private:
    uid_t m_user;
    rlimit m_limit = {};
};

TEST_F(Threads, HaveTheirNameAndStackAndWhereTheyMayTheirPriority)
{
    const auto look = [this](int expected_priority) {
        Seen seen;
        OSA_Thread *thread = OSA_ThreadCreate("a name past fifteen", 5, 300001, look_around, &seen);
        int32_t status = 0;
        EXPECT_EQ(OSA_ThreadDelete(thread, &status), 0);
        EXPECT_EQ(status, 3);
        EXPECT_STREQ(seen.name, "a name past fif");
        EXPECT_GE(seen.stack, 300001u);
        EXPECT_EQ(seen.priority, expected_priority);
        EXPECT_EQ(traced(), expected_priority > 0 ? ""
                                                  : "2 real-time priority 5 is not permitted: "
                                                    "thread \"a name past fif\" has the default "
                                                    "one\n");
    };
    look(may_have(5) ? 5 : -1);
    const WithoutRealTime restriction;
    look(-1);
}

// The system wakes threads in its own order, which a signal changes.
TEST_F(Threads, AReleasedWaiterWakesWhicheverTheSystemHoldsForTheFirst)
{
    OSA_Event *event = OSA_EventCreate(0);
    std::atomic<uint32_t> arrived{0};
    pthread_t first = {};
    {
        auto oldest = std::make_unique<TestThread>("oldest", [&] {
            first = pthread_self();
            ++arrived;
            EXPECT_EQ(OSA_EventWait(event, 10'000), 0);
        });
        let_them_wait(arrived, 1);
        const TestThread other("other", [&] {
            ++arrived;
            EXPECT_EQ(OSA_EventWait(event, 60'000), 0);
        });
        let_them_wait(arrived, 2);
        const auto former = std::signal(SIGUSR1, [](int) {});
        pthread_kill(first, SIGUSR1);
        OSA_ThreadSleep(50);
        OSA_EventSend(event);
        oldest.reset();
        OSA_EventSend(event);
        std::signal(SIGUSR1, former);
    }
    OSA_EventDestroy(event);
}

} // namespace
