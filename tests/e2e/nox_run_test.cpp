// nox-run with the real plugins: what is written, what is said, how it ends.

#include <cmath>
#include <csignal>

#include <gtest/gtest.h>

#include "process.h"
#include "wav_file.h"

namespace
{

class NoxRun : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        folder_ = new TemporaryFolder;
        const Result scan = run({NOX_SCAN, PLUGIN_FOLDER, TEST_PLUGIN_FOLDER, "-o", path("cache")});
        ASSERT_EQ(scan.code, 0) << scan.err;
        write_wav(path("in.wav"), sweep(44100, 2, 22051));
    }

    static void TearDownTestSuite()
    {
        delete folder_;
        folder_ = nullptr;
    }

    static std::string path(const std::string &name)
    {
        return *folder_ / name;
    }

    // Names after "=" that begin with "@" are files of the test's folder.
    static std::string with_paths(std::string notation)
    {
        for (size_t at = notation.find("=@"); at != std::string::npos; at = notation.find("=@"))
            notation.replace(at + 1, 1, path(""));
        return notation;
    }

    static std::vector<std::string> command(const std::string &notation,
                                            const std::vector<std::string> &options = {},
                                            std::vector<std::string> words = {})
    {
        words.insert(words.end(), {NOX_RUN, "--cache", path("cache")});
        words.insert(words.end(), options.begin(), options.end());
        words.push_back(with_paths(notation));
        return words;
    }

    static Result play(const std::string &notation)
    {
        return run(command(notation));
    }

    static void expect_in(const std::string &text, const std::string &piece)
    {
        EXPECT_NE(text.find(piece), std::string::npos) << piece << " in " << text;
    }

    // A header that is not right shows in the frames that libsndfile finds.
    static void expect_whole(const std::string &name)
    {
        const Wav wav = read_wav(path(name));
        EXPECT_GT(wav.samples.size(), 0u);
        EXPECT_EQ(wav.samples.size() * sizeof(int16_t) + 44,
                  std::filesystem::file_size(path(name)));
    }

    static TemporaryFolder *folder_;
};

TemporaryFolder *NoxRun::folder_ = nullptr;

} // namespace

TEST_F(NoxRun, EveryFrameArrivesInEveryBranchAtTheGain)
{
    const Result result =
        play("wavsrc location=@in.wav ! tee name=s ! volume gain=0.5 ! tee name=t "
             "! wavsink location=@half.wav sync=true t. ! levelsink name=level "
             "t. ! wavsink location=@again.wav s. ! reblock size=4096 ! volume gain=3 ! "
             "wavsink location=@loud.wav");
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out.rfind("level: 22051 frames at 44100 Hz; channel 1: peak 0.5", 0), 0u)
        << result.out;
    EXPECT_EQ(result.err, "nox-run: NOX_MSG_EOS from wavsink3: EOS.\n");
    const Wav in = read_wav(path("in.wav"));
    const Wav half = read_wav(path("half.wav"));
    const Wav loud = read_wav(path("loud.wav"));
    EXPECT_EQ(std::pair(half.rate, half.channels), std::pair(44100, 2));
    ASSERT_EQ(half.samples.size(), in.samples.size());
    ASSERT_EQ(loud.samples.size(), in.samples.size());
    for (size_t index = 0; index < in.samples.size(); ++index) {
        ASSERT_EQ(half.samples[index], std::lrint(in.samples[index] * 0.5)) << index;
        ASSERT_EQ(loud.samples[index], std::clamp(in.samples[index] * 3, -32768, 32767)) << index;
    }
    EXPECT_EQ(read_wav(path("again.wav")).samples, half.samples);
    expect_whole("half.wav");
}

TEST_F(NoxRun, ALoopPlaysTheFileSeveralTimesWithoutAGap)
{
    const Wav once = sweep(11025, 1, 1000);
    write_wav(path("odd.wav"), once, SF_FORMAT_WAV | SF_FORMAT_PCM_24);
    const Result result = play("wavsrc location=@odd.wav loop=3 ! wavsink location=@thrice.wav");
    EXPECT_EQ(result.code, 0) << result.err;
    std::vector<int16_t> expected;
    for (int time = 0; time < 3; ++time)
        expected.insert(expected.end(), once.samples.begin(), once.samples.end());
    EXPECT_EQ(read_wav(path("thrice.wav")).samples, expected);
}

