// The body of a source thread: what it knows, and the steps of its passes. Passes
// that go well are in noxbasesrc_loop.cpp, failures in noxbasesrc_failure.cpp.
#ifndef NOX_BASE_SOURCE_THREAD_H
#define NOX_BASE_SOURCE_THREAD_H

#include "internal/atomic_field.h"
#include "noxbasesrc.h"

namespace nox
{

// What a pass does next.
enum class Step {
    kNextPass,
    kProduce,
    kEnd,
};

class SourceThread
{
public:
    explicit SourceThread(NOXBaseSrc *source) : m_source(source), m_plugin(&source->plugin) {}

    // Pass after pass, until the source is stopped or ends by itself.
    void run();

private:
    static constexpr char kLoop[] = "nox_basesrc_loop"; // what its traces name

    bool is_started() const
    {
        return load_acquire(m_plugin->started);
    }

    bool is_live() const
    {
        return load_relaxed(m_source->islive);
    }

    int32_t errhandle() const
    {
        return load_relaxed(m_source->errhandle);
    }

    // Ordered, like the stores on the control side: see invariant 4.
    bool must_park() const
    {
        return load_ordered(m_plugin->started) && pause_is_asked_for();
    }

    bool pause_is_asked_for() const
    {
        return load_ordered(m_plugin->state) == NOX_STATE_PAUSE || pause_is_awaited();
    }

    // Whether the control side waits until this thread is parked.
    bool pause_is_awaited() const
    {
        return load_ordered(m_source->pausewait) == 1;
    }

    void post(int32_t code, const char *text)
    {
        nox_plugin_error_post(m_plugin, code, text);
    }

    Step park_while_paused();
    Step wait_parked();
    Step leave_pause(int32_t state);

    Step produce();
    bool is_released(const NOXBuffer *buffer);
    Step push(NOXBuffer *buffer);
    Step refuse_push(int32_t result);
    Step count_frame();
    bool let_through(NOXBuffer *buffer);
    bool let_first_through(NOXBuffer *buffer);
    void stamp(NOXBuffer *buffer);
    void check_interval(NOXBuffer *buffer, uint64_t &timestamp);
    void end_stream();

    Step handle_failure();
    Step quit_after_failures();
    Step retry();
    void restart();
    void call_under_pipe_lock(NOXBaseSrcFunc function, const char *what);
    void wait_for_group(NOXPluginGroup *group);
    void ask_group_to_restart(NOXPluginGroup *group);
    Step pause_after_failure();

    NOXBaseSrc *m_source;
    NOXPlugin *m_plugin;
    int32_t m_failures = 0; // consecutive, of a live source
    bool m_running = false; // the first buffer of this thread has been let through
};

} // namespace nox

#endif
