// Schedules of sources: pauses, deaths and restarts at every point of a state change.

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <optional>

#include "soak/campaigns.h"
#include "soak/graph.h"
#include "tests/core/on_stage.h"

namespace soak
{

namespace
{

constexpr uint64_t kFull = 20'000;
constexpr uint64_t kQuick = 1'000;

using Way = std::vector<int32_t>; // states, one after the other

// From PLAY to PLAY, by ways on which a source that runs is not forgotten.
const std::vector<Way> kWays{
    {NOX_STATE_PAUSE, NOX_STATE_PLAY},
    {NOX_STATE_PAUSE, NOX_STATE_READY, NOX_STATE_PLAY},
    {NOX_STATE_PAUSE, NOX_STATE_READY, NOX_STATE_PAUSE, NOX_STATE_PLAY},
    {NOX_STATE_READY, NOX_STATE_PAUSE, NOX_STATE_PLAY},
    {NOX_STATE_READY, NOX_STATE_PLAY},
    {NOX_STATE_PAUSE, NOX_STATE_NULL, NOX_STATE_PLAY},
    {NOX_STATE_PAUSE, NOX_STATE_READY, NOX_STATE_NULL, NOX_STATE_READY, NOX_STATE_PLAY},
    {NOX_STATE_NULL, NOX_STATE_PLAY},
};

void go(Watch &watch, Dice &dice, const Way &way)
{
    for (const int32_t state : way) {
        if (dice.chance(20))
            watch.to_async(state);
        else
            EXPECT_EQ(0, watch.to(state));
        OSA_ThreadSleep(dice.chance(40) ? dice.below(12) : 0);
    }
}

// ---- pauses ---------------------------------------------------------------------

// One state change at a time, whoever makes it.
class Turns
{
public:
    Turns() : m_mutex(OSA_MutexCreate()) {}
    ~Turns()
    {
        OSA_MutexDestroy(m_mutex);
    }
    Turns(const Turns &) = delete;
    Turns &operator=(const Turns &) = delete;

