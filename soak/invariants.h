// What holds for a pipeline whatever the schedule. A Watch makes one pipe and its probe
// plugins, lets data flow through them, and fails the run when
//
//   1. a source produces, or a buffer of its arrives, while it is parked: from a pause that
//      succeeded to its next PLAY or NULL (a source that is not live: more than what was
//      under way);
//   2. the timestamps or the order of a source's buffers run back at a sink;
//   3. a filter or sink gets a buffer outside its start and stop (not looked at from a change
//      that fails, of a chain, or without a state to the next NULL: their order is another);
//   4. a plugin is started or stopped more or less often than its changes of state ask for;
//   5. a change of state that succeeded leaves a plugin in another state, or one fails that
//      nothing refused;
//   6. messages of one source are lost, doubled or out of order;
//   7. a buffer is not released, or something is alive at the end (by the Stage).
//
// That nothing waits for ever is seen to by the OS layer in virtual time.
#ifndef SOAK_INVARIANTS_H
#define SOAK_INVARIANTS_H

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "soak/dice.h"
#include "tests/support/stage.h"

namespace soak
{

// A schedule; few switches find other orders than many do.
SIM_Options drawn_schedule(uint64_t run, Dice &dice);

// A value that threads share and that orders nothing, so that ThreadSanitizer still sees the
// races of the library that it lies between.
template <typename T>
class Unordered
{
public:
    Unordered(T value = T()) : m_value(value) {}
    operator T() const
    {
        return m_value.load(std::memory_order_relaxed);
    }
    T operator=(T value)
    {
        m_value.store(value, std::memory_order_relaxed);
        return value;
    }
    T operator++()
    {
        return m_value.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    T operator--()
    {
        return m_value.fetch_sub(1, std::memory_order_relaxed) - 1;
    }
    T exchange(T value)
    {
        return m_value.exchange(value, std::memory_order_relaxed);
    }

private:
    std::atomic<T> m_value;
};

constexpr size_t kMostSources = 4;

class Watch;

// One plugin under watch.
struct Actor {
    Watch *watch = nullptr;
    std::string name;
    NOXPlugin *plugin = nullptr;
    Script *script = nullptr;
    uint32_t place = 0; // among the sources

    // Sources: what they are, and whether there is a next buffer. Changed while no thread runs.
    bool live = true;
    bool own_thread = false; // produces in a context of its own
    uint32_t interval_ms = 5;
    std::function<bool()> has_data = nullptr;
    std::function<void(NOXBuffer *)> adorn = nullptr;       // the last word on a fresh buffer
    std::function<void(int32_t state)> on_change = nullptr; // before it is made

    // Sinks: linked to nothing, so that no change of the pipe reaches it.
    bool is_apart = false;

    // Filters and sinks: what a buffer costs, and the answer to it.
    Unordered<uint32_t> take_ms{0};
    Unordered<int32_t> answer{0};

    // What it has seen.
    Unordered<uint32_t> due_starts{0};
    Unordered<uint32_t> due_stops{0};
    Unordered<bool> open{false}; // between start and stop
    Unordered<uint64_t> closed_at{
        0};                          // tick of its last stop; 0: none since the last change to PLAY
    Unordered<uint32_t> restarts{0}; // starts while it runs, after a stop
    Unordered<uint64_t> shortest_closed{UINT64_MAX}; // ms, of the restarts
    Unordered<bool> parked{false};                   // source: see invariant 1
    Unordered<bool> clock_moved{false};              // source: since it last left a pause
    Unordered<uint32_t> made_while_paused{0};
    Unordered<uint32_t> numbered{0}; // buffers
    Unordered<uint32_t> posted{0};   // messages
    std::array<Unordered<uint32_t>, kMostSources> last_number{};
    std::array<Unordered<uint64_t>, kMostSources> last_stamp{};
    Unordered<uint32_t> pushing{0};    // own thread: to go on
    Unordered<uint32_t> ends_after{0}; // own thread: buffers until end of stream; 0: none
    OSA_Thread *thread = nullptr;      // own thread

