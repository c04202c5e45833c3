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
        const char *traced; // part of the one line at level 1; null: none is due
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
        EXPECT_EQ(due, SIM_TraceCount("", 1)) << text << SIM_TraceText();
        EXPECT_EQ(due, SIM_TraceCount(text, 1)) << text << SIM_TraceText();
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

} // namespace
