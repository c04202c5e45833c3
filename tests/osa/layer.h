// What the tests of both layers share: a run of the layer around each test, its
// trace lines gathered, and no complaint and nothing alive left at the end.
#ifndef TESTS_OSA_LAYER_H
#define TESTS_OSA_LAYER_H

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "osa/osa_ext.h"

// What differs between the layers. Each has a folder beside this one, with kLayer.
struct LayerUnderTest {
    void (*begin)(uint64_t seed);
    void (*end)();
    std::string (*misuses)();        // a line each, forgotten then
    bool is_simulated;               // a wait takes its time and not a tick more
    uint32_t rounds;                 // what threads that race do to be found out
    std::vector<uint32_t> slow_told; // seconds after which a thread that does not end is named
};
extern const LayerUnderTest kLayer;

class Layer : public testing::Test
{
protected:
    explicit Layer(uint64_t seed = 1)
    {
        kLayer.begin(seed);
        OSA_TraceSetReceiver(receive, this);
    }
    ~Layer() override
    {
        EXPECT_EQ(complaints(), "");
        OSA_TraceSetReceiver(nullptr, nullptr);
        OSA_TraceSetLevel(OSA_TRACE_NOTICE);
        const OSA_Alive left = alive();
        EXPECT_TRUE(OSA_AliveIsNothing(&left));
        kLayer.end();
        for (const std::string &path : m_files)
            unlink(path.c_str());
    }

    // The lines traced since the last call but for errors, "2 text": the level leads each.
    std::string traced()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_traced, "");
    }
    // What the layer found wrong with its callers, or traced as an error, likewise.
    std::string complaints()
    {
        const std::lock_guard lock(m_mutex);
        return kLayer.misuses() + std::exchange(m_errors, "");
    }
    // The ticks of the errors traced so far.
    std::vector<uint64_t> error_ticks()
    {
        const std::lock_guard lock(m_mutex);
        return m_error_ticks;
    }
    bool complains(const char *words)
    {
        const std::string said = complaints();
        return said.find(words) != std::string::npos && said.find('\n') == said.size() - 1;
    }

    static OSA_Alive alive()
    {
        OSA_Alive counts;
        OSA_AliveGet(&counts);
        return counts;
    }
    static bool took(uint64_t start, uint32_t duration_ms, uint64_t end = OSA_GetSystemTick())
    {
        const uint64_t elapsed = end - start;
        return kLayer.is_simulated ? elapsed == duration_ms : elapsed >= duration_ms;
    }

    // Lets threads that count themselves in just before they wait get there.
    static void let_them_wait(const std::atomic<uint32_t> &arrived, uint32_t number)
    {
        while (arrived < number)
            OSA_ThreadSleep(1);
        OSA_ThreadSleep(200);
    }

    static std::vector<void *> take(size_t number, uint32_t size = kSize)
    {
        std::vector<void *> blocks;
        while (blocks.size() < number)
            blocks.push_back(OSA_SMalloc(size));
        return blocks;
    }
    static void give(const std::vector<void *> &blocks, uint32_t size = kSize)
    {
        for (void *block : blocks)
            OSA_SFree(block, size);
    }

    // The path of a file of this test.
    std::string path_of(const char *name)
    {
        return *m_files.insert(testing::TempDir() + "osa_" + std::to_string(getpid()) + name).first;
    }

    static constexpr uint32_t kSize = 200; // of the blocks in most tests of pools

private:
    static void receive(void *user, const OSA_TraceRecord *record)
    {
        Layer &self = *static_cast<Layer *>(user);
        const uint64_t tick = OSA_GetSystemTick(); // where another thread may come in
        const std::lock_guard lock(self.m_mutex);
        const std::string line = std::to_string(record->level) + " " + record->text;
        if (record->level != OSA_TRACE_ERROR) {
            self.m_traced += line;
            return;
        }
        self.m_errors += line;
        self.m_error_ticks.push_back(tick);
    }

    std::mutex m_mutex;
    std::string m_traced;
    std::string m_errors;
    std::vector<uint64_t> m_error_ticks;
    std::set<std::string> m_files;
};

// What osa.h promises of every layer: what hangs on the schedule in each of many,
// where the layer has them.
using Contract = Layer;

class EverySchedule : public Layer, public testing::WithParamInterface<uint64_t>
{
protected:
    EverySchedule() : Layer(GetParam()) {}
};

// A thread of the layer, joined when it goes.
class TestThread
{
public:
    TestThread(const char *name, std::function<void()> body)
        : m_body(std::move(body)), m_thread(OSA_ThreadCreate(name, 0, 0, run, this))
    {
    }
    ~TestThread()
    {
        // On a busy machine a thread may take so long that its deletion would speak.
        while (!kLayer.is_simulated && m_thread != nullptr && !m_done)
            OSA_ThreadSleep(1);
        OSA_ThreadDelete(m_thread, nullptr);
    }
    TestThread(const TestThread &) = delete;
    TestThread &operator=(const TestThread &) = delete;

private:
    static int32_t run(void *self)
    {
        static_cast<TestThread *>(self)->m_body();
        static_cast<TestThread *>(self)->m_done = true;
        return 0;
    }

    std::function<void()> m_body;
    std::atomic<bool> m_done{false};
    OSA_Thread *m_thread;
};

#endif
