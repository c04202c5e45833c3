#include "soak/graph.h"

#include <algorithm>

namespace soak
{

namespace
{

constexpr uint32_t kMostTees = 2; // one behind the other

std::string numbered(const char *kind, const Watch &watch)
{
    return kind + std::to_string(watch.actors.size());
}

Actor &add_filter(Watch &watch, Dice &dice)
{
    Actor &filter = watch.filter(numbered("f", watch));
    filter.take_ms = dice.chance(20) ? dice.below(8) : 0;
    return filter;
}

Actor &add_sink(Watch &watch, Dice &dice)
{
    Actor &sink = watch.sink(numbered("k", watch));
    sink.take_ms = dice.chance(20) ? dice.below(8) : 0;
    set_option(sink.plugin, NOX_TYPE_BOOL, "sync", dice.chance(30));
    return sink;
}

void draw_branch(Watch &watch, Dice &dice, Actor &from, uint32_t tees)
{
    Actor *last = &from;
    while (dice.chance(40)) {
        Actor &filter = add_filter(watch, dice);
        Watch::link(*last, filter);
        last = &filter;
    }
    const uint32_t branches = tees > 0 && dice.chance(40) ? 2 + dice.below(2) : 1;
    for (uint32_t branch = 0; branches > 1 && branch < branches; ++branch)
        draw_branch(watch, dice, *last, tees - 1);
    if (branches == 1)
        Watch::link(*last, add_sink(watch, dice));
}

// Only sources that are live and have the base source's thread are known to have data, so
// that beside any other kind nobody may wait for all of them.
void let_start_alone(Watch &watch)
{
    for (const Actor *source : watch.sources)
        set_option(source->plugin, NOX_TYPE_BOOL, "asyncstart", 1);
}

bool is_known_to_have_data(const Actor *source)
{
    return source->live && !source->own_thread;
}

// Out of the pipe and in again: behind all others.
void move_to_end(Watch &watch, Actor &actor)
{
    nox_pipe_del_plugin(watch.pipe, actor.plugin);
    nox_pipe_add_plugin(watch.pipe, actor.plugin);
}

} // namespace

SourceKind draw_kind(Dice &dice)
{
    return {
        .live = dice.chance(65), .own_thread = dice.chance(15), .interval_ms = 1 + dice.below(9)};
}

void draw_graph(Watch &watch, Dice &dice, uint32_t most_sources)
{
    const uint32_t sources = 1 + dice.below(most_sources);
    for (uint32_t i = 0; i < sources; ++i)
        draw_branch(watch, dice, watch.source(numbered("s", watch), draw_kind(dice)), kMostTees);
    if (dice.chance(30) ||
        !std::all_of(watch.sources.begin(), watch.sources.end(), is_known_to_have_data))
        let_start_alone(watch);
    for (uint32_t moves = dice.below(4); moves > 0; --moves)
        move_to_end(watch, dice.one_of(watch.actors));
}

Actor &draw_chain(Watch &watch, Dice &dice, const SourceKind &kind)
{
    Actor &source = watch.source(numbered("s", watch), kind);
    Actor &filter = add_filter(watch, dice);
    Watch::link(source, filter);
    Watch::link(filter, add_sink(watch, dice));
    return source;
}

} // namespace soak
