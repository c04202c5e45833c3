// Start-up, the plugin cache, and loading plugins through it.

#include "osa/host.h"
#include "tests/core/on_stage.h"

namespace
{

struct Uninitialised : OnStage {
    Uninitialised() : OnStage({}, false) {}
};
using Startup = Uninitialised;
using PluginCache = Uninitialised;
using PluginLoad = Uninitialised;

int32_t init_with(const std::string &content)
{
    SIM_FileAdd("cache", content);
    return nox_init("cache");
}

std::string path_of(const std::string &name)
{
    const char *path = nox_plugin_lookup(name.c_str());
    return path != nullptr ? path : "(none)";
}

TEST_F(PluginCache, NameEndsAtTheFirstAtAndPathAtTheLineEnd)
{
    const std::string name47(47, 'n'), path127(127, 'p');
    EXPECT_EQ(0, init_with("a@one.so\nat@dir@2/x@y.so\na@shadowed.so\n b @ blanks kept.so \n"
                           "crlf@c.so\r\n" +
                           name47 + "@" + path127 + "\nlast@end.so\r"));
    EXPECT_EQ("one.so", path_of("a"));
    EXPECT_EQ("dir@2/x@y.so", path_of("at"));
    EXPECT_EQ(" blanks kept.so ", path_of(" b "));
    EXPECT_EQ("c.so\r", path_of("crlf")); // one character is the line's end, no more
    EXPECT_EQ(path127, path_of(name47));
    EXPECT_EQ("end.so", path_of("last"));
    for (const char *missing : {"A", "b", "at@dir", "las"})
        EXPECT_EQ("(none)", path_of(missing));
    EXPECT_EQ(1u, traced("nox", 3, "loaded plugin count(7)"));
}

TEST_F(PluginCache, LinesOutsideTheFormatAreSkippedWithNumberAndText)
{
    const std::string bad[] = {
        "",
        "no separator",
        "@nameless.so",
        "pathless@",
        std::string(48, 'n') + "@x.so",
        "x@" + std::string(128, 'p'),
        "y@" + std::string(1000, 'p') + "@z", // past the line buffer
    };
    std::string content;
    for (const std::string &line : bad)
        content += line + "\n";
    EXPECT_EQ(0, init_with(content + "good@good.so"));
    EXPECT_EQ("good.so", path_of("good"));
    EXPECT_EQ(1u, traced("nox", 3, "loaded plugin count(1)"));
    EXPECT_EQ(std::size(bad), SIM_TraceCount("skipped", 1));
    for (size_t i = 0; i < std::size(bad); ++i) {
        const std::string head = "cache line " + std::to_string(i + 1) + " skipped: ";
        const std::string tail = "(" + bad[i].substr(0, 383) + ")\n";
        const auto &lines = SIM_Traces();
        EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(),
                                   [&](const SIM_TraceLine &line) {
                                       return line.text.starts_with(head) &&
                                              line.text.ends_with(tail);
                                   }))
            << bad[i];
    }
}

TEST_F(Startup, SecondInitPrintsTheBannersAgainAndReadsNothing)
{
    const std::string version = core_version_nox_string();
    const std::string number = " (" + std::to_string(core_version_nox()) + ")";
    const std::string build =
        " - Build (" + std::string(core_build_date()) + " - " + core_build_time() + ")";
    EXPECT_EQ(0, init_with(""));
    EXPECT_EQ(1u, traced("nox", 3, "loaded plugin count(0)"));
    EXPECT_EQ(0, init_with("late@late.so\n"));
    EXPECT_EQ("(none)", path_of("late"));
    EXPECT_EQ(1u, traced("nox", 2, "already init"));
    EXPECT_EQ(2u, traced("", 0, "\x1b[33m[OSA] " + version + number + "\x1b[0m"));
    EXPECT_EQ(2u, traced("", 0, "\x1b[33m[NOX] " + version + number + build + "\x1b[0m"));
}