TEST_F(NoxRun, ASignalThatIsNotIgnoredEndsTheStreamAndLeavesAWholeFile)
{
    const Result result =
        run(command("wavsrc location=@in.wav loop=4000 ! wavsink location=@cut.wav sync=true", {},
                    {"/usr/bin/nohup"}),
            [](pid_t process, const ErrorsSoFar &errors) {
                const auto grows_to = [](size_t size) {
                    return wait_until([=] { return read_file(path("cut.wav")).size() > size; });
                };
                EXPECT_TRUE(grows_to(20000));
                kill(process, SIGHUP);
                EXPECT_TRUE(grows_to(60000));
                EXPECT_EQ(errors().find("ending the stream"), std::string::npos);
                kill(process, SIGINT);
            });
    EXPECT_EQ(result.code, 0) << result.err;
    expect_in(result.err, "ending the stream");
    expect_whole("cut.wav");
}

TEST_F(NoxRun, OnlyTheSecondSignalStopsByForceWhatDoesNotEnd)
{
    const Result result =
        run(command("endless dry=50 errhandle=4294967295 ! wavsink location=@endless.wav",
                    {"--time-limit", "1"}),
            [](pid_t process, const ErrorsSoFar &errors) {
                const auto says = [&](const char *text) {
                    return wait_until([&] { return errors().find(text) != std::string::npos; });
                };
                EXPECT_TRUE(says("Successfully started"));
                EXPECT_TRUE(says("the time limit has passed"));
                kill(process, SIGTERM);
                EXPECT_TRUE(says("once more stops by force"));
                kill(process, SIGINT);
            });
    EXPECT_EQ(result.code, 130) << result.err;
    expect_in(result.err, "stopped by force");
    EXPECT_EQ(result.err.find("still alive"), std::string::npos) << result.err;
    expect_whole("endless.wav");
}

TEST_F(NoxRun, AFileThatIsPlayedIsNotOverwritten)
{
    const std::string before = read_file(path("in.wav"));
    const Result result = play("wavsrc location=@in.wav ! wavsink location=@in.wav");
    EXPECT_EQ(result.code, 1);
    expect_in(result.err, "it is being read or written");
    EXPECT_EQ(read_file(path("in.wav")), before);
}

TEST_F(NoxRun, ADiskThatFillsUpFailsTheRunAndLeavesWhatFitted)
{
    const Result result = run(command("wavsrc location=@in.wav ! tee name=t ! wavsink "
                                      "location=@full.wav t. ! levelsink"),
                              nullptr, 20000);
    EXPECT_EQ(result.code, 1);
    expect_in(result.err, "PLUGIN_MSG_WRITE from wavsink: cannot write " + path("full.wav"));
    EXPECT_EQ(result.err.find("PLUGIN_MSG_WRITE"), result.err.rfind("PLUGIN_MSG_WRITE"));
    expect_whole("full.wav");
}

