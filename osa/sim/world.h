/*
 * One run of the simulator: all its state, the door through which every
 * operation enters it, and the two ways it says that something is wrong.
 */
#ifndef OSA_SIM_WORLD_H
#define OSA_SIM_WORLD_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "osa/sim/faults.h"
#include "osa/sim/heap.h"
#include "osa/sim/object.h"
#include "osa/sim/one_processor.h"
#include "osa/sim/osasim.h"
#include "osa/sim/race_check.h"
#include "osa/sim/scheduler.h"

namespace sim
{

/* A size keeps its place among the pools, and its first name, while it is not registered. */
struct Pool {
    const char *name; /* kept by the heap, valid to the end of the run */
    bool is_registered;
};

/* Fixed-size pools: here no more than which sizes are registered. */
struct Pools {
    bool is_up = false;
    std::map<uint32_t, Pool> by_size;

    const Pool *find(uint32_t block_size) const; /* null unless registered */
};

struct TraceLog {
    std::vector<SIM_TraceLine> lines;
    OSA_TraceReceiver receiver = nullptr;
    void *receiver_user = nullptr;
    int32_t output = 2; /* file descriptor for the echo */
};

struct World {
    explicit World(const SIM_Options &run_options) : options(run_options), scheduler(options) {}

    SIM_Options options;
    Scheduler scheduler;
    Heap heap;
    Handles handles;
    Faults faults;
    Pools pools;
    TraceLog traces;
    std::vector<std::string> misuses;
    std::map<std::string, std::string> files;
    std::map<std::string, std::map<std::string, void *>> libraries; /* symbols by path */
    std::optional<OneProcessor> processor; /* from the second thread to the end of the run */
    bool is_open = true;
};

/* The run under way or, between runs, the last one. */
World &last_world();

/* Ends a run that cannot go on: prints why, every thread with its wait, the seed
 * and the latest traces, and aborts. */
[[noreturn]] void give_up(const std::string &reason);

/* Stands at the head of every operation of the layer. While it exists the caller
 * has the world to itself and the race check looks away. One at a time. */
class Entry
{
public:
    Entry();
    World *operator->()
    {
        return &world_;
    }

    /* A misuse by the calling code; the operation then returns a failure. */
    void misuse(const char *operation, const std::string &what);

    bool must_fail(const char *operation, const Origin &origin);
    bool must_fail(const char *operation, const void *caller);

    /* Whether the handle is alive; a null one is not, but is no misuse. */
    bool check(const Object *handle, Kind kind, const char *operation);

    /* Ends the life of a handle that nobody waits for. */
    bool destroy(const Object *handle, Kind kind, const char *operation);

private:
    Unwatched unwatched_;
    World &world_;
};

} // namespace sim

/* The caller of the exported function that this stands in. */
#define SIM_CALLER __builtin_return_address(0)

#endif
