#include "soak/invariants.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace soak
{

namespace
{

constexpr int32_t kNumbered = 0x7100; // a message with its number as text
constexpr uint32_t kLastBuffers = 3;  // before a clean end
constexpr uint64_t kCleanEndMs = 120'000;
constexpr uint32_t kLookMs = 10; // a look costs as much as a buffer

bool is_running(const Actor &actor)
{
    return std::atomic_ref(actor.plugin->started) != 0;
}

bool is_to_be_stopped(const Actor &actor)
{
    return std::atomic_ref(actor.plugin->tostop_) != 0;
}

int32_t state_of(const Actor &actor)
{
    return nox_plugin_get_state(actor.plugin);
}

// What the callback of the one asynchronous change under way was told.
OSA_Event *g_answered;
Unordered<int32_t> g_result;

int32_t keep_answer(NOXPipe *, int32_t, int32_t result)
{
    g_result = result;
    return OSA_EventSend(g_answered);
}

} // namespace

SIM_Options drawn_schedule(uint64_t run, Dice &dice)
{
    constexpr uint32_t kSwitchPercents[] = {50, 20, 5, 90};
    return {.seed = run,
            .switch_percent = dice.one_of(kSwitchPercents),
            .trace_level = OSA_TRACE_NOTICE};
}

// ---- making and linking -------------------------------------------------------

Watch::Watch() : pipe(nox_pipe_new("watched"))
{
    nox_pipe_set_bus_handler(
        pipe,
        [](NOXBus *, void *self, const char *name, int32_t code, const char *text) -> int32_t {
            static_cast<Watch *>(self)->see_message(name, code, text != nullptr ? text : "");
            return 0;
        },
        this);
}

Watch::~Watch()
{
    remove();
}

Actor &Watch::join(NOXPlugin *plugin)
{
    nox_pipe_add_plugin(pipe, plugin);
    Actor &actor = actors.emplace_back();
    actor.watch = this;
    actor.name = plugin->object.name;
    actor.plugin = plugin;
    actor.script = &script(actor.name);
    actor.place = static_cast<uint32_t>(sources.size());
    watch_slots(actor);
    return actor;
}

void Watch::watch_slots(Actor &actor)
{
    actor.script->on_setstate = [this, &actor](int32_t state) { see_change(actor, state); };
    actor.script->on_start = [this, &actor] { see_start(actor); };
    actor.script->on_stop = [this, &actor] { see_stop(actor); };
    actor.script->take = [this, &actor](NOXBuffer *buffer) {
        see_take(actor, buffer);
        return int32_t{actor.answer};
    };
    actor.script->create = [this, &actor](NOXBaseSrc *) { return produce(actor); };
}

Actor &Watch::source(const std::string &name, const SourceKind &kind)
{
    script(name).live = kind.live;
    Actor &actor = join(new_source(name));
    actor.live = kind.live;
    actor.own_thread = kind.own_thread;
    actor.interval_ms = kind.interval_ms;
    actor.base()->usethread = !kind.own_thread;
    sources.push_back(&actor);
    return actor;
}

Actor &Watch::filter(const std::string &name)
{
    return join(new_filter(name));
}

Actor &Watch::sink(const std::string &name)
{
    return join(new_sink(name));
}

void Watch::link(Actor &from, Actor &to)
{
    nox_plugin_link(from.plugin, to.plugin);
}

// ---- what plugins see ---------------------------------------------------------

void Watch::see_change(Actor &actor, int32_t state)
{
    const int32_t before = state_of(actor);
    actor.made_while_paused = 0;
    if (state == NOX_STATE_PLAY && before != NOX_STATE_PAUSE)
        ++actor.due_starts;
    if (state == NOX_STATE_NULL)
        ++actor.due_stops;
    if (state == NOX_STATE_PLAY && actor.parked && actor.clock_moved.exchange(false))
        forget_stamps(actor);
    if (state == NOX_STATE_PLAY || state == NOX_STATE_NULL)
        actor.parked = false;
    if (state == NOX_STATE_PLAY)
        actor.closed_at = 0;
    if (actor.on_change)
        actor.on_change(state);
}

void Watch::see_start(Actor &actor)
{
    // Of a sink, the result of its start is not looked at.
    actor.open = actor.script->start_result == 0 || actor.plugin->issink;
    if (actor.closed_at != 0 && is_running(actor)) {
        ++actor.restarts;
        actor.shortest_closed =
            std::min<uint64_t>(actor.shortest_closed, SIM_Tick() - actor.closed_at);
    }
    if (actor.own_thread && actor.script->start_result == 0)
        begin_own_thread(actor);
}

void Watch::see_stop(Actor &actor)
{
    if (actor.own_thread)
        end_own_thread(actor);
    if (m_goes && actor.open && actor.script->stopped > actor.due_stops)
        ++actor.due_stops; // by no change of state
    actor.open = false;
    actor.closed_at = SIM_Tick();
}

void Watch::see_take(Actor &actor, NOXBuffer *buffer)
{
    Actor &source = *static_cast<Actor *>(nox_buffer_get_private(buffer));
    const auto number = static_cast<uint32_t>(nox_buffer_get_index(buffer));
    const uint64_t stamp = nox_buffer_get_timestamp(buffer);
    EXPECT_TRUE(actor.open || !m_in_order) << actor.name << " takes while it is not started";
    EXPECT_FALSE(source.parked && source.live)
        << actor.name << " takes a buffer of " << source.name << ", which is parked";
    EXPECT_GT(number, actor.last_number[source.place].exchange(number)) << actor.name;
    EXPECT_GE(stamp, actor.last_stamp[source.place].exchange(stamp))
        << "stamps of " << source.name << " run back at " << actor.name;
    if (actor.take_ms != 0)
        OSA_ThreadSleep(actor.take_ms);
}

void Watch::see_message(const std::string &name, int32_t code, const std::string &text)
{
    const std::lock_guard lock(m_mutex);
    ++m_counts[code];
    if (code == kNumbered) {
        EXPECT_EQ(std::to_string(++m_delivered[name]), text) << "message of " << name;
    }
}

uint32_t Watch::messages(int32_t code) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_counts.find(code);
    return found != m_counts.end() ? found->second : 0;
}