TEST_F(NoxRun, FailuresAreNamedAndLeaveNothingAlive)
{
    const Wav wav = sweep(8000, 1, 800);
    write_wav(path("float.wav"), wav, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    write_wav(path("aiff.aiff"), wav, SF_FORMAT_AIFF | SF_FORMAT_PCM_16);
    const std::string whole = read_file(path("in.wav"));
    write_file(path("cut.wav"), whole.substr(0, whole.size() / 2));
    write_file(path("header.wav"), whole.substr(0, 30));
    write_file(path("text.wav"), "this is no recording, only a text with that name\n");
    const struct {
        const char *notation;
        int code;
        const char *says;
    } cases[] = {{"wavsrc location=@gone.wav ! levelsink", 1, "No such file or directory"},
                 {"wavsrc location=/tmp ! levelsink", 1, "not a regular file"},
                 {"wavsrc location=@cut.wav ! levelsink", 1, "44124 bytes of its samples"},
                 {"wavsrc location=@header.wav ! levelsink", 1, "cannot read"},
                 {"wavsrc location=@text.wav ! levelsink", 1, "not a WAV file"},
                 {"wavsrc location=@float.wav ! levelsink", 1, "32 bit float; only PCM"},
                 {"wavsrc location=@aiff.aiff ! levelsink", 1, "not a WAV file"},
                 {"wavsrc ! levelsink", 2, "refused its options\n  wavsrc ! levelsink\n  ^^^^^^\n"},
                 {"wavsrc location=@in.wav loop=0 ! levelsink", 2, "loop must be from 1"},
                 {"wavsrc location=@in.wav islive=true ! levelsink", 2, "not live"},
                 {"wavsrc location=@in.wav ! volume gain=-1 ! levelsink", 2, "gain must be 0"},
                 {"wavsrc location=@in.wav ! volume gain=nan ! levelsink", 2, "gain must be 0"},
                 {"wavsrc location=@in.wav ! reblock ! levelsink", 2, "size (bytes) or duration"},
                 {"wavsrc location=@in.wav ! reblock size=8 duration=2 ! levelsink", 2, "both"},
                 {"wavsrc location=@in.wav ! reblock size=3000000000 ! levelsink", 2, "must be"},
                 {"wavsrc location=@in.wav ! reblock size=6 ! levelsink", 1, "frames of 4 bytes"},
                 {"endless format=f32le ! reblock duration=9 ! levelsink", 1, "hands on f32le"},
                 {"wavsrc location=@in.wav ! wavsink location=/dev/full", 1, "No space left"},
                 {"wavsrc location=@in.wav ! wavsink location=/no/where", 1, "No such file"},
                 {"wavsrc location=@in.wav ! wavsink location=(string)''", 2, "is missing"},
                 {"wavsrc location=@in.wav ! tee name=t ! wavsink location=@x.wav t. ! wavsink "
                  "location=@x.wav",
                  1, "it is being read or written"},
                 {"endless format=f32le ! volume ! levelsink", 1, "hands on f32le; 16-bit PCM"},
                 {"endless maxframes=3 stays=true ! levelsink", 1, "brought back to NULL"},
                 {"endless format=\x1B[2J\x1B[31mf32le ! volume ! levelsink", 1,
                  "hands on ?[2Jf32le; 16-bit PCM"},
                 {"wavsrc ! unknown ! levelsink", 3,
                  "no plugin unknown\n  wavsrc ! unknown ! "
                  "levelsink\n           ^^^^^^^\n"},
                 {"wavsrc ! tee name=t ! volume gain=2 ! t.", 2,
                  "this link would close a cycle: t ! volume ! t\n"},
                 {"wavsrc ! tee name=t ! levelsink t. ! t.", 2, "close a cycle: t ! t\n"},
                 {"wavsrc", 2, "nothing follows wavsrc"},
                 {"wavsrc location=@in.wav ! levelsink wavsrc name=left", 2,
                  "nothing follows wavsrc; a sink must end it\n"},
                 {"wavsrc location=@in.wav ! levelsink levelsink", 2, "nothing feeds levelsink"},
                 {"volume ! levelsink", 2, "nothing feeds volume"},
                 {"wavsrc ! wavsrc ! levelsink", 2, "wavsrc is a source"},
                 {"wavsrc ! levelsink ! tee", 2, "levelsink is a sink"},
                 {"wavsrc ! volume gian=1 ! levelsink", 2, "of volume; it has gain\n"},
                 {"wavsrc ! tee on=1 ! levelsink", 2, "it has none"},
                 {"wavsrc loop=-1 ! levelsink", 2, "\"-1\" is no value of type uint32"},
                 {"wavsrc loop=4294967296 ! levelsink", 2, "does not fit uint32"},
                 {"wavsrc ! levelsink sync=maybe", 2, "neither true nor false"},
                 {"wavsrc loop=(int8)1 ! levelsink", 2, "the types are char, int16"},
                 {"wavsrc loop=(float)1 ! levelsink", 2, "loop of wavsrc is of type uint32"},
                 {"wavsrc !! levelsink", 2, "  wavsrc !! levelsink\n         ^^\n"}};
    for (const auto &[notation, code, says] : cases) {
        SCOPED_TRACE(notation);
        const Result result = play(notation);
        EXPECT_EQ(result.code, code) << result.err;
        expect_in(result.err, says);
        EXPECT_EQ(result.err.find("still alive"), std::string::npos) << result.err;
    }
}

TEST_F(NoxRun, UsageAndCacheErrorsHaveTheirOwnCodes)
{
    EXPECT_EQ(run({NOX_RUN, "--cache", path("no-cache"), "a ! b"}).code, 3);
    EXPECT_EQ(run({NOX_RUN, "--cache"}).code, 2);
    EXPECT_EQ(run({NOX_RUN, "--cache", path("cache")}).code, 2);
    EXPECT_EQ(run({NOX_RUN, "--help"}).code, 0);
    for (const char *rate : {"0", "-1", "nan", "inf", "1e50", "2x", ""})
        EXPECT_EQ(run(command("wavsrc", {"--rate", rate})).code, 2) << rate;
    write_file(path("stale"), "wavsrc@/no/such/library.so\n");
    EXPECT_EQ(run({NOX_RUN, "--cache", path("stale"), "wavsrc"}).code, 3);
}

TEST_F(NoxRun, ATimeLimitEndsTheStreamLikeASignal)
{
    // The second does not know the wish to end.
    for (const char *source : {"wavsrc location=@in.wav loop=4000", "endless"}) {
        const Result result =
            run(command(std::string(source) + " ! wavsink sync=on location=@limit.wav",
                        {"-q", "--time-limit", "1"}));
        EXPECT_EQ(result.code, 0);
        EXPECT_EQ(result.err, "");
        expect_whole("limit.wav");
    }
}

TEST_F(NoxRun, ASinkOnTheClockFollowsItsRate)
{
    const Result result = run(command("wavsrc location=@in.wav loop=200 ! levelsink sync=true",
                                      {"--rate", "100", "--time-limit", "20"}));
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err, "nox-run: NOX_MSG_EOS from levelsink: EOS.\n") << "100 s, in 1 s";
}