TEST_F(Startup, PoolsAndRegistryLastFromInitToDeinit)
{
    const std::pair<uint32_t, const char *> pools[] = {{nox_buffer_get_size(), "NOXBuffer"},
                                                       {nox_memory_get_size(), "NOXMemory"},
                                                       {sizeof(OSA_ListNode), "OSAListNode"},
                                                       {OSA_QUEUE_NODE_SIZE, "OSAQueueNode"}};
    EXPECT_EQ(-1, nox_init("nowhere.cache"));
    EXPECT_EQ(1u, traced("nox", 1, "cache file open failed. (nowhere.cache)"));
    EXPECT_EQ("(none)", path_of("probesrc"));
    EXPECT_EQ(-1, nox_deinit());
    EXPECT_EQ(1u, traced("nox", 3, "can not deinit"));
    EXPECT_EQ(0, nox_init(Stage::kCachePath));
    for (const auto &[size, name] : pools)
        EXPECT_STREQ(name, OSA_SMemGetName(size));
    EXPECT_EQ(0, nox_deinit());
    for (const auto &[size, name] : pools)
        EXPECT_EQ(0, OSA_SMemIsReg(size)) << name;
    EXPECT_EQ("(none)", path_of("probesrc"));
}

NOXPluginDesc g_desc;

// The library "own.so", known as "key", described by `desc`.
void add_own_library(const NOXPluginDesc &desc, const char *symbol = "plugin_desc")
{
    g_desc = desc;
    const NOXPluginDescFunc describe = [](NOXPluginDesc *filled) { *filled = g_desc; };
    SIM_LibraryAdd("own.so", symbol, reinterpret_cast<void *>(describe));
    init_with("key@own.so\ngone@gone.so\n");
}

TEST(PluginLoadFailure, IsExplainedAndLeavesNothingLoaded)
{
    constexpr int32_t size = sizeof(NOXPlugin);
    const NOXPluginInitFunc init = [](NOXPlugin *) { return 0; };
    struct Case {
        const char *name;
        const char *symbol;
        int32_t size;
        NOXPluginInitFunc init;
        std::string trace;
    };
    const Case cases[] = {
        {"nobody", "plugin_desc", size, init, "can not find plugin (nobody)\n"},
        {"gone", "plugin_desc", size, init, "can not load library (gone.so)\n"},
        {"key", "other", size, init, "can not load function (plugin_desc) from (own.so)\n"},
        {"key", "plugin_desc", size - 1, init, "in (own.so)\n"},
        {"key", "plugin_desc", -1, init, "in (own.so)\n"},
        {"key", "plugin_desc", size, nullptr, "no init function in (own.so)\n"},
    };
    for (const Case &test : cases) {
        Stage stage({}, false);
        add_own_library({"own", "tests", test.size, test.init}, test.symbol);
        EXPECT_EQ(nullptr, nox_load_plugin(test.name, "instance"));
        EXPECT_EQ(1u, SIM_TraceCount(test.trace, 1)) << test.trace;
        EXPECT_EQ(0u, alive().libraries) << test.trace;
        EXPECT_EQ("", stage.end()) << test.trace;
    }
}

TEST_F(PluginLoad, InstanceKeepsItsKeyItsStateNullAndItsLibraryToTheEnd)
{
    const NOXPluginInitFunc init = [](NOXPlugin *plugin) {
        note(plugin->object.library == nullptr ? "init" : "init with library");
        plugin->state = NOX_STATE_PLAY;
        plugin->finalize_func = [](NOXPlugin *) {
            note("finalized with " + std::to_string(alive().libraries) + " loaded");
            return 0;
        };
        return -1; // not looked at
    };
    add_own_library({"inner name", "tests", sizeof(NOXPlugin) + 64, init});
    log_enabled = true;
    NOXPlugin *first = nox_plugin_new("key", "one"), *second = nox_plugin_new("key", "two");
    EXPECT_STREQ("key", first->plgname);
    EXPECT_STREQ("one", first->object.name);
    EXPECT_EQ(NOX_STATE_NULL, first->state);
    EXPECT_NE(nullptr, first->object.mutex);
    nox_object_delete(first);
    nox_object_delete(second);
    EXPECT_EQ((Log{"init", "init", "finalized with 2 loaded", "finalized with 1 loaded"}),
              take_log());
    EXPECT_EQ(0u, alive().libraries);
    char *name = nox_plugin_getname("own.so");
    EXPECT_STREQ("inner name", name);
    std::free(name);
    EXPECT_EQ(nullptr, nox_plugin_getname("gone.so"));
}

} // namespace
