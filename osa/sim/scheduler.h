/*
 * Who runs and what time it is: simulated threads take turns on real ones.
 *
 * A thread is ready, waits (for an object, a deadline or both) or has ended.
 * The running thread alone touches any of this; it passes the turn by the next
 * thread's baton and then sleeps on its own. Which thread is next depends on
 * the seed, the order in which threads were made and the virtual time only.
 */
#ifndef OSA_SIM_SCHEDULER_H
#define OSA_SIM_SCHEDULER_H

#include <pthread.h>

#include <atomic>
#include <csetjmp>
#include <cstdint>
#include <string>
#include <vector>

#include "osa/sim/object.h"
#include "osa/sim/osasim.h"

namespace sim
{

/* The right to run, as one word that its thread sleeps on. */
class Baton
{
public:
    void give();
    void take();

private:
    std::atomic<uint32_t> held_{0};
};

constexpr uint64_t no_deadline = UINT64_MAX;

struct Wait {
    const Object *object = nullptr; /* null: a sleep, ended by its deadline only */
    uint64_t deadline = no_deadline;
    /* A deadline that is there for a warning only does not make time pass by itself. */
    bool is_patient = false;
    /* Where it is not enough that the object is ready: whether this thread may go on. */
    const bool *granted = nullptr;

    bool is_met() const
    {
        return granted != nullptr ? *granted : object != nullptr && object->ready();
    }
};

} // namespace sim

struct OSA_Thread : sim::Object {
    OSA_Thread() : Object(sim::Kind::thread) {}
    bool ready() const override
    {
        return has_ended;
    }
    std::string wait_text() const override
    {
        return text() + " to end";
    }

    OSA_ThreadEntry entry = nullptr;
    void *argument = nullptr;
    int32_t status = 0;
    pthread_t system_thread{};
    std::jmp_buf exit_point;
    sim::Baton baton;
    sim::Wait wait;
    bool is_waiting = false;
    bool has_ended = false;
    bool is_joined = false;  /* some thread waits in OSA_ThreadDelete for it */
    uint32_t locks_held = 0; /* mutexes, each counted once */
};

namespace sim
{

/* A generator of our own, since the library's distributions differ by vendor. */
class Random
{
public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t below(uint64_t limit);

private:
    uint64_t state_;
};

class Scheduler
{
public:
    explicit Scheduler(const SIM_Options &options);

    OSA_Thread &running()
    {
        return *running_;
    }
    static OSA_Thread *calling(); /* null on a thread that is not simulated */

    /* Perhaps lets another thread run. */
    void point();

    /* Lets others run until the wait is met (true) or the deadline passed
     * (false). With the object ready, nobody ran since it became so. */
    bool wait(const Wait &wait);

    void add(OSA_Thread &thread);          /* ready from now on */
    static void enter(OSA_Thread &thread); /* on the new thread: waits for its turn */
    void finish();                         /* the running thread ends and passes the turn */

    bool is_awaited(const Object *object) const;
    bool has_others() const
    {
        return threads_.size() > 1;
    }

    uint64_t now() const
    {
        return now_;
    } /* milliseconds since the run began */
    uint64_t deadline_in(uint64_t duration_ms) const;
    uint64_t tick() const
    {
        return now_ + tick_offset_;
    }
    void set_tick(uint64_t tick)
    {
        tick_offset_ = tick - now_;
    }
    void advance(uint64_t duration_ms);

    uint64_t point_count() const
    {
        return point_count_;
    }
    uint64_t switch_count() const
    {
        return switch_count_;
    }

    /* One line for each thread and what it waits for. */
    std::string threads_text() const;

private:
    bool may_run(const OSA_Thread &thread) const;
    void collect_runnable(const OSA_Thread *but);
    OSA_Thread *next_runnable();
    bool pass_time();
    void switch_to(OSA_Thread &next);

    SIM_Options options_;
    Random random_;
    OSA_Thread main_;
    std::vector<OSA_Thread *> threads_; /* not ended, in the order they were made */
    std::vector<OSA_Thread *> runnable_;
    OSA_Thread *running_ = &main_;
    uint64_t now_ = 0;
    uint64_t waited_ms_ = 0; /* the part of now_ that passed in waits */
    uint64_t tick_offset_;
    uint64_t point_count_ = 0;
    uint64_t points_at_this_time_ = 0;
    uint64_t switch_count_ = 0;
};

} // namespace sim

#endif
