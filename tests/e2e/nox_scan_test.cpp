// nox-scan: what it finds, what it leaves out and why, and how it writes.

#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "process.h"

namespace fs = std::filesystem;

TEST(NoxScan, PluginsAreListedSortedUnderTheirAbsolutePaths)
{
    const TemporaryFolder folder;
    const std::string cache = folder / "cache";
    const Result result = run({NOX_SCAN, PLUGIN_FOLDER, "-o", cache});
    EXPECT_EQ(result.code, 0) << result.err;
    std::string expected;
    for (const char *name : {"levelsink", "reblock", "tee", "volume", "wavsink", "wavsrc"})
        expected += std::string(name) + "@" + PLUGIN_FOLDER + "/nox" + name + ".so\n";
    EXPECT_EQ(read_file(cache), expected);
}

TEST(NoxScan, WhatIsLeftOutIsNamedWithTheReason)
{
    const TemporaryFolder folder;
    for (const auto &entry : fs::directory_iterator(UNFIT_FOLDER))
        fs::copy(entry, folder / entry.path().filename());
    const std::string plugin = read_file(std::string(PLUGIN_FOLDER) + "/noxtee.so");
    std::string foreign = plugin;
    foreign[18] = 0x14; // the processor in an ELF header, here PowerPC
    write_file(folder / "foreign.so", foreign);
    write_file(folder / "cut.so", plugin.substr(0, 2000));
    write_file(folder / "first.so", plugin);
    write_file(folder / "second.so.1", plugin);
    write_file(folder / "text.so", "no library at all\n");
    ASSERT_EQ(mkfifo((folder / "pipe.so").c_str(), 0600), 0);
    write_file(folder / "notes.txt", "not looked at\n");
    write_file(folder / "nox.source.so", "looked at, with a second dot and all\n");
    fs::create_symlink("loop.so", folder / "loop.so");
    fs::create_symlink("nowhere.so", folder / "dangling.so");
    fs::create_symlink("first.so", folder / "first.so.1");
    write_file(folder / (std::string(120, 'p') + ".so"), plugin);

    const Result result = run({NOX_SCAN, folder / "", "-o", folder / "cache"});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(read_file(folder / "cache"), "tee@" + (folder / "first.so") + "\n");
    const std::pair<std::string, std::string> reasons[] = {
        {"crashes.so", "it crashed while it was loaded (Aborted)"},
        {"exits.so", "it ended the process while it was loaded (exit code 3)"},
        {"no_descriptor.so", "no plugin descriptor"},
        {"long_name.so", "more than 47 characters"},
        {"at_sign.so", "an \"@\""},
        {"second.so.1", "taken by " + (folder / "first.so")},
        {"ppp.so", "more than 127 characters"},
        {"foreign.so", "processor"},
        {"cut.so", "truncated"},
        {"text.so", "not loaded: not an ELF file"},
        {"pipe.so", "no regular file"},
        {"nox.source.so", "not an ELF file"},
        {"/loop.so", "Too many levels of symbolic links"},
        {"dangling.so", "No such file"},
    };
    for (const auto &[library, reason] : reasons) {
        const size_t line = result.err.find(library + ": ");
        ASSERT_NE(line, std::string::npos) << library << "\n" << result.err;
        const std::string rest = result.err.substr(line, result.err.find('\n', line) - line);
        EXPECT_NE(rest.find(reason), std::string::npos) << rest;
    }
    EXPECT_EQ(result.err.find("notes.txt"), std::string::npos);
    EXPECT_EQ(result.err.find("first.so.1: "), std::string::npos) << "a link to what was found";
}

TEST(NoxScan, AHangingLibraryDoesNotOutliveAScanThatIsKilled)
{
    const TemporaryFolder folder;
    fs::copy(std::string(UNFIT_FOLDER) + "/exits.so", folder / "hangs.so");
    const std::string fifo = folder / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int library = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    setenv("UNFIT_HANGS_WRITING_TO", fifo.c_str(), 1);
    run({NOX_SCAN, folder / "", "-o", folder / "cache"}, [&](pid_t scan, const ErrorsSoFar &) {
        pollfd alive = {library, POLLIN, 0};
        EXPECT_EQ(poll(&alive, 1, 20000), 1);
        char sign;
        EXPECT_EQ(read(library, &sign, 1), 1);
        kill(scan, SIGKILL);
        EXPECT_EQ(poll(&alive, 1, 5000), 1) << "the child holds the pipe still";
        EXPECT_EQ(alive.revents, POLLHUP);
    });
    unsetenv("UNFIT_HANGS_WRITING_TO");
    close(library);
}

TEST(NoxScan, TheOldCacheStaysWhenTheNewOneCannotBeWritten)
{
    const TemporaryFolder folder;
    const std::string cache = folder / "cache";
    write_file(cache, "old@/path\n");
    const Result full = run({NOX_SCAN, PLUGIN_FOLDER, "-o", cache}, nullptr, 8);
    EXPECT_EQ(full.code, 1) << full.err;
    EXPECT_EQ(read_file(cache), "old@/path\n");
    EXPECT_EQ(run({NOX_SCAN, PLUGIN_FOLDER, "-o", "/dev/null"}).code, 1);
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    EXPECT_EQ(run({NOX_SCAN, folder / "nowhere", "-o", cache}).code, 2);
    ASSERT_EQ(chmod(cache.c_str(), 0640), 0);
    EXPECT_EQ(run({NOX_SCAN, PLUGIN_FOLDER, "-o", cache}).code, 0);
    EXPECT_EQ(fs::status(cache).permissions(), fs::perms(0640)) << "the mode of the old one";
    const Result silent = run(
        {"/bin/sh", "-c", "exec \"$@\" >/dev/full", "sh", NOX_SCAN, PLUGIN_FOLDER, "-o", cache});
    EXPECT_EQ(silent.code, 1);
    EXPECT_NE(silent.err.find("standard output cannot be: No space"), std::string::npos)
        << silent.err;
    EXPECT_EQ(std::distance(fs::directory_iterator(folder / ""), {}), 1) << "a draft was left";
}
