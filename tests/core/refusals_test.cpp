// What an application or a plugin gets wrong is refused, told in one line, and changes
// nothing; with the traces switched off it is refused all the same.

#include "tests/core/on_stage.h"

namespace
{

const auto all_ones = reinterpret_cast<NOXPlugin *>(~uintptr_t{0});

class Refusals : public OnePipe
{
protected:
    using Refused = std::function<bool()>;
    struct Case {
        const char *traced; // part of one line at level 1; null: none is due
        Refused refused;
    };

    void expect_all(const std::vector<Case> &cases)
    {
        for (int32_t threshold : {4, 0}) {
            OSA_TraceSetLevel(threshold);
            for (const Case &refusal : cases)
                expect(refusal, threshold > 0);
        }
        OSA_TraceSetLevel(4);
    }

    NOXPlugin *source = keep(new_source("s"));
    NOXPlugin *filter = keep(new_filter("f"));
    NOXPlugin *sink = keep(new_sink("k"));
    NOXEvent event{nullptr, NOX_EVENT_RESET};
    NOXStructure *format = keep(nox_structure_new("format"));

private:
    void expect(const Case &refusal, bool traces)
    {
        SIM_TraceClear();
        const OSA_Alive before = alive();
        const char *text = refusal.traced != nullptr ? refusal.traced : "";
        EXPECT_TRUE(refusal.refused()) << text;
        const uint32_t due = refusal.traced != nullptr && traces ? 1 : 0;
        EXPECT_EQ(due, SIM_TraceCount(text, 1)) << text << SIM_TraceText();
        if (!traces) {
            EXPECT_EQ("", SIM_TraceText()) << text;
        }
        EXPECT_EQ(before.blocks, alive().blocks) << text;
    }
};

TEST_F(Refusals, ANullPluginOrPartner)
{
    const char *no_plugin = "Invalid arguments plg(0)", *invalid = "Invalid plg(0)";
    const char *no_pair = "Invalid plg(", *null_plugin = "invalid plugin (NULL)";
    expect_all({
        {no_pair, [&] { return nox_plugin_link(nullptr, sink) == -1; }},
        {no_pair, [&] { return nox_plugin_link(source, nullptr) == -1; }},
        {no_pair, [&] { return nox_plugin_linkexch(nullptr, sink, sink) == -1; }},
        {no_pair, [&] { return nox_plugin_linkexch(source, sink, nullptr) == -1; }},
        {no_pair, [&] { return nox_plugin_link_many(nullptr, sink, nullptr) == -1; }},
        {no_pair, [&] { return nox_plugin_link_many(source, nullptr) == -1; }},
        {no_pair, [] { return nox_plugin_islink(nullptr) == 0; }},
        {no_pair, [] { return nox_plugin_issink(nullptr) == 0; }},
        {invalid, [] { return nox_plugin_get_next(nullptr, 0, nullptr) == all_ones; }},
        {invalid, [] { return nox_plugin_get_source(nullptr) == all_ones; }},
        {invalid, [&] { return nox_plugin_setevent(nullptr, &event) == -1; }},
        {invalid, [] { return nox_plugin_setstate(nullptr, NOX_STATE_PLAY) == -1; }},
        {no_plugin, [] { return nox_plugin_init(nullptr) == -1; }},
        {no_plugin, [] { return nox_basesink_init(nullptr) == -1; }},
        {no_plugin, [] { return nox_plugin_start(nullptr) == -1; }},
        {no_plugin, [] { return nox_plugin_stop(nullptr) == -1; }},
        {no_plugin, [] { return nox_plugin_finalize(nullptr) == -1; }},
        {no_plugin, [&] { return nox_plugin_setformat(nullptr, format) == -1; }},
        {no_plugin, [&] { return nox_plugin_getformat(nullptr, format) == -1; }},
        {"format(0)", [&] { return nox_plugin_setformat(filter, nullptr) == -1; }},
        {"format(0)", [&] { return nox_plugin_getformat(filter, nullptr) == -1; }},
        {no_plugin, [&] { return nox_plugin_set_bus(nullptr, pipe->busref) == -1; }},
        {"bus(0)", [&] { return nox_plugin_set_bus(filter, nullptr) == -1; }},
        {no_plugin, [&] { return nox_plugin_set_timer(nullptr, pipe->clock) == -1; }},
        {"timer(0)", [&] { return nox_plugin_set_timer(filter, nullptr) == -1; }},
        {no_plugin, [] { return nox_plugin_set_allocatorfunc(nullptr, nullptr) == -1; }},
        {no_plugin, [] { return nox_plugin_set_allocator(nullptr, nullptr) == -1; }},
        {no_plugin,
         [] { return static_cast<void *>(nox_plugin_default_getallocator(nullptr)) == all_ones; }},
        {no_plugin, [] { return nox_plugin_get_next_allocator(nullptr) == nullptr; }},
        {nullptr, [] { return nox_plugin_get_pipeline(nullptr) == nullptr; }},
        {nullptr, [] { return nox_plugin_group_get(nullptr) == nullptr; }},
        {nullptr, [&] { return nox_plugin_group_attend(nullptr, source, 1) == -1; }},
        {nullptr, [] { return nox_plugin_group_get_member(nullptr, 0) == nullptr; }},
        {null_plugin, [&] { return nox_pipe_add_plugin(pipe, nullptr) == -1; }},
        {null_plugin, [&] { return nox_pipe_del_plugin(pipe, nullptr) == -1; }},
        {null_plugin, [&] { return nox_pipe_del_linked_plugin(pipe, nullptr) == -1; }},
        {null_plugin,
         [&] { return nox_pipe_linked_plugins_set_state(pipe, nullptr, NOX_STATE_PLAY) == -1; }},
        {nullptr, [] { return nox_timer_finalize(nullptr) == -1; }},
        {nullptr, [] { return nox_plugin_lookup(nullptr) == nullptr; }},
    });
}

TEST_F(Refusals, APluginThatIsNotReadyForIt)
{
    filter->setformat_func = filter->getformat_func = nullptr;
    NOXPlugin *loose = keep(new_sink("loose"));
    loose->issink = 0;
    NOXBuffer *buffer = keep(nox_buffer_new(1));
    expect_all({
        {"setformat function is not implement",
         [&] { return nox_plugin_setformat(filter, format) == -1; }},
        {"getformat function is not implement",
         [&] { return nox_plugin_getformat(filter, format) == -1; }},
        {"has no bus for code(1)", [&] { return nox_plugin_error_post(filter, 1, "x") == -1; }},
        {"Not linked plg(", [&] { return nox_plugin_push_buffer(source, buffer) == -1; }},
        {"Not linked plg(", [&] { return nox_plugin_push_buffer_idx(source, 0, buffer) == -1; }},
        {"Not linked plg(", [&] { return nox_plugin_push_prepare(source, nullptr) == -1; }},
        {"is not linked", [&] { return nox_plugin_islink(loose) == 0; }},
        {"abnormal case. plg(", [&] { return nox_plugin_get_source(loose) == nullptr; }},
        {"invalid next list. use plugin_link",
         [&] { return nox_plugin_linkexch(source, filter, sink) == -1; }},
        {nullptr, [&] { return nox_plugin_group_get(source) == nullptr; }},
        {nullptr, [&] { return nox_plugin_set_allocatorfunc(loose, nullptr) == 0; }},
    });
}

TEST_F(Refusals, AnEmptyPlaceInAListOfBranchesIsToldAndPassedOver)
{
    NOXPlugin *other = keep(new_sink("k2"));
    nox_plugin_link(filter, sink);
    nox_plugin_link(filter, other);
    OSA_ListAddHead(filter->nextlist, OSA_List_Node_new()); // as place 1
    sink->state = other->state = NOX_STATE_PLAY;
    NOXBuffer *buffer = keep(nox_buffer_new(1));
    const char *no_branch = "invalid next plg(";
    expect_all({
        {no_branch, [&] { return nox_plugin_push_buffer(filter, buffer) == 0; }},
        {no_branch, [&] { return nox_plugin_push_event(filter, &event) == 0; }},
    });
    EXPECT_EQ(2u, script("k2").taken);
    EXPECT_EQ(-1, nox_plugin_push_buffer_idx(filter, 1, buffer));
    EXPECT_EQ(1u, SIM_TraceCount(no_branch, 1));
    sink->state = other->state = NOX_STATE_NULL;
}

TEST_F(Refusals, APluginWhoseFunctionFails)
{
    auto *base_filter = reinterpret_cast<NOXBaseFilter *>(filter);
    auto *base_source = reinterpret_cast<NOXBaseSrc *>(source);
    script("f").start_result = script("s").start_result = 5;
    base_filter->stop_func = [](NOXBaseFilter *) -> int32_t { return 5; };
    base_source->stop_func = [](NOXBaseSrc *) -> int32_t { return 6; };
    base_source->prestop_func = [](NOXBaseSrc *) -> int32_t { return 5; };
    reinterpret_cast<NOXBaseSink *>(sink)->render_func = nullptr;
    NOXPlugin *mute = keep(new_filter("m")), *refusing = keep(new_sink("r"));
    mute->chain_func = nullptr;
    script("r").event_result = 3;
    script("r").take = [](NOXBuffer *) { return 4; };
    for (NOXPlugin *branch : {keep(new_sink("first")), mute, refusing})
        nox_plugin_link(filter, branch);
    filter->next->state = NOX_STATE_PLAY;
    NOXBuffer *buffer = keep(nox_buffer_new(1));
    const char *not_pushed = "nox_plugin_push_event fail.";
    expect_all({
        {"plugin start failed", [&] { return nox_plugin_start(filter) == -1; }},
        {"pfilter(f) stop error(5)", [&] { return nox_plugin_stop(filter) == 5; }},
        {"plugin start failed", [&] { return nox_plugin_start(source) == -1; }},
        {"src(s) prestop error(5)", [&] { return nox_plugin_stop(source) == 6; }},
        {"src(s) stop error(6)", [&] { return nox_plugin_stop(source) == 6; }},
        {"must be declaration render", [&] { return nox_plugin_start(sink) == -1; }},
        {"must be declaration render", [&] { return sink->chain_func(sink, buffer) == -1; }},
        {"m) has no chain function", [&] { return nox_plugin_push_buffer(filter, buffer) == -1; }},
        {"push error to plg(", [&] { return nox_plugin_push_buffer_idx(filter, 2, buffer) == 4; }},
        {"event(", [&] { return nox_plugin_push_event(filter, &event) == 3; }},
        {not_pushed, [&] { return nox_plugin_push_eos(filter) == 3; }},
    });
    filter->next->state = NOX_STATE_NULL;
    base_source->prestop_func = nullptr;
}

TEST_F(Refusals, AValueThatDoesNotFit)
{
    NOXBuffer *buffer = keep(nox_buffer_new(0)), *large = keep(nox_buffer_new(0));
    NOXMemory *stranger = keep(nox_memory_new(1));
    nox_buffer_append_memory(large, nox_memory_new(100));
    NOXBufAdpt *adapter = keep(nox_bufadpt_new("adapter", 10));
    NOXAllocator *allocator = keep(nox_allocator_new(nullptr));
    void *unlockable = keep(nox_object_new(300, "object", 0));
    nox_structure_putvar1(NOX_TYPE_INT32, format, "number", 0, 1);
    nox_plugin_set_allocator(sink, nox_allocator_new(sink));
    NOXBufferRequest too_many{4, 0, {1, 1, 1}};
    const std::string long_name(256, 'x');
    const float number = 1;
    expect_all({
        {"invalid memory index(3)", [&] { return nox_buffer_delete_memory_idx(buffer, 3) == -1; }},
        {"invalid memory (", [&] { return nox_buffer_delete_memory_mem(buffer, stranger) == -1; }},
        {"Invalid buffer(0)", [&] { return nox_bufadpt_add(adapter, nullptr) == -1; }},
        {"staging areas", [] { return !nox_bufadpt_new("huge", 0x80000000u); }}, // twice that
        {"no room for (100) bytes", [&] { return nox_bufadpt_add(adapter, large) == -1; }},
        {"invalid mutex handle", [&] { return nox_object_lock(unlockable) == -1; }},
        {"request for 4 blocks", [&] { return !nox_plugin_get_outbuffer(source, &too_many); }},
        {"already has allocator", [&] { return nox_plugin_set_allocator(sink, allocator) == -1; }},
        {"number",
         [&] { return nox_structure_putvar1(NOX_TYPE_CHAR, format, "number", 0, 1) == -1; }},
        {"number", [&] { return nox_structure_putvar_float(format, "number", 0, &number) == -1; }},
        {"longer than (255) characters",
         [&] { return nox_structure_putvar_float(format, long_name.c_str(), 0, &number) == -1; }},
        {nullptr, [&] { return nox_structure_putvar1(99, format, "other", 0, 1) == -1; }},
        {"can not find plugin (nowhere)", [] { return !nox_plugin_new("nowhere", "x"); }},
        {nullptr, [&] { return !nox_plugin_get_next(source, 1, nullptr); }},
    });
}

TEST_F(Refusals, APipeOfWhatCannotRun)
{
    for (NOXPlugin *plugin : {source, filter, sink})
        nox_pipe_add_plugin(pipe, static_cast<NOXPlugin *>(nox_object_refer(plugin)));
    nox_plugin_link(source, filter);
    nox_plugin_link(filter, source);
    const auto set_chain = [&](int32_t state) {
        return nox_pipe_linked_plugins_set_state(pipe, source, state);
    };
    const char *circle = "links run in a circle at (s)";
    pipe->plugin.state = NOX_STATE_READY; // of which NULL is another one
    expect_all({
        {circle, [&] { return set_chain(NOX_STATE_PLAY) == -1; }},
        {circle, [&] { return set_chain(NOX_STATE_NULL) == -1; }},
        {circle, [&] { return nox_pipe_start(pipe) == -1; }},
        {"warning state is same", [&] { return set_chain(NOX_STATE_READY) == 0; }},
        {"Found unused plugin (k)", [&] { return nox_pipe_debug_unused_plugin(pipe) >= 0; }},
    });
    EXPECT_EQ(0, source->started);
    for (NOXPlugin *plugin : {source, filter})
        nox_plugin_reset(plugin);
    nox_plugin_link(source, sink);
    script("s").event_result = -1;
    expect_all({
        {"nox_pipe_set_event fail.", [&] { return nox_pipe_reset(pipe) == -1; }},
        {"nox_plugin_setstate failed (s)", [&] { return nox_pipe_set_event(pipe, &event) == -1; }},
        {"can not find source",
         [&] { return nox_pipe_linked_plugins_set_state(pipe, filter, NOX_STATE_PLAY) == -1; }},
        {"can not find source", [&] { return nox_pipe_del_linked_plugin(pipe, filter) == -1; }},
    });
    pipe->plugin.state = NOX_STATE_NULL;
}

} // namespace
