// The plugin record: its state machine, its links, its output buffers, groups.

#include "tests/core/on_stage.h"

namespace
{

// A chain to be: "s" into "f" into "k".
class Plugins : public OnStage
{
protected:
    NOXPlugin *source = keep(new_source("s"));
    NOXPlugin *filter = keep(new_filter("f"));
    NOXPlugin *sink = keep(new_sink("k"));
};

using PluginState = Plugins;
using PluginSlots = Plugins;
using PluginLinks = Plugins;
using OutputBuffers = Plugins;
using PluginGroups = Plugins;

TEST_F(PluginState, EachTransitionStartsStopsAndSignalsAsItMust)
{
    constexpr int32_t kNull = NOX_STATE_NULL, kReady = NOX_STATE_READY, kPause = NOX_STATE_PAUSE,
                      kPlay = NOX_STATE_PLAY;
    const struct {
        int32_t from, to;
        const char *log;
        bool signals;
    } transitions[] = {
        {kNull, kReady, "k to READY ", false},        {kNull, kPause, "k to PAUSE ", false},
        {kNull, kPlay, "k to PLAY k start ", false},  {kReady, kNull, "k to NULL k stop ", false},
        {kReady, kPlay, "k to PLAY k start ", false}, {kPause, kNull, "k to NULL k stop ", true},
        {kPause, kReady, "k to READY ", false},       {kPause, kPlay, "k to PLAY ", true},
        {kPlay, kNull, "k to NULL k stop ", false},   {kPlay, kReady, "k to READY ", false},
        {kPlay, kPause, "k to PAUSE ", false},        {kPlay, kPlay, "", false},
    };
    log_enabled = true;
    for (const auto &[from, to, log, signals] : transitions) {
        SCOPED_TRACE(std::to_string(from) + " to " + std::to_string(to));
        sink->state = from;
        EXPECT_EQ(0, nox_plugin_setstate(sink, to));
        EXPECT_EQ(to, nox_plugin_get_state(sink));
        std::string seen;
        for (const std::string &line : take_log())
            seen += line + " ";
        EXPECT_EQ(log, seen);
        EXPECT_EQ(signals, OSA_EventWait(sink->state_event, 0) == 0);
    }
    EXPECT_EQ(1u, SIM_TraceCount("name(k) plg already state(3)\n", 3));
}

TEST_F(PluginState, AFailingHookDoesNotStopAChange)
{
    script("k").setstate_result = 7;
    EXPECT_EQ(7, nox_plugin_setstate(sink, NOX_STATE_PAUSE)) << "the hook's result";
    EXPECT_EQ(7, nox_plugin_setstate(sink, NOX_STATE_PLAY)) << "woken: the hook's result";
    EXPECT_EQ(0, nox_plugin_setstate(sink, NOX_STATE_NULL)) << "stop's result instead";
    EXPECT_EQ(0, nox_plugin_setstate(sink, NOX_STATE_PLAY)) << "start's result instead";
    EXPECT_EQ(1u, script("k").started);
    EXPECT_STREQ("??", nox_plugin_state_str(7));
}

TEST_F(PluginState, StopWaitsBoundedlyForAChainCall)
{
    sink->busy = 1;
    const uint64_t before = SIM_Tick();
    EXPECT_EQ(0, nox_plugin_stop(sink));
    EXPECT_EQ(300u, SIM_Tick() - before);
    EXPECT_EQ(1u, script("k").stopped);
}

TEST_F(PluginSlots, AMissingSlotAnswersAsDocumented)
{
    filter->start_func = filter->stop_func = nullptr;
    filter->event_func = nullptr;
    NOXEvent event{nullptr, NOX_EVENT_RESET};
    EXPECT_EQ(0, nox_plugin_start(filter));
    EXPECT_EQ(1, filter->started);
    EXPECT_EQ(1u, SIM_TraceCount("plugin name(f) start function is not implement\n", 2));
    EXPECT_EQ(0, nox_plugin_stop(filter));
    EXPECT_EQ(1u, SIM_TraceCount("plugin name(f) stop function is not implement\n", 1));
    EXPECT_EQ(0, nox_plugin_setevent(filter, &event));
    nox_plugin_delete(filter);
    EXPECT_EQ(1u, nox_object_get_refcount(filter));
    EXPECT_EQ(nullptr, nox_plugin_get_pipeline(filter));
    nox_plugin_set_parent(filter, source);
    EXPECT_EQ(source, nox_plugin_get_pipeline(filter)) << "without a bus its parent";
}

TEST_F(PluginLinks, BranchesKeepTheirOrderAndTheirPositions)
{
    NOXPlugin *c = keep(new_sink("c")), *d = keep(new_sink("d")), *e = keep(new_sink("e"));
    uint32_t count = 77;
    EXPECT_EQ(nullptr, nox_plugin_get_next(source, 0, &count));
    EXPECT_EQ(77u, count) << "without branches the count is untouched";

    EXPECT_EQ(0, nox_plugin_link(source, sink));
    EXPECT_EQ(-1, nox_plugin_linkexch(source, e, d)) << "no branch list";
    EXPECT_EQ(1u, SIM_TraceCount("invalid next list. use plugin_link\n", 1));
    EXPECT_EQ(0, nox_plugin_link(source, c));
    EXPECT_EQ(0, nox_plugin_link(source, d));
    EXPECT_EQ(sink, nox_plugin_get_next(source, 0, &count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(d, nox_plugin_get_next(source, 2, nullptr));
    for (int32_t nowhere : {3, -1})
        EXPECT_EQ(nullptr, nox_plugin_get_next(source, nowhere, nullptr));

    EXPECT_EQ(0, nox_plugin_linkexch(source, c, e));
    EXPECT_EQ(e, nox_plugin_get_next(source, 1, nullptr));
    EXPECT_EQ(nullptr, e->prev);
    EXPECT_EQ(source, c->prev);
    EXPECT_EQ(-1, nox_plugin_linkexch(source, c, d));
    source->link_func = [](NOXPlugin *, NOXPlugin *) -> int32_t { return 9; };
    EXPECT_EQ(0, nox_plugin_linkexch(source, sink, filter)) << "the hook's answer is not looked at";
    EXPECT_EQ(filter, nox_plugin_get_next(source, 0, nullptr));

    EXPECT_EQ(-1, nox_plugin_link(source, nullptr));
    EXPECT_EQ(1u, SIM_TraceCount("s) next(0:null)\n", 1));
    nox_plugin_reset(source);
    EXPECT_EQ(nullptr, source->next);
    EXPECT_EQ(nullptr, source->nextlist);
    nox_plugin_reset(c);
    EXPECT_EQ(nullptr, c->prev);
}

TEST_F(PluginLinks, LinkManyReplacesTheFirstBranchAndLeavesAHookItsOwnLink)
{
    EXPECT_EQ(0, nox_plugin_link_many(source, filter, sink, nullptr));
    EXPECT_EQ(sink, filter->next);
    EXPECT_EQ(0, nox_plugin_link_many(source, sink, nullptr));
    EXPECT_EQ(sink, source->next);
    EXPECT_EQ(nullptr, source->nextlist);

    filter->next = nullptr;
    filter->link_func = [](NOXPlugin *, NOXPlugin *) -> int32_t { return 9; };
    EXPECT_EQ(9, nox_plugin_link_many(source, filter, sink, nullptr));
    EXPECT_EQ(nullptr, filter->next);
    EXPECT_EQ(filter, sink->prev);
    EXPECT_EQ(9, nox_plugin_link(filter, sink)) << "linked whatever the hook answers";
    EXPECT_EQ(sink, filter->next);
}

TEST_F(PluginLinks, QueriesTellSourcesSinksAndDeadEnds)
{
    EXPECT_EQ(1, nox_plugin_islink(sink));
    EXPECT_EQ(0, nox_plugin_islink(filter));
    nox_plugin_link(filter, sink);
    EXPECT_EQ(nullptr, nox_plugin_get_source(sink)) << "the head is a filter";
    EXPECT_EQ(1u, SIM_TraceCount("abnormal case. plg(", 1));
    nox_plugin_link(source, filter);
    EXPECT_EQ(source, nox_plugin_get_source(sink));
    EXPECT_EQ(source, nox_plugin_get_source(source));
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
void *maker_of_outbuffer(NOXPlugin *plugin, uint32_t reserved = 0,
                         decltype(nox_plugin_get_outbuffer) *get = nox_plugin_get_outbuffer)
{
    NOXBufferRequest request{1, reserved, {10}};
    NOXBuffer *buffer = get(plugin, &request);
    void *maker = nox_buffer_get_private(buffer);
    nox_object_delete(buffer);
    return maker;
}

TEST_F(OutputBuffers, ComeFromTheFirstDownstreamPluginThatAnswers)
{
    nox_plugin_link_many(source, filter, sink, nullptr);
    filter->getallocator_func = nullptr;
    NOXAllocator *allocator = give_allocator(sink);
    EXPECT_EQ(allocator, nox_plugin_get_next_allocator(source));
    EXPECT_EQ(sink, maker_of_outbuffer(source));
    EXPECT_EQ(sink, maker_of_outbuffer(source));
    EXPECT_EQ(1u, SIM_TraceCount("of next plg(", 3)) << "chosen once";
    EXPECT_EQ(nullptr, maker_of_outbuffer(source, 1)) << "none delivered: the heap";

    // A filter that answers "none" hides the sink; the choice then is the source's own.
    nox_plugin_reset(source);
    nox_plugin_link(source, filter);
    filter->getallocator_func = [](NOXPlugin *) -> NOXAllocator * { return nullptr; };
    EXPECT_EQ(nullptr, maker_of_outbuffer(source));
    give_allocator(source);
    EXPECT_EQ(source, maker_of_outbuffer(source, 0, nox_plugin_get_outbuffer_self));
    EXPECT_EQ(source, maker_of_outbuffer(source)) << "the last choice stays";
    nox_plugin_reset(source);
    nox_plugin_link(source, filter);
    EXPECT_EQ(source, maker_of_outbuffer(source)) << "a new choice, and nobody offers one";
    EXPECT_EQ(-1, nox_plugin_set_allocator(sink, keep(nox_allocator_new(sink))));
}

TEST_F(OutputBuffers, FromTheHeapHoldWhatWasAskedForAndNoMore)
{
    NOXBufferRequest request{2, 0, {100, 200}};
    NOXBuffer *buffer = keep(nox_plugin_get_outbuffer(source, &request));
    ASSERT_NE(nullptr, buffer);
    EXPECT_EQ(2, nox_buffer_get_memcnt(buffer));
    EXPECT_EQ(200u, nox_memory_get_datasize(nox_buffer_get_memory(buffer, 1)));
    EXPECT_EQ(300u, nox_buffer_get_datasize(buffer));
    NOXBufferRequest too_many{4, 0, {1, 1, 1}};
    EXPECT_EQ(nullptr, nox_plugin_get_outbuffer(source, &too_many));
    EXPECT_EQ(0, nox_plugin_flush_outbuffer(source, nullptr));
}

TEST_F(PluginGroups, AllAttendOnlyWhileEveryMemberDoes)
{
    NOXPluginGroup *group = nox_plugin_group_new();
    EXPECT_EQ(1, nox_plugin_group_is_all_attended(group)) << "an empty group";
    NOXPlugin *members[] = {source, filter, sink};
    for (NOXPlugin *member : members)
        EXPECT_EQ(0, nox_plugin_group_add(group, member));
    const std::pair<int32_t, int32_t> steps[] = {{0, 1}, {1, 1}, {2, -1}, {2, 1}};
    for (const auto &[member, value] : steps) {
        EXPECT_EQ(0, nox_plugin_group_is_all_attended(group));
        nox_plugin_group_attend(group, members[member], value);
    }
    EXPECT_EQ(1, nox_plugin_group_is_all_attended(group));

    EXPECT_EQ(sink, nox_plugin_group_get_member(group, 2));
    EXPECT_EQ(nullptr, nox_plugin_group_get_member(group, 3));
    EXPECT_EQ(group, nox_plugin_group_get(filter));
    nox_plugin_group_add(group, source);
    nox_plugin_group_attend(group, source, 1);
    EXPECT_EQ(0, nox_plugin_group_is_all_attended(group)) << "only the first record attends";

    NOXPlugin *stranger = keep(new_source("d"));
    EXPECT_EQ(-1, nox_plugin_group_attend(group, stranger, 1));
    EXPECT_EQ(-1, nox_plugin_group_add(nullptr, stranger));
    EXPECT_EQ(-1, nox_plugin_group_add(group, nullptr));
    EXPECT_EQ(4u, nox_plugin_group_members(group));
    EXPECT_EQ(0u, nox_plugin_group_members(nullptr));
    EXPECT_EQ(0, nox_plugin_group_is_all_attended(nullptr));

    NOXPluginGroup *with_gap = nox_plugin_group_new();
    OSA_ListAddTail(with_gap, OSA_List_Node_new());
    EXPECT_EQ(0, nox_plugin_group_add(with_gap, stranger));
    EXPECT_EQ(0, nox_plugin_group_attend(with_gap, stranger, 1));
    EXPECT_EQ(0, nox_plugin_group_is_all_attended(with_gap)) << "the empty node does not";
    for (NOXPluginGroup *deleted : {group, with_gap, static_cast<NOXPluginGroup *>(nullptr)})
        EXPECT_EQ(0, nox_plugin_group_delete(deleted));
}

} // namespace