// Graphviz is a script here, which shows what it is given.
TEST_F(NoxRun, TheGraphIsWrittenOrDrawnBeforeAnythingActs)
{
    const std::string text = "digraph mainpipe { \n rankdir=\"LR\"; node [shape=box color=blue "
                             "style=filled fillcolor=yellow] \nwavsrc -> t -> levelsink;t -> "
                             "wavsink; }";
    const std::string good = "wavsrc location=@in.wav ! tee name=t ! levelsink t. ! wavsink "
                             "location=@played.wav";
    std::string large = "wavsrc location=@in.wav ! tee name=t";
    for (int branch = 10; branch < 60; ++branch)
        large += " t. ! levelsink name=" + std::string(100, 'a') + std::to_string(branch);
    const struct {
        const char *file;
        const char *dot; // script; null: not installed
        std::string notation;
        int code;
        const char *says;
        std::string shows; // the file; empty: there is none
    } cases[] = {
        {"g.dot", nullptr, good, 0, "", text},
        {"g.svg", "echo $*; exec /bin/cat", good, 0, "", "-Tsvg\n" + text},
        {"g.png", "echo $*; exec /bin/cat",
         "wavsrc location=@gone.wav ! tee name=t ! levelsink t. ! wavsink", 1,
         "No such file or directory", "-Tpng\n" + text},
        {"g.svg", nullptr, good, 1, "g.svg: it is not installed", ""},
        {"g.svg", "echo half; echo no fonts >&2; exit 3", good, 1, "exit code 3\nno fonts\n", ""},
        {"g.svg", "kill -9 $$", good, 1, "ended by signal 9", ""},
        {"g.svg", "exit 0", good, 1, "it has written nothing", ""},
        {"g.svg", "kill -INT $PPID; exec /bin/sleep 60", good, 1, "ended by signal 15", ""},
        {"no/g.svg", "exec /bin/cat", good, 1, "no/g.svg: No such file or directory", ""},
        {"no/g.dot", "exec /bin/cat", good, 1, "no/g.dot: No such file or directory", ""},
        {"g.pdf", "exec /bin/cat", good, 2, "ends in .dot, .svg or .png", ""},
        {"g.dot", nullptr, "wavsrc ! levelsink name=my-sink", 2,
         "name my-sink; give it one with name=", ""},
        {"g.dot", nullptr, "wavsrc ! levelsink name=Node", 2, "no word of the DOT language\n", ""},
    };
    std::filesystem::create_directory(path("bin"));
    const auto play_with = [](const std::string &file, const std::string &notation) {
        return run(command(notation, {"-q", "--graph", path(file)},
                           {"/usr/bin/env", "PATH=" + path("bin")}));
    };
    for (const auto &[file, dot, notation, code, says, shows] : cases) {
        for (const char *left : {"bin/dot", "g.dot", "g.svg", "g.png", "played.wav"})
            std::filesystem::remove(path(left));
        if (dot != nullptr) {
            write_file(path("bin/dot"), std::string("#!/bin/sh\n") + dot + "\n");
            std::filesystem::permissions(path("bin/dot"), std::filesystem::perms::owner_all);
        }
        const Result result = play_with(file, notation);
        EXPECT_EQ(result.code, code) << result.err;
        expect_in(result.err, says);
        EXPECT_EQ(read_file(path(file)), shows);
        EXPECT_EQ(std::filesystem::exists(path(file)), !shows.empty());
        EXPECT_EQ(std::filesystem::exists(path("played.wav")), code == 0);
    }
    const Result part = play_with("g.dot", large);
    EXPECT_EQ(part.code, 0) << "a graph in part is told, and plays";
    expect_in(part.err, "g.dot shows 37 of 51 links");
    const Result full = run(command(large, {"--graph", path("g.dot")}), nullptr, 2000);
    EXPECT_EQ(full.code, 1);
    expect_in(full.err, "g.dot: File too large");
}
