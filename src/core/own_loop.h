// A record with a thread of its own (bus, pipe) may lose its last reference on that
// very thread: in the application's handler or callback. The thread cannot join
// itself there, so it ends as soon as that call returns, and is joined later.
#ifndef NOX_CORE_OWN_LOOP_H
#define NOX_CORE_OWN_LOOP_H

#include "osa/osa.h"

namespace nox
{

struct DepartedThread;

// Stands on the stack of the record's thread for as long as its loop runs.
class OwnLoop
{
public:
    explicit OwnLoop(const void *record);
    ~OwnLoop();
    OwnLoop(const OwnLoop &) = delete;
    OwnLoop &operator=(const OwnLoop &) = delete;

    // Once true, the loop must not touch the record any more.
    bool lost_its_record() const
    {
        return m_record == nullptr;
    }

    // Whether the calling thread is the one that runs the loop of this record.
    static bool is_of(const void *record);

    // Called by the record's finalizer on that thread: what would have been joined
    // is kept for join_departed_threads.
    static void lose_record(OSA_Thread *thread);

private:
    friend void join_departed_threads(bool also_running);

    const void *m_record;
    DepartedThread *m_departed = nullptr;
};

// Joins the threads whose loops have ended without their records; with
// `also_running` it waits for those that are still in the application's call.
// The calling thread itself is left for a later time.
void join_departed_threads(bool also_running);

} // namespace nox

#endif
