// The layer itself, blocks of memory and pools of fixed-size blocks.

#include "osa/sim/world.h"

using sim::BlockKind;
using sim::Entry;
using sim::Origin;

const sim::Pool *sim::Pools::find(uint32_t block_size) const
{
    const auto found = by_size.find(block_size);
    return found != by_size.end() && found->second.is_registered ? &found->second : nullptr;
}

namespace
{

constexpr size_t pool_limit = 63;
constexpr size_t pool_name_limit = 47;

// The live block at this address, or null with the misuse reported.
sim::Block *find_block(Entry &layer, const void *address, BlockKind kind, const char *operation)
{
    sim::Block *block = layer->heap.find(address);
    if (block == nullptr) {
        layer.misuse(operation, "the address is no live block: freed before, or not of this layer");
        return nullptr;
    }
    if (block->kind != kind) {
        layer.misuse(operation, "wrong operation for a " + sim::block_text(*block));
        return nullptr;
    }
    return block;
}

void give(Entry &layer, void *address, const char *operation)
{
    const std::string fault = layer->heap.give(address);
    if (!fault.empty())
        layer.misuse(operation, fault);
}

void run_callback(OSA_EnvironmentCallback callback, const char *operation)
{
    const int32_t result = callback == nullptr ? 0 : callback();
    if (result != 0)
        OSA_Trace("osa", OSA_TRACE_ERROR, "osa", __LINE__, operation,
                  "the environment callback failed (%d)\n", result);
}

void trace_live_blocks()
{
    std::vector<std::string> texts;
    {
        Entry layer;
        for (const auto &live : layer->heap.alive())
            texts.push_back(sim::block_text(*live.block));
    }
    for (const std::string &text : texts)
        OSA_Trace("osa", OSA_TRACE_ERROR, "osa", __LINE__, "OSA_SystemUnInit", "still alive: %s\n",
                  text.c_str());
}

} // namespace

int32_t OSA_SystemInit(OSA_EnvironmentCallback load)
{
    run_callback(load, "OSA_SystemInit");
    return 0;
}

int32_t OSA_SystemUnInit(OSA_EnvironmentCallback unload)
{
    run_callback(unload, "OSA_SystemUnInit");
    trace_live_blocks();
    return 0;
}

void *OSA_Malloc(uint32_t size, int32_t, int32_t, const char *module, int32_t line,
                 const char *function)
{
    Entry layer;
    layer->scheduler.point();
    const Origin origin = {SIM_CALLER, layer->heap.keep(module), line, layer->heap.keep(function)};
    if (layer.must_fail("OSA_Malloc", origin))
        return nullptr;
    return layer->heap.take(BlockKind::plain, size, origin);
}

void OSA_Free(void *block, int32_t)
{
    if (block == nullptr)
        return;
    Entry layer;
    layer->scheduler.point();
    if (find_block(layer, block, BlockKind::plain, "OSA_Free") != nullptr)
        give(layer, block, "OSA_Free");
}

int32_t OSA_SMalloc_Init(void)
{
    Entry layer;
    layer->scheduler.point();
    layer->pools.is_up = true;
    return 0;
}

int32_t OSA_SMalloc_Deinit(void)
{
    Entry layer;
    layer->scheduler.point();
    layer->pools.is_up = false;
    if (layer->heap.count(BlockKind::pool) == 0)
        layer->pools.by_size.clear();
    for (auto &pool : layer->pools.by_size)
        pool.second.is_registered = false;
    return 0;
}

int32_t OSA_SMalloc_Register(uint32_t block_size, const char *name)
{
    Entry layer;
    layer->scheduler.point();
    if (layer.must_fail("OSA_SMalloc_Register", SIM_CALLER))
        return -1;
    if (!layer->pools.is_up || block_size == 0 || name == nullptr)
        return -1;
    auto &by_size = layer->pools.by_size;
    if (by_size.count(block_size) == 0 && by_size.size() == pool_limit)
        return -1;
    const std::string kept_name = std::string(name).substr(0, pool_name_limit);
    const sim::Pool pool = {layer->heap.keep(kept_name.c_str()), true};
    by_size.emplace(block_size, pool).first->second.is_registered = true;
    return 0;
}

int32_t OSA_SMalloc_UnRegister(uint32_t block_size)
{
    Entry layer;
    layer->scheduler.point();
    if (layer->pools.find(block_size) == nullptr)
        return -1;
    layer->pools.by_size[block_size].is_registered = false;
    return 0;
}

uint8_t OSA_SMemIsReg(uint32_t block_size)
{
    Entry layer;
    layer->scheduler.point();
    return layer->pools.find(block_size) == nullptr ? 0 : 1;
}

const char *OSA_SMemGetName(uint32_t block_size)
{
    Entry layer;
    layer->scheduler.point();
    const sim::Pool *pool = layer->pools.find(block_size);
    return pool == nullptr ? nullptr : pool->name;
}

void *OSA_SMalloc(uint32_t block_size)
{
    Entry layer;
    layer->scheduler.point();
    if (layer.must_fail("OSA_SMalloc", SIM_CALLER) || layer->pools.find(block_size) == nullptr)
        return nullptr;
    return layer->heap.take(BlockKind::pool, block_size, Origin{SIM_CALLER});
}

void OSA_SFree(void *block, uint32_t block_size)
{
    if (block == nullptr)
        return;
    Entry layer;
    layer->scheduler.point();
    const sim::Block *found = find_block(layer, block, BlockKind::pool, "OSA_SFree");
    if (found == nullptr)
        return;
    if (found->size != block_size) {
        layer.misuse("OSA_SFree", "given to the pool of " + std::to_string(block_size) +
                                      " bytes: " + sim::block_text(*found));
        return;
    }
    give(layer, block, "OSA_SFree");
}