// ---- producing ----------------------------------------------------------------

void Watch::see_production(Actor &source)
{
    EXPECT_FALSE(source.parked && source.live) << source.name << " produces, but is parked";
    if (state_of(source) == NOX_STATE_PAUSE && is_running(source)) {
        // Not live: what had passed the look at the state when that changed.
        EXPECT_LE(++source.made_while_paused, source.live ? 0u : 1u)
            << source.name << " produces in PAUSE";
    }
}

NOXBuffer *Watch::produce(Actor &source)
{
    see_production(source);
    OSA_ThreadSleep(source.interval_ms);
    return !source.has_data || source.has_data() ? new_buffer(source) : nullptr;
}

NOXBuffer *Watch::new_buffer(Actor &source)
{
    NOXBuffer *buffer = nox_buffer_new(8);
    NOXMemory *memory = nox_buffer_get_memory(buffer, 0);
    ++m_made;
    nox_memory_set_private(memory, this);
    nox_memory_set_finalize_func(memory, [](NOXMemory *released) -> int32_t {
        ++static_cast<Watch *>(nox_memory_get_private(released))->m_released;
        return 0;
    });
    sign(source, buffer);
    nox_buffer_set_timestamp(buffer, uint64_t{source.numbered} * source.interval_ms);
    if (source.adorn)
        source.adorn(buffer);
    return buffer;
}

void Watch::sign(Actor &source, NOXBuffer *buffer)
{
    const uint32_t number = ++source.numbered;
    nox_buffer_set_private(buffer, &source);
    nox_buffer_set_index(buffer, static_cast<int32_t>(number));
    if (number % 3 == 0)
        nox_plugin_error_post(source.plugin, kNumbered, std::to_string(++source.posted).c_str());
}

// The thread of a source that does without the base source's: pushes while it plays.
int32_t Watch::own_thread(void *argument)
{
    Actor &source = *static_cast<Actor *>(argument);
    while (source.pushing != 0) {
        OSA_ThreadSleep(source.interval_ms);
        if (state_of(source) != NOX_STATE_PLAY || source.pushing == 0)
            continue;
        NOXBuffer *buffer = source.watch->new_buffer(source);
        nox_plugin_push_buffer(source.plugin, buffer);
        nox_object_delete(buffer);
        if (source.ends_after != 0 && --source.ends_after == 0) {
            nox_plugin_push_eos(source.plugin);
            break;
        }
    }
    return 0;
}

