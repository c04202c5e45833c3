// The scenarios of the library alone, with the probe plugins.

#include <gtest/gtest.h>

#include <cstdlib>

#include "soak/faults.h"

namespace soak
{

namespace
{

constexpr uint32_t kFrames = 3; // that a source of a played pipe creates

// ---- start-up ---------------------------------------------------------------------

// A start that failed is tried once more, as an application may.
void use_the_registry(Attempt &attempt)
{
    if (!attempt.start_up() && !attempt.start_up())
        return;
    attempt.done(nox_init(Stage::kCachePath)); // is up already
    for (const char *type : {"probesrc", "probefilter", "probesink"})
        attempt.see(nox_plugin_lookup(type) != nullptr);
    for (const char *path : {"src.so", "filter.so", "sink.so"})
        std::free(attempt.made(nox_plugin_getname(path)));
    attempt.keep(nox_plugin_new("probefilter", "loose"));
    attempt.keep(nox_pipe_new("second"));
}

// ---- pipes ------------------------------------------------------------------------

struct Graph {
    NOXPlugin *s1, *s2, *filter, *tee, *k1, *k2, *k3;
};

// s1 -> f -> t -> k1, k2 and s2 -> k3, each source for a few frames.
bool build(Attempt &attempt, Graph &graph)
{
    if (!attempt.start_up())
        return false;
    graph = {attempt.add("probesrc", "s1"),   attempt.add("probesrc", "s2"),
             attempt.add("probefilter", "f"), attempt.add("probefilter", "t"),
             attempt.add("probesink", "k1"),  attempt.add("probesink", "k2"),
             attempt.add("probesink", "k3")};
    return attempt.chain({graph.s1, graph.filter, graph.tee, graph.k1}) &&
           attempt.chain({graph.tee, graph.k2}) && attempt.chain({graph.s2, graph.k3}) &&
           attempt.set(graph.s1, "maxframes", kFrames) &&
           attempt.set(graph.s2, "maxframes", kFrames);
}

void play_to_the_end(Attempt &attempt)
{
    Graph graph{};
    if (!build(attempt, graph) || !attempt.to(NOX_STATE_PLAY))
        return;
    attempt.see_end();
    for (const char *sink : {"k1", "k2", "k3"})
        attempt.see(script(sink).taken > 0);
    if (!attempt.to(NOX_STATE_PAUSE))
        return;
    NOXEvent event{nullptr, 0x100};
    attempt.done(nox_pipe_set_event(attempt.pipe, &event));
    attempt.done(nox_pipe_set_clockrate(attempt.pipe, 2.0F));
    attempt.done(nox_pipe_reset(attempt.pipe));
}

// Whatever failed in the first round, a change to NULL is the way out of it, and the next
// round plays to the end. A pipe that was built with a failure may lack something for good:
// nobody asks what a plugin's init answered.
void play_again_after_faults(Attempt &attempt)
{
    Graph graph{};
    if (!build(attempt, graph) || SIM_FailedCount() > 0)
        return;
    if (attempt.to(NOX_STATE_READY) && attempt.to(NOX_STATE_PLAY)) {
        attempt.see_soon([] { return script("k1").taken > 0; });
        attempt.to(NOX_STATE_PAUSE);
    }
    attempt.end_faults();
    EXPECT_EQ(0, nox_pipe_set_state(attempt.pipe, NOX_STATE_NULL));
    const uint32_t ends = attempt.inbox.count(NOX_MSG_EOS);
    const uint32_t taken = script("k2").taken;
    EXPECT_EQ(0, nox_pipe_set_state(attempt.pipe, NOX_STATE_PLAY));
    const auto has_ended = [&] { return attempt.inbox.count(NOX_MSG_EOS) > ends; };
    attempt.see_soon(has_ended);
    EXPECT_TRUE(has_ended());
    EXPECT_GT(script("k2").taken, taken);
}

// Members and links that change while the pipe stands.
void rebuild(Attempt &attempt)
{
    Graph graph{};
    if (!build(attempt, graph))
        return;
    NOXPlugin *k4 = attempt.add("probesink", "k4");
    if (k4 != nullptr && attempt.done(nox_plugin_linkexch(graph.tee, graph.k2, k4)) &&
        attempt.done(nox_pipe_del_plugin(attempt.pipe, graph.k2)))
        nox_object_delete(graph.k2);
    const auto change_chain = [&](int32_t state) {
        attempt.done(nox_pipe_linked_plugins_set_state(attempt.pipe, graph.k1, state));
    };
    change_chain(NOX_STATE_PLAY);
    attempt.see_soon([] { return script("s1").created > 0; });
    change_chain(NOX_STATE_READY);
    nox_pipe_set_option(attempt.pipe, NOX_PIPE_OPT_REVERSE_NULL);
    attempt.to(NOX_STATE_READY);
    attempt.to(NOX_STATE_NULL);
    if (attempt.done(nox_pipe_del_linked_plugin(attempt.pipe, graph.s2)))
        nox_object_delete(graph.k3);
}

std::atomic<uint32_t> g_answers;
std::atomic<uint32_t> g_refusals;

int32_t count_answer(NOXPipe *, int32_t, int32_t result)
{
    g_refusals += result != 0 ? 1 : 0;
    ++g_answers;
    return 0;
}

// Returns when the change is over, since no other may run beside it; a request that was
// queued is always answered.
bool change_asynchronously(Attempt &attempt, int32_t state)
{
    const uint32_t answers = g_answers;
    const uint32_t refusals = g_refusals;
    if (!attempt.done(nox_pipe_set_state_async(attempt.pipe, state, count_answer)))
        return false;
    const auto is_answered = [=] { return g_answers == answers + 1; };
    attempt.see_soon(is_answered);
    EXPECT_TRUE(is_answered()) << "a request was lost";
    return attempt.done(g_refusals == refusals ? 0 : -1);
}

void change_states_asynchronously(Attempt &attempt)
{
    Graph graph{};
    if (!build(attempt, graph))
        return;
    for (const int32_t state : {NOX_STATE_READY, NOX_STATE_PLAY, NOX_STATE_PAUSE, NOX_STATE_NULL})
        change_asynchronously(attempt, state);
}

// ---- deletion in PLAY ---------------------------------------------------------------

constexpr int32_t kDelete = 0x777; // a message of the application's own
std::atomic<bool> g_is_deleted;

int32_t delete_in_handler(NOXBus *, void *pipe, const char *, int32_t code, const char *)
{
    if (code == kDelete) {
        nox_object_delete(pipe);
        g_is_deleted = true;
    }
    return 0;
}

int32_t delete_in_callback(NOXPipe *pipe, int32_t, int32_t)
{
    nox_object_delete(pipe);
    g_is_deleted = true;
    return 0;
}

bool post_deletion(Attempt &attempt)
{
    nox_pipe_set_bus_handler(attempt.pipe, delete_in_handler, attempt.pipe);
    return attempt.done(
        nox_bus_post_error(attempt.pipe->plugin.bus, "application", kDelete, "delete"));
}

bool queue_deletion(Attempt &attempt)
{
    return attempt.done(
        nox_pipe_set_state_async(attempt.pipe, NOX_STATE_PAUSE, delete_in_callback));
}

// A deletion that cannot be asked for is done here.
void delete_everywhere(Attempt &attempt)
{
    if (!attempt.start_up())
        return;
    using Ask = bool (*)(Attempt &);
    for (const Ask ask : {Ask{post_deletion}, Ask{queue_deletion}, Ask{nullptr}}) {
        if (attempt.pipe == nullptr && !attempt.make_pipe())
            continue;
        if (attempt.chain({attempt.add("probesrc", "s"), attempt.add("probesink", "k")}))
            attempt.to(NOX_STATE_PLAY);
        g_is_deleted = false;
        if (ask == nullptr || !ask(attempt)) {
            nox_object_delete(attempt.pipe);
        } else {
            attempt.see_soon([] { return g_is_deleted.load(); });
            EXPECT_TRUE(g_is_deleted) << "what was posted or queued was lost";
        }
        attempt.pipe = nullptr;
    }
}

// ---- a group that restarts --------------------------------------------------------

// Fails once, when it has created a few.
NOXBuffer *create_with_a_gap(NOXBaseSrc *)
{
    OSA_ThreadSleep(20);
    return script("s1").created++ == kFrames ? nullptr : nox_buffer_new(1);
}

// Fails when it is asked to restart, so that the whole group does.
NOXBuffer *create_until_asked(NOXBaseSrc *source)
{
    OSA_ThreadSleep(20);
    const bool goes_on = std::atomic_ref(source->restartreq).exchange(0) == 0;
    return goes_on ? nox_buffer_new(1) : nullptr;
}

void restart_together(Attempt &attempt)
{
    if (!attempt.start_up())
        return;
    script("s1").create = create_with_a_gap;
    script("s2").create = create_until_asked;
    script("s1").start_ms = script("s2").start_ms = 150; // longer than the look-out of 100 ms
    NOXPluginGroup *group = attempt.made(nox_plugin_group_new());
    attempt.at_end([group] { nox_plugin_group_delete(group); });
    for (const auto &[source, sink] : {std::pair{"s1", "k1"}, {"s2", "k2"}}) {
        NOXPlugin *member = attempt.add("probesrc", source);
        if (!attempt.chain({member, attempt.add("probesink", sink)}) ||
            !attempt.done(nox_plugin_group_add(group, member)) ||
            !attempt.set(member, "errhandle", NOX_ERRHANDLE_RESTART))
            return;
    }
    if (!attempt.to(NOX_STATE_PLAY))
        return;
    attempt.see_soon([] { return script("s1").created > 2 * kFrames; });
    attempt.see(script("s1").started == 2 && script("s2").started == 2);
}

// ---- printing ---------------------------------------------------------------------

void print_the_graph(Attempt &attempt)
{
    Graph graph{};
    if (!build(attempt, graph))
        return;
    attempt.add("probefilter", "loose");
    OSA_Free(attempt.made(nox_pipe_print(attempt.pipe)), 0);
    attempt.done(nox_pipe_dump(attempt.pipe, nullptr));
    attempt.done(nox_pipe_dump(attempt.pipe, "graph.dot"));
    attempt.see(SIM_FileContent("graph.dot").has_value());
    char text[NOX_PIPE_TEXT_SIZE] = "";
    pipe_print_plugin(graph.s1, text);
    pipe_print_pluginname(graph.s1, text);
    attempt.see(std::string(text).find("k2") != std::string::npos);
}

// ---- data -------------------------------------------------------------------------

// A buffer of as many blocks as there are sizes; null, with nothing kept, when one is missing.
NOXBuffer *make_buffer(Attempt &attempt, std::initializer_list<uint32_t> sizes)
{
    NOXBuffer *buffer = attempt.made(nox_buffer_new(0));
    for (const uint32_t size : sizes) {
        NOXMemory *memory = buffer != nullptr ? attempt.made(nox_memory_new(size)) : nullptr;
        if (memory == nullptr) {
            nox_object_delete(buffer);
            return nullptr;
        }
        nox_buffer_append_memory(buffer, memory); // takes over the block
    }
    return buffer;
}

void adapt_buffers(Attempt &attempt)
{
    if (!attempt.start_up())
        return;
    NOXBufAdpt *adapter = attempt.keep(nox_bufadpt_new("blocks", 100));
    if (adapter == nullptr)
        return;
    uint32_t added = 0;
    for (int round = 0; round < 3; ++round) {
        for (const auto &sizes : {std::initializer_list<uint32_t>{30, 20}, {}, {10, 5, 5}}) {
            NOXBuffer *buffer = make_buffer(attempt, sizes);
            const uint32_t before = adapter->avail;
            if (buffer == nullptr)
                continue;
            if (attempt.done(nox_bufadpt_add(adapter, buffer))) {
                added += adapter->avail - before;
            } else {
                EXPECT_EQ(before, adapter->avail) << "a refused buffer leaves nothing";
                nox_object_delete(buffer);
            }
        }
        added -= nox_bufadpt_release_data(adapter, added / 2) == 0 ? added / 2 : 0;
        EXPECT_EQ(added, adapter->avail);
    }
}

NOXBuffer *allocate_whole(void *, NOXBufferRequest *request)
{
    return nox_buffer_new(request->sizes[0]);
}

// What a plugin hands out buffers with, and its neighbours' questions for them.
void take_output_buffers(Attempt &attempt)
{
    if (!attempt.start_up())
        return;
    NOXPlugin *filter = attempt.add("probefilter", "f");
    NOXPlugin *sink = attempt.add("probesink", "k");
    NOXAllocator *allocator = attempt.made(nox_allocator_new(sink));
    if (allocator != nullptr)
        nox_allocator_set_allocate_func(allocator, allocate_whole);
    if (allocator != nullptr &&
        (sink == nullptr || !attempt.done(nox_plugin_set_allocator(sink, allocator))))
        nox_object_delete(allocator);
    if (!attempt.chain({filter, sink}))
        return;
    for (int round = 0; round < 2; ++round) { // downstream's, then without an allocator
        NOXBufferRequest request{1, 0, {100}};
        NOXBuffer *buffer = attempt.made(nox_plugin_get_outbuffer(filter, &request));
        if (buffer != nullptr)
            nox_object_delete(attempt.made(nox_buffer_dup(buffer)));
        nox_object_delete(buffer);
        request = {3, 0, {10, 0, 20}};
        nox_object_delete(attempt.made(nox_plugin_get_outbuffer_self(filter, &request)));
        nox_plugin_reset(filter);
    }
}

// The objects that stand alone: structures of every type, clocks, buses.
void use_single_objects(Attempt &attempt)
{
    if (!attempt.start_up())
        return;
    NOXStructure *structure = attempt.keep(nox_structure_new("all"));
    const char *text = "text, or eight bytes of any other type";
    for (int32_t type = 0; structure != nullptr && type < 12; ++type) {
        const std::string name = "of type " + std::to_string(type);
        for (int time = 0; time < 2; ++time) // enters it, overwrites it
            attempt.done(nox_structure_putvar[type](structure, name.c_str(), 8, &text));
    }
    if (structure != nullptr) {
        attempt.made(nox_structure_new_node(structure));
        attempt.done(nox_structure_putvar1(NOX_TYPE_FLOAT, structure, "float", 0, 0.5));
        attempt.done(nox_structure_del_var(structure, "float"));
    }
    attempt.keep(nox_timer_new("clock"));
    NOXBus *bus = attempt.keep(nox_bus_new("bus"));
    for (int post = 0; bus != nullptr && post < 2; ++post)
        attempt.done(nox_bus_post_error(bus, "poster", NOX_MSG_STARTED, "text"));
    NOXObject *object = attempt.keep(static_cast<NOXObject *>(nox_object_new(100, "own", 1)));
    if (object != nullptr)
        attempt.done(nox_object_set_name(object, "renamed"));
}

} // namespace

std::vector<Scenario> core_scenarios()
{
    return {{"startup", use_the_registry},
            {"pipe", play_to_the_end},
            // The clock traces its second start at level 1.
            {"recovery", play_again_after_faults, nullptr, true},
            {"rebuild", rebuild},
            {"async", change_states_asynchronously},
            // A thread that departs has a block in reserve.
            {"deletion", delete_everywhere, "new_block", true},
            {"restart", restart_together, nullptr, true},
            // A dump passes over a file that cannot be opened.
            {"graph", print_the_graph, "OSA_FileOpen"},
            {"adapter", adapt_buffers},
            {"outbuffer", take_output_buffers},
            {"objects", use_single_objects}};
}

} // namespace soak
