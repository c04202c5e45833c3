// Schedules of sources: pauses, deaths and restarts at every point of a state change.

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
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

// What is looked at after each change.
using Look = std::function<void(int32_t state)>;

void go(Watch &watch, Dice &dice, const Way &way, const Look &look = nullptr)
{
    for (const int32_t state : way) {
        if (dice.chance(20))
            watch.to_async(state);
        else
            EXPECT_EQ(0, watch.to(state));
        if (look)
            look(state);
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

constexpr uint32_t kNever = UINT32_MAX;
constexpr uint32_t kPointsOfChange = 40; // few changes take more
constexpr int32_t kBufferRefusal = 5;

enum class Cause { kNothingCaptured, kBufferRefused, kLimitReached };

struct Death {
    Cause cause;
    bool live;
    int32_t told; // the message
    bool once;    // an end of stream that has been pushed is not pushed again
};

constexpr Death kDeaths[] = {
    {Cause::kNothingCaptured, true, NOX_MSG_CAPTURE_ERROR, false},
    {Cause::kBufferRefused, true, NOX_MSG_PUSH_ERROR, false},
    {Cause::kLimitReached, true, NOX_MSG_EOS, false},
    {Cause::kNothingCaptured, false, NOX_MSG_EOS, true},
    {Cause::kBufferRefused, false, NOX_MSG_EOS, false},
    {Cause::kLimitReached, false, NOX_MSG_EOS, true},
};

// A source that dies once in each of its lives, which last from NULL to NULL: as soon as it
// produces after a moment that is drawn anew for each. The application is told of a death
// once. It need not be where a stop overtakes the source; but when time has passed before
// the stop, as it does only while no thread can go on, the source was through with its death.
class Mortal
{
public:
    Mortal(Watch &watch, Dice &dice);
    void live_and_die(); // until a death has come during a change, if it can be told again
    void die_undisturbed();
    void spare(); // for the rest

private:
    void attach();
    void draw_moment();
    void count_down(uint32_t &left);
    bool has_data();
    void adorn();
    void note_death();
    void look(int32_t state);
    void end_life();

    Watch &m_watch;
    Dice &m_dice;
    const Death &m_death = m_dice.one_of(kDeaths);
    Actor &m_source =
        draw_chain(m_watch, m_dice, {.live = m_death.live, .interval_ms = 1 + m_dice.below(4)});
    Actor &m_sink = m_watch.actors.back();

    // The moment has come when one of these has.
    Unordered<bool> m_has_come{false};
    Unordered<uint32_t> m_buffer{kNever};
    Unordered<uint64_t> m_point{UINT64_MAX};
    uint32_t m_events_left = kNever;
    uint32_t m_own_changes_left = kNever; // of the source
    uint32_t m_changes_left = kNever;     // of the pipe, before m_point

    Unordered<uint64_t> m_died_at{0};    // tick
    Unordered<bool> m_is_through{false}; // with what it is to meet in a walk
    bool m_must_be_told = false;
    uint32_t m_told = 0; // up to this life
};

Mortal::Mortal(Watch &watch, Dice &dice) : m_watch(watch), m_dice(dice)
{
    attach();
    draw_moment();
}

void Mortal::attach()
{
    m_source.script->on_event = [this](int32_t) { count_down(m_events_left); };
    m_source.on_change = [this](int32_t state) {
        count_down(m_own_changes_left);
        if (state == NOX_STATE_NULL)
            m_must_be_told = m_died_at != 0 && SIM_Tick() > m_died_at;
    };
    m_source.has_data = [this] { return has_data(); };
    m_source.adorn = [this](NOXBuffer *) { adorn(); };
    m_sink.script->take = [this, take = m_sink.script->take](NOXBuffer *buffer) {
        const int32_t answer = take(buffer);
        if (answer != 0 || std::atomic_ref(m_source.base()->maxframes) != 0)
            note_death();
        return answer;
    };
}

void Mortal::draw_moment()
{
    m_has_come = false;
    m_buffer = m_events_left = m_own_changes_left = m_changes_left = kNever;
    m_point = UINT64_MAX;
    switch (m_dice.below(5)) {
    case 0:
        m_events_left = m_dice.between(1, 3);
        break;
    case 1:
        m_own_changes_left = m_dice.between(1, 4);
        break;
    case 2:
        m_buffer = m_source.numbered + m_dice.below(8);
        break;
    default:
        m_changes_left = m_dice.between(1, 4);
    }
}

void Mortal::count_down(uint32_t &left)
{
    if (left != kNever && --left == 0)
        m_has_come = true;
}

bool Mortal::has_data()
{
    if (m_source.numbered >= m_buffer || SIM_PointCount() >= m_point)
        m_has_come = true;
    if (!m_has_come || m_death.cause != Cause::kNothingCaptured)
        return true;
    note_death();
    return false;
}

void Mortal::adorn()
{
    if (m_death.cause == Cause::kBufferRefused)
        m_sink.answer = m_has_come ? kBufferRefusal : 0;
    if (m_death.cause == Cause::kLimitReached)
        set_option(m_source.plugin, NOX_TYPE_UINT32, "maxframes", m_has_come);
}

void Mortal::note_death()
{
    if (m_died_at != 0)
        return;
    m_died_at = SIM_Tick();
    if (m_watch.is_changing || m_death.once)
        m_is_through = true;
}

void Mortal::look(int32_t state)
{
    if (state == NOX_STATE_NULL)
        end_life();
    if (m_changes_left != kNever && --m_changes_left == 0) {
        m_changes_left = kNever;
        m_point = SIM_PointCount() + m_dice.below(kPointsOfChange);
    }
}

void Mortal::end_life()
{
    OSA_ThreadSleep(1); // messages under way are delivered
    const uint32_t told = m_watch.messages(m_death.told);
    const bool may_be_told = m_has_come && !(m_death.once && m_told > 0);
    EXPECT_LE(told - m_told, may_be_told ? 1u : 0u) << "message " << m_death.told;
    EXPECT_GE(told - m_told, may_be_told && m_must_be_told ? 1u : 0u)
        << "a death was not told, message " << m_death.told;
    m_told = told;
    m_died_at = 0;
    m_must_be_told = false;
    set_option(m_source.plugin, NOX_TYPE_UINT32, "maxframes", 0);
    draw_moment();
}

void Mortal::live_and_die()
{
    EXPECT_EQ(0, m_watch.to(NOX_STATE_PLAY));
    uint32_t ways = m_dice.between(1, 4);
    for (; ways > 0 || !m_is_through; ways -= ways > 0 ? 1 : 0)
        go(m_watch, m_dice, m_dice.one_of(kWays), [this](int32_t state) { look(state); });
    EXPECT_EQ(0, m_watch.to(NOX_STATE_NULL));
    end_life();
}

void Mortal::die_undisturbed()
{
    m_has_come = true;
    EXPECT_EQ(0, m_watch.to(NOX_STATE_PLAY));
    OSA_ThreadSleep(1'000);
    EXPECT_EQ(0, m_watch.to(NOX_STATE_NULL));
    EXPECT_TRUE(m_must_be_told);
    end_life();
}

void Mortal::spare()
{
    m_source.adorn = nullptr;
    m_source.has_data = nullptr;
}

void die_in_a_pause(uint64_t run)
{
    Dice dice(run);
    const Stage stage(drawn_schedule(run, dice));
    Watch watch;
    Mortal mortal(watch, dice);
    mortal.live_and_die();
    mortal.die_undisturbed();
    mortal.spare();
    watch.expect_clean_end();
}

// ---- restarts -------------------------------------------------------------------

constexpr uint32_t kGroupWaitMs = 4'000;

// What a source of a group does in its captures.
struct Role {
    Actor *source = nullptr;
    std::vector<uint64_t> failures; // ticks
    Unordered<bool> answers{false}; // to a request to restart, by failing as well
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

bool quits(const Role &role)
{
    return std::atomic_ref(role.source->base()->errhandle) == NOX_ERRHANDLE_QUIT;
}

// Whoever attended, and whoever never did. Two that answer each other, and wait for a third
// that does not, would go on restarting.
void expect_recovery(Watch &watch, Group &group)
{
    if (std::any_of(group.roles.begin(), group.roles.end(), quits))
        return;
    for (Role &role : group.roles)
        role.answers = false;
    watch.expect_flow();
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
    expect_recovery(watch, group);
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
