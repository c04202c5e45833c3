// Fault injection: calls are numbered the same in every run, and exactly the
// planned ones fail; files and libraries that exist in the test program only.

#include <gtest/gtest.h>

#include "osa/sim/osasim.h"

namespace
{

template <typename Handle>
char make(Handle *made, int32_t (*release)(Handle *))
{
    release(made);
    return made != nullptr ? '1' : '0';
}

// Six fallible calls; one digit each: 1 for success.
std::string six_calls()
{
    void *block = OSA_Malloc(8, 0, 0, "maker", 12, "make");
    OSA_Free(block, 0);
    std::string results = block != nullptr ? "1" : "0";
    results += make(OSA_ListCreate(), OSA_ListDestroy);
    results += make(OSA_MutexCreate(), OSA_MutexDestroy);
    results += make(OSA_EventCreate(0), OSA_EventDestroy);
    OSA_Queue *queue = OSA_QueueCreate("queue", 0);
    results += queue != nullptr ? '1' : '0';
    results += OSA_QueuePush(queue, &results, 1) == 0 ? '1' : '0';
    OSA_QueueDestroy(queue);
    return results;
}

TEST(Faults, ExactlyThePlannedCallsFailAndEachIsToldByItsCaller)
{
    const struct {
        void (*plan)();
        const char *results;
        uint64_t failed;
    } cases[] = {
        {[] { SIM_FailNone(); }, "111111", 0},    {[] { SIM_FailNth(6); }, "111110", 1},
        {[] { SIM_FailNth(2, 4); }, "101011", 2}, {[] { SIM_FailFrom(3); }, "110000", 4},
        {[] { SIM_FailNth(7); }, "111111", 0},    {[] { SIM_FailNth(5, 3); }, "110100", 2},
        {[] { SIM_FailNth(1); }, "011111", 1},
    };
    for (const auto &one : cases) {
        SIM_Begin();
        one.plan();
        EXPECT_EQ(one.results, six_calls());
        EXPECT_EQ(6u, SIM_FallibleCount());
        EXPECT_EQ(one.failed, SIM_FailedCount());
        EXPECT_EQ("", SIM_End());
    }
    EXPECT_EQ("call 1: OSA_Malloc from maker:12 make on thread \"main\", failed",
              SIM_FallibleText(1));
    EXPECT_NE(std::string::npos, SIM_FallibleText(2).find("OSA_ListCreate from test_osa_sim"));
    EXPECT_EQ("call 7 was not made", SIM_FallibleText(7));
}

TEST(Simulated, FilesAreKeptInMemoryAndLibrariesInTheTestProgram)
{
    SIM_Begin();
    SIM_FileAdd("/virtual/cache", "one\n");
    char line[8];
    OSA_File *file = OSA_FileOpen("/virtual/cache", OSA_FILE_READ);
    EXPECT_STREQ("one\n", OSA_FileReadLine(file, line, sizeof line));
    OSA_FileClose(file);
    file = OSA_FileOpen("/virtual/cache", OSA_FILE_WRITE);
    EXPECT_EQ(5, OSA_FileWrite(file, "graph", 5));
    SIM_FailNth(SIM_FallibleCount() + 1);
    EXPECT_LT(OSA_FileWrite(file, "lost", 4), 0);
    EXPECT_EQ(1, OSA_FileWrite(file, "\n", 1));
    OSA_FileClose(file);
    EXPECT_EQ("graph\n", SIM_FileContent("/virtual/cache"));
    EXPECT_EQ(std::nullopt, SIM_FileContent("/virtual/other"));

    int symbol = 0;
    SIM_LibraryAdd("/virtual/plugin.so", "plugin_desc", &symbol);
    OSA_Library *library = OSA_LibraryLoad("/virtual/plugin.so");
    EXPECT_EQ(&symbol, OSA_LibraryGetFunc(library, "plugin_desc"));
    EXPECT_EQ(nullptr, OSA_LibraryGetFunc(library, "other"));
    EXPECT_EQ(0, OSA_LibraryUnLoad(library));
    EXPECT_EQ("", SIM_End());
}

} // namespace
