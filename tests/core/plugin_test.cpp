// The plugin record: its state machine, its links, its output buffers, groups.

#include <gtest/gtest.h>

#include "tests/support/stage.h"

namespace
{

NOXPlugin *all_ones()
{
    return reinterpret_cast<NOXPlugin *>(~uintptr_t{0});
}

// Deletes what it is given, in order, after which the stage must end clean.
class Objects
{
public:
    explicit Objects(Stage &stage) : m_stage(stage) {}
    ~Objects()
    {
        for (void *object : m_objects)
            nox_object_delete(object);
        EXPECT_EQ("", m_stage.end());
    }
    Objects(const Objects &) = delete;
    Objects &operator=(const Objects &) = delete;
    NOXPlugin *keep(NOXPlugin *plugin)
    {
        m_objects.push_back(plugin);
        return plugin;
    }

private:
    Stage &m_stage;
    std::vector<void *> m_objects;
};

struct Transition {
    int32_t from;
    int32_t to;
    bool starts;
    bool stops;
    bool signals;
};

constexpr int32_t kNull = NOX_STATE_NULL;
constexpr int32_t kReady = NOX_STATE_READY;
constexpr int32_t kPause = NOX_STATE_PAUSE;
constexpr int32_t kPlay = NOX_STATE_PLAY;

constexpr Transition kTransitions[] = {
    {kNull, kReady, false, false, false},  {kNull, kPause, false, false, false},
    {kNull, kPlay, true, false, false},    {kReady, kNull, false, true, false},
    {kReady, kPlay, true, false, false},   {kPause, kNull, false, true, true},
    {kPause, kReady, false, false, false}, {kPause, kPlay, false, false, true},
    {kPlay, kNull, false, true, false},    {kPlay, kReady, false, false, false},
    {kPlay, kPause, false, false, false},
};

} // namespace

TEST(PluginState, EachTransitionStartsStopsAndSignalsAsItMust)
{
    for (const Transition &transition : kTransitions) {
        SCOPED_TRACE(std::to_string(transition.from) + " to " + std::to_string(transition.to));
        Stage stage;
        NOXPlugin *sink = new_sink("k");
        sink->state = transition.from;
        log_enabled = true;
        EXPECT_EQ(0, nox_plugin_setstate(sink, transition.to));
        EXPECT_EQ(transition.to, nox_plugin_get_state(sink));
        EXPECT_EQ(transition.starts ? 1u : 0u, script("k").started);
        EXPECT_EQ(transition.stops ? 1u : 0u, script("k").stopped);
        EXPECT_EQ(transition.signals, OSA_EventWait(sink->state_event, 0) == 0);
        EXPECT_EQ(std::string("k to ") + nox_plugin_state_str(transition.to), take_log().at(0));
        nox_object_delete(sink);
        EXPECT_EQ("", stage.end());
    }
}

TEST(PluginState, SameStateIsANoOpAndAFailingHookDoesNotStopAChange)
{
    Stage stage;
    NOXPlugin *sink = new_sink("k");
    log_enabled = true;
    EXPECT_EQ(0, nox_plugin_setstate(sink, NOX_STATE_NULL));
    EXPECT_TRUE(take_log().empty());
    EXPECT_EQ(1u, SIM_TraceCount("name(k) plg already state(0)\n", 3));

    script("k").setstate_result = 7;
    EXPECT_EQ(7, nox_plugin_setstate(sink, NOX_STATE_PAUSE)) << "the hook's result";
    EXPECT_EQ(7, nox_plugin_setstate(sink, NOX_STATE_PLAY)) << "woken: the hook's result";
    EXPECT_EQ(0, nox_plugin_setstate(sink, NOX_STATE_NULL)) << "stop's result instead";
    EXPECT_EQ(0, nox_plugin_setstate(sink, NOX_STATE_PLAY)) << "start's result instead";
    EXPECT_EQ(1u, script("k").started);
    EXPECT_EQ(-1, nox_plugin_setstate(nullptr, NOX_STATE_PLAY));
    EXPECT_STREQ("??", nox_plugin_state_str(7));
    nox_object_delete(sink);
    EXPECT_EQ("", stage.end());
}

TEST(PluginState, StopWaitsBoundedlyForAChainCall)
{
    Stage stage;
    NOXPlugin *sink = new_sink("k");
    sink->busy = 1;
    const uint64_t before = SIM_Tick();
    EXPECT_EQ(0, nox_plugin_stop(sink));
    EXPECT_EQ(300u, SIM_Tick() - before);
    EXPECT_EQ(1u, script("k").stopped);
    nox_object_delete(sink);
    EXPECT_EQ("", stage.end());
}