void Watch::begin_own_thread(Actor &source)
{
    if (source.thread != nullptr)
        return; // started again, from READY
    source.pushing = 1;
    source.thread = OSA_ThreadCreate("own", 0, 0, own_thread, &source);
}

void Watch::end_own_thread(Actor &source)
{
    source.pushing = 0;
    if (source.thread != nullptr)
        OSA_ThreadDelete(source.thread, nullptr);
    source.thread = nullptr;
}

// ---- changing -----------------------------------------------------------------

int32_t Watch::to(int32_t state)
{
    if (state == nox_pipe_get_state(pipe)) // nothing is done, wherever the plugins are
        return nox_pipe_set_state(pipe, state);
    is_changing = true;
    const int32_t result = nox_pipe_set_state(pipe, state);
    is_changing = false;
    expect_changed(state, result);
    return result;
}

void Watch::expect_changed(int32_t state, int32_t result)
{
    // By way of READY it may not have come farther.
    EXPECT_TRUE(state == nox_pipe_get_state(pipe) || (result != 0 && pipe->option != 0));
    EXPECT_TRUE(result == 0 || m_refusing) << "to " << nox_plugin_state_str(state);
    m_in_order = m_in_order && result == 0;
    if (result != 0)
        return;
    for (const Actor &actor : actors)
        if (!actor.is_apart) {
            EXPECT_STREQ(nox_plugin_state_str(state), nox_plugin_state_str(state_of(actor)))
                << actor.name;
        }
    note_parked();
    if (state == NOX_STATE_NULL)
        m_in_order = true;
}

// After a change of the pipe or a chain that succeeded.
void Watch::note_parked()
{
    for (Actor *source : sources)
        if (state_of(*source) == NOX_STATE_PAUSE && is_running(*source))
            source->parked = source->live && !source->own_thread;
}

void Watch::to_async(int32_t state)
{
    const bool changes = state != nox_pipe_get_state(pipe);
    g_answered = OSA_EventCreate(0);
    is_changing = true;
    EXPECT_EQ(0, nox_pipe_set_state_async(pipe, state, keep_answer));
    OSA_EventWait(g_answered, OSA_WAIT_FOREVER);
    is_changing = false;
    OSA_EventDestroy(g_answered);
    if (changes)
        expect_changed(state, g_result);
}

void Watch::chain_to(Actor &any, int32_t state)
{
    if (state == nox_pipe_get_state(pipe))
        return;
    m_in_order = false; // from the source down, also upward
    EXPECT_EQ(0, nox_pipe_linked_plugins_set_state(pipe, any.plugin, state));
    NOXPlugin *source = any.plugin->issrc ? any.plugin : nox_plugin_get_source(any.plugin);
    for (const Actor &actor : actors)
        if (actor.plugin == source || nox_plugin_get_source(actor.plugin) == source) {
            EXPECT_STREQ(nox_plugin_state_str(state), nox_plugin_state_str(state_of(actor)))
                << actor.name;
        }
    if (!m_refusing)
        note_parked();
}

void Watch::refuse_change(Actor &actor)
{
    m_refusing = true;
    actor.script->setstate_result = -7;
}

void Watch::refuse_start(Actor &actor)
{
    m_refusing = true;
    actor.script->start_result = -7;
}

void Watch::forgive()
{
    m_refusing = false;
    for (Actor &actor : actors)
        actor.script->setstate_result = actor.script->start_result = actor.script->event_result = 0;
}

void Watch::start_members()
{
    m_in_order = false;
    for (Actor &actor : actors)
        ++actor.due_starts;
    EXPECT_EQ(0, nox_pipe_start(pipe));
    EXPECT_EQ(1, pipe->plugin.started);
}

