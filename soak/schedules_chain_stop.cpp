// Changes of state, events, the clock and the links while a chain call is in progress.
//
// One live source feeds a filter that passes buffers on, takes its time, cuts them anew
// with a buffer adapter, or copies them into output buffers of its sink's; its two sinks
// wait for the clock and take their time. A source that is not live ends its own stream
// meanwhile. The application does what it likes from one thread, as the rules have it.

#include <algorithm>
#include <cstring>
#include <deque>
#include <iterator>

#include "soak/campaigns.h"
#include "soak/dice.h"
#include "soak/invariants.h"
#include "tests/core/on_stage.h"

namespace soak
{

namespace
{

constexpr uint32_t buffer_size = 100;
constexpr uint32_t longest_interval_ms = 20;
constexpr uint32_t longest_filter_ms = 60;
constexpr uint32_t ended_source_ms = 100; // its pause between captures
constexpr uint32_t most_lent = 2;         // output buffers that the sink has
constexpr int32_t own_event = 100;
constexpr int32_t made_by_filter = 7; // a media type

enum Filter { kPasses, kTakesTime, kCutsAnew, kCopies };

NOXBaseSink *as_sink(NOXPlugin *plugin)
{
    return reinterpret_cast<NOXBaseSink *>(plugin);
}

// Of the one block that all buffers here have; one put together from blocks tells no other way.
uint8_t *bytes_of(NOXBuffer *buffer)
{
    return nox_memory_get_data(nox_buffer_get_memory(buffer, 0));
}

class Story
{
public:
    explicit Story(uint64_t run) : m_run(run) {}
    void play();

private:
    // The plugins.
    void build();
    void watch(Actor &actor);
    void watch_sink(Actor &sink);
    static NOXBuffer *lend(void *story, NOXBufferRequest *request);
    static int32_t take_back(NOXBuffer *buffer);
    NOXBuffer *create();
    int32_t filter(NOXBuffer *buffer);
    void cut_anew(NOXBuffer *buffer);
    void copy(NOXBuffer *buffer);
    void push_own(NOXBuffer *own, NOXBuffer *buffer);
    void render(NOXBuffer *buffer);
    void check_bytes(NOXBuffer *buffer);
    void check_time(NOXBuffer *buffer);
    void show(NOXBuffer *buffer);
    void forget_shown();
    void drop_queued();

    // The application.
    void act();
    void change_state(int32_t state);
    void meddle_with_clock();
    void send_event();
    void exchange_sinks();
    void expect_standstill();
    void expect_to_play_on();
    void finish();

    const uint64_t m_run;
    Dice m_dice{m_run};
    Watch m_watch;
    NOXPipe *const m_pipe = m_watch.pipe;
    Actor *m_source = nullptr;
    NOXPlugin *m_filter = nullptr;
    NOXPlugin *m_sink = nullptr;
    Actor *m_branch = nullptr;   // linked beside it
    Actor *m_spare = nullptr;    // to be linked in its place
    NOXPlugin *m_last = nullptr; // of the chain that ends by itself

    Filter m_kind = static_cast<Filter>(m_dice.below(4));
    uint32_t m_ahead_ms = m_dice.chance(50) ? m_dice.below(200) : 0; // stamps after the clock
    uint32_t m_longest_render_ms = m_dice.chance(80) ? 30 : 400;
    bool m_meddles = m_dice.chance(50); // with the clock
    bool m_parked = false;
    Unordered<uint32_t> m_acts{0}; // odd: the application is at it