    NOXBaseSrc *base() const
    {
        return reinterpret_cast<NOXBaseSrc *>(plugin);
    }
};

struct SourceKind {
    bool live = true;
    bool own_thread = false;
    uint32_t interval_ms = 5;
};

class Watch
{
public:
    Watch();
    ~Watch(); // deletes the pipe in whatever state it is
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;

    // Members of the pipe, not linked yet.
    Actor &source(const std::string &name, const SourceKind &kind = {});
    Actor &filter(const std::string &name);
    Actor &sink(const std::string &name);
    static void link(Actor &from, Actor &to);

    // nox_pipe_set_state with everything that must hold after it.
    int32_t to(int32_t state);
    // What must hold after a change that somebody else made.
    void expect_changed(int32_t state, int32_t result);
    // The same request on the control thread, which it waits for.
    void to_async(int32_t state);
    Unordered<bool> is_changing{false}; // in one of these
    // One chain, from its source down.
    void chain_to(Actor &any, int32_t state);

    // From now on, until forgive(), a plugin may refuse a change of state or a start.
    void refuse_change(Actor &actor);
    void refuse_start(Actor &actor);
    void forgive();

    // Starts or stops every member without a change of state, in the order of the list.
    void start_members();
    void stop_members();

    // Sets the clock as an application may while the pipe is paused.
    void set_clock(uint64_t reading);
    // A source that leaves a pause after it stamps by a clock that may read less.
    void note_clock_moved();

    // While the pipe plays and no source has ended: everybody gets further buffers.
    void expect_flow();

    // From whatever state: NULL, PLAY, end of stream, NULL; all devices closed, all messages
    // there, starts and stops in balance.
    void expect_clean_end();

    // Nothing runs any more: every message has come.
    void expect_delivered();

    // Deletes the pipe in whatever state it is, and looks at what is left.
    void remove();
    // Where several hold the pipe: before the last of them deletes it, and after. Restarts of
    // single sources are not known there.
    void note_deletion();
    void expect_gone();

    // For stories with a bus handler and sources of their own: each message, a source about to
    // produce, and a fresh buffer, which gets a number in its private data and index, and now
    // and then a message of that source on its way.
    void see_message(const std::string &name, int32_t code, const std::string &text);
    void see_production(Actor &source);
    void sign(Actor &source, NOXBuffer *buffer);

    uint32_t messages(int32_t code) const;
    NOXPipe *pipe;
    std::deque<Actor> actors; // in the order of the pipe's members
    std::vector<Actor *> sources;

private:
    Actor &join(NOXPlugin *plugin);
    void watch_slots(Actor &actor);
    void see_change(Actor &actor, int32_t state);
    void see_start(Actor &actor);
    void see_stop(Actor &actor);
    void see_take(Actor &actor, NOXBuffer *buffer);
    void note_parked();
    void forget_stamps(const Actor &source);

    NOXBuffer *produce(Actor &source);
    NOXBuffer *new_buffer(Actor &source);
    static int32_t own_thread(void *source);
    void begin_own_thread(Actor &source);
    void end_own_thread(Actor &source);

    bool let_end_soon(Actor &source);
    bool all_delivered() const;
    void expect_balance(const Actor &actor) const;

    Unordered<bool> m_refusing{false};
    Unordered<bool> m_in_order{true}; // see start_members
    Unordered<bool> m_goes{false};    // see note_deletion
    Unordered<uint64_t> m_made{0};
    Unordered<uint64_t> m_released{0};
    std::map<std::string, uint32_t> m_delivered; // last number of each poster
    std::map<int32_t, uint32_t> m_counts;        // of each code
    mutable std::mutex m_mutex;                  // of both; never held across a call into the layer
};

} // namespace soak

#endif