TEST(PluginSlots, AMissingSlotAndANullPluginAnswerAsDocumented)
{
    Stage stage;
    NOXPlugin *plugin = new_filter("f");
    NOXStructure *format = nox_structure_new("format");
    plugin->start_func = plugin->stop_func = nullptr;
    plugin->setformat_func = plugin->getformat_func = nullptr;
    plugin->event_func = nullptr;
    NOXEvent event{nullptr, NOX_EVENT_RESET};
    EXPECT_EQ(0, nox_plugin_start(plugin));
    EXPECT_EQ(1, plugin->started);
    EXPECT_EQ(1u, SIM_TraceCount("plugin name(f) start function is not implement\n", 2));
    EXPECT_EQ(0, nox_plugin_stop(plugin));
    EXPECT_EQ(1u, SIM_TraceCount("plugin name(f) stop function is not implement\n", 1));
    EXPECT_EQ(-1, nox_plugin_setformat(plugin, format));
    EXPECT_EQ(-1, nox_plugin_getformat(plugin, format));
    EXPECT_EQ(0, nox_plugin_setevent(plugin, &event));
    EXPECT_EQ(-1, nox_plugin_error_post(plugin, 1, "no bus")) << "told, not crashed";

    EXPECT_EQ(-1, nox_plugin_init(nullptr));
    EXPECT_EQ(-1, nox_plugin_start(nullptr));
    EXPECT_EQ(-1, nox_plugin_stop(nullptr));
    EXPECT_EQ(-1, nox_plugin_setformat(plugin, nullptr));
    EXPECT_EQ(-1, nox_plugin_setevent(nullptr, &event));
    EXPECT_EQ(-1, nox_plugin_set_bus(plugin, nullptr));
    EXPECT_EQ(-1, nox_plugin_set_timer(plugin, nullptr));
    EXPECT_EQ(-1, nox_plugin_finalize(nullptr));
    EXPECT_EQ(nullptr, nox_plugin_get_pipeline(nullptr));
    EXPECT_EQ(nullptr, nox_plugin_get_pipeline(plugin));
    nox_plugin_delete(plugin);
    EXPECT_EQ(1u, nox_object_get_refcount(plugin));
    nox_object_delete(format);
    nox_object_delete(plugin);
    EXPECT_EQ("", stage.end());
}