    // Of the source's thread, and of the application's while that stands still.
    Dice m_chain_dice{m_run, 1};
    NOXBufAdpt *m_adapter = nullptr;
    std::deque<NOXBuffer *> m_shown;
    uint32_t m_most_shown = m_dice.below(3 * most_lent);
    Unordered<uint32_t> m_in_chain{0};
    Unordered<uint32_t> m_lent{0};
    uint8_t m_next_byte = 0;     // to be created
    uint8_t m_next_rendered = 0; // to be rendered
    uint64_t m_pushed_reading = 0;
    uint32_t m_pushed_acts = 0;
};

Story *g_story = nullptr;

class Inside
{
public:
    explicit Inside(Unordered<uint32_t> &count) : m_count(count)
    {
        ++m_count;
    }
    ~Inside()
    {
        --m_count;
    }
    Inside(const Inside &) = delete;
    Inside &operator=(const Inside &) = delete;

private:
    Unordered<uint32_t> &m_count;
};

// ---- the plugins ----------------------------------------------------------------

void Story::watch(Actor &actor)
{
    actor.script->on_stop = [this, &actor, see = actor.script->on_stop] {
        see();
        EXPECT_EQ(0u, m_in_chain) << actor.name << " stopped during a chain call";
    };
}

void Story::watch_sink(Actor &sink)
{
    watch(sink);
    sink.script->take = [this, &sink, see = sink.script->take](NOXBuffer *buffer) {
        const Inside inside(m_in_chain);
        const int32_t answer = see(buffer);
        if (sink.plugin == m_sink)
            render(buffer);
        else
            OSA_ThreadSleep(m_chain_dice.below(m_longest_render_ms));
        return answer;
    };
}

void Story::build()
{
    m_source = &m_watch.source("s");
    Actor &filter = m_watch.filter("f");
    Actor &sink = m_watch.sink("k");
    Actor &ending = m_watch.source("ending", {.live = false, .interval_ms = longest_interval_ms});
    Actor &last = m_watch.sink("last");
    Actor &branch = m_watch.sink("branch");
    Actor &spare = m_watch.sink("spare");
    m_filter = filter.plugin;
    m_sink = sink.plugin;
    m_last = last.plugin;
    m_branch = &branch;
    m_spare = &spare;
    spare.is_apart = true;
    Watch::link(*m_source, filter);
    Watch::link(filter, sink);
    Watch::link(filter, branch);
    Watch::link(ending, last);
    for (Actor *rendering : {&sink, &branch, &spare})
        watch_sink(*rendering);
    watch(filter);
    m_source->script->create = [this](NOXBaseSrc *) { return create(); };
    filter.script->take = [this, see = filter.script->take](NOXBuffer *buffer) {
        const int32_t answer = see(buffer);
        return answer != 0 ? answer : this->filter(buffer);
    };
    ending.has_data = [&ending, last = m_dice.below(10)] { return ending.numbered < last; };
    m_source->base()->privatets = 1;
    m_source->base()->waitallsrc = 0;
    as_sink(m_sink)->sync = 1;
    NOXAllocator *allocator = nox_allocator_new(this);
    nox_allocator_set_allocate_func(allocator, lend);
    nox_plugin_set_allocator(m_sink, allocator);
}

// One of few output buffers, or null.
NOXBuffer *Story::lend(void *story, NOXBufferRequest *request)
{
    auto *self = static_cast<Story *>(story);
    if (self->m_lent == most_lent)
        return nullptr;
    NOXBuffer *buffer = nox_buffer_new(request->sizes[0]);
    nox_buffer_set_finalize_func(buffer, take_back, 0);
    ++self->m_lent;
    return buffer;
}

int32_t Story::take_back(NOXBuffer *)
{
    --g_story->m_lent;
    return 0;
}

// A byte stream that goes on from buffer to buffer. Before each there is room for the number
// of what the filter makes of it.
NOXBuffer *Story::create()
{
    m_watch.see_production(*m_source);
    OSA_ThreadSleep(m_chain_dice.between(1, longest_interval_ms));
    NOXBuffer *buffer = nox_buffer_new(buffer_size);
    auto *bytes = bytes_of(buffer);
    for (uint32_t i = 0; i < buffer_size; ++i)
        bytes[i] = m_next_byte++;
    m_watch.sign(*m_source, buffer);
    nox_buffer_set_index(buffer, 2 * nox_buffer_get_index(buffer));
    nox_buffer_set_timestamp(buffer, nox_pipe_get_time(m_pipe) + m_ahead_ms);
    return buffer;
}

int32_t Story::filter(NOXBuffer *buffer)
{
    const Inside inside(m_in_chain);
    if (m_kind == kTakesTime)
        OSA_ThreadSleep(m_chain_dice.below(longest_filter_ms));
    if (m_kind == kCutsAnew)
        cut_anew(buffer);
    if (m_kind == kCopies)
        copy(buffer);
    m_pushed_acts = m_acts;
    m_pushed_reading = nox_pipe_get_time(m_pipe);
    return 0; // and the buffer itself is passed on
}

void Story::cut_anew(NOXBuffer *buffer)
{
    if (m_adapter == nullptr)
        m_adapter = nox_bufadpt_new("adapter", 4 * buffer_size);
    nox_buffer_set_mediatype(buffer, 0);
    ASSERT_EQ(0, nox_bufadpt_add(m_adapter, static_cast<NOXBuffer *>(nox_object_refer(buffer))));
    uint32_t available = 0;
    NOXBuffer *oldest = nullptr;
    uint8_t *bytes = nox_bufadpt_get_data(m_adapter, &available, &oldest);
    const uint32_t size = m_chain_dice.between(1, 2 * buffer_size);
    if (available < size && available < 3 * buffer_size)
        return;
    NOXBuffer *own = nox_buffer_new(size);
    std::memcpy(bytes_of(own), bytes, size);
    nox_buffer_copy_metadata(oldest, own);
    ASSERT_EQ(0, nox_bufadpt_release_data(m_adapter, size));
    push_own(own, buffer);
}

void Story::copy(NOXBuffer *buffer)
{
    NOXBufferRequest request{1, 0, {buffer_size}};
    NOXBuffer *own = nox_plugin_get_outbuffer(m_filter, &request);
    ASSERT_NE(nullptr, own) << "from the heap when the sink has none";
    std::memcpy(bytes_of(own), bytes_of(buffer), buffer_size);
    nox_buffer_copy_metadata(buffer, own);
    push_own(own, buffer);
}

void Story::push_own(NOXBuffer *own, NOXBuffer *buffer)
{
    nox_buffer_set_mediatype(own, made_by_filter);
    nox_buffer_set_private(own, m_source);
    nox_buffer_set_index(own, nox_buffer_get_index(buffer) - 1);
    nox_buffer_set_timestamp(own, nox_buffer_get_timestamp(buffer));
    m_pushed_acts = m_acts;
    m_pushed_reading = nox_pipe_get_time(m_pipe);
    EXPECT_EQ(0, nox_plugin_push_buffer(m_filter, own));
    nox_object_delete(own);
}

void Story::render(NOXBuffer *buffer)
{
    check_time(buffer);
    const bool own = nox_buffer_get_mediatype(buffer) == made_by_filter;
    if (own == (m_kind == kCutsAnew || m_kind == kCopies))
        check_bytes(buffer);
    show(buffer);
}

void Story::check_bytes(NOXBuffer *buffer)
{
    const auto *bytes = bytes_of(buffer);
    for (uint32_t i = 0; i < nox_buffer_get_datasize(buffer); ++i)
        ASSERT_EQ(m_next_rendered++, bytes[i]) << "bytes got lost";
}

// Neither before its time nor after it, unless the application had its hand in.
void Story::check_time(NOXBuffer *buffer)
{
    const uint64_t reading = nox_pipe_get_time(m_pipe);
    const uint64_t timestamp = nox_buffer_get_timestamp(buffer);
    if (m_meddles || m_pushed_acts % 2 != 0 || m_pushed_acts != m_acts)
        return;
    EXPECT_GE(reading + 1, timestamp);
    EXPECT_LE(reading, std::max(timestamp, m_pushed_reading));
}

// As a display does: until the next ones come.
void Story::show(NOXBuffer *buffer)
{
    m_shown.push_back(static_cast<NOXBuffer *>(nox_object_refer(buffer)));
    while (m_shown.size() > m_most_shown) {
        nox_object_delete(m_shown.front());
        m_shown.pop_front();
    }
}

void Story::forget_shown()
{
    for (; !m_shown.empty(); m_shown.pop_front())
        nox_object_delete(m_shown.front());
}

void Story::drop_queued()
{
    nox_object_delete(m_adapter);
    m_adapter = nullptr;
    m_next_rendered = m_next_byte;
}

// ---- the application --------------------------------------------------------------

void Story::change_state(int32_t state)
{
    const int32_t previous = nox_pipe_get_state(m_pipe);
    const uint64_t begin = SIM_Tick();
    EXPECT_EQ(0, m_watch.to(state));
    const uint64_t longest =
        longest_interval_ms + longest_filter_ms + 2 * (m_ahead_ms + m_longest_render_ms) + 20;
    const uint64_t other = state == NOX_STATE_NULL ? ended_source_ms : 0; // stopped afterwards
    EXPECT_LE(SIM_Tick() - begin, longest + other) << "longer than a whole chain call";
    m_parked = state == NOX_STATE_PAUSE && (previous == NOX_STATE_PLAY || m_parked);
    if (state == NOX_STATE_NULL || m_parked)
        expect_standstill();
    if (state == NOX_STATE_NULL || (m_parked && m_dice.chance(30)))
        drop_queued();
    if (state == NOX_STATE_NULL)
        forget_shown();
}

void Story::expect_standstill()
{
    EXPECT_EQ(0u, m_in_chain);
    const uint32_t taken = script("f").taken;
    const uint32_t taken_by_last = script("last").taken;
    OSA_ThreadSleep(m_dice.below(100));
    EXPECT_EQ(taken, script("f").taken);
    if (nox_pipe_get_state(m_pipe) == NOX_STATE_NULL) {
        EXPECT_EQ(taken_by_last, script("last").taken);
    }
}

void Story::meddle_with_clock()
{
    static constexpr float rates[] = {0.0f, 0.5f, 1.0f, 2.0f};
    switch (m_dice.below(3)) {
    case 0:
        EXPECT_EQ(0, nox_pipe_set_clockrate(m_pipe, m_dice.one_of(rates)));
        break;
    case 1:
        m_watch.note_clock_moved();
        EXPECT_EQ(0, nox_timer_settime(nox_pipe_get_timer(m_pipe), m_dice.below(300)));
        break;
    default:
        EXPECT_EQ(0, nox_pipe_reset(m_pipe)); // which stops the clock
    }
}

void Story::send_event()
{
    NOXEvent event{nullptr, m_dice.chance(50) ? NOX_EVENT_EOS : own_event};
    EXPECT_EQ(0, nox_pipe_set_event(m_pipe, &event));
}

// While nothing flows: then the new sink has to be brought to where the old one was.
void Story::exchange_sinks()
{
    if (nox_pipe_get_state(m_pipe) != NOX_STATE_NULL && !m_parked)
        return;
    EXPECT_EQ(0, nox_plugin_linkexch(m_filter, m_branch->plugin, m_spare->plugin));
    if (m_parked) {
        EXPECT_EQ(0, nox_plugin_setstate(m_spare->plugin, NOX_STATE_PLAY));
        EXPECT_EQ(0, nox_plugin_setstate(m_spare->plugin, NOX_STATE_PAUSE));
        EXPECT_EQ(0, nox_plugin_setstate(m_branch->plugin, NOX_STATE_NULL));
    }
    std::swap(m_branch, m_spare);
    m_branch->is_apart = false;
    m_spare->is_apart = true;
}

void Story::act()
{
    OSA_ThreadSleep(m_dice.below(40));
    ++m_acts;
    const uint32_t what = m_dice.below(100);
    if (what < 60)
        change_state(static_cast<int32_t>(m_dice.below(4)));
    else if (what < 75)
        send_event();
    else if (what < 90)
        exchange_sinks();
    else if (m_meddles)
        meddle_with_clock();
    ++m_acts;
}

void Story::expect_to_play_on()
{
    ++m_acts;
    change_state(NOX_STATE_NULL);
    EXPECT_EQ(0, m_watch.to(NOX_STATE_PLAY));
    if (m_meddles) // at rate 0 the clock might stand at 0, for which the sink waits
        nox_pipe_set_clockrate(m_pipe, 1.0f);
    ++m_acts;
    const uint32_t taken = script("k").taken;
    EXPECT_TRUE(wait_until([taken] { return script("k").taken > taken + 3; }, 10'000));
}

void Story::finish()
{
    ++m_acts;
    change_state(NOX_STATE_NULL);
    const auto has_ended = [](NOXPlugin *sink) { return nox_basesink_get_eos(sink) != 0; };
    NOXPlugin *sinks[] = {m_sink, m_branch->plugin, m_spare->plugin, m_last};
    if (std::all_of(std::begin(sinks), std::end(sinks), has_ended)) {
        EXPECT_TRUE(wait_until([this] { return m_watch.messages(NOX_MSG_EOS) > 0; }, 100));
    }
    m_watch.expect_delivered();
    m_watch.remove();
    EXPECT_EQ(0u, m_lent);
}

void Story::play()
{
    g_story = this;
    build();
    if (m_dice.chance(80))
        change_state(NOX_STATE_PLAY);
    for (uint32_t acts = m_dice.between(3, 10); acts > 0; --acts)
        act();
    if (m_dice.chance(30))
        expect_to_play_on();
    finish();
}

void run_story(uint64_t run)
{
    Dice dice(run, 200);
    Stage stage(drawn_schedule(run, dice));
    Story(run).play();
}

} // namespace

Campaigns chain_stop_campaigns()
{
    return {{"schedules-chain-stop", "seeds", 20'000, 1'000, run_story}};
}

} // namespace soak
