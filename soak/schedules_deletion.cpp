// Asynchronous requests that race the deletion of their pipe.
//
// Several hold a reference to the pipe each, ask for states, and give their
// reference back: the application, threads of its own, the message handler, a callback, a
// source's thread. Whoever is last deletes the pipe, there and then. A holder keeps the
// rules of docs/ownership.md: it asks while it holds its reference, or inside a call that
// the library makes.

#include <deque>
#include <memory>
#include <utility>

#include "soak/campaigns.h"
#include "soak/dice.h"
#include "soak/invariants.h"
#include "tests/core/on_stage.h"

namespace soak
{

namespace
{

enum Holder {
    kApplication,
    kFirstWorker,
    kLastWorker = kFirstWorker + 2,
    kHandler,
    kCallback,
    kSource,
    kHolders
};

constexpr size_t most_requests = 32;
constexpr int32_t go = 1000; // the application's message to its handler

struct Request {
    Unordered<Holder> holder{kHolders};
    Unordered<int32_t> state{0};
    Unordered<uint32_t> answers{0};
};

class Story
{
public:
    explicit Story(uint64_t run);
    ~Story();
    void play();

    void answer(size_t request, int32_t state, int32_t result);
    void handle(const std::string &name, int32_t code, const std::string &text);
    int32_t finalize(void *pipe);

private:
    void build();
    void act_as(Holder holder);
    void ask(Holder holder, Dice &dice, uint32_t count);
    void leave(Holder holder);
    void take_at_sink();
    void finish();
    void check_requests() const;
    void check_traces() const;

    const uint64_t m_run;
    Dice m_dice{m_run};
    bool m_takes_part[kHolders] = {};
    bool m_handler_changes; // the state by itself, and nobody asks
    Watch m_watch;
    NOXPipe *const m_pipe = m_watch.pipe;

    Request m_requests[most_requests];
    Unordered<size_t> m_asked{0};
    Unordered<size_t> m_answered{0};
    Unordered<uint32_t> m_late_answers{0}; // since the deletion began
    Unordered<bool> m_began{false};
    Unordered<bool> m_over{false};
    OSA_Event *m_gone = OSA_EventCreate(0); // sent when it is over
    Unordered<Holder> m_deleter{kHolders};

