// Plugin libraries that are damaged, foreign, or lie about themselves. Each gets one named
// error, or does what is documented; none is left loaded, and nothing of it is left alive.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "soak/campaigns.h"
#include "soak/dice.h"
#include "soak/real_library.h"
#include "soak/storm_pipe.h"
#include "tests/e2e/process.h"
#include "tools/nox-scan/probe.h"

namespace fs = std::filesystem;

namespace soak
{

namespace
{

const std::string kLibraries = BAD_PLUGIN_FOLDER "/";
const std::string kBadPlugin = kLibraries + "bad.so";
constexpr uint32_t kBare = sizeof(NOXPlugin);

using Lines = std::vector<std::string>;

// The lines at level 1 while it exists.
class Told
{
public:
    Told()
    {
        OSA_TraceSetLevel(OSA_TRACE_ERROR);
        OSA_TraceSetReceiver(keep, this);
    }
    ~Told()
    {
        OSA_TraceSetReceiver(nullptr, nullptr);
        OSA_TraceSetLevel(0);
    }
    Told(const Told &) = delete;
    Told &operator=(const Told &) = delete;

    Lines lines() const
    {
        const std::lock_guard lock(m_mutex);
        return m_lines;
    }

private:
    static void keep(void *self, const OSA_TraceRecord *record)
    {
        auto *told = static_cast<Told *>(self);
        std::string text = record->text;
        text.erase(text.find_last_not_of('\n') + 1);
        const std::lock_guard lock(told->m_mutex);
        told->m_lines.push_back(text);
    }

