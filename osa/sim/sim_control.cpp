// What a test asks of a run and sets in it: the schedule, the time, faults, and
// what is alive.

#include "osa/sim/world.h"

using sim::BlockKind;
using sim::Entry;
using sim::Kind;
using sim::last_world;
using sim::Unwatched;

uint64_t SIM_Seed()
{
    return last_world().options.seed;
}

void SIM_Point()
{
    Entry layer;
    layer->scheduler.point();
}

uint64_t SIM_Tick()
{
    const Unwatched unwatched;
    return last_world().scheduler.tick();
}

void SIM_TickSet(uint64_t tick)
{
    Entry layer;
    layer->scheduler.set_tick(tick);
}

void SIM_TickAdvance(uint64_t duration_ms)
{
    Entry layer;
    layer->scheduler.advance(duration_ms);
}

uint64_t SIM_PointCount()
{
    const Unwatched unwatched;
    return last_world().scheduler.point_count();
}

uint64_t SIM_SwitchCount()
{
    const Unwatched unwatched;
    return last_world().scheduler.switch_count();
}

void SIM_FailNth(uint64_t n, uint64_t m)
{
    Entry layer;
    layer->faults.fail_two(n, m);
}

void SIM_FailFrom(uint64_t n)
{
    Entry layer;
    layer->faults.fail_from(n);
}

void SIM_FailNone()
{
    Entry layer;
    layer->faults.fail_none();
}

uint64_t SIM_FallibleCount()
{
    const Unwatched unwatched;
    return last_world().faults.call_count();
}

uint64_t SIM_FailedCount()
{
    const Unwatched unwatched;
    return last_world().faults.failed_count();
}

std::string SIM_FallibleText(uint64_t n)
{
    const Unwatched unwatched;
    return last_world().faults.call_text(n);
}

uint32_t SIM_MisuseCount()
{
    const Unwatched unwatched;
    return static_cast<uint32_t>(last_world().misuses.size());
}

std::string SIM_MisuseText()
{
    const Unwatched unwatched;
    std::string text;
    for (const std::string &misuse : last_world().misuses)
        text += misuse + "\n";
    return text;
}

void SIM_MisuseClear()
{
    const Unwatched unwatched;
    last_world().misuses.clear();
}

std::string SIM_AliveText()
{
    const Unwatched unwatched;
    const sim::World &world = last_world();
    std::string text;
    for (const auto &live : world.heap.alive())
        text += "alive: " + sim::block_text(*live.block) + "\n";
    for (const sim::Object *object : world.handles.alive())
        text += "alive: " + object->text() + ", made by " + sim::place_text(object->maker) + "\n";
    return text;
}

void OSA_AliveGet(OSA_Alive *alive)
{
    const Unwatched unwatched;
    const sim::World &world = last_world();
    alive->blocks = world.heap.count(BlockKind::plain);
    alive->bytes = world.heap.bytes(BlockKind::plain);
    alive->pool_blocks = world.heap.count(BlockKind::pool);
    alive->list_nodes = world.heap.count(BlockKind::list_node);
    alive->lists = world.handles.count(Kind::list);
    alive->queues = world.handles.count(Kind::queue);
    alive->events = world.handles.count(Kind::event);
    alive->mutexes = world.handles.count(Kind::mutex);
    alive->threads = world.handles.count(Kind::thread);
    alive->libraries = world.handles.count(Kind::library);
    alive->files = world.handles.count(Kind::file);
}

uint8_t OSA_AliveIsNothing(const OSA_Alive *alive)
{
    const uint32_t things = alive->blocks | alive->pool_blocks | alive->list_nodes | alive->lists |
                            alive->queues | alive->events | alive->mutexes | alive->threads |
                            alive->libraries | alive->files;
    return things == 0 ? 1 : 0;
}

uint32_t OSA_MemoryVisit(void (*visit)(void *user, const OSA_LiveBlock *block), void *user)
{
    std::vector<OSA_LiveBlock> blocks;
    {
        const Unwatched unwatched;
        for (const auto &[address, block] : last_world().heap.alive())
            if (block->kind == BlockKind::plain)
                blocks.push_back({address, block->size, block->origin.module, block->origin.line,
                                  block->origin.function});
    }
    for (const OSA_LiveBlock &block : blocks)
        visit(user, &block);
    return static_cast<uint32_t>(blocks.size());
}