void Watch::stop_members()
{
    m_in_order = false;
    for (Actor &actor : actors) {
        ++actor.due_stops;
        actor.parked = false; // whoever is started again need not be
    }
    EXPECT_EQ(0, nox_pipe_stop(pipe));
    EXPECT_EQ(0, pipe->plugin.started);
    for (const Actor &actor : actors)
        EXPECT_FALSE(actor.open) << actor.name;
}

void Watch::set_clock(uint64_t reading)
{
    note_clock_moved();
    nox_timer_settime_absolute(pipe->clock, reading);
}

void Watch::note_clock_moved()
{
    for (Actor *source : sources)
        source->clock_moved = true;
}

// Only where a pause is left after the clock was moved: from NULL, a source knows its last stamp.
void Watch::forget_stamps(const Actor &source)
{
    for (Actor &actor : actors)
        actor.last_stamp[source.place] = 0;
}

// ---- the end ------------------------------------------------------------------

void Watch::expect_flow()
{
    std::vector<uint32_t> before;
    for (const Actor &actor : actors)
        before.push_back(actor.script->taken);
    for (size_t i = 0; i < actors.size(); ++i) {
        const Actor &actor = actors[i];
        const auto has_moved = [&] {
            return actor.plugin->issrc || actor.script->taken > before[i];
        };
        EXPECT_TRUE(wait_until(has_moved, kCleanEndMs, kLookMs))
            << actor.name << " gets no buffers";
    }
}

// False for one that has pushed its end of stream and does not push another.
bool Watch::let_end_soon(Actor &source)
{
    if (source.own_thread) {
        source.ends_after = kLastBuffers;
        return true;
    }
    const bool ended = !source.live && nox_basesrc_get_eos(source.plugin);
    source.has_data = nullptr;
    set_option(source.plugin, NOX_TYPE_UINT32, "maxframes",
               source.base()->framecount + kLastBuffers);
    return !ended;
}

bool Watch::all_delivered() const
{
    uint32_t posted = 0;
    for (const Actor *source : sources)
        posted += source->posted;
    return messages(kNumbered) == posted;
}

// A restart stops and starts once more than the changes of state ask for.
void Watch::expect_balance(const Actor &actor) const
{
    EXPECT_FALSE(actor.open) << actor.name << " was not stopped";
    EXPECT_EQ(actor.script->started - actor.due_starts, actor.script->stopped - actor.due_stops)
        << actor.name << " started " << actor.script->started << ", stopped "
        << actor.script->stopped;
}

void Watch::expect_clean_end()
{
    forgive();
    to(NOX_STATE_READY); // chains may have states of their own while the pipe is at NULL
    EXPECT_EQ(0, to(NOX_STATE_NULL));
    OSA_ThreadSleep(1); // messages under way are delivered
    bool ends = false;
    for (Actor *source : sources)
        ends |= let_end_soon(*source);
    for (Actor &actor : actors)
        actor.answer = 0;
    const uint32_t before = messages(NOX_MSG_EOS);
    EXPECT_EQ(0, to(NOX_STATE_PLAY));
    if (ends) {
        const auto has_ended = [&] { return messages(NOX_MSG_EOS) > before; };
        EXPECT_TRUE(wait_until(has_ended, kCleanEndMs, kLookMs)) << "no end of stream";
    }
    EXPECT_EQ(0, to(NOX_STATE_NULL));
    expect_delivered();
    for (const Actor &actor : actors)
        expect_balance(actor);
}

void Watch::expect_delivered()
{
    OSA_ThreadSleep(1); // messages under way are delivered
    EXPECT_TRUE(all_delivered()) << "messages are missing";
}

void Watch::remove()
{
    if (pipe == nullptr)
        return;
    for (Actor &actor : actors)
        // A device may be closed for a restart, and a start taken back by a pause.
        if (actor.open || is_running(actor) || is_to_be_stopped(actor))
            ++actor.due_stops;
    nox_object_delete(pipe);
    expect_gone();
}

void Watch::note_deletion()
{
    m_goes = true;
}

void Watch::expect_gone()
{
    pipe = nullptr;
    for (const Actor &actor : actors) {
        expect_balance(actor);
        EXPECT_EQ(1u, actor.script->finalized) << actor.name;
    }
    EXPECT_EQ(m_made, m_released) << "buffers";
}

} // namespace soak
