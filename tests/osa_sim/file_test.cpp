// Files and libraries that exist in the test program only, and real ones.

#include <gtest/gtest.h>

#include "osa/sim/osasim.h"

namespace
{

TEST(SimulatedFile, ReadsWhatWasAddedAndKeepsWhatIsWritten)
{
    SIM_Begin();
    SIM_FileAdd("/virtual/cache", "one\na line too long for it\nlast");
    OSA_File *file = OSA_FileOpen("/virtual/cache", OSA_FILE_READ);
    char line[8];
    EXPECT_STREQ("one\n", OSA_FileReadLine(file, line, sizeof line));
    EXPECT_STREQ("a line ", OSA_FileReadLine(file, line, sizeof line));
    EXPECT_STREQ("last", OSA_FileReadLine(file, line, sizeof line));
    EXPECT_EQ(nullptr, OSA_FileReadLine(file, line, sizeof line));
    EXPECT_LT(OSA_FileWrite(file, "x", 1), 0);
    EXPECT_EQ(0, OSA_FileClose(file));

    file = OSA_FileOpen("/virtual/cache", OSA_FILE_WRITE);
    EXPECT_EQ(5, OSA_FileWrite(file, "graph", 5));
    SIM_FailNth(SIM_FallibleCount() + 1);
    EXPECT_LT(OSA_FileWrite(file, "lost", 4), 0);
    EXPECT_EQ(1, OSA_FileWrite(file, "\n", 1));
    OSA_FileClose(file);
    EXPECT_EQ("graph\n", SIM_FileContent("/virtual/cache"));
    EXPECT_EQ(std::nullopt, SIM_FileContent("/virtual/other"));
    EXPECT_EQ(nullptr, OSA_FileOpen("/virtual/other", OSA_FILE_READ));
    EXPECT_EQ("", SIM_End());
}

TEST(SimulatedLibrary, FindsSymbolsOfTheTestProgramAndOfRealLibraries)
{
    SIM_Begin();
    int symbol = 0;
    SIM_LibraryAdd("/virtual/plugin.so", "plugin_desc", &symbol);
    OSA_Library *library = OSA_LibraryLoad("/virtual/plugin.so");
    EXPECT_EQ(&symbol, OSA_LibraryGetFunc(library, "plugin_desc"));
    EXPECT_EQ(nullptr, OSA_LibraryGetFunc(library, "other"));
    EXPECT_EQ(0, OSA_LibraryUnLoad(library));

    library = OSA_LibraryLoad(PLAIN_LIBRARY);
    EXPECT_NE(nullptr, OSA_LibraryGetFunc(library, "plain_answer"));
    EXPECT_EQ(0, OSA_LibraryUnLoad(library));

    EXPECT_EQ(nullptr, OSA_LibraryLoad("/virtual/missing.so"));
    EXPECT_EQ(nullptr, OSA_LibraryLoad(__FILE__));
    EXPECT_EQ(1u, SIM_TraceCount("/virtual/missing.so not loaded: No such file", OSA_TRACE_ERROR));
    EXPECT_EQ(1u, SIM_TraceCount("not an ELF file", OSA_TRACE_ERROR));
    EXPECT_EQ("", SIM_End());
}

} // namespace