TEST(PluginLinks, BranchesKeepTheirOrderAndTheirPositions)
{
    Stage stage;
    Objects objects(stage);
    NOXPlugin *a = objects.keep(new_source("a"));
    NOXPlugin *b = objects.keep(new_sink("b"));
    NOXPlugin *c = objects.keep(new_sink("c"));
    NOXPlugin *d = objects.keep(new_sink("d"));
    NOXPlugin *e = objects.keep(new_sink("e"));
    uint32_t count = 77;
    EXPECT_EQ(nullptr, nox_plugin_get_next(a, 0, &count));
    EXPECT_EQ(77u, count) << "without branches the count is untouched";

    EXPECT_EQ(0, nox_plugin_link(a, b));
    EXPECT_EQ(-1, nox_plugin_linkexch(a, e, d)) << "no branch list";
    EXPECT_EQ(1u, SIM_TraceCount("invalid next list. use plugin_link\n", 1));
    EXPECT_EQ(0, nox_plugin_link(a, c));
    EXPECT_EQ(0, nox_plugin_link(a, d));
    EXPECT_EQ(b, nox_plugin_get_next(a, 0, &count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(d, nox_plugin_get_next(a, 2, nullptr));
    EXPECT_EQ(nullptr, nox_plugin_get_next(a, 3, nullptr));
    EXPECT_EQ(nullptr, nox_plugin_get_next(a, -1, nullptr));

    EXPECT_EQ(0, nox_plugin_linkexch(a, c, e));
    EXPECT_EQ(e, nox_plugin_get_next(a, 1, nullptr));
    EXPECT_EQ(nullptr, e->prev);
    EXPECT_EQ(a, c->prev);
    EXPECT_EQ(-1, nox_plugin_linkexch(a, c, d));

    EXPECT_EQ(-1, nox_plugin_link(a, nullptr));
    EXPECT_EQ(1u, SIM_TraceCount("a) next(0:null)\n", 1));
    EXPECT_EQ(all_ones(), nox_plugin_get_next(nullptr, 0, nullptr));
    nox_plugin_reset(a);
    EXPECT_EQ(nullptr, a->next);
    EXPECT_EQ(nullptr, a->nextlist);
}

TEST(PluginLinks, LinkManyReplacesTheFirstBranchAndLeavesAHookItsOwnLink)
{
    Stage stage;
    Objects objects(stage);
    NOXPlugin *a = objects.keep(new_source("a"));
    NOXPlugin *b = objects.keep(new_filter("b"));
    NOXPlugin *c = objects.keep(new_sink("c"));
    EXPECT_EQ(0, nox_plugin_link_many(a, b, c, nullptr));
    EXPECT_EQ(c, b->next);
    EXPECT_EQ(0, nox_plugin_link_many(a, c, nullptr));
    EXPECT_EQ(c, a->next);
    EXPECT_EQ(nullptr, a->nextlist);

    b->next = nullptr;
    b->link_func = [](NOXPlugin *, NOXPlugin *) -> int32_t { return 9; };
    EXPECT_EQ(9, nox_plugin_link_many(a, b, c, nullptr));
    EXPECT_EQ(nullptr, b->next);
    EXPECT_EQ(b, c->prev);
    EXPECT_EQ(9, nox_plugin_link(b, c)) << "linked whatever the hook answers";
    EXPECT_EQ(c, b->next);
}

TEST(PluginLinks, QueriesTellSourcesSinksAndDeadEnds)
{
    Stage stage;
    Objects objects(stage);
    NOXPlugin *source = objects.keep(new_source("s"));
    NOXPlugin *filter = objects.keep(new_filter("f"));
    NOXPlugin *sink = objects.keep(new_sink("k"));
    EXPECT_EQ(1, nox_plugin_islink(sink));
    EXPECT_EQ(0, nox_plugin_islink(filter));
    nox_plugin_link(filter, sink);
    EXPECT_EQ(nullptr, nox_plugin_get_source(sink)) << "the head is a filter";
    EXPECT_EQ(1u, SIM_TraceCount("abnormal case. plg(", 1));
    nox_plugin_link(source, filter);
    EXPECT_EQ(source, nox_plugin_get_source(sink));
    EXPECT_EQ(source, nox_plugin_get_source(source));
    EXPECT_EQ(all_ones(), nox_plugin_get_source(nullptr));
}

namespace
{

NOXAllocator *offer_none(NOXPlugin *)
{
    return nullptr;
}

NOXBuffer *allocate_marked(void *owner, NOXBufferRequest *request)
{
    if (request->reserved == 1)
        return nullptr; // cannot deliver
    NOXBuffer *buffer = nox_buffer_new(0);
    nox_buffer_set_private(buffer, owner);
    return buffer;
}

NOXAllocator *give_allocator(NOXPlugin *plugin)
{
    NOXAllocator *allocator = nox_allocator_new(plugin);
    nox_allocator_set_allocate_func(allocator, allocate_marked);
    EXPECT_EQ(0, nox_plugin_set_allocator(plugin, allocator));
    return allocator;
}

// Who made the buffer that `plugin` gets; null: the heap.
void *maker_of_outbuffer(NOXPlugin *plugin, NOXBufferRequest request)
{
    NOXBuffer *buffer = nox_plugin_get_outbuffer(plugin, &request);
    void *maker = nox_buffer_get_private(buffer);
    nox_object_delete(buffer);
    return maker;
}

} // namespace

TEST(OutputBuffers, ComeFromTheFirstDownstreamPluginThatAnswers)
{
    Stage stage;
    Objects objects(stage);
    NOXPlugin *source = objects.keep(new_source("s"));
    NOXPlugin *filter = objects.keep(new_filter("f"));
    NOXPlugin *sink = objects.keep(new_sink("k"));
    nox_plugin_link_many(source, filter, sink, nullptr);
    filter->getallocator_func = nullptr;
    NOXAllocator *allocator = give_allocator(sink);
    EXPECT_EQ(allocator, nox_plugin_get_next_allocator(source));
    EXPECT_EQ(sink, maker_of_outbuffer(source, {1, 0, {10}}));
    EXPECT_EQ(sink, maker_of_outbuffer(source, {1, 0, {10}}));
    EXPECT_EQ(1u, SIM_TraceCount("of next plg(", 3)) << "chosen once";
    EXPECT_EQ(nullptr, maker_of_outbuffer(source, {1, 1, {10}})) << "none delivered: the heap";

    // A filter that answers "none" hides the sink; the choice then is the source's own.
    nox_plugin_reset(source);
    nox_plugin_link(source, filter);
    filter->getallocator_func = offer_none;
    EXPECT_EQ(nullptr, maker_of_outbuffer(source, {1, 0, {10}}));
    give_allocator(source);
    NOXBufferRequest request{1, 0, {10}};
    NOXBuffer *own = nox_plugin_get_outbuffer_self(source, &request);
    EXPECT_EQ(source, nox_buffer_get_private(own));
    nox_object_delete(own);
    EXPECT_EQ(source, maker_of_outbuffer(source, {1, 0, {10}})) << "the last choice stays";

    NOXAllocator *second = nox_allocator_new(sink);
    EXPECT_EQ(-1, nox_plugin_set_allocator(sink, second));
    nox_object_delete(second);
}

TEST(OutputBuffers, FromTheHeapHoldWhatWasAskedForAndNoMore)
{
    Stage stage;
    NOXPlugin *source = new_source("s");
    NOXBufferRequest request{2, 0, {100, 200}};
    NOXBuffer *buffer = nox_plugin_get_outbuffer(source, &request);
    ASSERT_NE(nullptr, buffer);
    EXPECT_EQ(2, nox_buffer_get_memcnt(buffer));
    EXPECT_EQ(200u, nox_memory_get_datasize(nox_buffer_get_memory(buffer, 1)));
    EXPECT_EQ(300u, nox_buffer_get_datasize(buffer));
    nox_object_delete(buffer);
    NOXBufferRequest too_many{4, 0, {1, 1, 1}};
    EXPECT_EQ(nullptr, nox_plugin_get_outbuffer(source, &too_many));
    EXPECT_EQ(0, nox_plugin_flush_outbuffer(source, nullptr));
    nox_object_delete(source);
    EXPECT_EQ("", stage.end());
}

TEST(PluginGroups, AllAttendOnlyWhileEveryMemberDoes)
{
    Stage stage;
    Objects objects(stage);
    NOXPluginGroup *group = nox_plugin_group_new();
    EXPECT_EQ(1, nox_plugin_group_is_all_attended(group)) << "an empty group";
    NOXPlugin *members[] = {objects.keep(new_source("a")), objects.keep(new_source("b")),
                            objects.keep(new_source("c"))};
    for (NOXPlugin *member : members)
        EXPECT_EQ(0, nox_plugin_group_add(group, member));
    nox_plugin_group_attend(group, members[0], 1);
    nox_plugin_group_attend(group, members[1], 1);
    EXPECT_EQ(0, nox_plugin_group_is_all_attended(group));
    nox_plugin_group_attend(group, members[2], -1);
    EXPECT_EQ(0, nox_plugin_group_is_all_attended(group));
    nox_plugin_group_attend(group, members[2], 1);
    EXPECT_EQ(1, nox_plugin_group_is_all_attended(group));

    EXPECT_EQ(members[2], nox_plugin_group_get_member(group, 2));
    EXPECT_EQ(nullptr, nox_plugin_group_get_member(group, 3));
    EXPECT_EQ(group, nox_plugin_group_get(members[1]));
    nox_plugin_group_add(group, members[0]);
    nox_plugin_group_attend(group, members[0], 1);
    EXPECT_EQ(0, nox_plugin_group_is_all_attended(group)) << "only the first record attends";

    NOXPlugin *stranger = objects.keep(new_source("d"));
    EXPECT_EQ(-1, nox_plugin_group_attend(group, stranger, 1));
    EXPECT_EQ(-1, nox_plugin_group_add(nullptr, stranger));
    EXPECT_EQ(-1, nox_plugin_group_add(group, nullptr));
    EXPECT_EQ(4u, nox_plugin_group_members(group));
    EXPECT_EQ(0u, nox_plugin_group_members(nullptr));
    EXPECT_EQ(0, nox_plugin_group_is_all_attended(nullptr));
    EXPECT_EQ(0, nox_plugin_group_delete(group));
    EXPECT_EQ(0, nox_plugin_group_delete(nullptr));

    NOXPluginGroup *with_gap = nox_plugin_group_new();
    OSA_ListAddTail(with_gap, OSA_List_Node_new());
    EXPECT_EQ(0, nox_plugin_group_add(with_gap, stranger));
    EXPECT_EQ(0, nox_plugin_group_attend(with_gap, stranger, 1));
    EXPECT_EQ(0, nox_plugin_group_is_all_attended(with_gap)) << "the empty node does not";
    EXPECT_EQ(0, nox_plugin_group_delete(with_gap));
}
