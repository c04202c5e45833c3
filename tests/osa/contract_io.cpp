// What every layer promises of files, dynamic libraries and traces.

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include <link.h>
#include <sys/stat.h>

#include "tests/osa/layer.h"

namespace
{

void write(const std::string &path, const std::string &content)
{
    OSA_File *file = OSA_FileOpen(path.c_str(), OSA_FILE_WRITE);
    const uint32_t half = static_cast<uint32_t>(content.size() / 2);
    const uint32_t rest = static_cast<uint32_t>(content.size()) - half;
    EXPECT_EQ(OSA_FileWrite(file, content.data(), half), half);
    EXPECT_EQ(OSA_FileWrite(file, content.data() + half, rest), rest);
    char buffer[8];
    EXPECT_EQ(OSA_FileReadLine(file, buffer, sizeof(buffer)), nullptr);
    EXPECT_EQ(OSA_FileClose(file), 0);
}

std::vector<std::string> read_lines(const std::string &path, uint32_t size)
{
    std::vector<std::string> lines;
    std::vector<char> buffer(size);
    OSA_File *file = OSA_FileOpen(path.c_str(), OSA_FILE_READ);
    while (const char *line = OSA_FileReadLine(file, buffer.data(), size))
        lines.push_back(line);
    EXPECT_LT(OSA_FileWrite(file, "x", 1), 0);
    EXPECT_EQ(OSA_FileClose(file), 0);
    return lines;
}

TEST_F(Contract, AFileIsEmptiedAndWrittenAndReadLineByLine)
{
    const std::string long_line(9000, 'x'); // several reads of the file
    const struct {
        std::string content;
        uint32_t size;
        std::vector<std::string> lines;
    } cases[] = {
        {long_line + "\nnext\n", 5, {"xxxx", "next"}},
        {long_line + "\nnext\n", 9002, {long_line + "\n", "next\n"}},
        {"\n\n", 16, {"\n", "\n"}},
        {"one\ntwo", 16, {"one\n", "two"}},
        {"exactly\nnext\n", 9, {"exactly\n", "next\n"}},
        {"exactly\nnext\n", 8, {"exactly", "next\n"}},
        {"too long by far\nnext\n", 5, {"too ", "next"}},
        {"a\nb", 1, {"", ""}},
        {"", 16, {}},
    };
    const std::string path = path_of("lines");
    for (const auto &each : cases) {
        write(path, each.content);
        EXPECT_EQ(read_lines(path, each.size), each.lines)
            << each.content.substr(0, 20) << " in " << each.size;
    }
    traced();
    const struct {
        const char *path;
        uint32_t mode;
        const char *reason;
    } refusals[] = {
        {"/dev/null/none", OSA_FILE_READ, "2 /dev/null/none cannot be opened: Not a directory"},
        {"/tmp", OSA_FILE_READ, "Is a directory"},
        {"/dev/null", 0, "no mode 0x0"},
    };
    for (const auto &each : refusals) {
        EXPECT_EQ(OSA_FileOpen(each.path, each.mode), nullptr) << each.reason;
        EXPECT_EQ(traced().find(each.reason) == std::string::npos, kLayer.is_simulated);
    }
    OSA_File *full = OSA_FileOpen("/dev/full", OSA_FILE_WRITE);
    EXPECT_EQ(OSA_FileWrite(full, "x", 1), kLayer.is_simulated ? 1 : -1);
    EXPECT_EQ(traced().find("No space left") == std::string::npos, kLayer.is_simulated);
    OSA_FileClose(full);
}

// Where the last byte lies that the loader maps.
size_t mapped_end(const std::string &content)
{
    const auto *header = reinterpret_cast<const ElfW(Ehdr) *>(content.data());
    const auto *segments = reinterpret_cast<const ElfW(Phdr) *>(content.data() + header->e_phoff);
    size_t end = 0;
    for (size_t index = 0; index < header->e_phnum; ++index)
        if (segments[index].p_type == PT_LOAD)
            end = std::max<size_t>(end, segments[index].p_offset + segments[index].p_filesz);
    return end;
}

TEST_F(Contract, ALibraryGivesItsFunctionsAndADamagedOneIsRefusedInPlainWords)
{
    OSA_Library *library = OSA_LibraryLoad(LOADABLE_PATH);
    ASSERT_NE(library, nullptr);
    const auto answer = reinterpret_cast<int (*)()>(OSA_LibraryGetFunc(library, "answer"));
    EXPECT_EQ(answer(), 42);
    EXPECT_EQ(OSA_LibraryGetFunc(library, "question"), nullptr);
    EXPECT_EQ(OSA_LibraryGetFunc(library, "number"), nullptr); // data
    EXPECT_EQ(complaints(), kLayer.is_simulated ? "" : "1 symbol number is data, not a function\n");
    EXPECT_EQ(OSA_LibraryUnLoad(library), 0);

    // A bare name is one of the working folder, whatever the system has of that name.
    const std::filesystem::path former = std::filesystem::current_path();
    const std::filesystem::path folder = path_of("folder");
    std::filesystem::create_directory(folder);
    std::filesystem::copy_file(LOADABLE_PATH, folder / "libm.so.6");
    std::filesystem::current_path(folder);
    library = OSA_LibraryLoad("libm.so.6");
    std::filesystem::current_path(former);
    std::filesystem::remove_all(folder);
    EXPECT_NE(OSA_LibraryGetFunc(library, "answer"), nullptr);
    OSA_LibraryUnLoad(library);

    std::ostringstream content;
    content << std::ifstream(LOADABLE_PATH, std::ios::binary).rdbuf();
    const std::string whole = content.str();
    const auto with_half_word = [&](size_t offset, uint16_t value) {
        std::string changed = whole;
        std::memcpy(changed.data() + offset, &value, sizeof(value));
        return changed;
    };
    const std::string path = path_of("damaged");
    const auto expect_refusal = [&](const std::string &refused, const char *words) {
        EXPECT_EQ(OSA_LibraryLoad(refused.c_str()), nullptr) << words;
        const std::string said = complaints();
        EXPECT_EQ(said.find("1 library " + refused), 0u) << said;
        EXPECT_NE(said.find(words), std::string::npos) << said;
    };
    const struct {
        std::string content;
        const char *words;
    } cases[] = {
        {"", "not an ELF file"},
        {"#!/bin/sh\necho no library\n", "not an ELF file"},
        {whole.substr(0, 40), "truncated"},
        {whole.substr(0, mapped_end(whole) - 1), "truncated"},
        {with_half_word(offsetof(ElfW(Ehdr), e_machine), EM_S390), "built for an unknown"},
        {with_half_word(offsetof(ElfW(Ehdr), e_machine), EM_MIPS), "built for MIPS"},
        {with_half_word(offsetof(ElfW(Ehdr), e_type), ET_REL), "not a shared library"},
        {with_half_word(offsetof(ElfW(Ehdr), e_phnum), 0), "malformed"},
    };
    for (const auto &each : cases) {
        std::ofstream(path, std::ios::binary) << each.content;
        expect_refusal(path, each.words);
    }
    ASSERT_TRUE(unlink(path.c_str()) == 0 && mkfifo(path.c_str(), 0600) == 0);
    expect_refusal(path, "not a regular file");  // and nobody waits for a writer
    expect_refusal("libc.so.6", "No such file"); // and not searched for
    expect_refusal(std::string(5000, 'x'), "too long");
}

TEST_F(Contract, ANullHandleIsRefused)
{
    char buffer[8];
    OSA_ListNode *node = OSA_List_Node_new();
    OSA_List *list = OSA_ListCreate();
    for (const int32_t result :
         {OSA_ListDestroy(nullptr), OSA_ListAddTail(nullptr, node), OSA_ListAddTail(list, nullptr),
          OSA_ListAddHead(nullptr, node), OSA_ListAddHead(list, nullptr),
          OSA_ListDel(nullptr, node), OSA_ListDel(list, nullptr), OSA_MutexDestroy(nullptr),
          OSA_MutexLock(nullptr, 0), OSA_MutexUnLock(nullptr), OSA_EventDestroy(nullptr),
          OSA_EventSend(nullptr), OSA_EventWait(nullptr, 0), OSA_QueueDestroy(nullptr),
          OSA_QueuePush(nullptr, buffer, 1), OSA_ThreadDelete(nullptr, nullptr),
          OSA_FileWrite(nullptr, buffer, 1), OSA_FileClose(nullptr), OSA_LibraryUnLoad(nullptr)})
        EXPECT_LT(result, 0);
    for (const void *nothing :
         {static_cast<void *>(OSA_ListGetHead(nullptr)),
          static_cast<void *>(OSA_ListGetTail(nullptr)),
          static_cast<void *>(OSA_ListGetNext(nullptr)),
          static_cast<void *>(OSA_ListGetPrev(nullptr)),
          static_cast<void *>(OSA_List_GetNthList(nullptr, 0)), OSA_QueuePop(nullptr, nullptr, 0),
          static_cast<void *>(OSA_ThreadCreate("none", 0, 0, nullptr, nullptr)),
          static_cast<void *>(OSA_FileOpen(nullptr, OSA_FILE_READ)),
          static_cast<void *>(OSA_FileReadLine(nullptr, buffer, 8)),
          static_cast<void *>(OSA_LibraryLoad(nullptr)), OSA_LibraryGetFunc(nullptr, "symbol")})
        EXPECT_EQ(nothing, nullptr);
    EXPECT_EQ(OSA_ListGetNum(nullptr), 0u);
    OSA_Free(nullptr, 0);
    OSA_SFree(nullptr, kSize);
    OSA_List_Node_delete(nullptr);
    OSA_List_Node_delete(node);
    OSA_ListDestroy(list);
    EXPECT_EQ(OSA_snprintf(buffer, sizeof(buffer), "%s %d", "longer than", 8), 13);
    EXPECT_STREQ(buffer, "longer ");
}

TEST_F(Contract, TracesAboveTheThresholdAreDropped)
{
    const auto say = [](int32_t level) {
        OSA_Trace("module", level, "source", 12, "function", "%s\n", "text");
    };
    OSA_TraceSetLevel(2);
    say(2);
    say(3);
    OSA_TraceSetLevel(0);
    say(1);
    OSA_Traces("%s\n", "whatever the threshold");
    EXPECT_EQ(traced(), "2 text\n0 whatever the threshold\n");
}

} // namespace
