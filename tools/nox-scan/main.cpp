// nox-scan: finds the plugin libraries in folders and writes the plugin cache.

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cache_file.h"
#include "osa/host.h"
#include "probe.h"

namespace
{

namespace fs = std::filesystem;

enum ExitCode { kDone = 0, kNotWritten = 1, kUsage = 2 };

// What the library keeps of an entry, see nox.h.
constexpr size_t kLongestName = 47;
constexpr size_t kLongestPath = 127;

bool has_control_character(const std::string &text)
{
    return std::any_of(text.begin(), text.end(), [](char character) {
        return std::iscntrl(static_cast<unsigned char>(character)) != 0;
    });
}

// libx.so and libx.so.1.2, which is how libraries are named.
bool is_library_name(const std::string &name)
{
    const size_t found = name.find(".so");
    return found != std::string::npos && found > 0 &&
           (found + 3 == name.size() || name[found + 3] == '.');
}

// Absolute and sorted, so that the cache does not depend on where the scan was
// started or on how the folder is stored.
std::vector<std::string> libraries_in(const fs::path &folder)
{
    std::vector<std::string> paths;
    for (const fs::directory_entry &entry : fs::directory_iterator(fs::canonical(folder)))
        if (is_library_name(entry.path().filename()) && !entry.is_directory())
            paths.push_back(entry.path());
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
        if (path.size() > kLongestPath)
            return leave_out(path, "its path has more than 127 characters");
        if (has_control_character(path))
            return leave_out(path, "its path has a control character");
        if (fs::exists(path) && !fs::is_regular_file(path))
            return leave_out(path, "it is no regular file");
        const Probe probe = probe_library(path);
        if (!probe.reason.empty())
            return leave_out(path, probe.reason);
        take_plugin(path, probe.name);
    }

    void take_plugin(const std::string &path, const std::string &name)
    {
        if (name.size() > kLongestName)
            return leave_out(path, "its name has more than 47 characters: " + name);
        if (has_control_character(name) || name.find('@') != std::string::npos)
            return leave_out(path, "its name has an \"@\" or a control character");
        const auto [entry, added] = paths_by_name_.emplace(name, path);
        if (!added)
            return leave_out(path, "its name " + name + " is taken by " + entry->second);
        lines_ += name + "@" + path + "\n";
        std::printf("%-16s %s\n", name.c_str(), path.c_str());
    }

    static void leave_out(const std::string &path, const std::string &reason)
    {
        std::fprintf(stderr, "nox-scan: left out %s: %s\n", path.c_str(), reason.c_str());
    }

    std::map<std::string, std::string> paths_by_name_;
    std::string lines_;
};

int scan(const std::vector<std::string> &folders, const std::string &cache)
{
    Scan found;
    for (const std::string &folder : folders)
        found.take_folder(folder);
    replace_file(cache, found.lines());
    if (found.count() == 0)
        std::fprintf(stderr, "nox-scan: no plugins were found\n");
    std::printf("%zu plugins in %s\n", found.count(), cache.c_str());
    return std::fflush(stdout) == 0 ? kDone : kNotWritten;
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
        "Exit codes: 0 done, 1 the cache was not written, 2 usage.\n");
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