    template <typename Body>
    void take(Body body)
    {
        OSA_MutexLock(m_mutex, OSA_WAIT_FOREVER);
        body();
        OSA_MutexUnLock(m_mutex);
    }

private:
    OSA_Mutex *m_mutex;
};

// A source alone, as a plugin is paused that is to be exchanged.
void pause_source(Watch &watch, Dice &dice)
{
    NOXPlugin *source = dice.one_of(watch.sources)->plugin;
    EXPECT_EQ(0, nox_plugin_setstate(source, NOX_STATE_PAUSE));
    OSA_ThreadSleep(dice.below(12));
    EXPECT_EQ(0, nox_plugin_setstate(source, NOX_STATE_PLAY));
}

// No interval is measured across it, however far the clock was moved meanwhile.
void move_clock(Watch &watch, Dice &dice)
{
    const auto complaints = [] {
        return SIM_TraceCount("Reversed timestamp") + SIM_TraceCount("Too long interval");
    };
    EXPECT_EQ(0, watch.to(NOX_STATE_PAUSE));
    watch.set_clock(dice.chance(50) ? 1 : SIM_Tick() + 100'000);
    const uint32_t before = complaints();
    EXPECT_EQ(0, watch.to(NOX_STATE_PLAY));
    OSA_ThreadSleep(20);
    EXPECT_EQ(before, complaints());
}

void storm(Watch &watch, Turns &turns, Dice dice)
{
    for (uint32_t left = 2 + dice.below(5); left > 0; --left) {
        turns.take([&] {
            if (dice.chance(15))
                pause_source(watch, dice);
            else if (dice.chance(15))
                move_clock(watch, dice);
            else
                go(watch, dice, dice.one_of(kWays));
        });
        OSA_ThreadSleep(dice.chance(50) ? dice.below(20) : 0);
    }
}

void pause_and_resume(uint64_t run)
{
    Dice dice(run);
    const Stage stage(drawn_schedule(run, dice));
    Watch watch;
    for (uint32_t sources = 1 + dice.below(2); sources > 0; --sources) {
        const Actor &source = draw_chain(watch, dice, draw_kind(dice));
        set_option(source.plugin, NOX_TYPE_BOOL, "asyncstart", 1);
    }
    EXPECT_EQ(0, watch.to(NOX_STATE_PLAY));
    {
        Turns turns;
        std::optional<Worker> other;
        if (dice.chance(40))
            other.emplace([&] { storm(watch, turns, Dice(run, 1)); });
        storm(watch, turns, Dice(run, 2));
    }
    watch.expect_flow();
    watch.expect_clean_end();
}

// ---- deaths ---------------------------------------------------------------------

// How a source ends, from some point on.
struct Death {
    int32_t told; // the message; 0: none, but the source knows
    bool live;
    void (*prepare)(Actor &source, Actor &sink, const Unordered<bool> &has_come);
};

void capture_nothing(Actor &source, Actor &, const Unordered<bool> &has_come)
{
    source.has_data = [&has_come] { return !has_come; };
}

void refuse_buffers(Actor &source, Actor &sink, const Unordered<bool> &has_come)
{
    source.adorn = [&sink, &has_come](NOXBuffer *) { sink.answer = has_come ? 5 : 0; };
}

void reach_limit(Actor &source, Actor &, const Unordered<bool> &has_come)
{
    source.adorn = [&source, &has_come](NOXBuffer *) {
        if (has_come)
            set_option(source.plugin, NOX_TYPE_UINT32, "maxframes", 1);
    };
}

constexpr Death kDeaths[] = {
    {NOX_MSG_CAPTURE_ERROR, true, capture_nothing},
    {NOX_MSG_PUSH_ERROR, true, refuse_buffers},
    {0, true, reach_limit},
    {NOX_MSG_EOS, false, capture_nothing},
    {NOX_MSG_EOS, false, refuse_buffers},
};

// The moment: at a buffer, at a point of the schedule, in the slot for states or events.
void draw_moment(Actor &source, Dice &dice, Unordered<bool> &has_come)
{
    const auto is_over = [&has_come](uint64_t now, uint64_t limit) {
        if (now >= limit)
            has_come = true;
    };
    const uint64_t limit = dice.below(8);
    const uint64_t point = SIM_PointCount() + dice.below(2000);
    switch (dice.below(4)) {
    case 0:
        source.script->on_event = [=, &source](int32_t) { is_over(source.numbered, limit); };
        break;
    case 1:
        source.on_change = [=, &source](int32_t) { is_over(source.numbered, limit); };
        break;
    default: {
        const bool by_point = dice.chance(60);
        const auto create = source.script->create;
        source.script->create = [=, &source](NOXBaseSrc *base) {
            is_over(by_point ? SIM_PointCount() : uint64_t{source.numbered},
                    by_point ? point : limit);
            return create(base);
        };
    }
    }
}

// What the application is told of a death that has come.
void expect_told(Watch &watch, const Actor &source, const Death &death)
{
    const auto is_told = [&] {
        return death.told != 0 ? watch.messages(death.told) > 0
                               : nox_basesrc_get_eos(source.plugin) != 0;
    };
    EXPECT_TRUE(wait_until(is_told, 60'000)) << "message " << death.told;
}

void die_in_a_pause(uint64_t run)
{
    Dice dice(run);
    const Stage stage(drawn_schedule(run, dice));
    Unordered<bool> has_come{false};
    Watch watch;
    const Death &death = dice.one_of(kDeaths);
    Actor &source = draw_chain(watch, dice, {.live = death.live, .interval_ms = 1 + dice.below(4)});
    death.prepare(source, watch.actors.back(), has_come);
    draw_moment(source, dice, has_come);
    EXPECT_EQ(0, watch.to(NOX_STATE_PLAY));
    for (uint32_t left = 1 + dice.below(4); left > 0; --left)
        go(watch, dice, dice.one_of(kWays));
    has_come = true;
    EXPECT_EQ(0, watch.to(NOX_STATE_NULL));
    EXPECT_EQ(0, watch.to(NOX_STATE_PLAY));
    expect_told(watch, source, death);
    EXPECT_EQ(0, watch.to(NOX_STATE_NULL));
    source.adorn = nullptr;
    watch.expect_clean_end();
}

// ---- restarts -------------------------------------------------------------------

constexpr uint32_t kGroupWaitMs = 4'000;

// What a source of a group does in its captures.
struct Role {
    Actor *source = nullptr;
    std::vector<uint64_t> failures; // ticks
    bool answers = false;           // to a request to restart, by failing as well
    uint32_t answers_after_ms = 0;
    size_t failed = 0;
    uint64_t answer_at = 0;

    bool has_data()
    {
        if (std::atomic_ref(source->plugin->started) == 0)
            return true; // a failure would go unnoticed
        const uint64_t now = SIM_Tick();
        if (failed < failures.size() && now >= failures[failed]) {
            ++failed;
            return false;
        }
        if (answers && std::atomic_ref(source->base()->restartreq).exchange(0) != 0)
            answer_at = now + answers_after_ms;
        const bool gives_answer = answer_at != 0 && now >= answer_at;
        if (gives_answer)
            answer_at = 0;
        return !gives_answer;
    }
};

// Sources that restart together, and what each of them does.
class Group
{
public:
    Group(Watch &watch, Dice &dice, uint32_t members) : m_group(nox_plugin_group_new())
    {
        for (uint32_t i = 0; i < members; ++i)
            add(draw_chain(watch, dice, {.interval_ms = 100 + dice.below(300)}));
    }
    ~Group()
    {
        nox_plugin_group_delete(m_group);
    }
    Group(const Group &) = delete;
    Group &operator=(const Group &) = delete;

    std::deque<Role> roles;

private:
    void add(Actor &source)
    {
        Role &role = roles.emplace_back();
        role.source = &source;
        source.has_data = [&role] { return role.has_data(); };
        set_option(source.plugin, NOX_TYPE_UINT32, "errhandle", NOX_ERRHANDLE_RESTART);
        nox_plugin_group_add(m_group, source.plugin);
    }

    NOXPluginGroup *m_group;
};

// One after the other fails, and nobody else feels concerned: each waits for the others in vain.
void restart_alone(Watch &watch, Group &group, Dice &dice)
{
    uint64_t at = SIM_Tick() + 1 + dice.below(1'000);
    for (Role &role : group.roles) {
        role.failures = {at};
        at += kGroupWaitMs + 1'500;
    }
    EXPECT_EQ(0, watch.to(NOX_STATE_PLAY));
    OSA_ThreadSleep(static_cast<uint32_t>(at - SIM_Tick()));
    for (const Role &role : group.roles) {
        EXPECT_EQ(1u, role.source->restarts) << role.source->name;
        EXPECT_EQ(kGroupWaitMs, role.source->shortest_closed) << role.source->name;
    }
    watch.expect_flow();
}

void draw_role(Role &role, Dice &dice, uint64_t now)
{
    while (dice.chance(40) || (role.source->place == 0 && role.failures.empty()))
        role.failures.push_back(now + dice.below(3'000));
    std::sort(role.failures.begin(), role.failures.end());
    role.answers = dice.chance(60);
    role.answers_after_ms = dice.chance(50) ? dice.below(6'000) : 0;
    role.source->script->start_ms = dice.chance(50) ? dice.below(250) : 0;
    if (dice.chance(15)) // dies instead
        set_option(role.source->plugin, NOX_TYPE_UINT32, "errhandle", NOX_ERRHANDLE_QUIT);
}

// A state change or the deletion comes during it.
void interrupt(Watch &watch, Dice &dice)
{
    OSA_ThreadSleep(dice.below(9'000));
    if (dice.chance(20))
        watch.remove();
    else
        go(watch, dice, dice.one_of(kWays));
}

void restart_somehow(Watch &watch, Group &group, Dice &dice)
{
    for (Role &role : group.roles)
        draw_role(role, dice, SIM_Tick());
    EXPECT_EQ(0, watch.to(NOX_STATE_PLAY));
    interrupt(watch, dice);
    if (watch.pipe == nullptr)
        return;
    OSA_ThreadSleep(dice.below(9'000));
    EXPECT_TRUE(
        wait_until([&] { return watch.messages(NOX_MSG_CAPTURE_ERROR) > 0; }, 2 * kGroupWaitMs));
}

void restart(uint64_t run)
{
    Dice dice(run);
    const Stage stage(drawn_schedule(run, dice));
    Watch watch;
    Group group(watch, dice, 2 + dice.below(2));
    if (dice.chance(30))
        restart_alone(watch, group, dice);
    else
        restart_somehow(watch, group, dice);
    if (watch.pipe != nullptr && dice.chance(70))
        watch.expect_clean_end();
    watch.remove(); // before the group
}

} // namespace

Campaigns sources_campaigns()
{
    return {{"schedules-pause", "seeds", kFull, kQuick, pause_and_resume},
            {"schedules-dying", "seeds", kFull, kQuick, die_in_a_pause},
            {"schedules-restart", "seeds", kFull, kQuick, restart}};
}

} // namespace soak
