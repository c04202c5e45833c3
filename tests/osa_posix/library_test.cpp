// Dynamic libraries, whole and damaged.

#include <cstddef>
#include <cstring>
#include <sstream>

#include <link.h>
#include <sys/stat.h>

#include "fixture.h"

namespace
{

class Libraries : public Layer
{
protected:
    static std::string whole_library()
    {
        std::ostringstream content;
        content << std::ifstream(LOADABLE_PATH, std::ios::binary).rdbuf();
        return content.str();
    }

    // Where the last byte lies that the loader maps.
    static size_t mapped_end(const std::string &content)
    {
        ElfW(Ehdr) header;
        std::memcpy(&header, content.data(), sizeof(header));
        size_t end = 0;
        for (size_t index = 0; index < header.e_phnum; ++index) {
            ElfW(Phdr) segment;
            std::memcpy(&segment, content.data() + header.e_phoff + index * sizeof(segment),
                        sizeof(segment));
            if (segment.p_type == PT_LOAD)
                end = std::max<size_t>(end, segment.p_offset + segment.p_filesz);
        }
        return end;
    }
};

TEST_F(Libraries, AWholeOneGivesItsFunctions)
{
    OSA_Library *library = OSA_LibraryLoad(LOADABLE_PATH);
    ASSERT_NE(library, nullptr);
    const auto answer = reinterpret_cast<int (*)()>(OSA_LibraryGetFunc(library, "answer"));
    EXPECT_EQ(answer(), 42);
    EXPECT_EQ(OSA_LibraryGetFunc(library, "question"), nullptr);
    EXPECT_EQ(OSA_LibraryUnLoad(library), 0);
}

TEST_F(Libraries, WhatIsWrongIsSaidInPlainWords)
{
    const std::string whole = whole_library();
    const auto with_half_word = [&](size_t offset, uint16_t value) {
        std::string changed = whole;
        std::memcpy(changed.data() + offset, &value, sizeof(value));
        return changed;
    };
    const struct {
        std::string content;
        const char *words;
    } cases[] = {
        {"", "not an ELF file"},
        {"#!/bin/sh\necho no library\n", "not an ELF file"},
        {whole.substr(0, 40), "truncated"},
        {with_half_word(offsetof(ElfW(Ehdr), e_machine), EM_S390), "built for an unknown"},
        {with_half_word(offsetof(ElfW(Ehdr), e_machine), EM_MIPS), "built for MIPS"},
        {with_half_word(offsetof(ElfW(Ehdr), e_type), ET_REL), "not a shared library"},
        {with_half_word(offsetof(ElfW(Ehdr), e_phnum), 0), "malformed"},
    };
    for (const auto &each : cases) {
        Traces traces;
        const std::string path = write_file("damaged", each.content);
        EXPECT_EQ(OSA_LibraryLoad(path.c_str()), nullptr) << each.words;
        EXPECT_TRUE(traces.has("1 library " + path) && traces.has(each.words)) << traces.text();
    }
    Traces traces;
    EXPECT_EQ(OSA_LibraryLoad("libc.so.6"), nullptr) << "a bare name is not searched for";
    EXPECT_TRUE(traces.has("No such file")) << traces.text();
    const std::string pipe = write_file("pipe", "");
    ASSERT_TRUE(unlink(pipe.c_str()) == 0 && mkfifo(pipe.c_str(), 0600) == 0);
    EXPECT_EQ(OSA_LibraryLoad(pipe.c_str()), nullptr) << "and nobody waits for a writer";
    EXPECT_EQ(OSA_LibraryLoad(std::string(5000, 'x').c_str()), nullptr);
    EXPECT_TRUE(traces.has("not a regular file") && traces.has("too long")) << traces.text();
}

TEST_F(Libraries, ATruncatedOneIsRefusedAtEveryLength)
{
    const std::string whole = whole_library();
    const size_t end = mapped_end(whole);
    Traces traces;
    for (size_t length = 0; length < end; length += 1 + end / 150)
        EXPECT_EQ(OSA_LibraryLoad(write_file("cut", whole.substr(0, length)).c_str()), nullptr)
            << length;
    EXPECT_EQ(OSA_LibraryLoad(write_file("cut", whole.substr(0, end - 1)).c_str()), nullptr);
}

} // namespace
