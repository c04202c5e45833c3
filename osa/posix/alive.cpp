// Counting what is alive.

#include "osa/common/export.h"

#include "osa/posix/memory.h"
#include "osa/posix/pool.h"
#include "osa/posix/thread_state.h"

namespace
{

struct CountedField {
    osa::Kind kind;
    uint32_t OSA_Alive::*field;
};

constexpr CountedField kFields[] = {
    {osa::Kind::list_node, &OSA_Alive::list_nodes}, {osa::Kind::list, &OSA_Alive::lists},
    {osa::Kind::queue, &OSA_Alive::queues},         {osa::Kind::event, &OSA_Alive::events},
    {osa::Kind::mutex, &OSA_Alive::mutexes},        {osa::Kind::thread, &OSA_Alive::threads},
    {osa::Kind::library, &OSA_Alive::libraries},    {osa::Kind::file, &OSA_Alive::files},
};

} // namespace

extern "C" {

void OSA_AliveGet(OSA_Alive *alive)
{
    if (alive == nullptr)
        return;
    *alive = {};
    const osa::MemoryCounts memory = osa::memory_counts();
    alive->blocks = memory.blocks;
    alive->bytes = memory.bytes;
    const uint32_t out = osa::pools_count_out();
    const osa::AllThreads threads;
    for (const CountedField &counted : kFields)
        alive->*counted.field = threads.alive(counted.kind);
    // Nodes count as nodes, not as blocks besides.
    const uint32_t nodes = threads.alive(osa::Kind::pool_backed);
    alive->pool_blocks = out > nodes ? out - nodes : 0;
}

uint8_t OSA_AliveIsNothing(const OSA_Alive *alive)
{
    if (alive == nullptr)
        return 0;
    for (const CountedField &counted : kFields)
        if (alive->*counted.field != 0)
            return 0;
    return alive->blocks == 0 && alive->bytes == 0 && alive->pool_blocks == 0;
}

} // extern "C"
