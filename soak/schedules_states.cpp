// Schedules of state changes: every order that the table of states allows, while data flows
// through graphs of every shape.

#include <gtest/gtest.h>

#include "soak/campaigns.h"
#include "soak/graph.h"

namespace soak
{

namespace
{

constexpr uint64_t kFull = 20'000;
constexpr uint64_t kQuick = 1'000;
constexpr int32_t kOwnEvent = 100;
constexpr int32_t kRefusal = -7;

int32_t draw_state(Dice &dice)
{
    return static_cast<int32_t>(dice.below(NOX_STATE_PLAY + 1));
}

// A pause or pauses through READY are where most can go wrong.
void change(Watch &watch, Dice &dice)
{
    const int32_t state = draw_state(dice);
    if (dice.chance(20))
        watch.to_async(state);
    else
        watch.to(state);
}

// Whoever refuses, the next change that nobody refuses is made as if nothing had been.
void change_refused(Watch &watch, Dice &dice)
{
    Actor &actor = dice.one_of(watch.actors);
    if (dice.chance(50))
        watch.refuse_change(actor);
    else
        watch.refuse_start(actor);
    watch.to(draw_state(dice));
    watch.forgive();
}

// Every plugin of a graph lies on the way of an event, so that each refusal is told.
void send_event(Watch &watch, Dice &dice)
{
    const bool refused = dice.chance(40);
    Actor &refusing = dice.one_of(watch.actors);
    refusing.script->event_result = refused ? kRefusal : 0;
    NOXEvent event{nullptr, kOwnEvent};
    EXPECT_EQ(refused ? -1 : 0, nox_pipe_set_event(watch.pipe, &event)) << refusing.name;
    refusing.script->event_result = 0;
}

void change_chain(Watch &watch, Dice &dice)
{
    watch.chain_to(dice.one_of(watch.actors), draw_state(dice));
}

void restart_members(Watch &watch, Dice &dice)
{
    watch.stop_members();
    OSA_ThreadSleep(dice.below(20));
    watch.start_members();
    OSA_ThreadSleep(dice.below(20));
    if (nox_pipe_get_state(watch.pipe) == NOX_STATE_NULL)
        watch.stop_members(); // a start from NULL would not make threads that have ended anew
}

void jump_clock(Watch &watch, Dice &dice)
{
    if (watch.to(NOX_STATE_PAUSE) == 0)
        watch.set_clock(dice.chance(50) ? 1 : SIM_Tick() + 100'000);
}

using Step = void (*)(Watch &, Dice &);

void walk(Watch &watch, Dice &dice, const std::vector<Step> &steps)
{
    for (uint32_t left = 4 + dice.below(12); left > 0; --left) {
        dice.one_of(steps)(watch, dice);
        OSA_ThreadSleep(dice.chance(50) ? dice.below(30) : 0);
    }
}

// For a pipe that is deleted while its data flows.
void leave_playing(Watch &watch, Dice &dice)
{
    watch.to(NOX_STATE_NULL);
    watch.to(NOX_STATE_PLAY);
    OSA_ThreadSleep(dice.below(30));
}

void change_states(uint64_t run)
{
    // A chain of a state of its own, a refused change or a start without one leave a pipe
    // in different states; each story has one of these.
    static const std::vector<std::vector<Step>> stories{
        {change, change, change, change, send_event, jump_clock},
        {change, change, change, change_refused, send_event},
        {change, change, change_chain},
        {change, change, change, restart_members},
    };
    Dice dice(run);
    const Stage stage(drawn_schedule(run, dice));
    Watch watch;
    draw_graph(watch, dice, 3);
    nox_pipe_set_option(watch.pipe, dice.below(4));
    walk(watch, dice, dice.one_of(stories));
    if (dice.chance(70))
        watch.expect_clean_end();
    if (dice.chance(50))
        leave_playing(watch, dice);
}

} // namespace

Campaigns states_campaigns()
{
    return {{"schedules-states", "seeds", kFull, kQuick, change_states}};
}

} // namespace soak
