// Elements that misbehave: one chain has such an element, and beside it in the same pipe
// plays a sound one. That must play on, the pipe must end up stopped and deleted, what is
// wrong must be told, and nothing be left alive but what the element itself keeps.

#include <memory>
#include <utility>

#include "soak/campaigns.h"
#include "soak/dice.h"
#include "tests/core/on_stage.h"

namespace soak
{

namespace
{

constexpr uint64_t runs = 100;

// bad -> f -> k is the chain that misbehaves; sound -> heard plays beside it.
struct Bed {
    explicit Bed(uint64_t run) : dice(run)
    {
        script("bad").interval_ms = dice.between(1, 20);
        script("sound").interval_ms = dice.between(20, 50);
        for (NOXPlugin *plugin : {source, sound})
            reinterpret_cast<NOXBaseSrc *>(plugin)->waitallsrc = 0;
        const std::vector<NOXPlugin *> bad = {source, filter, sink}, good = {sound, heard};
        pipe = dice.chance(50) ? new_pipe({bad, good}) : new_pipe({good, bad});
        inbox.attach(pipe);
    }

    void play(int32_t result = 0)
    {
        EXPECT_EQ(result, nox_pipe_set_state(pipe, NOX_STATE_PLAY));
    }

    static void expect_sound()
    {
        const uint32_t taken = script("heard").taken;
        EXPECT_TRUE(wait_until([=] { return script("heard").taken > taken + 2; }, 500));
    }

    // Stopped and deleted; the ways to come there take turns.
    void end()
    {
        if (dice.chance(30))
            nox_pipe_set_state(pipe, NOX_STATE_PAUSE);
        if (dice.chance(80)) {
            EXPECT_EQ(0, nox_pipe_set_state(pipe, NOX_STATE_NULL));
        }
        nox_object_delete(pipe);
        for (const char *name : {"bad", "f", "k", "sound", "heard"})
            EXPECT_EQ(1u, script(name).finalized) << name;
    }

    Dice dice;
    NOXPlugin *source = new_source("bad"), *filter = new_filter("f"), *sink = new_sink("k");
    NOXPlugin *sound = new_source("sound"), *heard = new_sink("heard");
    NOXPipe *pipe = nullptr;
    Inbox inbox;
};

template <void (*story)(Bed &)>
void on_bed(uint64_t run)
{
    Stage stage({.seed = run});
    Bed bed(run);
    story(bed);
}

NOXBuffer *next_buffer()
{
    OSA_ThreadSleep(5);
    return nox_buffer_new(100);
}

// ---- a call that does not return --------------------------------------------------

// Lets go after 35 s, when the run is to end.
class Trap
{
public:
    static constexpr uint32_t held_ms = 35'000;

    explicit Trap(uint32_t nth) : m_left(nth) {}
    ~Trap()
    {
        m_releaser.reset();
        OSA_EventDestroy(m_release);
    }
    Trap(const Trap &) = delete;
    Trap &operator=(const Trap &) = delete;