    // Of one holder each.
    Dice m_handler_dice{m_run, kHandler};
    Dice m_callback_dice{m_run, kCallback};
    Dice m_source_dice{m_run, kSource};
    uint32_t m_gos_left;
    uint32_t m_callbacks_left;
    uint32_t m_takes_left;
};

Story *g_story = nullptr;
thread_local Holder t_holder; // who gives back a reference

// A callback of its own for each request: it is given nothing to tell them apart by.
template <size_t number>
int32_t answer(NOXPipe *, int32_t state, int32_t result)
{
    g_story->answer(number, state, result);
    return -1; // ignored
}

template <size_t... numbers>
NoxPipeAsyncCallback nth_callback(size_t n, std::index_sequence<numbers...>)
{
    static constexpr NoxPipeAsyncCallback callbacks[] = {answer<numbers>...};
    return callbacks[n];
}

Story::Story(uint64_t run) : m_run(run)
{
    g_story = this;
    m_handler_changes = m_dice.chance(10);
    m_takes_part[kApplication] = true;
    for (int worker = kFirstWorker; worker <= kLastWorker; ++worker)
        m_takes_part[worker] = m_dice.chance(50);
    m_takes_part[kHandler] = m_dice.chance(40);
    m_takes_part[kCallback] = !m_handler_changes && m_dice.chance(40);
    m_takes_part[kSource] = !m_handler_changes && m_dice.chance(25);
    m_gos_left = m_dice.between(1, 3);
    m_callbacks_left = m_dice.between(1, 4);
    m_takes_left = m_dice.between(1, 4);
}

Story::~Story()
{
    g_story = nullptr;
}

// Two chains, of which one has a filter and the other may be no live one.
void Story::build()
{
    Actor &source = m_watch.source("s", {.interval_ms = m_dice.between(1, 20)});
    Actor &other =
        m_watch.source("s2", {.live = m_dice.chance(70), .interval_ms = m_dice.between(1, 20)});
    for (Actor *waiting : {&source, &other})
        waiting->base()->waitallsrc = 0;
    Actor &filter = m_watch.filter("f");
    Actor &sink = m_watch.sink("k");
    Watch::link(source, filter);
    Watch::link(filter, sink);
    Watch::link(other, m_watch.sink("k2"));
    sink.script->take = [this, take = sink.script->take](NOXBuffer *buffer) {
        const int32_t answer = take(buffer);
        take_at_sink();
        return answer;
    };
    m_pipe->plugin.object.finalize = [](void *pipe) { return g_story->finalize(pipe); };
    nox_pipe_set_bus_handler(
        m_pipe,
        [](NOXBus *, void *, const char *name, int32_t code, const char *text) {
            g_story->handle(name, code, text != nullptr ? text : "");
            return 0;
        },
        nullptr);
}

void Story::ask(Holder holder, Dice &dice, uint32_t count)
{
    static constexpr int32_t any[] = {NOX_STATE_NULL, NOX_STATE_READY, NOX_STATE_PAUSE,
                                      NOX_STATE_PLAY};
    // For these the control thread does not wait for a source's thread, which is itself to
    // wait for the control thread in the deletion.
    static constexpr int32_t running[] = {NOX_STATE_READY, NOX_STATE_PLAY};
    if (m_handler_changes)
        return;
    for (; count > 0; --count) {
        const size_t number = ++m_asked - 1;
        ASSERT_LT(number, most_requests);
        const int32_t state = m_takes_part[kSource] ? dice.one_of(running) : dice.one_of(any);
        m_requests[number].holder = holder;
        m_requests[number].state = state;
        EXPECT_EQ(
            0, nox_pipe_set_state_async(
                   m_pipe, state, nth_callback(number, std::make_index_sequence<most_requests>{})));
    }
}

void Story::leave(Holder holder)
{
    t_holder = holder;
    nox_object_delete(m_pipe);
}

int32_t Story::finalize(void *pipe)
{
    EXPECT_FALSE(m_began) << "deleted twice";
    m_deleter = t_holder;
    m_began = true;
    m_watch.note_deletion();
    const int32_t result = nox_pipe_finalize(pipe);
    m_over = true;
    OSA_EventSend(m_gone);
    return result;
}

void Story::answer(size_t request, int32_t state, int32_t result)
{
    EXPECT_FALSE(m_over) << "answered after the deletion";
    EXPECT_EQ(1u, ++m_requests[request].answers);
    EXPECT_EQ(m_requests[request].state, state);
    m_watch.expect_changed(state, result);
    ++m_answered;
    if (m_began)
        ++m_late_answers;
    if (!m_takes_part[kCallback] || m_callbacks_left == 0)
        return;
    if (--m_callbacks_left == 0)
        leave(kCallback);
    else
        ask(kCallback, m_callback_dice, 1); // or there might be no further one
}

void Story::handle(const std::string &name, int32_t code, const std::string &text)
{
    EXPECT_FALSE(m_over) << "a message after the deletion";
    m_watch.see_message(name, code, text);
    if (code != go)
        return;
    OSA_ThreadSleep(m_handler_dice.below(3));
    if (m_handler_changes)
        m_watch.to(static_cast<int32_t>(m_handler_dice.below(4)));
    ask(kHandler, m_handler_dice, m_handler_dice.below(3));
    EXPECT_FALSE(m_over) << "deleted under its handler";
    if (--m_gos_left > 0)
        nox_bus_post_error(m_pipe->busref, "handler", go, nullptr);
    else if (m_takes_part[kHandler])
        leave(kHandler);
}

void Story::take_at_sink()
{
    EXPECT_EQ(0u, script("k").finalized);
    if (!m_takes_part[kSource] || m_takes_left == 0 || --m_takes_left > 0)
        return;
    ask(kSource, m_source_dice, m_source_dice.below(3));
    leave(kSource);
}

void Story::act_as(Holder holder)
{
    Dice dice(m_run, holder);
    for (uint32_t round = dice.below(3); round > 0; --round) {
        OSA_ThreadSleep(dice.below(15));
        ask(holder, dice, dice.below(3));
    }
    const size_t asked = m_asked;
    if (dice.chance(30)) {
        EXPECT_TRUE(wait_until([&] { return m_answered >= asked; })) << "requests got lost";
    }
    leave(holder);
}

void Story::play()
{
    build();
    if (m_takes_part[kSource] || m_handler_changes || m_dice.chance(50))
        m_watch.to(NOX_STATE_PLAY);
    for (int holder = kFirstWorker; holder < kHolders; ++holder)
        if (m_takes_part[holder])
            nox_object_refer(m_pipe);
    {
        std::deque<Worker> workers;
        for (int holder = kFirstWorker; holder <= kLastWorker; ++holder)
            if (m_takes_part[holder])
                workers.emplace_back([this, holder] { act_as(static_cast<Holder>(holder)); });
        nox_bus_post_error(m_pipe->busref, "application", go, nullptr);
        ask(kApplication, m_dice, m_takes_part[kCallback] ? 1 : 0);
        act_as(kApplication);
    }
    EXPECT_EQ(0, OSA_EventWait(m_gone, 60'000));
    OSA_EventDestroy(m_gone);
    finish();
}

void Story::finish()
{
    if (m_deleter == kSource) { // whose code was running: the pipe has left its plugins alone
        EXPECT_EQ(0u, script("f").finalized);
        for (const Actor &member : m_watch.actors)
            nox_plugin_setstate(member.plugin, NOX_STATE_NULL);
        for (const Actor &member : m_watch.actors)
            nox_object_delete(member.plugin);
    }
    if (m_dice.chance(50)) { // else the library is shut down while the handler returns
        OSA_ThreadSleep(1);
        nox_object_delete(nox_pipe_new("next"));
        EXPECT_EQ(0u, alive().threads) << "the next pipe has joined the thread that was left";
    }
    m_watch.expect_gone();
    check_requests();
    check_traces();
}

// Those that were dropped are the last that their holder asked for.
void Story::check_requests() const
{
    bool dropped[kHolders] = {};
    for (size_t i = 0; i < m_asked; ++i) {
        const Request &request = m_requests[i];
        EXPECT_FALSE(dropped[request.holder] && request.answers > 0) << "carried out of order";
        dropped[request.holder] |= request.answers == 0;
    }
    EXPECT_LE(m_late_answers, 1u);
}

void Story::check_traces() const
{
    const std::pair<Holder, const char *> places[] = {
        {kHandler, "pipe(watched) deleted in its own bus handler"},
        {kCallback, "pipe(watched) deleted on its own control thread"},
        {kSource, "pipe(watched) deleted on the thread of its source (s)"},
    };
    for (const auto &[holder, text] : places)
        EXPECT_EQ(m_deleter == holder ? 1u : 0u, traced("noxpipe", 1, text)) << text;
}

void run_story(uint64_t run)
{
    Dice dice(run, 200);
    Stage stage(drawn_schedule(run, dice));
    Story(run).play();
}

} // namespace

Campaigns deletion_campaigns()
{
    return {{"schedules-deletion", "seeds", 20'000, 1'000, run_story}};
}

} // namespace soak
