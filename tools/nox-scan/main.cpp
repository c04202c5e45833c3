// nox-scan: finds the plugin libraries in folders and writes the plugin cache.

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include <CLI/CLI.hpp>

#include "cache_file.h"
#include "osa/host.h"
#include "probe.h"

namespace
{

namespace fs = std::filesystem;

enum ExitCode { kDone = 0, kNotWritten = 1, kUsage = 2 };

// What the library keeps of an entry. The contract is in include/nox.h; nothing else
// in this program stands for these numbers.
constexpr size_t kLongestName = 47;
constexpr size_t kLongestPath = 127;

std::string more_than(size_t limit)
{
    return " has more than " + std::to_string(limit) + " characters";
}

void leave_out(const std::string &path, const std::string &reason)
{
    std::fprintf(stderr, "nox-scan: left out %s: %s\n", path.c_str(), reason.c_str());
}

bool has_control_character(const std::string &text)
{
    return std::any_of(text.begin(), text.end(), [](char character) {
        return std::iscntrl(static_cast<unsigned char>(character)) != 0;
    });
}

// libx.so and libx.so.1.2, which is how libraries are named; x may hold ".so" too.
bool is_library_name(const std::string &name)
{
    const size_t versioned = name.find(".so.");
    return (name.size() > 3 && name.ends_with(".so")) ||
           (versioned != std::string::npos && versioned > 0);
}

// Absolute and sorted, so that the cache does not depend on where the scan was
// started or on how the folder is stored. A folder that fails half-way gives what
// was read of it.
std::vector<std::string> libraries_in(const std::string &folder)
{
    std::vector<std::string> paths;
    std::error_code error;
    const fs::path absolute = fs::canonical(folder, error);
    fs::directory_iterator entry;
    if (!error)
        entry = fs::directory_iterator(absolute, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error))
        if (is_library_name(entry->path().filename()))
            paths.push_back(entry->path());
    if (error)
        leave_out(folder, "it cannot be read: " + error.message());
    std::sort(paths.begin(), paths.end());
    return paths;
}

class Scan
{
public:
    void take_folder(const std::string &folder)
    {
        for (const std::string &path : libraries_in(folder))
            take_library(path);
    }

    // Plugins in the order they were found, one line each.
    const std::string &lines() const
    {
        return lines_;
    }
    size_t count() const
    {
        return paths_by_name_.size();
    }

private:
    void take_library(const std::string &path)
    {
        std::error_code error;
        const fs::file_status status = fs::status(path, error);
        if (fs::is_directory(status))
            return;
        if (error)
            return leave_out(path, error.message());
        if (!fs::is_regular_file(status))
            return leave_out(path, "it is no regular file");
        if (path.size() > kLongestPath)
            return leave_out(path, "its path" + more_than(kLongestPath));
        if (has_control_character(path))
            return leave_out(path, "its path has a control character");
        if (!is_new_file(path))
            return;
        const Probe probe = probe_library(path);
        if (!probe.reason.empty())
            return leave_out(path, probe.reason);
        take_plugin(path, probe.name);
    }

    // The links libx.so -> libx.so.1 -> libx.so.1.0 are one library, taken by its
    // first name.
    bool is_new_file(const std::string &path)
    {
        std::error_code error;
        const fs::path file = fs::canonical(path, error);
        return error || files_.insert(file).second;
    }

    void take_plugin(const std::string &path, const std::string &name)
    {
        if (name.size() > kLongestName)
            return leave_out(path, "its name" + more_than(kLongestName) + ": " + name);
        if (has_control_character(name) || name.find('@') != std::string::npos)
            return leave_out(path, "its name has an \"@\" or a control character");
        const auto [entry, added] = paths_by_name_.emplace(name, path);
        if (!added)
            return leave_out(path, "its name " + name + " is taken by " + entry->second);
        lines_ += name + "@" + path + "\n";
        std::printf("%-16s %s\n", name.c_str(), path.c_str());
    }

    std::set<fs::path> files_;
    std::map<std::string, std::string> paths_by_name_;
    std::string lines_;
};

// Lines that an earlier flush has lost count too.
bool flush_output()
{
    errno = 0;
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return true;
    std::fprintf(stderr, "nox-scan: the cache is written, but standard output cannot be: %s\n",
                 errno == 0 ? "an earlier line was lost" : strerrordesc_np(errno));
    return false;
}

int scan(const std::vector<std::string> &folders, const std::string &cache)
{
    Scan found;
    for (const std::string &folder : folders)
        found.take_folder(folder);
    replace_file(cache, found.lines());
    if (found.count() == 0)
        std::fprintf(stderr, "nox-scan: no plugins were found\n");
    std::printf("%zu plugins in %s\n", found.count(), cache.c_str());
    return flush_output() ? kDone : kNotWritten;
}

int run_command_line(int argc, char **argv)
{
    std::vector<std::string> folders;
    std::string cache;
    CLI::App app("Finds the plugin libraries in folders and writes the plugin cache.", "nox-scan");
    app.footer(
        "Each library is loaded in a process of its own. Those that are no plugin, or unfit\n"
        "for the cache, are left out and named with the reason.\n"
        "\n"
        "Example:\n"
        "  nox-scan /usr/lib/nox -o /etc/noxplugins.cache\n"
        "\n"
        "Exit codes: 0 done, 1 the cache or standard output was not written, 2 usage.\n");
    app.set_version_flag("--version", core_version_nox_string());
    app.add_option("DIR", folders, "Folders to look in; their subfolders are not searched")
        ->required()
        ->check(CLI::ExistingDirectory);
    app.add_option("-o,--output", cache, "The cache file to write")->type_name("CACHE")->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    return scan(folders, cache);
}

} // namespace

int main(int argc, char **argv)
{
    std::signal(SIGXFSZ, SIG_IGN); // a limit on file sizes is an error to report
    try {
        return run_command_line(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nox-scan: %s\n", error.what());
        return kNotWritten;
    }
}
