// Begins and ends runs, and reports misuse and runs that cannot go on.

#include "osa/sim/world.h"

#include <pthread.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "osa/sim/trace_text.h"

namespace sim
{

namespace
{

constexpr size_t reported_traces = 20;

// Never destroyed at exit: a thread may still be asleep in it.
std::unique_ptr<World> &world_slot()
{
    static auto *slot = new std::unique_ptr<World>;
    return *slot;
}

std::string lines_text(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

void join_ended_threads(const Handles &handles)
{
    for (const Object *object : handles.alive())
        if (object->kind == Kind::thread)
            pthread_join(static_cast<const OSA_Thread *>(object)->system_thread, nullptr);
}

void close(World &world)
{
    if (world.scheduler.has_others())
        give_up("the run ends while threads still run");
    for (const std::string &fault : world.heap.give_all())
        world.misuses.push_back(fault);
    join_ended_threads(world.handles);
    world.processor.reset();
    world.is_open = false;
}

void open(const SIM_Options &options)
{
    auto &slot = world_slot();
    if (slot != nullptr && slot->is_open)
        close(*slot);
    slot.reset();
    slot = std::make_unique<World>(options);
    const char *echo = std::getenv("NOX_SIM_ECHO");
    slot->options.echo |= echo != nullptr && std::string(echo) == "1";
    OSA_TraceSetLevel(options.trace_level);
}

World &open_world()
{
    auto &slot = world_slot();
    if (slot == nullptr || !slot->is_open)
        open({});
    if (Scheduler::calling() != &slot->scheduler.running())
        give_up("a thread that is not of this run called in");
    return *slot;
}

} // namespace

World &last_world()
{
    if (world_slot() == nullptr)
        open({});
    return *world_slot();
}

void give_up(const std::string &reason)
{
    const World &world = last_world();
    std::string report = "simulated run cannot go on: " + reason + " (seed " +
                         std::to_string(world.options.seed) + ", tick " +
                         std::to_string(world.scheduler.tick()) + ")\n" +
                         world.scheduler.threads_text() + lines_text(world.misuses);
    const auto &lines = world.traces.lines;
    for (size_t i = lines.size() - std::min(lines.size(), reported_traces); i < lines.size(); i++)
        report += "  " + trace_text(lines[i]);
    std::fputs(report.c_str(), stderr);
    std::fflush(stderr);
    std::abort();
}

Entry::Entry() : world_(open_world()) {}

void Entry::misuse(const char *operation, const std::string &what)
{
    const std::string line = "misuse: " + std::string(operation) + ": " + what + " (" +
                             world_.scheduler.running().text() + ", tick " +
                             std::to_string(world_.scheduler.tick()) + ", seed " +
                             std::to_string(world_.options.seed) + ")";
    std::fprintf(stderr, "%s\n", line.c_str());
    world_.misuses.push_back(line);
}

bool Entry::must_fail(const char *operation, const Origin &origin)
{
    return world_.faults.must_fail(operation, origin, world_.scheduler.running().name);
}

bool Entry::must_fail(const char *operation, const void *caller)
{
    return must_fail(operation, Origin{caller});
}

bool Entry::check(const Object *handle, Kind kind, const char *operation)
{
    if (handle == nullptr)
        return false;
    if (world_.handles.is_alive(handle, kind))
        return true;
    misuse(operation, world_.handles.stale_text(handle));
    return false;
}

bool Entry::destroy(const Object *handle, Kind kind, const char *operation)
{
    if (!check(handle, kind, operation))
        return false;
    if (world_.scheduler.is_awaited(handle)) {
        misuse(operation, handle->text() + " destroyed while a thread waits for it");
        return false;
    }
    world_.handles.bury(handle);
    return true;
}

} // namespace sim

void SIM_Begin(const SIM_Options &options)
{
    const sim::Unwatched unwatched;
    sim::open(options);
}

std::string SIM_End()
{
    sim::Entry layer;
    const std::string alive = SIM_AliveText();
    sim::close(sim::last_world());
    return SIM_MisuseText() + alive;
}