    void pass()
    {
        if (m_left == 0 || --m_left > 0)
            return;
        m_caught = true;
        OSA_EventWait(m_release, OSA_WAIT_FOREVER);
    }
    bool has_caught() const
    {
        return m_caught;
    }
    void release_later()
    {
        m_releaser = std::make_unique<Worker>([this] {
            OSA_ThreadSleep(held_ms);
            OSA_EventSend(m_release);
        });
    }

private:
    OSA_Event *m_release = OSA_EventCreate(0);
    uint32_t m_left;
    std::atomic<bool> m_caught{false};
    std::unique_ptr<Worker> m_releaser;
};

OSA_Event *g_answered = nullptr;

int32_t note_answer(NOXPipe *, int32_t, int32_t result)
{
    EXPECT_EQ(0, result);
    OSA_EventSend(g_answered);
    return 0;
}

// The application's call that meets it; what it does not wait for plays on meanwhile.
void stop_somehow(Bed &bed)
{
    const uint64_t begin = SIM_Tick();
    switch (bed.dice.below(3)) {
    case 0:
        EXPECT_EQ(0, nox_pipe_set_state(bed.pipe, NOX_STATE_NULL));
        break;
    case 1:
        g_answered = OSA_EventCreate(0);
        EXPECT_EQ(0, nox_pipe_set_state_async(bed.pipe, NOX_STATE_NULL, note_answer));
        EXPECT_EQ(begin, SIM_Tick());
        OSA_EventWait(g_answered, OSA_WAIT_FOREVER);
        OSA_EventDestroy(g_answered);
        break;
    default:
        break; // the deletion has to
    }
    nox_object_delete(bed.pipe);
    EXPECT_GE(SIM_Tick() - begin + 1, Trap::held_ms);
    EXPECT_LE(SIM_Tick() - begin, Trap::held_ms + 500u);
}

void expect_to_be_caught(Bed &bed, const Trap &trap)
{
    bed.play();
    EXPECT_TRUE(wait_until([&] { return trap.has_caught(); }, 1000));
    Bed::expect_sound();
    SIM_TraceClear();
}

void catch_thread(Bed &bed, Trap &trap)
{
    expect_to_be_caught(bed, trap);
    trap.release_later();
    stop_somehow(bed);
    for (const char *seconds : {"1", "11", "21", "31"})
        EXPECT_EQ(1u, SIM_TraceCount("thread \"bad\" does not end: waited " + std::string(seconds) +
                                         " s, waiting on\n",
                                     OSA_TRACE_ERROR))
            << seconds;
}

void catch_create(Bed &bed)
{
    Trap trap(bed.dice.between(1, 4));
    script("bad").create = [&](NOXBaseSrc *) {
        trap.pass();
        return next_buffer();
    };
    catch_thread(bed, trap);
}

void catch_filter(Bed &bed)
{
    Trap trap(bed.dice.between(1, 4));
    script("f").take = [&](NOXBuffer *) { return trap.pass(), 0; };
    catch_thread(bed, trap);
}

void catch_sink(Bed &bed)
{
    Trap trap(bed.dice.between(1, 4));
    script("k").take = [&](NOXBuffer *) { return trap.pass(), 0; };
    catch_thread(bed, trap);
}

// ---- buffers ------------------------------------------------------------------------

// With a reference for each return it is allowed, and everybody sees the one buffer.
void return_one_buffer(Bed &bed)
{
    NOXBuffer *kept = nullptr;
    script("bad").create = [&](NOXBaseSrc *) {
        NOXBuffer *buffer = next_buffer();
        if (kept != nullptr)
            nox_object_delete(std::exchange(buffer, kept));
        kept = buffer;
        return static_cast<NOXBuffer *>(nox_object_refer(kept));
    };
    std::vector<NOXBuffer *> queued;
    script("k").take = [&](NOXBuffer *buffer) {
        queued.push_back(static_cast<NOXBuffer *>(nox_object_refer(buffer)));
        return 0;
    };
    bed.play();
    EXPECT_TRUE(wait_until([&] { return script("k").taken > 5; }, 1000));
    bed.end();
    for (NOXBuffer *buffer : queued) {
        EXPECT_EQ(kept, buffer);
        nox_object_delete(buffer);
    }
    EXPECT_EQ(1u, nox_object_get_refcount(kept));
    nox_object_delete(kept);
}

// Without, the record that comes the second time is one that has been released.
void return_released_buffer(Bed &bed)
{
    static NOXBuffer released;
    released = {}; // as a pool keeps it: no holders
    const uint32_t nth = bed.dice.between(1, 5);
    const bool live = bed.dice.chance(70);
    uint32_t returned = 0;
    reinterpret_cast<NOXBaseSrc *>(bed.source)->islive = live;
    reinterpret_cast<NOXBaseSrc *>(bed.source)->errhandle = NOX_ERRHANDLE_DONT_CARE;
    script("bad").create = [&](NOXBaseSrc *) {
        NOXBuffer *buffer = next_buffer();
        if (++returned == nth)
            nox_object_delete(std::exchange(buffer, &released));
        return buffer;
    };
    script("k").take = [&](NOXBuffer *buffer) {
        EXPECT_NE(&released, buffer);
        return 0;
    };
    bed.play();
    EXPECT_TRUE(wait_until([&] { return script("k").taken > nth + 3; }, 1000));
    EXPECT_EQ(1u, SIM_TraceCount("create function returned a released buffer", OSA_TRACE_ERROR));
    Bed::expect_sound();
    bed.end();
}

void fail_in_chain(Bed &bed)
{
    const bool in_filter = bed.dice.chance(50);
    const bool live = bed.dice.chance(50);
    const uint32_t nth = bed.dice.between(1, 6);
    const int32_t failure = bed.dice.chance(50) ? -5 : 5;
    bool fails = true;
    reinterpret_cast<NOXBaseSrc *>(bed.source)->islive = live;
    script(in_filter ? "f" : "k").take = [&, taken = 0u](NOXBuffer *) mutable {
        return fails && ++taken == nth ? failure : 0;
    };
    bed.play();
    const int32_t code = live ? NOX_MSG_PUSH_ERROR : NOX_MSG_EOS;
    EXPECT_TRUE(wait_until([&] { return bed.inbox.count(code) > 0; }, 1000));
    EXPECT_EQ(1u, SIM_TraceCount("cannot push to [f] ret(" + std::to_string(failure) + ")",
                                 OSA_TRACE_ERROR));
    const uint32_t taken = script("f").taken;
    Bed::expect_sound();
    EXPECT_EQ(taken, script("f").taken) << "it goes on after a refusal";
    EXPECT_EQ(1u, bed.inbox.count(code));
    EXPECT_EQ(0, nox_pipe_set_state(bed.pipe, NOX_STATE_NULL));
    fails = false;
    bed.play();
    EXPECT_TRUE(wait_until([=] { return script("f").taken > taken + 2; }, 1000));
    bed.end();
}

// Until there is no more memory; all that is alive at the end are its buffers.
void keep_buffers(Bed &bed)
{
    std::vector<NOXBuffer *> kept;
    reinterpret_cast<NOXBaseSrc *>(bed.source)->errhandle = NOX_ERRHANDLE_DONT_CARE;
    reinterpret_cast<NOXBaseSrc *>(bed.sound)->errhandle = NOX_ERRHANDLE_DONT_CARE;
    script("k").take = [&](NOXBuffer *buffer) {
        kept.push_back(static_cast<NOXBuffer *>(nox_object_refer(buffer)));
        return 0;
    };
    bed.play();
    EXPECT_TRUE(wait_until([&] { return script("k").taken > 10; }, 1000));
    if (bed.dice.chance(60)) {
        SIM_FailFrom(SIM_FallibleCount() + 1);
        OSA_ThreadSleep(bed.dice.between(50, 500));
        if (bed.dice.chance(50)) {
            SIM_FailNone();
            Bed::expect_sound();
        }
    }
    bed.end();
    SIM_FailNone();
    EXPECT_EQ(2 * kept.size(), alive().pool_blocks) << SIM_AliveText();
    for (NOXBuffer *buffer : kept) {
        EXPECT_EQ(1u, nox_object_get_refcount(buffer));
        nox_object_delete(buffer);
    }
}

// ---- links ----------------------------------------------------------------------------

// All of which end, and say so when they cannot do their work.
void walk_everywhere(Bed &bed, const std::vector<NOXPlugin *> &plugins)
{
    OSA_Free(nox_pipe_print(bed.pipe), 0);
    EXPECT_EQ(0, nox_pipe_dump(bed.pipe, "graph.dot"));
    NOXEvent event{nullptr, 100};
    nox_pipe_set_event(bed.pipe, &event);
    nox_pipe_debug_unused_plugin(bed.pipe);
    for (NOXPlugin *plugin : plugins) {
        nox_plugin_get_source(plugin);
        EXPECT_EQ(nullptr, nox_plugin_get_next_allocator(plugin));
    }
    EXPECT_EQ(-1, nox_pipe_linked_plugins_set_state(bed.pipe, bed.source, NOX_STATE_READY));
}

void link_circle(Bed &bed, NOXPlugin *other)
{
    switch (bed.dice.below(4)) {
    case 0: // along the chain
        EXPECT_EQ(0, nox_plugin_linkexch(bed.filter, bed.sink, other));
        EXPECT_EQ(0, nox_plugin_link(other, bed.filter));
        EXPECT_EQ(-1, nox_pipe_del_linked_plugin(bed.pipe, bed.source));
        break;
    case 1: // by a branch
        EXPECT_EQ(0, nox_plugin_link(bed.filter, other));
        EXPECT_EQ(0, nox_plugin_link(other, bed.filter));
        break;
    case 2: // to itself
        EXPECT_EQ(0, nox_plugin_link(bed.filter, bed.filter));
        break;
    default: // back to the source
        EXPECT_EQ(0, nox_plugin_link(bed.filter, bed.source));
    }
}

void link_in_circle(Bed &bed)
{
    NOXPlugin *other = new_filter("f2");
    nox_pipe_add_plugin(bed.pipe, other);
    if (bed.dice.chance(50)) {
        bed.play();
        OSA_ThreadSleep(bed.dice.below(50));
        EXPECT_EQ(0, nox_pipe_set_state(bed.pipe, NOX_STATE_PAUSE));
    }
    link_circle(bed, other);
    walk_everywhere(bed, {bed.source, bed.filter, bed.sink, other});
    bed.play(-1);
    EXPECT_GT(SIM_TraceCount("links run in a circle at (", OSA_TRACE_ERROR), 0u);
    EXPECT_EQ(0, nox_pipe_set_state(bed.pipe, NOX_STATE_NULL));
    for (NOXPlugin *plugin : {bed.source, bed.filter, bed.sink, bed.heard, other})
        EXPECT_EQ(NOX_STATE_NULL, nox_plugin_get_state(plugin));
    if (bed.dice.chance(50)) { // and it can be mended
        for (NOXPlugin *plugin : {bed.source, bed.filter, bed.sink, other})
            nox_plugin_reset(plugin);
        nox_plugin_link_many(bed.source, bed.filter, other, bed.sink, nullptr);
        bed.play();
        const uint32_t taken = script("k").taken;
        EXPECT_TRUE(wait_until([=] { return script("k").taken > taken + 2; }, 1000));
        Bed::expect_sound();
    }
    bed.end();
}

void leave_unlinked(Bed &bed)
{
    nox_plugin_reset(bed.source);
    nox_plugin_reset(bed.filter);
    EXPECT_EQ(0, nox_plugin_link(bed.filter, bed.sink));
    bed.play(-1);
    EXPECT_EQ(1u, traced("bad", OSA_TRACE_ERROR, "not linked"));
    EXPECT_EQ(1u, traced("noxpipe", OSA_TRACE_ERROR, "nox_plugin_setstate failed (bad)"));
    EXPECT_EQ(0, nox_pipe_set_state(bed.pipe, NOX_STATE_NULL));
    if (bed.dice.chance(50)) { // and it can be taken out
        EXPECT_EQ(0, nox_pipe_del_plugin(bed.pipe, bed.source));
        nox_object_delete(bed.source);
        bed.play();
        Bed::expect_sound();
    }
    bed.end();
}

// ---- the message handler ----------------------------------------------------------------

// Several messages for each at first, then one for each, for ever.
int32_t post_back(NOXBus *bus, void *data, const char *name, int32_t code, const char *text)
{
    auto *handled = static_cast<std::atomic<uint32_t> *>(data);
    const uint32_t count = ++*handled;
    EXPECT_EQ(0, nox_bus_post_error(bus, name, code, text));
    for (uint32_t more = count < 10 ? 5 : 0; more > 0; --more)
        EXPECT_EQ(0, nox_bus_post_error(bus, nullptr, 1000, "more"));
    OSA_ThreadSleep(count % 2);
    return 0;
}

void post_to_own_bus(Bed &bed)
{
    std::atomic<uint32_t> handled{0};
    nox_pipe_set_bus_handler(bed.pipe, post_back, &handled);
    bed.play();
    Bed::expect_sound();
    EXPECT_TRUE(wait_until([&] { return handled > 20; }, 1000));
    bed.end();
    const uint32_t count = handled;
    OSA_ThreadSleep(100);
    EXPECT_EQ(count, handled);
}

template <void (*story)(Bed &)>
Campaign campaign(const char *name)
{
    return {std::string("misbehaviour-") + name, "seeds", runs, runs, on_bed<story>};
}

} // namespace

Campaigns misbehaviour_campaigns()
{
    return {
        campaign<catch_create>("create-never-returns"),
        campaign<catch_filter>("filter-never-returns"),
        campaign<catch_sink>("sink-never-returns"),
        campaign<return_one_buffer>("same-buffer-twice"),
        campaign<return_released_buffer>("released-buffer-twice"),
        campaign<fail_in_chain>("chain-fails"),
        campaign<keep_buffers>("buffers-kept"),
        campaign<link_in_circle>("links-in-circle"),
        campaign<leave_unlinked>("source-unlinked"),
        campaign<post_to_own_bus>("handler-posts-back"),
    };
}

} // namespace soak
