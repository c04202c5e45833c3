// Files.

#include <vector>

#include <sys/stat.h>

#include "fixture.h"

namespace
{

class Files : public Layer
{
protected:
    static std::vector<std::string> read_lines(const std::string &path, uint32_t size)
    {
        std::vector<std::string> lines;
        std::vector<char> buffer(size);
        OSA_File *file = OSA_FileOpen(path.c_str(), OSA_FILE_READ);
        while (const char *line = OSA_FileReadLine(file, buffer.data(), size))
            lines.push_back(line);
        OSA_FileClose(file);
        return lines;
    }
};

TEST_F(Files, OneLineOfTheFileIsOneLineRead)
{
    using Lines = std::vector<std::string>;
    const std::string long_line(9000, 'x'); // several reads of the file
    const struct {
        std::string content;
        uint32_t size;
        Lines lines;
    } cases[] = {
        {"", 16, {}},
        {"\n\n", 16, {"\n", "\n"}},
        {"one\ntwo", 16, {"one\n", "two"}},
        {"exactly\nnext\n", 9, {"exactly\n", "next\n"}},
        {"exactly\nnext\n", 8, {"exactly", "next\n"}},
        {"too long by far\nnext\n", 5, {"too ", "next"}},
        {long_line + "\nnext\n", 5, {"xxxx", "next"}},
        {long_line + "\nnext\n", 9002, {long_line + "\n", "next\n"}},
        {"a\nb", 1, {"", ""}},
    };
    for (const auto &each : cases)
        EXPECT_EQ(read_lines(write_file("lines", each.content), each.size), each.lines)
            << each.content.substr(0, 20) << " in " << each.size;
}

TEST_F(Files, WritingEmptiesAnExistingFile)
{
    Traces traces;
    const std::string path = write_file("written", "former content\n");
    OSA_File *file = OSA_FileOpen(path.c_str(), OSA_FILE_WRITE);
    EXPECT_EQ(OSA_FileWrite(file, "new\n", 4), 4);
    char buffer[8];
    EXPECT_EQ(OSA_FileReadLine(file, buffer, sizeof(buffer)), nullptr);
    EXPECT_EQ(OSA_FileClose(file), 0);
    EXPECT_EQ(read_lines(path, 32), std::vector<std::string>{"new\n"});
}

TEST_F(Files, WhatCannotBeDoneIsRefusedWithTheReason)
{
    const std::string path = write_file("refused", "x");
    Traces traces;
    EXPECT_EQ(OSA_FileOpen((path + "/none").c_str(), OSA_FILE_READ), nullptr);
    EXPECT_TRUE(traces.has("2 ") && traces.has("Not a directory")) << traces.text();
    EXPECT_EQ(OSA_FileOpen(testing::TempDir().c_str(), OSA_FILE_READ), nullptr);
    EXPECT_TRUE(traces.has("Is a directory")) << traces.text();
    EXPECT_EQ(OSA_FileOpen(path.c_str(), 0), nullptr);
    EXPECT_TRUE(traces.has("no mode 0x0")) << traces.text();
    OSA_File *full = OSA_FileOpen("/dev/full", OSA_FILE_WRITE);
    EXPECT_LT(OSA_FileWrite(full, "x", 1), 0);
    OSA_FileClose(full);
    EXPECT_TRUE(traces.has("No space left")) << traces.text();
}

} // namespace
