// The signals that end a run, as a descriptor for poll.
#ifndef NOX_RUN_SIGNALS_H
#define NOX_RUN_SIGNALS_H

#include <csignal>

// SIGINT, SIGTERM and SIGHUP, but for those that are ignored from outside, as nohup
// has it. They are blocked from its making on, so it is made before any thread is.
class Signals
{
public:
    Signals();
    ~Signals();
    Signals(const Signals &) = delete;
    Signals &operator=(const Signals &) = delete;

    int descriptor() const
    {
        return descriptor_;
    }
    bool take();     // whether one had come
    void let_kill(); // from now on a signal ends the process at once

private:
    const sigset_t set_;
    const int descriptor_;
};

#endif
