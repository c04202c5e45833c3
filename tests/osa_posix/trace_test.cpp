// Traces.

#include <cstdlib>
#include <fcntl.h>
#include <pty.h>
#include <regex>
#include <thread>

#include "fixture.h"

namespace
{

class Trace : public Layer
{
protected:
    ~Trace() override
    {
        OSA_TraceSetOutput(STDERR_FILENO);
        OSA_TraceSetLevel(OSA_TRACE_NOTICE);
    }

    // What `speak` makes the layer write to the descriptor whose other end is `from`.
    template <typename Speak>
    static std::string output(int from, int to, Speak speak)
    {
        OSA_TraceSetOutput(to);
        speak();
        std::string text(1 << 16, '\0');
        const ssize_t length = read(from, text.data(), text.size());
        text.resize(length > 0 ? static_cast<size_t>(length) : 0);
        return text;
    }

    template <typename Speak>
    static std::string piped(Speak speak)
    {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        const std::string text = output(ends[0], ends[1], speak);
        close(ends[0]);
        close(ends[1]);
        return text;
    }
};

void say(int32_t level, const char *text)
{
    OSA_Trace("module", level, "source", 12, "function", "%s", text);
}

TEST_F(Trace, LinesAreHeadedAndEnded)
{
    const std::string text = piped([] {
        say(1, "first\n");
        say(2, "second");
        OSA_Traces("bare %d\n", 3);
    });
    const std::regex expected("\\[ *\\d+\\.\\d{3}\\] E module source:12 function: first\n"
                              "\\[ *\\d+\\.\\d{3}\\] N module source:12 function: second\n"
                              "bare 3\n");
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

TEST_F(Trace, LinesAboveTheThresholdAreDropped)
{
    Traces traces;
    say(2, "at two\n");
    say(3, "at three\n");
    OSA_TraceSetLevel(0);
    say(1, "at one\n");
    OSA_Traces("whatever the threshold\n");
    EXPECT_EQ(traces.text(), "2 at two\n0 whatever the threshold\n");
}

TEST_F(Trace, ALongTextIsOneWholeLine)
{
    for (const size_t length : {900u, 1000u, 1023u, 1024u, 1025u, 5000u}) {
        const std::string text(length, 'x');
        const std::string line = piped([&] { OSA_Traces("%s", text.c_str()); });
        EXPECT_EQ(line, text + "\n") << length;
    }
}

TEST_F(Trace, ColoursAreForTerminalsOnly)
{
    const char *coloured = "\033[33mtext\033[0m\n\033[1;2m";
    const auto speak = [=] { OSA_Traces("%s", coloured); };
    EXPECT_EQ(piped(speak), "text\n");
    int master = -1;
    int slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(output(master, slave, speak), "\033[33mtext\033[0m\r\n\033[1;2m");
    setenv("NO_COLOR", "1", 1);
    EXPECT_EQ(output(master, slave, speak), "text\r\n");
    unsetenv("NO_COLOR");
    close(master);
    close(slave);
}

TEST_F(Trace, LinesOfThreadsDoNotMix)
{
    const auto speak = [](char letter) {
        for (int index = 0; index < 20; ++index)
            OSA_Traces("%s", std::string(1000, letter).c_str());
    };
    const std::string text = piped([&] {
        std::thread other(speak, 'a');
        speak('b');
        other.join();
    });
    std::istringstream lines(text);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        EXPECT_EQ(line, std::string(1000, line[0]));
    EXPECT_EQ(count, 40);
}

} // namespace
