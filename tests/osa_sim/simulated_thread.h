// A thread of the simulated layer that runs a lambda, joined when it goes.
#ifndef TESTS_OSA_SIM_SIMULATED_THREAD_H
#define TESTS_OSA_SIM_SIMULATED_THREAD_H

#include <functional>

#include "osa/sim/osasim.h"

class SimulatedThread
{
public:
    SimulatedThread(const char *name, std::function<void()> body)
        : m_body(std::move(body)), m_thread(OSA_ThreadCreate(name, 0, 0, run, this))
    {
    }
    ~SimulatedThread()
    {
        OSA_ThreadDelete(m_thread, nullptr);
    }
    SimulatedThread(const SimulatedThread &) = delete;
    SimulatedThread &operator=(const SimulatedThread &) = delete;

private:
    static int32_t run(void *self)
    {
        static_cast<SimulatedThread *>(self)->m_body();
        return 0;
    }

    std::function<void()> m_body;
    OSA_Thread *m_thread;
};

// A line of OSA_Trace from a test.
#define NOTE(...) OSA_Trace("test", OSA_TRACE_VERBOSE, "test", __LINE__, __func__, __VA_ARGS__)

#endif
