// Feeds plugin cache files to nox_init and compares the registry with a reading of its
// own.
//
// The first line of an input is for this target: its first character, less '0', says which
// fallible call of nox_init fails ('0' for none, '-' for an init without a path), its
// second is the trace level. The rest is the cache file.

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "nox.h"
#include "osa/sim/osasim.h"
#include "require.h"

namespace
{

constexpr char kPath[] = "cache";
constexpr size_t kLineLimit = 383; // bytes of a line that are read
constexpr size_t kNameLimit = 47;
constexpr size_t kPathLimit = 127;

struct Input {
    const char *path = kPath;
    uint64_t failing_call = 0;
    int32_t trace_level = 1;
    std::string_view file;
};

Input take_apart(std::string_view text)
{
    const std::string_view head = text.substr(0, text.find('\n'));
    Input input;
    if (!head.empty() && head[0] == '-')
        input.path = nullptr;
    else if (!head.empty())
        input.failing_call = static_cast<unsigned char>(head[0] - '0') % 64;
    if (head.size() > 1)
        input.trace_level = static_cast<unsigned char>(head[1] - '0') % 5;
    text.remove_prefix(std::min(head.size() + 1, text.size()));
    input.file = text;
    return input;
}

struct Entry {
    std::string name;
    std::string path;
};

struct Reading {
    std::vector<Entry> entries;
    uint32_t skipped = 0;
};

// A line as it stands in a buffer of C: cut to what fits, ended by a zero byte.
std::string line_in_buffer(std::string_view line)
{
    std::string text(line.substr(0, kLineLimit));
    text.resize(std::min(text.find('\0'), text.size()));
    if (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    return text;
}

// What the format of the cache says, told a second time and in other words.
Reading read_cache(std::string_view file)
{
    Reading reading;
    while (!file.empty()) {
        const size_t length = std::min(file.find('\n'), file.size() - 1) + 1;
        const std::string line = line_in_buffer(file.substr(0, length));
        file.remove_prefix(length);
        const size_t at = line.find('@');
        const bool fits = at != std::string::npos && at > 0 && at <= kNameLimit &&
                          at + 1 < line.size() && line.size() - at - 1 <= kPathLimit;
        if (fits)
            reading.entries.push_back({line.substr(0, at), line.substr(at + 1)});
        else
            ++reading.skipped;
    }
    return reading;
}

const Entry *first_named(const Reading &reading, const std::string &name)
{
    const auto found = std::find_if(reading.entries.begin(), reading.entries.end(),
                                    [&](const Entry &entry) { return entry.name == name; });
    return found == reading.entries.end() ? nullptr : &*found;
}

void check_lookup(const Reading &reading, const std::string &name)
{
    const char *path = nox_plugin_lookup(name.c_str());
    const Entry *entry = first_named(reading, name);
    require((path != nullptr) == (entry != nullptr), "an entry is missing, or made up", name);
    require(entry == nullptr || entry->path == path, "another path than the first line's", name);
}

void check_registry(const Reading &reading)
{
    for (const Entry &entry : reading.entries) {
        check_lookup(reading, entry.name);
        check_lookup(reading, entry.name + "n");
        check_lookup(reading, entry.name.substr(1));
    }
    check_lookup(reading, "");
    require(nox_plugin_lookup(nullptr) == nullptr, "null has an entry");
}

void check_traces(const Reading &reading, int32_t level)
{
    require(SIM_TraceCount("", 1) == (level >= 1 ? reading.skipped : 0),
            "not one error for each line that is skipped");
    const std::string count = "loaded plugin count(" + std::to_string(reading.entries.size()) + ")";
    require(SIM_TraceCount(count, 3) == (level >= 3 ? 1 : 0), "wrong count");
}

// What an init that fails leaves: nothing, and one that can be repeated.
void check_failure(const Input &input)
{
    require(input.path == nullptr || SIM_FailedCount() > 0, "init fails without a reason");
    require(nox_plugin_lookup("") == nullptr, "a failed init leaves a registry");
    require(nox_deinit() == -1, "a failed init can be undone");
    SIM_FailNone();
    require(nox_init(kPath) == 0, "init cannot be repeated");
}

void check(const Input &input)
{
    const Reading reading = read_cache(input.file);
    SIM_FileAdd(kPath, std::string(input.file));
    if (input.failing_call != 0)
        SIM_FailNth(SIM_FallibleCount() + input.failing_call);
    if (nox_init(input.path) != 0)
        check_failure(input);
    else if (SIM_FailedCount() == 0) // else a pool is missing, which is traced
        check_traces(reading, input.trace_level);
    SIM_FailNone();
    check_registry(reading);
    require(nox_deinit() == 0, "deinit fails");
    require(nox_plugin_lookup("") == nullptr, "deinit leaves a registry");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const Input input = take_apart({reinterpret_cast<const char *>(data), size});
    SIM_Begin({.trace_level = input.trace_level});
    check(input);
    const std::string left = SIM_End();
    require(left.empty(), "something is left alive, or was misused", left);
    return 0;
}
