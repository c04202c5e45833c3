// The base source, thread side: what a thread does when there was nothing to
// capture, by the source's policy, and the restart that a group makes together.

#include <cstdint>

#include "base/source_thread.h"
#include "internal/guard.h"
#include "internal/trace.h"

namespace
{

constexpr char kSource[] = "noxbasesrc";
constexpr uint32_t kFailurePauseMs = 100;
constexpr uint32_t kGroupPollMs = 100;
constexpr int kGroupPolls = 40;
constexpr char kCaptureFailed[] = "capture failed! (runtime)";

} // namespace

namespace nox
{

Step SourceThread::pause_after_failure()
{
    OSA_ThreadSleep(kFailurePauseMs);
    return Step::kNextPass;
}

Step SourceThread::handle_failure()
{
    if (!is_started())
        return Step::kEnd;
    if (!is_live()) {
        end_stream();
        return errhandle() == NOX_ERRHANDLE_RETRY ? Step::kNextPass : pause_after_failure();
    }
    if (m_failures < INT32_MAX) // a retry does not sleep, and may fail for days
        ++m_failures;
    switch (errhandle()) {
    case NOX_ERRHANDLE_RESTART:
        restart();
        return pause_after_failure();
    case NOX_ERRHANDLE_DONT_CARE:
        m_failures = 0;
        return pause_after_failure();
    case NOX_ERRHANDLE_RETRY:
        return retry();
    default:
        return quit_after_failures();
    }
}

Step SourceThread::retry()
{
    NOX_TRACE_OBJECT_FOR(kLoop, m_source, OSA_TRACE_ERROR,
                         "capture failed! (runtime), just keep going...\n");
    if (m_failures > load_relaxed(m_source->errcount))
        post(NOX_MSG_CAPTURE_ERROR, kCaptureFailed);
    return Step::kNextPass;
}

Step SourceThread::quit_after_failures()
{
    NOX_TRACE_OBJECT_FOR(kLoop, m_source, OSA_TRACE_ERROR,
                         "capture failed! (runtime) QUIT (%d > 3)...\n", m_failures);
    post(NOX_MSG_CAPTURE_ERROR, kCaptureFailed);
    if (m_failures <= load_relaxed(m_source->errcount))
        return pause_after_failure();
    store_release(m_source->eos, uint8_t{1});
    return Step::kEnd;
}

void SourceThread::restart()
{
    NOX_TRACE_OBJECT_FOR(kLoop, m_source, OSA_TRACE_ERROR,
                         "capture failed! (runtime) RESTART...\n");
    post(NOX_MSG_CAPTURE_ERROR, kCaptureFailed);
    call_under_pipe_lock(m_source->stop_func, "stop");
    NOXPluginGroup *group = nox_plugin_group_get(m_plugin);
    if (group != nullptr)
        nox_plugin_group_attend(group, m_plugin, 1);
    wait_for_group(group);
    call_under_pipe_lock(m_source->start_func, "start");
    if (group != nullptr)
        nox_plugin_group_attend(group, m_plugin, 0);
}

// Under the pipe's lock, so that no two sources of a pipe restart a device at
// the same time. The result is not looked at: the next create tells.
void SourceThread::call_under_pipe_lock(NOXBaseSrcFunc function, const char *what)
{
    ObjectLock lock(nox_plugin_get_parent(m_plugin));
    NOX_TRACE_OBJECT_FOR(kLoop, m_source, OSA_TRACE_ERROR, "[%s] %s ++\n", name_of(m_source), what);
    if (function != nullptr)
        function(m_source);
    NOX_TRACE_OBJECT_FOR(kLoop, m_source, OSA_TRACE_ERROR, "[%s] %s --\n", name_of(m_source), what);
}

void SourceThread::wait_for_group(NOXPluginGroup *group)
{
    for (int poll = 0; poll < kGroupPolls && is_started(); ++poll) {
        if (nox_plugin_group_is_all_attended(group))
            return;
        ask_group_to_restart(group);
        OSA_ThreadSleep(kGroupPollMs);
    }
    if (is_started() && !nox_plugin_group_is_all_attended(group))
        NOX_TRACE_OBJECT_FOR(kLoop, m_source, OSA_TRACE_ERROR,
                             "other source has no problem, keep going..\n");
}

void SourceThread::ask_group_to_restart(NOXPluginGroup *group)
{
    const uint32_t count = nox_plugin_group_members(group);
    for (uint32_t i = 0; i < count; ++i) {
        NOXPlugin *member = nox_plugin_group_get_member(group, i);
        if (member != nullptr && member != m_plugin && member->issrc)
            store_release(reinterpret_cast<NOXBaseSrc *>(member)->restartreq, uint8_t{1});
    }
}

} // namespace nox
