// Trace lines as they are written.

#include <cstdlib>
#include <pty.h>
#include <regex>
#include <sstream>

#include "tests/osa/layer.h"

namespace
{

class Trace : public Layer
{
protected:
    Trace()
    {
        OSA_TraceSetReceiver(nullptr, nullptr);
        EXPECT_EQ(pipe(m_ends), 0);
        OSA_TraceSetOutput(m_ends[1]);
    }
    ~Trace() override
    {
        OSA_TraceSetOutput(STDERR_FILENO);
        close(m_ends[0]);
        close(m_ends[1]);
    }

    std::string written()
    {
        return written(m_ends[0]);
    }
    static std::string written(int from)
    {
        std::string text(1 << 16, '\0');
        const ssize_t length = read(from, text.data(), text.size());
        return text.substr(0, length > 0 ? static_cast<size_t>(length) : 0);
    }

private:
    int m_ends[2];
};

TEST_F(Trace, LinesAreHeadedAndEndedAndWhole)
{
    OSA_Trace("module", 1, "source", 12, "function", "first\n");
    OSA_Trace("module", 2, "source", 12, "function", "%s", "second");
    OSA_TraceSetLevel(4);
    OSA_Trace("module", 3, "source", 12, "function", "third\n");
    OSA_Trace("module", 4, nullptr, 12, nullptr, "fourth\n");
    OSA_Traces("bare %d\n", 5);
    const std::regex expected("\\[ *\\d+\\.\\d{3}\\] E module source:12 function: first\n"
                              "\\[ *\\d+\\.\\d{3}\\] N module source:12 function: second\n"
                              "\\[ *\\d+\\.\\d{3}\\] I module source:12 function: third\n"
                              "\\[ *\\d+\\.\\d{3}\\] V module -:12 -: fourth\n"
                              "bare 5\n");
    const std::string lines = written();
    EXPECT_TRUE(std::regex_match(lines, expected)) << lines;
    for (const size_t length : {900u, 1000u, 1023u, 1024u, 1025u, 5000u}) {
        const std::string text(length, 'x');
        OSA_Traces("%s", text.c_str());
        EXPECT_EQ(written(), text + "\n") << length;
    }
}

TEST_F(Trace, ColoursAreForTerminalsOnly)
{
    const auto speak = [] { OSA_Traces("%s", "\033[33mtext\033[0m\n\033[1;2m"); };
    speak();
    EXPECT_EQ(written(), "text\n");
    int master = -1;
    int slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    OSA_TraceSetOutput(slave);
    speak();
    EXPECT_EQ(written(master), "\033[33mtext\033[0m\r\n\033[1;2m");
    setenv("NO_COLOR", "1", 1);
    OSA_TraceSetOutput(slave);
    speak();
    EXPECT_EQ(written(master), "text\r\n");
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
    {
        const TestThread other("other", [&] { speak('a'); });
        speak('b');
    }
    std::istringstream lines(written());
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        EXPECT_EQ(line, std::string(1000, line[0]));
    EXPECT_EQ(count, 40);
}

} // namespace