    mutable std::mutex m_mutex;
    Lines m_lines;
};

bool is_mapped(const std::string &path)
{
    const std::string name = fs::path(path).filename();
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        if (line.size() > name.size() && line.ends_with("/" + name))
            return true;
    return false;
}

bool is_loaded(const std::string &path)
{
    std::error_code ignored;
    if (!fs::is_regular_file(path, ignored)) // or this very question would block on a pipe
        return is_mapped(path);
    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr)
        dlclose(handle);
    return handle != nullptr || is_mapped(path);
}

// A folder with a cache in which the plugin "bad" is that library.
class CacheOf
{
public:
    explicit CacheOf(const std::string &library)
    {
        write_file(path(), "bad@" + library + "\n");
    }
    std::string path() const
    {
        return m_folder / "cache";
    }

private:
    const TemporaryFolder m_folder;
};

// Loads the plugin and releases it; what was told. `loads` says whether there was one.
Lines load_and_release(const std::string &library, bool &loads)
{
    const CacheOf cache(library);
    const RealLibrary running(cache.path().c_str());
    const Told told;
    NOXPlugin *plugin = nox_load_plugin("bad", "instance");
    loads = plugin != nullptr;
    if (plugin != nullptr) {
        nox_object_set_finalize_func(plugin, nox_plugin_finalize);
        EXPECT_TRUE(is_loaded(library));
    }
    nox_object_delete(plugin);
    EXPECT_FALSE(is_loaded(library)) << library;
    return told.lines();
}

// What the OS layer says of a file that is no library of use, and then the core.
void expect_refusal(const std::string &library, const std::string &reason)
{
    bool loads = true;
    const Lines lines = load_and_release(library, loads);
    EXPECT_FALSE(loads) << library;
    ASSERT_EQ(2u, lines.size()) << library;
    EXPECT_EQ(0u, lines[0].find("library " + library + " not loaded: ")) << lines[0];
    EXPECT_NE(std::string::npos, lines[0].find(reason)) << lines[0];
    EXPECT_EQ("can not load library (" + library + ")", lines[1]);
}

// ---- truncated files

constexpr size_t kLengths = 500; // that lack something

const std::string &whole_library()
{
    static const std::string whole = read_file(kBadPlugin);
    return whole;
}

const ElfW(Ehdr) & header_of(const std::string &whole)
{
    return *reinterpret_cast<const ElfW(Ehdr) *>(whole.data());
}

const ElfW(Phdr) * segments_of(const std::string &whole)
{
    return reinterpret_cast<const ElfW(Phdr) *>(&whole[header_of(whole).e_phoff]);
}

// Where the last byte lies that the loader needs. What follows, such as the section
// headers, a library can do without.
size_t needed_length()
{
    const std::string &whole = whole_library();
    const auto *segments = segments_of(whole);
    size_t end = 0;
    for (size_t i = 0; i < header_of(whole).e_phnum; ++i)
        if (segments[i].p_type == PT_LOAD)
            end = std::max<size_t>(end, segments[i].p_offset + segments[i].p_filesz);
    return end;
}

// Where something ends, and around it.
void add_edge(std::set<size_t> &lengths, size_t end)
{
    for (const size_t length : {end - 1, end, end + 1})
        if (length < whole_library().size())
            lengths.insert(length);
}

// Where headers and segments begin and end, and then evenly through what is needed; and
// a few that lack nothing.
std::vector<size_t> lengths_to_try()
{
    const std::string &whole = whole_library();
    const auto &header = header_of(whole);
    const auto *segments = segments_of(whole);
    std::set<size_t> lengths = {0};
    for (const size_t end : {size_t{SELFMAG}, size_t{EI_NIDENT}, sizeof(header)})
        add_edge(lengths, end);
    for (size_t i = 0; i < header.e_phnum; ++i) {
        add_edge(lengths, header.e_phoff + (i + 1) * sizeof(segments[0]));
        add_edge(lengths, segments[i].p_offset);
        add_edge(lengths, segments[i].p_offset + segments[i].p_filesz);
    }
    const size_t needed = needed_length();
    lengths.erase(lengths.lower_bound(needed), lengths.end());
    for (size_t place = 0; lengths.size() < kLengths; ++place)
        lengths.insert(bits_of(place) % needed);
    for (const size_t end : {needed + 1, size_t{header.e_shoff}, whole.size()})
        add_edge(lengths, end);
    return {lengths.begin(), lengths.end()};
}

const std::vector<size_t> &lengths()
{
    static const std::vector<size_t> lengths = lengths_to_try();
    return lengths;
}

void load_truncated(uint64_t run)
{
    const size_t length = lengths()[run - 1];
    const TemporaryFolder folder;
    const std::string path = folder / "truncated.so";
    write_file(path, whole_library().substr(0, length));
    unsetenv("BAD_PLUGIN");
    if (length < needed_length()) {
        expect_refusal(path, length < EI_NIDENT ? "not an ELF file" : "truncated");
        return;
    }
    bool loads = false;
    EXPECT_EQ(Lines{}, load_and_release(path, loads));
    EXPECT_TRUE(loads) << length;
}

// ---- files that are something else, and names that are odd

void patch_machine(const std::string &path)
{
    std::string foreign = whole_library();
    foreign[offsetof(ElfW(Ehdr), e_machine)] = EM_MIPS;
    write_file(path, foreign);
}

void make_socket(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(0, bind(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof(address)));
    close(descriptor);
}

struct UnfitFile {
    const char *reason;
    std::function<void(const std::string &path)> make;
};

const UnfitFile kUnfitFiles[] = {
    {"built for MIPS", patch_machine},
    {"not a regular file", [](const std::string &path) { fs::create_directory(path); }},
    {"not a regular file",
     [](const std::string &path) { EXPECT_EQ(0, mkfifo(path.c_str(), 0600)); }},
    {"not a regular file", [](const std::string &path) { fs::create_symlink("/dev/zero", path); }},
    {"not a regular file", [](const std::string &path) { fs::create_symlink("/dev/full", path); }},
    {"No such device or address", make_socket},
    {"Too many levels", [](const std::string &path) { fs::create_symlink(path, path); }},
    {"No such file", [](const std::string &path) { fs::create_symlink("nowhere", path); }},
    {"No such file", [](const std::string &) {}},
    {"not an ELF file", [](const std::string &path) { write_file(path, ""); }},
    {"not an ELF file", [](const std::string &path) { write_file(path, "!<arch>\nno library"); }},
    {"undefined symbol: a_function_that_is_nowhere",
     [](const std::string &path) { fs::copy(kLibraries + "nowhere.so", path); }},
};

void load_unfit_file(uint64_t run)
{
    const TemporaryFolder folder;
    const UnfitFile &file = kUnfitFiles[run - 1];
    const std::string path = folder / "unfit.so";
    file.make(path);
    expect_refusal(path, file.reason);
}

// All but the line feed, which ends a line of the cache.
const char *const kOddNames[] = {
    "blank in it.so", "per%scent%n.so", "quote\"'`.so", "semi;colon&|.so", "back\\slash.so",
    "at@at.so",       "\xc3\xa4.so",    "\xff\xfe.so",  "tab\tand\x01.so", "-dash.so",
    "star*?[a].so",   "dollar$X.so",    "${X}.so",      "colon:two.so",    "\x1b[31m.so",
};

void load_oddly_named(uint64_t run)
{
    const TemporaryFolder folder;
    const std::string path = folder / kOddNames[run - 1];
    fs::copy(kBadPlugin, path);
    unsetenv("BAD_PLUGIN");
    bool loads = false;
    EXPECT_EQ(Lines{}, load_and_release(path, loads));
    EXPECT_TRUE(loads) << path;
}

// ---- descriptors

// What is told of it by the core and by nox-scan; `{}` stands for the path.
struct Described {
    const char *library;
    const char *kind;
    Lines told;
    const char *scan;
    bool loads = told.empty();
};

const std::string kNoDescriptor = "can not load function (plugin_desc) from ({})";

Lines size_lines(int32_t size)
{
    const std::string number = std::to_string(size);
    return {"record size (" + number + ") below (" + std::to_string(kBare) + ") in ({})",
            "can not create object size (" + number + ")"};
}

// Told by the base class, which fills nothing then. The result of an init is not looked at.
Lines base_lines(size_t size)
{
    return {"record size (" + std::to_string(kBare) + ") below (" + std::to_string(size) + ")"};
}

const Described kDescribed[] = {
    {"bad.so", "fine", {}, ""},
    {"bad.so", "null name", {}, "its descriptor has no name"},
    {"bad.so", "null author", {}, ""},
    {"bad.so", "null init", {"no init function in ({})"}, "no init function"},
    {"bad.so", "size 0", size_lines(0), "smaller than a plugin's"},
    {"bad.so", "size too small", size_lines(kBare - 1), "smaller than a plugin's"},
    {"bad.so", "size 2 GiB", size_lines(INT32_MIN), "smaller than a plugin's"},
    {"bad.so", "size 2 GiB less 1", {}, ""}, // where memory permits
    {"bad.so", "half made", {}, ""},         // the result of an init is not looked at
    {"bad.so", "no slots", {}, ""},
    {"bad.so", "size without source", base_lines(sizeof(NOXBaseSrc)), "", true},
    {"bad.so", "size without filter", base_lines(sizeof(NOXBaseFilter)), "", true},
    {"bad.so", "size without sink", base_lines(sizeof(NOXBaseSink)), "", true},
    {"no_descriptor.so", "", {kNoDescriptor}, "no plugin descriptor"},
    {"data.so",
     "",
     {"symbol plugin_desc is data, not a function", kNoDescriptor},
     "no plugin descriptor"},
    {"null_symbol.so", "", {kNoDescriptor}, "no plugin descriptor"},
};

Lines with_path(Lines lines, const std::string &path)
{
    for (std::string &line : lines)
        if (const size_t place = line.find("{}"); place != std::string::npos)
            line.replace(place, 2, path);
    return lines;
}

void load_described(uint64_t run)
{
    const Described &described = kDescribed[run - 1];
    const std::string path = kLibraries + described.library;
    setenv("BAD_PLUGIN", described.kind, 1);
    bool loads = false;
    const Lines lines = load_and_release(path, loads);
    EXPECT_EQ(with_path(described.told, path), lines) << described.kind;
    EXPECT_EQ(described.loads, loads) << described.kind;
    const std::string reason = probe_library(path).reason;
    EXPECT_EQ(*described.scan == '\0', reason.empty()) << described.kind << ": " << reason;
    EXPECT_NE(std::string::npos, reason.find(described.scan)) << reason;
}

// ---- slots

// The last words of the first ones are what they say when it is called.
const char *const kKindsWithoutUse[] = {
    "failing setstate",     "failing link",      "failing prepare",
    "failing chain",        "failing setformat", "failing getformat",
    "failing finalize",     "failing event",     "failing start",
    "failing getallocator", "failing stop",      "failing slots",
    "failing source",       "half made",         "no slots",
};
constexpr size_t kSingleSlots = 11;

bool contains(const Lines &lines, const std::string &line)
{
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// Between a source and its sink.
void insert(NOXPlugin *bad, NOXPlugin *source)
{
    NOXBufferRequest request{1, 0, {10}};
    nox_plugin_link_many(source, bad, source->next, nullptr);
    nox_object_delete(nox_plugin_get_outbuffer(source, &request));
}

void change_somehow(NOXPipe *pipe, NOXPlugin *upstream, Dice &dice)
{
    for (uint32_t change = 0; change < 12; ++change) {
        nox_pipe_set_state(pipe, static_cast<int32_t>(dice.below(4)));
        NOXEvent event{nullptr, NOX_EVENT_RESET};
        nox_pipe_set_event(pipe, &event);
        nox_plugin_push_prepare(upstream, nullptr);
        std::this_thread::sleep_for(std::chrono::microseconds(dice.below(500)));
    }
}

// In a chain that works, or at its head: whatever happens to it is answered, and the rest
// can be stopped and released.
void drive(NOXPlugin *bad, const std::string &name, const Told &told, Dice &dice)
{
    StormPipe storm({Shape{}});
    NOXPipe *pipe = storm.pipe();
    nox_pipe_add_plugin(pipe, bad);
    NOXPlugin *good = &storm.chain(0).source->plugin;
    const bool is_source = bad->issrc;
    if (is_source)
        nox_plugin_link(bad, good->next);
    else
        insert(bad, good);
    NOXStructure *format = nox_structure_new("format");
    nox_plugin_setformat(bad, format);
    nox_plugin_getformat(bad, format);
    nox_object_delete(format);
    nox_pipe_set_state(pipe, NOX_STATE_PLAY);
    if (name == "failing chain") {
        EXPECT_TRUE(comes_true([&] { return contains(told.lines(), name); }));
    }
    change_somehow(pipe, is_source ? bad : good, dice);
}

void use_failing(uint64_t run)
{
    Dice dice(run);
    const size_t kind = run % std::size(kKindsWithoutUse);
    const std::string name = kKindsWithoutUse[kind];
    setenv("BAD_PLUGIN", name.c_str(), 1);
    const CacheOf cache(kBadPlugin);
    const RealLibrary library(cache.path().c_str());
    const Told told;
    drive(nox_plugin_new("bad", "instance"), name, told, dice);
    EXPECT_FALSE(told.lines().empty()) << name;
    if (kind < kSingleSlots) {
        EXPECT_TRUE(contains(told.lines(), name)) << name << " was never called";
    }
    EXPECT_FALSE(is_loaded(kBadPlugin));
}

// ---- loading and unloading

constexpr uint32_t kLoads = 100;

void load_and_unload(uint64_t run)
{
    Dice dice(run);
    unsetenv("BAD_PLUGIN");
    const CacheOf cache(kBadPlugin);
    const RealLibrary library(cache.path().c_str());
    for (uint32_t cycle = 0; cycle < kLoads; ++cycle) {
        std::vector<NOXPlugin *> plugins(dice.between(1, 3));
        for (NOXPlugin *&plugin : plugins)
            plugin = nox_plugin_new("bad", "instance");
        for (NOXPlugin *plugin : plugins) {
            ASSERT_TRUE(is_loaded(kBadPlugin)) << "cycle " << cycle;
            nox_object_delete(plugin);
        }
        ASSERT_FALSE(is_loaded(kBadPlugin)) << "cycle " << cycle;
        if (dice.chance(20))
            std::free(nox_plugin_getname(kBadPlugin.c_str()));
        ASSERT_FALSE(is_loaded(kBadPlugin)) << "cycle " << cycle;
    }
}

} // namespace

Campaigns bad_plugin_campaigns()
{
    return {
        {.name = "bad-truncated",
         .unit = "lengths",
         .full = lengths().size(),
         .quick = lengths().size(),
         .run = load_truncated},
        {.name = "bad-files",
         .unit = "files",
         .full = std::size(kUnfitFiles),
         .quick = std::size(kUnfitFiles),
         .run = load_unfit_file},
        {.name = "bad-names",
         .unit = "names",
         .full = std::size(kOddNames),
         .quick = std::size(kOddNames),
         .run = load_oddly_named},
        {.name = "bad-descriptors",
         .unit = "descriptors",
         .full = std::size(kDescribed),
         .quick = std::size(kDescribed),
         .run = load_described},
        {.name = "bad-slots", .unit = "seeds", .full = 2000, .quick = 100, .run = use_failing},
        {.name = "bad-unloading",
         .unit = "cycles",
         .full = 100,
         .quick = 10,
         .run = load_and_unload,
         .in_one_run = kLoads},
    };
}

} // namespace soak
