// The scenarios of the shipped plugins: the real libraries, under the simulated layer.
// What libsndfile and the C library do themselves are no calls of the layer.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

#include "soak/faults.h"
#include "tests/e2e/wav_file.h"

namespace soak
{

namespace
{

constexpr char kShippedCache[] = "shipped.cache";
constexpr size_t kFrames = 400; // 50 ms, in three buffers
constexpr uint32_t kRate = 8000;

// A file that nothing is left of, however the process ends.
class FileInMemory
{
public:
    FileInMemory() : m_path("/proc/self/fd/" + std::to_string(memfd_create("sound", MFD_CLOEXEC)))
    {
    }
    const std::string &path() const
    {
        return m_path;
    }

private:
    std::string m_path;
};

const std::string &recording()
{
    static const FileInMemory file;
    static const bool is_written = (write_wav(file.path(), sweep(kRate, 2, kFrames)), true);
    EXPECT_TRUE(is_written);
    return file.path();
}

// Keeps what plugins print from the program's own output.
class SilentOutput
{
public:
    SilentOutput()
    {
        std::fflush(stdout);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        close(nowhere);
    }
    SilentOutput(const SilentOutput &) = delete;
    SilentOutput &operator=(const SilentOutput &) = delete;
    ~SilentOutput()
    {
        std::fflush(stdout);
        dup2(m_output, STDOUT_FILENO);
        close(m_output);
    }

private:
    const int m_output = dup(STDOUT_FILENO);
};

bool start_up(Attempt &attempt)
{
    std::string cache = "probesink@sink.so\n";
    for (const std::string name : {"wavsrc", "volume", "tee", "reblock", "wavsink", "levelsink"})
        cache += name + "@" + PLUGIN_FOLDER + "/nox" + name + ".so\n";
    SIM_FileAdd(kShippedCache, cache);
    return attempt.start_up(kShippedCache);
}

bool set_location(Attempt &attempt, NOXPlugin *plugin, const std::string &path)
{
    const char *location = path.c_str();
    return attempt.set(plugin, "location", NOX_TYPE_STRING, &location);
}

NOXPlugin *add_source(Attempt &attempt)
{
    NOXPlugin *source = start_up(attempt) ? attempt.add("wavsrc", "source") : nullptr;
    set_location(attempt, source, recording());
    return source;
}

void ask(Attempt &attempt, NOXPlugin *plugin)
{
    NOXStructure *facts = attempt.made(nox_structure_new("facts"));
    if (facts != nullptr)
        attempt.done(nox_plugin_getformat(plugin, facts));
    nox_object_delete(facts);
}

// By way of READY, where a refusal shows; twice, since each start begins anew.
void play(Attempt &attempt)
{
    for (int round = 0; round < 2; ++round) {
        const uint32_t ends = attempt.inbox.count(NOX_MSG_EOS);
        if (!attempt.to(NOX_STATE_READY) || !attempt.to(NOX_STATE_PLAY))
            return;
        attempt.see_soon([&] { return attempt.inbox.count(NOX_MSG_EOS) > ends; });
        if (!attempt.to(NOX_STATE_NULL))
            return;
    }
}

// ---- wavsrc ! PLUGIN ! probesink --------------------------------------------------

void play_file(Attempt &attempt)
{
    NOXPlugin *source = add_source(attempt);
    if (!attempt.set(source, "loop", 2) || !attempt.chain({source, attempt.add("probesink", "k")}))
        return;
    ask(attempt, source);
    play(attempt);
    attempt.see(script("k").taken == 2 * 2 * 3);
}

void change_volume(Attempt &attempt)
{
    NOXPlugin *source = add_source(attempt);
    NOXPlugin *volume = attempt.add("volume", "volume");
    const float gain = 0.5F;
    if (!attempt.set(volume, "gain", NOX_TYPE_FLOAT, &gain) ||
        !attempt.chain({source, volume, attempt.add("probesink", "k")}))
        return;
    ask(attempt, volume);
    play(attempt);
    attempt.see(script("k").taken == 2 * 3);
}

void share(Attempt &attempt)
{
    NOXPlugin *source = add_source(attempt);
    NOXPlugin *tee = attempt.add("tee", "tee");
    if (!attempt.chain({source, tee, attempt.add("probesink", "k1")}) ||
        !attempt.chain({tee, attempt.add("volume", "volume"), attempt.add("probesink", "k2")}))
        return;
    ask(attempt, tee);
    play(attempt);
    attempt.see(script("k1").taken == 2 * 3 && script("k2").taken == 2 * 3);
}

// Bytes in all: a block is lost or told.
void cut_into_blocks(Attempt &attempt)
{
    NOXPlugin *source = add_source(attempt);
    NOXPlugin *reblock = attempt.add("reblock", "reblock");
    std::atomic<size_t> bytes{0};
    script("k").take = [&bytes](NOXBuffer *buffer) {
        bytes += nox_buffer_get_datasize(buffer);
        return 0;
    };
    if (!attempt.set(reblock, "size", 200) ||
        !attempt.chain({source, reblock, attempt.add("probesink", "k")}))
        return;
    ask(attempt, reblock);
    play(attempt);
    attempt.see(bytes == 2 * kFrames * 4);
}

// ---- wavsrc ! SINK ----------------------------------------------------------------

void write_file(Attempt &attempt)
{
    static const FileInMemory file;
    NOXPlugin *source = add_source(attempt);
    NOXPlugin *sink = attempt.add("wavsink", "sink");
    if (!set_location(attempt, sink, file.path()) || !attempt.chain({source, sink}))
        return;
    ask(attempt, sink);
    play(attempt);
    attempt.see(read_wav(file.path()).samples == read_wav(recording()).samples);
}

void measure_levels(Attempt &attempt)
{
    const SilentOutput silent;
    NOXPlugin *source = add_source(attempt);
    NOXPlugin *sink = attempt.add("levelsink", "sink");
    if (!attempt.chain({source, sink}))
        return;
    ask(attempt, sink);
    play(attempt);
    attempt.shut_down(); // prints
}

} // namespace

std::vector<Scenario> plugin_scenarios()
{
    std::vector<Scenario> scenarios = {{"wavsrc", play_file},   {"volume", change_volume},
                                       {"tee", share},          {"reblock", cut_into_blocks},
                                       {"wavsink", write_file}, {"levelsink", measure_levels}};
    for (Scenario &scenario : scenarios)
        scenario.tells_errors = true; // a clock traces its second start at level 1
    return scenarios;
}

} // namespace soak
